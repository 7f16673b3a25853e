#include "families/cyfm.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "families/gzip.h"
#include "families/md5.h"

namespace orbix::hd8xx0 {

namespace {

/// What the master's package of a dual-processor run holds in front of the image to be sent.
constexpr std::size_t left_out_in_all_user = 65'536;

std::array<std::uint8_t, largest_package> file_data_cyfm;
std::array<std::uint8_t, largest_content> file_data_unzip;

/// The gzip stream of a package; empty when the header ends behind the package.
std::span<const std::uint8_t> gzip_stream(std::span<const std::uint8_t> package) {
    const std::size_t header = std::size_t{get_be16(std::span(file_data_cyfm).subspan(2))} + 4;
    return header < package.size() ? package.subspan(header) : std::span<const std::uint8_t>{};
}

/// Where the image begins in the unpacked content.
std::size_t image_offset(UpdateMode mode) {
    return mode == UpdateMode::all_user ? md5_digest_size + left_out_in_all_user : md5_digest_size;
}

bool digest_matches(std::span<const std::uint8_t> content) {
    std::array<std::uint8_t, md5_digest_size> digest{};
    ComputeHash(content.subspan(md5_digest_size), digest);
    return std::equal(digest.begin(), digest.end(), content.begin());
}

}  // namespace

int judge_cyfm_fw(const char* path, std::span<std::uint8_t> buffer, std::uint32_t& size) {
    size = 0;
    if (path == nullptr || buffer.data() == nullptr) {
        log_error("[%s %d]Para maybe wrong, FAIL\n", "judge_cyfm_fw", 229);
        return -1;
    }
    FirmwareFile file(path);
    if (!file.is_open()) {
        const bool too_large = errno == EFBIG;
        std::perror(errno == ESPIPE ? "fseek" : "fopen");
        return too_large ? -1 : 1;
    }
    const auto length = static_cast<std::size_t>(file.size());
    log_info("firmware name <%s>, file size <%d>\n", path, file.size());
    if (length > buffer.size()) {
        hints::give("a firmware package has at most %u bytes\n",
                    static_cast<unsigned>(buffer.size()));
        return -1;
    }
    size = static_cast<std::uint32_t>(file.read(buffer.first(length)));
    return 0;
}

int uzip_cyfm(const char* path, std::span<const std::uint8_t>& image, UpdateMode mode) {
    file_data_unzip.fill(0);
    std::uint32_t size = 0;
    if (judge_cyfm_fw(path, file_data_cyfm, size) == -1) {
        log_error("[%s %d]cyfm file is incorrect\n", "uzip_cyfm", 289);
        return -1;
    }
    // Neither a file that could not be read nor a stream that does not inflate is looked at here:
    // whatever came of them has to pass the digest check.
    std::uint32_t length = largest_content;
    gzDecompress(gzip_stream(std::span(file_data_cyfm).first(size)), file_data_unzip, length);

    const auto content = std::span<const std::uint8_t>(file_data_unzip).first(length);
    const std::size_t offset = image_offset(mode);
    if (content.size() < offset || !digest_matches(content)) {
        log_error("[%s %d]md5 check is incorrect\n", "uzip_cyfm", 304);
        return -1;
    }
    image = content.subspan(offset);
    log_info("unzip ok, length:%d, md5 check ok\n", static_cast<int>(image.size()));
    return 0;
}

}  // namespace orbix::hd8xx0
