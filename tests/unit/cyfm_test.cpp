// Firmware packages: reading, inflating, checking, and every way in which one can be wrong.
#include "families/cyfm.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "core/kv_log.h"
#include "cyfm_package.h"
#include "families/gzip.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

using hd8xx0::UpdateMode;

constexpr std::size_t capacity = hd8xx0::largest_content;

/// An unpack, with what it printed.
struct Unpacked {
    int result;
    Bytes image;
    std::string log;
};

Unpacked unpack(const char* path, UpdateMode mode = UpdateMode::user) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    set_log_stream(stream);
    std::span<const std::uint8_t> image;
    const int result = hd8xx0::uzip_cyfm(path, image, mode);
    set_log_stream(nullptr);
    std::fclose(stream);
    Unpacked unpacked{result, {image.begin(), image.end()}, {text, size}};
    std::free(text);
    return unpacked;
}

class Cyfm : public ::testing::Test {
  protected:
    Unpacked unpack_bytes(std::span<const std::uint8_t> package,
                          UpdateMode mode = UpdateMode::user) {
        return unpack(folder_.write("package.cyfm", package).c_str(), mode);
    }

    void expect_digest_failure(const Unpacked& unpacked) {
        EXPECT_EQ(unpacked.result, -1);
        EXPECT_TRUE(unpacked.image.empty());
        EXPECT_NE(unpacked.log.find("[ERROR] [uzip_cyfm 304]md5 check is incorrect\n"),
                  std::string::npos)
            << unpacked.log;
        EXPECT_EQ(unpacked.log.find("unzip ok"), std::string::npos);
    }

    const TempDir folder_;
};

TEST_F(Cyfm, ImageComesOutAsItWentIn) {
    for (const std::size_t size : {0U, 1U, 1023U, 1024U, 1025U, 300'000U}) {
        const Bytes image = random_image(size);
        const Unpacked unpacked = unpack_bytes(sim::make_cyfm(image));
        EXPECT_EQ(unpacked.result, 0);
        EXPECT_EQ(unpacked.image, image);
        EXPECT_NE(unpacked.log.find("[INFO] unzip ok, length:" + std::to_string(size) +
                                    ", md5 check ok\n"),
                  std::string::npos);
    }
}

TEST_F(Cyfm, FileNameAndSizeAreLogged) {
    const Bytes package = sim::make_cyfm(random_image(10));
    const std::string path = folder_.write("fw.cyfm", package);
    EXPECT_NE(unpack(path.c_str())
                  .log.find("[INFO] firmware name <" + path + ">, file size <" +
                            std::to_string(package.size()) + ">\n"),
              std::string::npos);
}

TEST_F(Cyfm, HeaderOfAnyLengthIsSteppedOver) {
    const Bytes image = random_image(500);
    for (const std::uint16_t length :
         std::initializer_list<std::uint16_t>{0, 1, 255, 256, 0x0102, 65535}) {
        EXPECT_EQ(unpack_bytes(sim::make_cyfm(image, length)).image, image) << length;
    }
}

TEST_F(Cyfm, HeaderThatEndsBehindThePackageFailsTheDigestCheck) {
    Bytes package = sim::make_cyfm(random_image(500));
    package[2] = 0xFF;
    package[3] = 0xFF;
    expect_digest_failure(unpack_bytes(package));
    const auto exactly = static_cast<std::uint16_t>(package.size() - 4);
    package[2] = static_cast<std::uint8_t>(exactly / 256);
    package[3] = static_cast<std::uint8_t>(exactly % 256);
    expect_digest_failure(unpack_bytes(package));
}

TEST_F(Cyfm, HeaderOneByteOffFailsTheDigestCheck) {
    Bytes package = sim::make_cyfm(random_image(500));
    ++package[3];
    expect_digest_failure(unpack_bytes(package));
}

TEST_F(Cyfm, TruncatedPackageIsRefusedWhereverItEnds) {
    const Bytes package = sim::make_cyfm(random_image(300));
    // The last 8 bytes are gzip's own check, which is not needed: the digest decides.
    for (std::size_t size = 0; size + 9 < package.size(); size += size < 60 ? 3 : 41) {
        expect_digest_failure(unpack_bytes(std::span(package).first(size)));
    }
}

TEST_F(Cyfm, MissingTrailerOfTheStreamIsNoHarm) {
    const Bytes image = random_image(300);
    const Bytes package = sim::make_cyfm(image);
    EXPECT_EQ(unpack_bytes(std::span(package).first(package.size() - 8)).image, image);
}

TEST_F(Cyfm, DamagedStreamIsRefusedWhereverTheDamageIs) {
    const Bytes package = sim::make_cyfm(random_image(300));
    constexpr std::size_t begin = 36;
    // The first byte behind gzip's head is left alone: it has padding bits, which carry nothing.
    for (std::size_t at = begin + 11; at + 8 < package.size(); at += 149) {
        Bytes damaged = package;
        damaged[at] = static_cast<std::uint8_t>(damaged[at] ^ 0x10U);
        expect_digest_failure(unpack_bytes(damaged));
    }
    Bytes no_gzip = package;
    no_gzip[begin] = 0x00;
    expect_digest_failure(unpack_bytes(no_gzip));
}

TEST_F(Cyfm, WrongDigestIsRefusedInEachOfItsBytes) {
    for (std::size_t at = 0; at < 16; ++at) {
        Bytes content = sim::with_digest(random_image(100));
        content[at] ^= 1;
        expect_digest_failure(unpack_bytes(sim::with_cyfm_header(sim::gzip(content))));
    }
}

TEST_F(Cyfm, ContentOfExactlyTheDigestIsAnEmptyImage) {
    const Unpacked unpacked = unpack_bytes(sim::make_cyfm({}));
    EXPECT_EQ(unpacked.result, 0);
    EXPECT_NE(unpacked.log.find("unzip ok, length:0, md5 check ok\n"), std::string::npos);
}

TEST_F(Cyfm, ContentShorterThanADigestIsRefused) {
    for (std::size_t size = 0; size < 16; ++size) {
        expect_digest_failure(unpack_bytes(sim::with_cyfm_header(sim::gzip(random_image(size)))));
    }
}

TEST_F(Cyfm, AllUserLeavesOutTheFirst64KiB) {
    const Bytes image = random_image(2000);
    const Bytes package = sim::make_master_cyfm(image);
    const Unpacked both = unpack_bytes(package, UpdateMode::all_user);
    EXPECT_EQ(both.image, image);
    EXPECT_NE(both.log.find("unzip ok, length:2000, md5 check ok\n"), std::string::npos);
    for (const auto mode :
         {UpdateMode::boot, UpdateMode::user, UpdateMode::master_user, UpdateMode::slave_user}) {
        EXPECT_EQ(unpack_bytes(package, mode).image.size(), 65'536U + 2000U);
    }
}

TEST_F(Cyfm, AllUserRefusesWhatIsShorterThanThePartLeftOut) {
    const Unpacked exact = unpack_bytes(sim::make_cyfm(Bytes(65'536)), UpdateMode::all_user);
    EXPECT_EQ(exact.result, 0);
    EXPECT_TRUE(exact.image.empty());
    expect_digest_failure(unpack_bytes(sim::make_cyfm(Bytes(65'535)), UpdateMode::all_user));
    expect_digest_failure(unpack_bytes(sim::make_cyfm({}), UpdateMode::all_user));
}

TEST_F(Cyfm, ContentOfExactlyOneMebibyteIsTaken) {
    const Unpacked unpacked = unpack_bytes(sim::make_cyfm(Bytes(capacity - 16, 0x5A)));
    EXPECT_EQ(unpacked.result, 0);
    EXPECT_EQ(unpacked.image, Bytes(capacity - 16, 0x5A));
}

TEST_F(Cyfm, ContentOfMoreThanOneMebibyteIsRefusedEvenWhenTheDigestFitsItsBeginning) {
    Bytes content = sim::with_digest(Bytes(capacity - 16, 0x5A));
    content.push_back(0x00);
    expect_digest_failure(unpack_bytes(sim::with_cyfm_header(sim::gzip(content))));
    expect_digest_failure(unpack_bytes(sim::make_cyfm(Bytes(capacity + 1))));
}

TEST_F(Cyfm, PackageOfMoreThan512000BytesIsIncorrect) {
    const Bytes image = random_image(1000);
    Bytes package = sim::make_cyfm(image);
    package.resize(512'000);
    EXPECT_EQ(unpack_bytes(package).image, image) << "what follows the stream does not matter";
    package.push_back(0);
    const Unpacked unpacked = unpack_bytes(package);
    EXPECT_EQ(unpacked.result, -1);
    EXPECT_NE(unpacked.log.find("[ERROR] [uzip_cyfm 289]cyfm file is incorrect\n"),
              std::string::npos);
    EXPECT_NE(unpacked.log.find("file size <512001>\n"), std::string::npos);
}

TEST_F(Cyfm, FileOfGigabytesIsIncorrect) {
    const std::string path = folder_.write("huge", Bytes{});
    std::filesystem::resize_file(path, 3'000'000'000);  // a sparse one
    const Unpacked unpacked = unpack(path.c_str());
    EXPECT_EQ(unpacked.result, -1);
    EXPECT_NE(unpacked.log.find("[ERROR] [uzip_cyfm 289]cyfm file is incorrect\n"),
              std::string::npos);
}

TEST_F(Cyfm, UnreadableFileGoesOnToTheDigestCheckWithNothing) {
    unpack_bytes(sim::make_cyfm(random_image(1000)));  // must not be seen again
    expect_digest_failure(unpack(folder_.path("absent").c_str()));
    expect_digest_failure(unpack(folder_.path().c_str()));
}

TEST_F(Cyfm, MissingPathIsIncorrect) {
    const Unpacked unpacked = unpack(nullptr);
    EXPECT_EQ(unpacked.result, -1);
    const std::size_t first =
        unpacked.log.find("[ERROR] [judge_cyfm_fw 229]Para maybe wrong, FAIL\n");
    const std::size_t second = unpacked.log.find("[ERROR] [uzip_cyfm 289]cyfm file is incorrect\n");
    EXPECT_LT(first, second);
    EXPECT_NE(second, std::string::npos);
}

TEST(CyfmFile, JudgeTellsAbsentArgumentsFromUnreadableFiles) {
    const TempDir folder;
    Bytes buffer(100);
    std::uint32_t size = 77;
    set_log_stream(std::fopen("/dev/null", "w"));
    EXPECT_EQ(hd8xx0::judge_cyfm_fw(nullptr, buffer, size), -1);
    EXPECT_EQ(hd8xx0::judge_cyfm_fw("x", {}, size), -1);
    EXPECT_EQ(hd8xx0::judge_cyfm_fw(folder.path("absent").c_str(), buffer, size), 1);
    EXPECT_EQ(hd8xx0::judge_cyfm_fw(folder.path().c_str(), buffer, size), 1);
    EXPECT_EQ(size, 0U);
    const Bytes content = random_image(100);
    EXPECT_EQ(hd8xx0::judge_cyfm_fw(folder.write("a", content).c_str(), buffer, size), 0);
    EXPECT_EQ(size, 100U);
    EXPECT_EQ(buffer, content);
    std::fclose(log_stream());
    set_log_stream(nullptr);
}

TEST(CyfmGzip, WrappersOtherThanGzipAreRefusedAndTheLengthStays) {
    const Bytes zlib_wrapped = hex("78 9C 4B 04 00 00 62 00 62");  // "a"
    const Bytes raw_deflate = hex("4B 04 00");
    for (const Bytes& stream : {zlib_wrapped, raw_deflate}) {
        Bytes out(100);
        std::uint32_t length = 100;
        EXPECT_EQ(hd8xx0::gzDecompress(stream, out, length), -1);
        EXPECT_EQ(length, 100U);
    }
}

TEST(CyfmGzip, EmptyInputUnpacksToNothing) {
    Bytes out(100);
    std::uint32_t length = 100;
    EXPECT_EQ(hd8xx0::gzDecompress({}, out, length), 0);
    EXPECT_EQ(length, 0U);
}

TEST(CyfmGzip, StreamThatStopsEarlyIsUnpackedAsFarAsItGoes) {
    const Bytes content = random_image(1000);
    const Bytes stream = sim::gzip(content);
    Bytes out(2000);
    std::uint32_t length = 2000;
    EXPECT_EQ(hd8xx0::gzDecompress(std::span(stream).first(stream.size() / 2), out, length), 0);
    EXPECT_GT(length, 100U);
    EXPECT_LT(length, 1000U);
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + length, content.begin()));
}

TEST(CyfmGzip, FullBufferIsRightOnlyWhenTheStreamEndsThere) {
    const Bytes content = random_image(1000);
    const Bytes stream = sim::gzip(content);
    Bytes out(1000);
    std::uint32_t length = 1000;
    EXPECT_EQ(hd8xx0::gzDecompress(stream, out, length), 0);
    EXPECT_EQ(out, content);
    out.resize(999);
    EXPECT_EQ(hd8xx0::gzDecompress(stream, out, length), -1);
    EXPECT_EQ(length, 0U);
    out.assign(1000, 0);
    length = 10;
    EXPECT_EQ(hd8xx0::gzDecompress(stream, out, length), -1) << "the length given is the capacity";
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 10, content.begin()));
    EXPECT_EQ(std::count(out.begin() + 10, out.end(), 0), 990);
}

}  // namespace
}  // namespace orbix::test
