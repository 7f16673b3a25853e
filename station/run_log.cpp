#include "run_log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "records.h"
#include "system.h"

namespace orbix::station {

namespace {

constexpr int most_tries = 1000;

/// "/dev/ttyUSB0" becomes "dev-ttyUSB0".
std::string as_file_name(const std::string& port) {
    std::string name = port;
    std::replace_if(
        name.begin(), name.end(),
        [](char letter) { return std::strchr("/\\:*?\"<>| ", letter) != nullptr; }, '-');
    name.erase(0, name.find_first_not_of("-."));
    return name.empty() ? "port" : name;
}

[[noreturn]] void cannot_write(const std::string& path) {
    throw std::runtime_error("cannot write the log " + path + ": " + std::strerror(errno));
}

}  // namespace

RunLog::RunLog(const std::string& folder, const std::string& port, int attempt) {
    const std::string start = folder + "/" + file_time() + "-" + as_file_name(port) + "-";
    const std::string end = std::to_string(attempt) + ".log";
    path_ = start + end;
    file_ = system::create_file(path_);
    for (int number = 2; file_ == nullptr && errno == EEXIST && number <= most_tries; ++number) {
        path_ = start;
        path_ += "again" + std::to_string(number) + "-" + end;
        file_ = system::create_file(path_);
    }
    if (file_ == nullptr) {
        cannot_write(path_);
    }
}

RunLog::~RunLog() {
    if (file_ != nullptr) {
        std::fclose(file_);
    }
}

RunLog::RunLog(RunLog&& other) noexcept
    : path_(std::move(other.path_)), file_(std::exchange(other.file_, nullptr)) {}

RunLog& RunLog::operator=(RunLog&& other) noexcept {
    std::swap(path_, other.path_);
    std::swap(file_, other.file_);
    return *this;
}

void RunLog::write(std::string_view bytes) {
    if (file_ != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
        std::fclose(std::exchange(file_, nullptr));
        cannot_write(path_);
    }
}

void RunLog::close() {
    if (file_ != nullptr && std::fclose(std::exchange(file_, nullptr)) != 0) {
        cannot_write(path_);
    }
}

}  // namespace orbix::station
