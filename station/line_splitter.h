// Bytes into lines, whatever the bytes are.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace orbix::station {

/// Takes bytes as they come and hands out lines without their line feed (a carriage return stays).
/// Of a longer line only its first `longest` bytes are kept.
class LineSplitter {
  public:
    static constexpr std::size_t longest = 4096;

    void take(std::string_view bytes, const std::function<void(std::string_view)>& on_line);

    /// What came behind the last line feed.
    [[nodiscard]] const std::string& unfinished() const { return pending_; }

  private:
    std::string pending_;
};

/// The text with everything replaced that is not printable UTF-8: fit for a terminal and a record.
std::string printable(std::string_view text);

}  // namespace orbix::station
