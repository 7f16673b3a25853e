// The upgrade frames: encoders byte for byte, the receiver state by state, the decoders check by
// check, the image CRC.
#include <gtest/gtest.h>

#include <algorithm>

#include "checksums.h"
#include "unit/bench.h"
#include "upgrade/kv_upgrade_protocol.h"

namespace orbix::test {
namespace {

using sim::module_crc32;
using namespace orbix::upgrade;
using Lines = std::vector<std::string>;

/// Head, the given bytes, their CRC as the modules compute it, and the tail.
Bytes sealed(const Bytes& body) {
    Bytes frame{0xAA};
    frame.insert(frame.end(), body.begin(), body.end());
    const std::uint32_t crc = module_crc32(body);
    for (int shift = 24; shift >= 0; shift -= 8) {
        frame.push_back(static_cast<std::uint8_t>(crc >> shift));
    }
    frame.push_back(0x55);
    return frame;
}

Bytes sealed(const std::string& body) {
    return sealed(hex(body));
}

Bytes joined(Bytes bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

/// Runs an encoder over a buffer that shows what was not written.
template <typename Encoder>
Bytes encoded(Encoder encode, std::size_t capacity = 32) {
    Bytes buffer(capacity, 0xEE);
    const std::int32_t length = encode(std::span(buffer));
    EXPECT_TRUE(std::all_of(buffer.begin() + length, buffer.end(), [](std::uint8_t byte) {
        return byte == 0xEE;
    })) << "the encoder wrote behind its frame";
    buffer.resize(static_cast<std::size_t>(length));
    return buffer;
}

TEST(UpgradeProtocolCrc, TheModulesChecksumHasThePublishedCheckValue) {
    const std::string digits = "123456789";
    EXPECT_EQ(module_crc32(Bytes(digits.begin(), digits.end())), 0xCBF43926U);
}

// --- Encoders ---

TEST(UpgradeProtocolEncode, Erase) {
    const Bytes frame = encoded([](auto buffer) { return Kv_Upgrade_EncodeErase(2, buffer); });
    EXPECT_EQ(as_hex(frame), "AA 02 03 00 00 89 0B A9 CE 55");
}

TEST(UpgradeProtocolEncode, BootVersion) {
    const Bytes frame = encoded([](auto buffer) { return Kv_Upgrade_EncodeBootVer(2, buffer); });
    EXPECT_EQ(as_hex(frame), "AA 02 71 00 00 DE 7E 15 F0 55");
}

TEST(UpgradeProtocolEncode, Address) {
    const Bytes frame =
        encoded([](auto buffer) { return Kv_Upgrade_EncodeAddr(4, buffer, 0x12345678); });
    EXPECT_EQ(frame, sealed("04 01 00 04 12 34 56 78"));
    EXPECT_EQ(frame.size(), 14U);
}

TEST(UpgradeProtocolEncode, Information) {
    const FirmwareInfo info{.leading = 0xDEADBEEF,
                            .size = 0x00012345,
                            .crc = 0x89ABCDEF,
                            .load_address = 0x08009000,
                            .reserved = 0};
    const Bytes frame =
        encoded([&info](auto buffer) { return Kv_Upgrade_EncodeInfo(2, buffer, info); });
    EXPECT_EQ(frame, sealed("02 02 00 10 00 01 23 45 89 AB CD EF 08 00 90 00 00 00 00 00"));
    EXPECT_EQ(frame.size(), 26U);
}

TEST(UpgradeProtocolEncode, Reboot) {
    const Bytes frame =
        encoded([](auto buffer) { return Kv_Upgrade_EncodeReboot(2, buffer, 2, 0); });
    EXPECT_EQ(frame, sealed("02 31 00 02 02 00"));
    EXPECT_EQ(frame.size(), 12U);
    const Bytes other =
        encoded([](auto buffer) { return Kv_Upgrade_EncodeReboot(3, buffer, 0x7E, 0x81); });
    EXPECT_EQ(other, sealed("03 31 00 02 7E 81"));
}

TEST(UpgradeProtocolEncode, FormatAndRead) {
    const Bytes format = encoded(
        [](auto buffer) { return Kv_Upgrade_EncodeFormat(2, buffer, 0x08009000, 0x00100000); });
    EXPECT_EQ(format, sealed("02 21 00 08 08 00 90 00 00 10 00 00"));
    EXPECT_EQ(format.size(), 18U);
    const Bytes read = encoded(
        [](auto buffer) { return Kv_Upgrade_EncodeRead(2, buffer, 0x08009000, 0x00100000); });
    EXPECT_EQ(read, sealed("02 11 00 08 08 00 90 00 00 10 00 00"));
    EXPECT_EQ(read.size(), 18U);
}

TEST(UpgradeProtocolEncode, Firmware) {
    for (const std::size_t size : {0U, 1U, 252U, 4096U, 65531U}) {
        const Bytes data = random_image(size);
        const Bytes frame = encoded(
            [&data](auto buffer) { return Kv_Upgrade_EncodeFW(2, buffer, data, 0x01020304); },
            size + 32);
        Bytes body{0x02, 0x04, static_cast<std::uint8_t>((size + 4) >> 8),
                   static_cast<std::uint8_t>(size + 4)};
        body = joined(joined(body, hex("01 02 03 04")), data);
        EXPECT_EQ(frame, sealed(body)) << size;
        EXPECT_EQ(frame.size(), size + 14) << size;
    }
}

TEST(UpgradeProtocolEncode, ABlockOf4096BytesIs4110BytesLong) {
    const Bytes data = random_image(4096);
    const Bytes frame =
        encoded([&data](auto buffer) { return Kv_Upgrade_EncodeFW(2, buffer, data, 0); }, 5000);
    EXPECT_EQ(frame.size(), 4110U);
    EXPECT_EQ(as_hex(std::span(frame).subspan(3, 2)), "10 04");
}

// --- Receiver ---

const Bytes acknowledgement = sealed("02 03 00 04 02 03 00 00");

/// What became of a reception.
struct Reception {
    int result;
    Bytes buffer;
    std::uint64_t elapsed_ms;
    Lines lines;
};

Reception receive(const TalkingModule::Script& script, std::size_t capacity = 64) {
    const LogText log;
    const Bench bench(script);
    Bytes buffer(capacity + 16, 0xEE);
    const int result = Kv_Upgrade_ReceiveFrame(bench.handle(), std::span(buffer).first(capacity));
    EXPECT_EQ(Bytes(buffer.end() - 16, buffer.end()), Bytes(16, 0xEE))
        << "stored behind the buffer";
    buffer.resize(capacity);
    return {result, buffer, bench.elapsed_ms(), log.lines()};
}

/// The reception had no end of its own: it ended with the first read, of 500 ms, that found the
/// device gone.
void expect_endless(const Reception& reception) {
    EXPECT_EQ(reception.result, 263);
    EXPECT_GE(reception.elapsed_ms, Bench::life_ms + 499);
    EXPECT_LE(reception.elapsed_ms, Bench::life_ms + 501);
    EXPECT_TRUE(reception.lines.empty());
}

void expect_received(const Reception& reception, const Bytes& frame) {
    EXPECT_EQ(reception.result, 0);
    ASSERT_GE(reception.buffer.size(), frame.size());
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), reception.buffer.begin()))
        << as_hex(reception.buffer);
    EXPECT_TRUE(std::all_of(reception.buffer.begin() + static_cast<std::ptrdiff_t>(frame.size()),
                            reception.buffer.end(),
                            [](std::uint8_t byte) { return byte == 0xEE; }));
    EXPECT_LT(reception.elapsed_ms, Bench::life_ms);
    EXPECT_TRUE(reception.lines.empty());
}

TEST(UpgradeProtocolReceive, AFrame) {
    const Reception reception = receive({{0, acknowledgement}});
    expect_received(reception, acknowledgement);
    EXPECT_LE(reception.elapsed_ms, 2U);
}

TEST(UpgradeProtocolReceive, FramesOfEveryLengthTheBufferHolds) {
    for (std::size_t length = 0; length <= 54; ++length) {
        const Bytes payload = random_image(length);
        const Bytes body =
            joined(Bytes{0x03, 0x71, 0x00, static_cast<std::uint8_t>(length)}, payload);
        expect_received(receive({{0, sealed(body)}}), sealed(body));
    }
}

TEST(UpgradeProtocolReceive, NoiseBeforeTheHeadIsSkipped) {
    expect_received(receive({{0, joined(hex("55 00 FF 24 47 50 0D 0A"), acknowledgement)}}),
                    acknowledgement);
}

TEST(UpgradeProtocolReceive, ASecondHeadInsideAFrameIsData) {
    const Bytes frame = sealed("AA AA 00 04 AA AA AA AA");
    expect_received(receive({{0, frame}}), frame);
}

TEST(UpgradeProtocolReceive, AHeadByteOfNoiseIsTakenForTheHead) {
    // AA AA 02 03 00 04 ...: the length reads 0x0300, the frame is never complete.
    expect_endless(receive({{0, joined(hex("AA"), acknowledgement)}}));
}

TEST(UpgradeProtocolReceive, BytesMayComeLate) {
    TalkingModule::Script script;
    for (std::size_t index = 0; index < acknowledgement.size(); ++index) {
        script.push_back({3000 * (index + 1), Bytes{acknowledgement[index]}});
    }
    const Reception reception = receive(script);
    expect_received(reception, acknowledgement);
    EXPECT_GE(reception.elapsed_ms, 3000 * acknowledgement.size());
}

TEST(UpgradeProtocolReceive, AWrongTailIs1026) {
    for (const std::uint8_t tail : Bytes{0x00, 0x54, 0xAA}) {
        Bytes frame = acknowledgement;
        frame.back() = tail;
        const Reception reception = receive({{0, frame}});
        EXPECT_EQ(reception.result, 1026);
        EXPECT_EQ(reception.buffer[frame.size() - 1], tail);
        EXPECT_LE(reception.elapsed_ms, 2U);
    }
}

TEST(UpgradeProtocolReceive, AWrongCrcIsNeverCompleted) {
    for (std::size_t damaged = 9; damaged < 13; ++damaged) {
        Bytes frame = acknowledgement;
        frame[damaged] ^= 0x80;
        expect_endless(receive({{0, frame}}));
    }
}

TEST(UpgradeProtocolReceive, AGoodFrameBehindADamagedOneIsNotSeen) {
    Bytes frame = acknowledgement;
    frame[6] ^= 0x01;
    expect_endless(receive({{0, frame}, {50, acknowledgement}, {100, acknowledgement}}));
}

TEST(UpgradeProtocolReceive, AFrameCutShortWaitsForItsRest) {
    for (std::size_t length = 1; length < acknowledgement.size(); ++length) {
        const auto rest = acknowledgement.begin() + static_cast<std::ptrdiff_t>(length);
        expect_endless(receive({{0, Bytes(acknowledgement.begin(), rest)}}));
    }
}

TEST(UpgradeProtocolReceive, SilenceLastsUntilTheDeviceIsGone) {
    expect_endless(receive({}));
}

TEST(UpgradeProtocolReceive, NothingIsStoredBehindTheBuffer) {
    // The announced length is far beyond the buffer; more bytes follow than it holds.
    expect_endless(receive({{0, joined(hex("AA 02 03 FF FF"), Bytes(300, 0x11))}}, 16));
}

TEST(UpgradeProtocolReceive, AFrameIsTakenWholeHoweverLittleTheBufferHolds) {
    for (std::size_t capacity = 1; capacity <= acknowledgement.size(); ++capacity) {
        const Reception reception = receive({{0, acknowledgement}}, capacity);
        EXPECT_EQ(reception.result, 0);
        EXPECT_TRUE(
            std::equal(reception.buffer.begin(), reception.buffer.end(), acknowledgement.begin()));
    }
}

/// A frame with a payload of that length.
Bytes long_frame(std::size_t length) {
    const Bytes head{0x02, 0x03, static_cast<std::uint8_t>(length >> 8),
                     static_cast<std::uint8_t>(length)};
    return sealed(joined(head, random_image(length)));
}

TEST(UpgradeProtocolReceive, FramesLongerThanTheBufferEndWithTheirTail) {
    for (const std::size_t length : {55U, 56U, 57U, 200U, 255U, 256U, 65'535U}) {
        const Bytes frame = long_frame(length);
        const Bench bench({{0, joined(frame, acknowledgement)}});
        ResponseBuffer buffer{};
        EXPECT_EQ(Kv_Upgrade_ReceiveFrame(bench.handle(), buffer), 0) << length;
        EXPECT_TRUE(std::equal(buffer.begin(), buffer.end(), frame.begin())) << length;
        EXPECT_EQ(Kv_Upgrade_ReceiveFrame(bench.handle(), buffer), 0) << length;
        EXPECT_TRUE(std::equal(acknowledgement.begin(), acknowledgement.end(), buffer.begin()))
            << length << ": the next frame begins right behind";
        EXPECT_EQ(receive({{0, frame}}).result, 0) << length;
    }
}

TEST(UpgradeProtocolReceive, LongFramesAreCheckedLikeShortOnes) {
    const Bytes frame = long_frame(200);
    Bytes tail = frame;
    tail.back() ^= 0x01;
    EXPECT_EQ(receive({{0, tail}}).result, 1026);
    for (const std::size_t damaged : {1U, 63U, 64U, 204U, 205U, 208U}) {
        Bytes bytes = frame;
        bytes[damaged] ^= 0x01;
        expect_endless(receive({{0, joined(bytes, acknowledgement)}}));
    }
}

TEST(UpgradeProtocolReceive, MissingBufferOrPort) {
    const Lines expected{"[ERROR] Kv_Upgrade_ReceiveFrame RecvBuf == NULL or UartFd is invalid\r"};
    {
        const LogText log;
        const Bench bench({{0, acknowledgement}});
        EXPECT_EQ(Kv_Upgrade_ReceiveFrame(bench.handle(), {}), 263);
        EXPECT_EQ(log.lines(), expected);
        EXPECT_EQ(bench.elapsed_ms(), 0U);
    }
    const LogText log;
    ResponseBuffer buffer{};
    EXPECT_EQ(Kv_Upgrade_ReceiveFrame(no_port, buffer), 263);
    EXPECT_EQ(log.lines(), expected);
}

TEST(UpgradeProtocolReceive, ItSendsNothing) {
    const Bench bench({{0, acknowledgement}});
    ResponseBuffer buffer{};
    EXPECT_EQ(Kv_Upgrade_ReceiveFrame(bench.handle(), buffer), 0);
    EXPECT_TRUE(bench.heard().empty());
}

// --- Decoders ---

/// A decoder's verdict on a frame, which stands at the start of a response buffer.
template <typename Decoder>
std::pair<int, Lines> decode(Decoder decoder, const Bytes& frame) {
    const LogText log;
    ResponseBuffer buffer{};
    std::copy(frame.begin(), frame.end(), buffer.begin());
    const int result = decoder(buffer);
    return {result, log.lines()};
}

std::pair<int, Lines> decode_message(const Bytes& frame) {
    return decode([](const ResponseBuffer& buffer) { return Kv_Upgrade_DecodeMsg(buffer); }, frame);
}

using Version = std::array<std::uint8_t, 3>;
std::pair<int, Lines> decode_version(const Bytes& frame, Version& version) {
    return decode(
        [&version](const ResponseBuffer& buffer) {
            return Kv_Upgrade_DecodeBootVer(buffer, version);
        },
        frame);
}

std::pair<int, Lines> decode_format(const Bytes& frame, std::uint8_t& result) {
    return decode(
        [&result](const ResponseBuffer& buffer) {
            return Kv_Upgrade_DecodeFormatMsg(buffer, std::span<std::uint8_t, 1>(&result, 1));
        },
        frame);
}

std::string crc_line(const Bytes& frame, std::uint32_t local) {
    const std::span<const std::uint8_t> crc = std::span(frame).last(5).first(4);
    std::uint32_t received = 0;
    for (const std::uint8_t byte : crc) {
        received = received << 8 | byte;
    }
    std::array<char, 80> line{};
    std::snprintf(line.data(), line.size(), "[ERROR] slave msg error recv is %x, local is %x\r",
                  received, local);
    return line.data();
}

Bytes with(Bytes frame, std::size_t offset, std::uint8_t value) {
    frame[offset] = value;
    return frame;
}

TEST(UpgradeProtocolDecode, AcknowledgementThatIsGood) {
    EXPECT_EQ(decode_message(acknowledgement), (std::pair<int, Lines>{0, {}}));
    EXPECT_EQ(decode_message(sealed("99 98 00 04 97 96 00 00")), (std::pair<int, Lines>{0, {}}))
        << "address, command and the first two bytes of the payload are not looked at";
}

TEST(UpgradeProtocolDecode, AcknowledgementCheckByCheck) {
    // Each frame has every later fault too: only the first is told.
    const Bytes all_wrong = with(with(sealed("02 03 00 05 02 03 12 34 00"), 0, 0xAB), 13, 0x66);
    EXPECT_EQ(decode_message(all_wrong),
              (std::pair<int, Lines>{1, {"[ERROR] slave msg Head error ab\r"}}));
    EXPECT_EQ(decode_message(with(all_wrong, 0, 0xAA)),
              (std::pair<int, Lines>{1, {"[ERROR] slave msg length: 5\r"}}));
    const Bytes state = with(with(sealed("02 03 00 04 02 03 12 34"), 12, 0x77), 13, 0x66);
    EXPECT_EQ(decode_message(state),
              (std::pair<int, Lines>{0x1234, {"[ERROR] slave msg slave state is 1234\r"}}));
    const Bytes crc = with(with(acknowledgement, 9, 0x01), 13, 0x66);
    const std::uint32_t local = module_crc32(std::span(acknowledgement).subspan(1, 8));
    EXPECT_EQ(decode_message(crc), (std::pair<int, Lines>{2, {crc_line(crc, local)}}));
    EXPECT_EQ(decode_message(with(acknowledgement, 13, 0x66)),
              (std::pair<int, Lines>{1, {"[ERROR] slave msg Tail error 66\r"}}));
}

TEST(UpgradeProtocolDecode, SlaveStateIsPassedUpWhateverTheCrc) {
    EXPECT_EQ(decode_message(hex("AA 02 03 00 04 02 03 00 05 00 00 00 00 55")).first, 5);
    EXPECT_EQ(decode_message(sealed("02 03 00 04 02 03 FF FF")).first, 0xFFFF);
}

TEST(UpgradeProtocolDecode, LengthsOfTheAcknowledgement) {
    EXPECT_EQ(decode_message(sealed("02 03 00 00")),
              (std::pair<int, Lines>{1, {"[ERROR] slave msg length: 0\r"}}));
    EXPECT_EQ(decode_message(hex("AA 02 03 FF FF 00")),
              (std::pair<int, Lines>{1, {"[ERROR] slave msg length: 65535\r"}}));
}

const Bytes version_answer = sealed("02 71 00 07 02 71 00 00 01 0A C8");

TEST(UpgradeProtocolDecode, BootVersion) {
    Version version{};
    EXPECT_EQ(decode_version(version_answer, version), (std::pair<int, Lines>{0, {}}));
    EXPECT_EQ(version, (Version{1, 10, 200}));
}

TEST(UpgradeProtocolDecode, BootVersionCheckByCheck) {
    const Version untouched{7, 7, 7};
    Version version = untouched;
    EXPECT_EQ(decode_version(with(version_answer, 0, 0x00), version),
              (std::pair<int, Lines>{1, {"[ERROR] slave msg Head error 0\r"}}));
    EXPECT_EQ(decode_version(sealed("02 71 00 04 02 71 00 05"), version),
              (std::pair<int, Lines>{5, {"[ERROR] slave msg length: 4\r"}}));
    EXPECT_EQ(decode_version(with(sealed("02 71 00 07 02 71 00 06 01 02 03"), 13, 0), version),
              (std::pair<int, Lines>{6, {"[ERROR] slave msg slave state is 6\r"}}));
    EXPECT_EQ(version, untouched);

    const Bytes crc = with(with(version_answer, 12, 0x00), 16, 0x66);
    const std::uint32_t local = module_crc32(std::span(version_answer).subspan(1, 11));
    EXPECT_EQ(decode_version(crc, version), (std::pair<int, Lines>{2, {crc_line(crc, local)}}));
    EXPECT_EQ(version, (Version{1, 10, 200})) << "it is copied before the CRC is checked";
    EXPECT_EQ(decode_version(with(version_answer, 16, 0x66), version),
              (std::pair<int, Lines>{1, {"[ERROR] slave msg Tail error 66\r"}}));
}

const Bytes format_answer = sealed("02 21 00 05 02 21 4B 00 00");

TEST(UpgradeProtocolDecode, Format) {
    std::uint8_t result = 0;
    EXPECT_EQ(decode_format(format_answer, result), (std::pair<int, Lines>{0, {}}));
    EXPECT_EQ(result, 0x4B);
}

TEST(UpgradeProtocolDecode, FormatCheckByCheck) {
    std::uint8_t result = 9;
    EXPECT_EQ(decode_format(with(format_answer, 0, 0xA9), result),
              (std::pair<int, Lines>{1, {"[ERROR] slave msg Head error a9\r"}}));
    EXPECT_EQ(result, 9);
    EXPECT_EQ(decode_format(sealed("02 21 00 05 02 21 4B 01 02"), result),
              (std::pair<int, Lines>{0x102, {"[ERROR] slave msg slave state is 102\r"}}));
    EXPECT_EQ(result, 0x4B) << "it is copied before the state is checked";

    const Bytes crc = with(with(format_answer, 10, 0x00), 14, 0x66);
    const std::uint32_t local = module_crc32(std::span(format_answer).subspan(1, 9));
    EXPECT_EQ(decode_format(crc, result), (std::pair<int, Lines>{2, {crc_line(crc, local)}}));
    EXPECT_EQ(decode_format(with(format_answer, 14, 0x66), result),
              (std::pair<int, Lines>{1, {"[ERROR] slave msg Tail error 66\r"}}));
}

TEST(UpgradeProtocolDecode, FormatOfAnotherLengthIsDecodedAllTheSame) {
    // The offsets stay those of a payload of 5 bytes, and so does the CRC's range.
    Bytes frame = sealed("02 21 00 07 02 21 4B 00 00");
    std::uint8_t result = 0;
    EXPECT_EQ(decode_format(frame, result),
              (std::pair<int, Lines>{0, {"[ERROR] slave msg length: 7\r"}}));
    EXPECT_EQ(result, 0x4B);
    frame = sealed("02 21 00 04 02 21 4C 00");
    const auto [code, lines] = decode_format(frame, result);
    EXPECT_EQ(lines.front(), "[ERROR] slave msg length: 4\r");
    EXPECT_NE(code, 0);
    EXPECT_EQ(result, 0x4C);
}

// --- Image CRC ---

std::uint32_t crc_of_file(const Bytes& content, std::uint32_t size) {
    const TempDir folder;
    FirmwareFile file(folder.write("image.bin", content).c_str());
    EXPECT_TRUE(file.is_open());
    return Kv_FW_CRC(file, {.leading = 0x11111111, .size = size, .crc = 0x22222222});
}

TEST(UpgradeProtocolImageCrc, OfAnEmptyFileIsThatOfFourZeros) {
    EXPECT_EQ(crc_of_file({}, 0), 0x2144DF1CU);
}

TEST(UpgradeProtocolImageCrc, TakesTheSizeAndThenTheContent) {
    for (const std::size_t size : {1U, 16'382U, 16'383U, 16'384U, 32'766U, 100'001U}) {
        const Bytes content = random_image(size);
        EXPECT_EQ(crc_of_file(content, static_cast<std::uint32_t>(size)),
                  sim::module_image_crc(content))
            << size;
    }
}

TEST(UpgradeProtocolImageCrc, TheSizeIsTheRecordsNotTheFiles) {
    const Bytes content = hex("10 20 30");
    EXPECT_EQ(crc_of_file(content, 0x01020304), module_crc32(hex("04 03 02 01 10 20 30")));
}

TEST(UpgradeProtocolImageCrc, BeginsWhereTheFileStands) {
    const TempDir folder;
    FirmwareFile file(folder.write("image.bin", hex("10 20 30 40")).c_str());
    Bytes skipped(1);
    file.read(skipped);
    EXPECT_EQ(Kv_FW_CRC(file, {.size = 4}), module_crc32(hex("04 00 00 00 20 30 40")));
    EXPECT_EQ(Kv_FW_CRC(file, {.size = 4}), module_crc32(hex("04 00 00 00")))
        << "the file is not rewound";
}

}  // namespace
}  // namespace orbix::test
