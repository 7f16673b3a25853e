#include "core/output_file.h"

#include <cerrno>
#include <cstring>

namespace orbix {

OutputFile::OutputFile(const char* path) : path_(path), file_(std::fopen(path, "wb")) {
    if (is_open()) {
        // Unbuffered: a full disk shows at the piece that did not fit, and a run that fails later
        // leaves behind all that it had.
        std::setvbuf(file_.get(), nullptr, _IONBF, 0);
    }
}

bool OutputFile::append(std::span<const std::uint8_t> bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) == bytes.size()) {
        return true;
    }
    std::fprintf(stderr, "%s: the file could not be written: %s\n", path_.c_str(),
                 std::strerror(errno));
    return false;
}

}  // namespace orbix
