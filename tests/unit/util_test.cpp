// Checksums and text helpers against published check values.
#include <gtest/gtest.h>

#include <string>

#include "checksums.h"
#include "core/image_crc.h"
#include "core/kv_util.h"
#include "core/options.h"
#include "core/xmodem_block.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

Bytes text_bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

const Bytes check_text = text_bytes("123456789");

TEST(Crc32, CheckValue) {
    EXPECT_EQ(Kv_Check_CRC32(0, check_text), 0xCBF43926U);
}

TEST(Crc32, NothingIsZero) {
    EXPECT_EQ(Kv_Check_CRC32(0, std::span(check_text).first(0)), 0U);
}

TEST(Crc32, AbsentBytesAreZeroWhateverCameBefore) {
    EXPECT_EQ(Kv_Check_CRC32(0x12345678, {}), 0U);
}

TEST(Crc32, ContinuesOverAFurtherBlock) {
    const auto whole = std::span(check_text);
    EXPECT_EQ(Kv_Check_CRC32(Kv_Check_CRC32(0, whole.first(4)), whole.subspan(4)), 0xCBF43926U);
}

TEST(Crc32, AgreesWithTheModulesOwn) {
    const Bytes bytes = random_image(10'000);
    EXPECT_EQ(Kv_Check_CRC32(0, bytes), sim::module_crc32(bytes));
}

TEST(Crc24Q, ChecksARange) {
    // An RTCM 3 message 1005 with its CRC (example of RTCM 10403, section 4.2).
    const Bytes frame =
        hex("D3 00 13 3E D7 D3 02 02 98 0E DE EF 34 B4 BD 62 AC 09 41 98 6F 33 36 0B 98");
    EXPECT_EQ(Kv_Check_CRC24Q(frame, 0, 22), 0x360B98U);
    EXPECT_EQ(Kv_Check_CRC24Q(frame, 0, 25), 0U);
    Bytes shifted = hex("11 22");
    shifted.insert(shifted.end(), frame.begin(), frame.end());
    EXPECT_EQ(Kv_Check_CRC24Q(shifted, 2, 22), 0x360B98U);
}

TEST(AsciiToHex, ReadsBothCases) {
    std::uint8_t value = 0xEE;
    EXPECT_EQ(AsciiToHex("3B", 2, &value), 0);
    EXPECT_EQ(value, 0x3B);
    EXPECT_EQ(AsciiToHex("fA", 2, &value), 0);
    EXPECT_EQ(value, 0xFA);
    EXPECT_EQ(AsciiToHex("7", 1, &value), 0);
    EXPECT_EQ(value, 0x07);
}

TEST(AsciiToHex, StopsAtAForeignCharacterWithThePartialValue) {
    std::uint8_t value = 0xEE;
    EXPECT_EQ(AsciiToHex("4g", 2, &value), 1);
    EXPECT_EQ(value, 0x40);
    EXPECT_EQ(AsciiToHex("g4", 2, &value), 1);
    EXPECT_EQ(value, 0x00);
}

TEST(NmeaCheckSum, MatchesInBothCases) {
    EXPECT_EQ(NMEA_CheckSum("$PAIR023*3B\r\n"), 0);
    EXPECT_EQ(NMEA_CheckSum("$PAIR023*3b\r\n"), 0);
}

TEST(NmeaCheckSum, TellsWhatIsWrong) {
    EXPECT_EQ(NMEA_CheckSum("$PAIR023*3C\r\n"), 1);
    EXPECT_EQ(NMEA_CheckSum("$PAIR023\r\n"), 2);
    EXPECT_EQ(NMEA_CheckSum("$PAIR023*3"), 3);
    EXPECT_EQ(NMEA_CheckSum("$PAIR023*"), 3);
    EXPECT_EQ(NMEA_CheckSum("$PAIR023*xy"), 3);
    EXPECT_EQ(NMEA_CheckSum("$"), 2);
    EXPECT_EQ(NMEA_CheckSum(""), 2);
}

TEST(NmeaCheckSum, StarCountsBeforeIndex255Only) {
    // 'A' an even number of times cancels out, so the sum is that of the 'B' in front.
    const auto sentence = [](std::size_t star_index) {
        std::string text = "$B" + std::string(star_index - 2, 'A');
        const unsigned sum = (star_index - 2) % 2 == 0 ? 'B' : 'A' ^ 'B';
        char digits[3] = {};
        std::snprintf(digits, sizeof digits, "%02X", sum);
        return text + "*" + digits;
    };
    EXPECT_EQ(NMEA_CheckSum(sentence(254).c_str()), 0);
    EXPECT_EQ(NMEA_CheckSum(sentence(255).c_str()), 2);
    EXPECT_EQ(NMEA_CheckSum(std::string(255, 'A').c_str()), 2);
    EXPECT_EQ(NMEA_CheckSum(std::string(400, 'A').c_str()), 2);
    EXPECT_EQ(NMEA_CheckSum(std::string(400, 'x').c_str()), 3) << "the digits are tested first";
}

TEST(ImageCrc, CoversSizeThenContent) {
    const Bytes empty;
    EXPECT_EQ(image_crc(empty), sim::module_crc32(hex("00 00 00 00")));
    Bytes framed = hex("09 00 00 00");
    framed.insert(framed.end(), check_text.begin(), check_text.end());
    EXPECT_EQ(image_crc(check_text), sim::module_crc32(framed));
}

TEST(ImageCrc, OfAFileReadsFromItsPosition) {
    const TempDir folder;
    const Bytes image = random_image(40'000);
    FirmwareFile file(folder.write("image", image).c_str());
    ASSERT_TRUE(file.is_open());
    EXPECT_EQ(image_crc(40'000, file), sim::module_image_crc(image));
}

TEST(XmodemCrc, CheckValue) {
    EXPECT_EQ(xmodem::crc16_ccitt(check_text), 0x31C3);
    EXPECT_EQ(sim::module_crc16(check_text), 0x31C3);
}

TEST(XmodemBlock, HasNumberComplementDataAndCrc) {
    std::array<std::uint8_t, xmodem::data_size> data{};
    data.fill(0x5A);
    const auto block = xmodem::make_block(0x102, data);
    EXPECT_EQ(as_hex(std::span(block).first(4)), "02 02 FD 5A");
    const std::uint16_t crc = sim::module_crc16(data);
    EXPECT_EQ(block[1027], crc >> 8);
    EXPECT_EQ(block[1028], crc & 0xFF);
}

TEST(FirmwareFileTest, RefusesAFolder) {
    const TempDir folder;
    const FirmwareFile file(folder.path().c_str());
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(errno, EISDIR);
}

TEST(FirmwareFileTest, RefusesADeviceThatNeverEnds) {
    const FirmwareFile file("/dev/zero");
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(errno, ESPIPE);
}

TEST(FirmwareFileTest, RefusesAMissingFile) {
    const FirmwareFile file("/nonexistent/file");
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(errno, ENOENT);
}

TEST(FirmwareFileTest, RefusesAFileThatNoSizeFieldHolds) {
    const TempDir folder;
    const std::string path = folder.write("sparse", Bytes{});
    std::filesystem::resize_file(path, 0x80000000U);
    const FirmwareFile file(path.c_str());
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(errno, EFBIG);
}

TEST(ToInt, IsDefinedForEveryText) {
    EXPECT_EQ(to_int("115200"), 115200);
    EXPECT_EQ(to_int(" -5x"), -5);
    EXPECT_EQ(to_int("garbage"), 0);
    EXPECT_EQ(to_int(""), 0);
    EXPECT_EQ(to_int("99999999999999999999"), 2147483647);
    EXPECT_EQ(to_int("-99999999999999999999"), -2147483647 - 1);
}

TEST(Clipped, KeepsTheFirstCharacters) {
    EXPECT_EQ(clipped("abcdef", 3), "abc");
    EXPECT_EQ(clipped("ab", 3), "ab");
    EXPECT_EQ(clipped("abc", 3), "abc");
    EXPECT_EQ(clipped("", 3), "");
}

TEST(ModeWord, LastOneWinsAndIsClipped) {
    const auto mode_of = [](std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        return mode_word(static_cast<int>(argv.size()), argv.data());
    };
    EXPECT_EQ(mode_of({"tool", "-t", "DL", "-t", "UPG"}), "UPG");
    EXPECT_EQ(mode_of({"tool", "-t"}), "");
    EXPECT_EQ(mode_of({"tool", "-tUPG"}), "");
    EXPECT_EQ(mode_of({"tool", "-t", std::string(40, 'x')}), std::string(31, 'x'));
    EXPECT_EQ(mode_of({"tool"}), "");
}

TEST(OptionScanTest, StepsOverPlainWordsAndLeavesTheVectorAlone) {
    std::vector<std::string> words{"tool", "plain", "-a", "1", "2", "-D", "-b", "3"};
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    const std::vector<char*> before = argv;
    std::string seen;
    OptionScan scan(static_cast<int>(argv.size()), argv.data(), "a:b:D");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        seen += static_cast<char>(letter);
        seen += scan.value();
    }
    EXPECT_EQ(seen, "a1Db3");
    EXPECT_EQ(argv, before);
}

TEST(OptionScanTest, StartsAfreshAfterAScanThatWasLeft) {
    std::vector<std::string> words{"tool", "-DD", "-b", "3"};
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    OptionScan first(4, argv.data(), "b:D");
    EXPECT_EQ(first.next(), 'D');
    OptionScan second(4, argv.data(), "b:D");
    EXPECT_EQ(second.next(), 'D');
    EXPECT_EQ(second.next(), 'D');
    EXPECT_EQ(second.next(), 'b');
}

}  // namespace
}  // namespace orbix::test
