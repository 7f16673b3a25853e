// Arbitrary bytes as an HD8xx0 firmware package. Whatever a package holds, unpacking it stays
// inside its buffers, and an image that comes out has passed the digest check.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/kv_log.h"
#include "families/cyfm.h"
#include "families/md5.h"

namespace {

using orbix::hd8xx0::UpdateMode;

/// A file in memory, with a path.
class MemoryFile {
  public:
    MemoryFile() : descriptor_(memfd_create("package", MFD_CLOEXEC)) {}
    ~MemoryFile() { close(descriptor_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    [[nodiscard]] bool hold(const std::uint8_t* data, std::size_t size) const {
        return ftruncate(descriptor_, 0) == 0 &&
               pwrite(descriptor_, data, size, 0) == static_cast<ssize_t>(size);
    }
    [[nodiscard]] std::string path() const {
        return "/proc/self/fd/" + std::to_string(descriptor_);
    }

  private:
    int descriptor_;
};

void check_image(std::span<const std::uint8_t> image, UpdateMode mode) {
    constexpr std::size_t left_out = 65'536;
    const std::size_t in_front = mode == UpdateMode::all_user ? left_out : 0;
    // The digest and what is left out stand in front of the image, in the same buffer.
    const std::uint8_t* const content = image.data() - in_front;
    std::array<std::uint8_t, 16> digest{};
    orbix::hd8xx0::ComputeHash({content, image.size() + in_front}, digest);
    if (!std::equal(digest.begin(), digest.end(), content - digest.size())) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::FILE* const nowhere = std::fopen("/dev/null", "w");
    static const MemoryFile file;
    orbix::set_log_stream(nowhere);
    if (!file.hold(data, size)) {
        std::abort();
    }
    // A failed unpack has the digest of the whole buffer taken: one mode at a time is enough.
    const UpdateMode mode = size % 2 == 0 ? UpdateMode::user : UpdateMode::all_user;
    std::span<const std::uint8_t> image;
    if (orbix::hd8xx0::uzip_cyfm(file.path().c_str(), image, mode) == 0) {
        check_image(image, mode);
    }
    return 0;
}
