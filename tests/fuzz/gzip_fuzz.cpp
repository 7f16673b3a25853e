// Arbitrary bytes as the gzip stream of a package, unpacked into a buffer that is soon full.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "families/gzip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Packages serve as seeds: their stream begins behind a header of 32 bytes.
    constexpr std::size_t header = 36;
    if (size < header) {
        return 0;
    }
    const std::size_t capacity = data[4] * std::size_t{8};
    std::vector<std::uint8_t> out(capacity + 1);
    auto length = static_cast<std::uint32_t>(capacity);
    const int result = orbix::hd8xx0::gzDecompress({data + header, size - header},
                                                   std::span(out).first(capacity), length);
    if (length > capacity || out.back() != 0 || (result != 0 && result != -1)) {
        std::abort();
    }
    return 0;
}
