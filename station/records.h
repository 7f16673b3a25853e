// Records for machines: one JSON object a line, flushed as it is written.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "board.h"
#include "flash_arguments.h"

namespace orbix::station {

/// What is known of a run beside its row.
struct RunFacts {
    std::vector<HashedFile> firmware;
    std::string hint;         ///< of orbix_flash, for a person
    std::string log_file;     ///< or empty
    std::uint64_t bytes = 0;  ///< written into the module's flash, or read from it
    bool has_code = false;    ///< there was a FAIL line, or SUCCESS
};

/// Writes the records. Without a file it does nothing. What cannot be written is not lost
/// silently: the first failure throws std::runtime_error with one clear line, later calls do
/// nothing.
class Records {
  public:
    /// Opens a file, whose old content is kept, or standard output ("-"), or nothing ("").
    explicit Records(const std::string& path);
    ~Records();
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    void start(const Row& row, const RunFacts& facts, const std::vector<std::string>& command);
    void phase(const Row& row);
    void progress(const Row& row);
    void waiting(const Row& row);
    void attempt_failed(const Row& row, const RunFacts& facts);
    void result(const Row& row, const RunFacts& facts);
    void summary(const Counters& counters, double seconds, Cause worst);

  private:
    void write(const std::string& line);

    std::string path_;
    std::FILE* file_ = nullptr;
    bool failed_ = false;
};

/// The time of day as it stands in records, "2026-11-20T09:08:07.123Z", and in names of files,
/// "20261120T090807".
std::string record_time();
std::string file_time();

}  // namespace orbix::station
