#include "core/firmware_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace orbix {

// Paths stay what the system handed over: std::filesystem would read them as UTF-8 on Windows.
namespace {

/// Why what stands there cannot be an image, as an errno, or 0. Devices and pipes have no length,
/// and some of them no end.
int reason_against(const char* path) {
    struct stat about {};
    if (stat(path, &about) != 0 || S_ISREG(about.st_mode)) {
        return 0;
    }
    return S_ISDIR(about.st_mode) ? EISDIR : ESPIPE;
}

}  // namespace

FirmwareFile::FirmwareFile(const char* path) {
    if (const int reason = reason_against(path); reason != 0) {
        errno = reason;
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
    return access(path, F_OK) == 0;
}

}  // namespace orbix
