#include "core/firmware_file.h"

#include <cerrno>
#include <climits>
#include <filesystem>
#include <system_error>

namespace orbix {

FirmwareFile::FirmwareFile(const char* path) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        errno = EISDIR;
        return;
    }
    file_.reset(std::fopen(path, "rb"));
    if (!is_open()) {
        return;
    }
    const bool at_end = std::fseek(file_.get(), 0, SEEK_END) == 0;
    const long length = at_end ? std::ftell(file_.get()) : -1;
    if (length < 0 || length > INT_MAX) {
        file_.reset();
        errno = length < 0 ? ESPIPE : EFBIG;
        return;
    }
    size_ = static_cast<int>(length);
    rewind();
}

std::size_t FirmwareFile::read(std::span<std::uint8_t> buffer) {
    return std::fread(buffer.data(), 1, buffer.size(), file_.get());
}

bool FirmwareFile::failed() const {
    return std::ferror(file_.get()) != 0;
}

void FirmwareFile::rewind() {
    std::rewind(file_.get());
}

bool path_exists(const char* path) {
    std::error_code ignored;
    return std::filesystem::exists(path, ignored);
}

}  // namespace orbix
