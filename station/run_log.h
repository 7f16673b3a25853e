// The full output of one run, kept in a file of its own.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace orbix::station {

class RunLog {
  public:
    RunLog() = default;

    /// Makes a new file FOLDER/TIME-PORT-ATTEMPT.log; a number comes behind the port when another
    /// station has the same name at the same second. Throws std::runtime_error with one clear
    /// line.
    RunLog(const std::string& folder, const std::string& port, int attempt);
    ~RunLog();
    RunLog(RunLog&& other) noexcept;
    RunLog& operator=(RunLog&& other) noexcept;
    RunLog(const RunLog&) = delete;
    RunLog& operator=(const RunLog&) = delete;

    /// Empty without a log.
    [[nodiscard]] const std::string& path() const { return path_; }

    /// Throws std::runtime_error with one clear line.
    void write(std::string_view bytes);

    /// The same: what is still in memory may not fit.
    void close();

  private:
    std::string path_;
    std::FILE* file_ = nullptr;
};

}  // namespace orbix::station
