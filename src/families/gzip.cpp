#include "families/gzip.h"

#define ZLIB_CONST
#include <zlib.h>

#include <algorithm>
#include <array>

namespace orbix::hd8xx0 {

namespace {

/// 15 bits of window, and 16 for "gzip wrapper only".
constexpr int gzip_window_bits = 15 + 16;

/// A zlib stream that is given back at the latest when it goes out of scope.
class Inflater {
  public:
    Inflater()
        : begun_(inflateInit2_(&stream_, gzip_window_bits, "1.3.1", sizeof stream_) == Z_OK) {}
    ~Inflater() { end(); }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    [[nodiscard]] bool begun() const { return begun_; }

    /// Inflates with at most `input` and one byte of room. Returns zlib's result.
    int inflate_one(std::span<const std::uint8_t> input, std::uint8_t* room) {
        stream_.next_in = input.data();
        stream_.avail_in = static_cast<uInt>(input.size());
        stream_.next_out = room;
        stream_.avail_out = 1;
        return inflate(&stream_, Z_NO_FLUSH);
    }

    [[nodiscard]] std::size_t total_in() const { return stream_.total_in; }
    [[nodiscard]] std::size_t total_out() const { return stream_.total_out; }

    /// Returns whether the stream was there to be ended.
    bool end() {
        const bool ended = begun_ && inflateEnd(&stream_) == Z_OK;
        begun_ = false;
        return ended;
    }

  private:
    z_stream stream_{};
    bool begun_;
};

/// One step of the stream at its present position. A data error gets a second chance behind the
/// head of a plain zlib stream.
int step(Inflater& inflater, std::span<const std::uint8_t> src, std::uint8_t* room) {
    constexpr std::array<std::uint8_t, 2> dummy_head{0x78, 0x01};
    const int result = inflater.inflate_one(src.subspan(inflater.total_in(), 1), room);
    return result == Z_DATA_ERROR ? inflater.inflate_one(dummy_head, room) : result;
}

/// Whether a stream that has filled its buffer would go on.
bool has_more(Inflater& inflater, std::span<const std::uint8_t> src) {
    const std::size_t before = inflater.total_out();
    int result = Z_OK;
    while (result == Z_OK && inflater.total_in() < src.size()) {
        std::uint8_t beyond = 0;
        result = step(inflater, src, &beyond);
        if (inflater.total_out() > before) {
            return true;
        }
    }
    return false;
}

}  // namespace

int gzDecompress(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst,
                 std::uint32_t& dstLen) {
    const auto room = dst.first(std::min<std::size_t>(dstLen, dst.size()));
    Inflater inflater;
    if (!inflater.begun()) {
        return -1;
    }
    int result = Z_OK;
    while (result != Z_STREAM_END && inflater.total_out() < room.size() &&
           inflater.total_in() < src.size()) {
        result = step(inflater, src, &room[inflater.total_out()]);
        if (result != Z_OK && result != Z_STREAM_END) {
            return -1;
        }
    }
    const auto produced = static_cast<std::uint32_t>(inflater.total_out());
    if (result != Z_STREAM_END && produced == room.size() && has_more(inflater, src)) {
        dstLen = 0;
        return -1;
    }
    if (!inflater.end()) {
        return -1;
    }
    dstLen = produced;
    return 0;
}

}  // namespace orbix::hd8xx0
