// A file that is written piece by piece, each piece reaching the disk before the next one comes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

namespace orbix {

/// A new file, in place of an old one of that name; closed when it goes out of scope.
class OutputFile {
  public:
    explicit OutputFile(const char* path);

    /// `errno` holds the reason when it is not.
    [[nodiscard]] bool is_open() const { return file_ != nullptr; }

    /// Adds bytes at the end. False, with the reason on standard error, when not all of them could
    /// be written.
    bool append(std::span<const std::uint8_t> bytes);

  private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::string path_;
    std::unique_ptr<std::FILE, Close> file_;
};

}  // namespace orbix
