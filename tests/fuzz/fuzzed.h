// What the fuzz targets share: taking values from an input, and a place to run in.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace orbix::fuzz {

/// An input, taken from the front; zeros behind its end.
class Input {
  public:
    explicit Input(std::span<const std::uint8_t> data) : data_(data) {}

    std::uint8_t byte() {
        if (data_.empty()) {
            return 0;
        }
        const std::uint8_t first = data_.front();
        data_ = data_.subspan(1);
        return first;
    }

    std::vector<std::uint8_t> bytes(std::size_t count) {
        const std::size_t present = count < data_.size() ? count : data_.size();
        std::vector<std::uint8_t> result(data_.begin(),
                                         data_.begin() + static_cast<std::ptrdiff_t>(present));
        result.resize(count);
        data_ = data_.subspan(present);
        return result;
    }

    std::vector<std::uint8_t> rest() { return bytes(data_.size()); }

  private:
    std::span<const std::uint8_t> data_;
};

inline void require(bool held, const char* what) {
    if (!held) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

/// A working folder for this process alone, entered once and left behind empty at its end. What the
/// tool tells people on standard error is of no use here, but the sanitizers' reports are: they
/// go where standard error went before.
inline void prepare() {
    struct Place {
        Place() : folder("/dev/shm/orbix-fuzz-" + std::to_string(getpid())) {
            std::filesystem::create_directories(folder);
            std::filesystem::current_path(folder);
        }
        ~Place() {
            std::error_code ignored;
            std::filesystem::current_path("/", ignored);
            std::filesystem::remove_all(folder, ignored);
        }
        std::string folder;
    };
    static const Place place;
}

}  // namespace orbix::fuzz
