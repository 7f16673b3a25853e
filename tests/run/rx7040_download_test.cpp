// The RX7040 download: ROM loader, loader package, firmware package, both by XMODEM-1K.
#include <gtest/gtest.h>

#include <regex>

#include "checksums.h"
#include "run/harness.h"
#include "run/unplugged.h"
#include "rx7040_module.h"

namespace orbix::test {
namespace {

using sim::Rx7040Module;

constexpr std::uint8_t ack = 0x06;
constexpr std::uint8_t nak = 0x15;
constexpr std::uint32_t flash_base = 0x08000000;

Bytes operator+(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Bytes text(const std::string& characters) {
    return {characters.begin(), characters.end()};
}

Bytes block(unsigned number, const Bytes& data) {
    Bytes bytes{0x02, static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(255 - number)};
    bytes = bytes + data;
    const std::uint16_t crc = sim::module_crc16(data);
    return bytes + Bytes{static_cast<std::uint8_t>(crc >> 8), static_cast<std::uint8_t>(crc)};
}

/// What a package is on the line: padded, and with its last block repeated when nothing had to be
/// padded.
Bytes padded(Bytes package) {
    if (package.empty()) {
        return Bytes(1024, 0);
    }
    if (package.size() % 1024 == 0) {
        return package + Bytes(package.end() - 1024, package.end());
    }
    package.resize((package.size() / 1024 + 1) * 1024, 0x1A);
    return package;
}

Bytes transfer(const Bytes& package) {
    const Bytes data = padded(package);
    Bytes stream;
    for (std::size_t at = 0; at < data.size(); at += 1024) {
        const auto begin = data.begin() + static_cast<std::ptrdiff_t>(at);
        stream =
            stream + block(static_cast<unsigned>(at / 1024 + 1) % 256, Bytes(begin, begin + 1024));
    }
    return stream + Bytes{0x04};
}

/// The output with all stamps taken out: the XMODEM sender's lines run into the next.
std::string without_stamps(const ToolRun& run) {
    return std::regex_replace(run.output, std::regex("\\[\\d{3,}\\.\\d{3}\\]"), "");
}

class Rx7040Download : public ::testing::Test {
  protected:
    std::vector<std::string> arguments() {
        return {"-m", "MX290B",
                "-p", "COM6",
                "-L", folder_.write("da.pkg", loader_),
                "-f", folder_.write("fw.pkg", firmware_),
                "-t", "DL"};
    }
    ToolRun download(Rx7040Module& module, Conditions conditions = {}) {
        return ToolRun(module, arguments(), std::move(conditions));
    }
    ToolRun download() {
        Rx7040Module module;
        return download(module);
    }

    TempDir folder_;
    Bytes loader_ = random_image(1500, 7);
    Bytes firmware_ = random_image(3000, 8);
};

/// The loader starts while the first command is sent, and hears the second.
const Bytes twice_called = text("xmodem pkg\r\nxmodem pkg\r\n");

/// The loader package as the module gets it.
Bytes without_header(const Bytes& loader) {
    return loader.size() > 36 ? Bytes(loader.begin() + 36, loader.end()) : loader;
}

TEST_F(Rx7040Download, SaysAndSendsExactlyThis) {
    Rx7040Module module;
    std::vector<std::string> with_rate = arguments();
    with_rate.insert(with_rate.end(), {"-b", "9600"});
    const ToolRun run(module, with_rate);

    const std::string said = without_stamps(run);
    const std::string expected =
        "[INFO] rx7040 entry function\n"
        " Enter download\n"
        "[INFO] Module: MX290B\n"
        "[INFO] Port: COM6\n"
        "[INFO] Loader:" +
        folder_.path("da.pkg") +
        "\n"
        "[INFO] Firmware:" +
        folder_.path("fw.pkg") +
        "\n"
        "[INFO] Connect...\n"
        "[INFO] Synchronize...\n"
        "[INFO] Send loader...\n"
        "[PROGRESS] 0.00%\r\n"
        "[SPEED] 0 Bytes/1464 Bytes    0 KBps\n"
        "[PROGRESS] 69.95%\r\n"
        "[SPEED] 1024 Bytes/1464 Bytes    # KBps\n"
        " receive ACK[INFO] Download pkg ok\n"
        "[INFO] Change baudrate to 460800\n"
        "[INFO] Send Firmware...\n"
        "[PROGRESS] 0.00%\r\n"
        "[SPEED] 0 Bytes/3000 Bytes    0 KBps\n"
        "[PROGRESS] 34.13%\r\n"
        "[SPEED] 1024 Bytes/3000 Bytes    # KBps\n"
        "[PROGRESS] 68.27%\r\n"
        "[SPEED] 2048 Bytes/3000 Bytes    # KBps\n"
        " receive ACK[INFO] Download pkg ok\n"
        "[SUCCESS] orbix_flash upgrade success\n";
    const std::string compared =
        std::regex_replace(said, std::regex("    \\d+\\.\\d KBps"), "    # KBps");
    EXPECT_EQ(compared.substr(compared.find("[INFO] rx7040")), expected);

    EXPECT_TRUE(run.sent == text("DLS") + transfer(without_header(loader_)) + twice_called +
                                transfer(firmware_));
    EXPECT_EQ(run.rates, (std::vector<unsigned>{115200, 460800}));
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 0);
    EXPECT_EQ(run.discards, 2) << "one before each package";
    EXPECT_TRUE(run.left_open);
    EXPECT_TRUE(module.download_is_over());
}

TEST_F(Rx7040Download, SpeedOfBothPackagesIsCountedFromTheLoadersFirstLine) {
    const ToolRun run = download();
    const auto lines = run.progress_lines();
    ASSERT_EQ(lines.size(), 10U);
    const long begun = time_of(run, "[SPEED] 0 Bytes/1464 Bytes    0 KBps");
    EXPECT_GT(begun, 0);
    EXPECT_EQ(lines[3], speed_line(run, 1024, 1464, 2, begun));
    EXPECT_EQ(lines[5], "[SPEED] 0 Bytes/3000 Bytes    0 KBps");
    EXPECT_EQ(lines[7], speed_line(run, 1024, 3000, 2, begun));
    EXPECT_EQ(lines[9], speed_line(run, 2048, 3000, 3, begun));
}

struct Sizes {
    std::size_t loader;
    std::size_t firmware;
};

class Rx7040DownloadSizes : public Rx7040Download, public ::testing::WithParamInterface<Sizes> {};

TEST_P(Rx7040DownloadSizes, ArriveBlockByBlock) {
    loader_ = random_image(GetParam().loader, 3);
    firmware_ = random_image(GetParam().firmware, 4);
    Rx7040Module module;
    const ToolRun run = download(module);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.loader_code() == padded(without_header(loader_)));
    const Bytes expected = padded(firmware_);
    EXPECT_TRUE(module.flash().holds(flash_base, expected));
    const auto behind =
        module.flash().read(static_cast<std::uint32_t>(flash_base + expected.size()), 1);
    EXPECT_EQ(behind[0], 0xFF) << "more blocks than there are";
}

INSTANTIATE_TEST_SUITE_P(Packages, Rx7040DownloadSizes,
                         ::testing::Values(Sizes{0, 0}, Sizes{1, 1}, Sizes{36, 36}, Sizes{37, 37},
                                           Sizes{240, 240}, Sizes{241, 241}, Sizes{1059, 1023},
                                           Sizes{1060, 1024}, Sizes{1061, 1025}, Sizes{2084, 2048},
                                           Sizes{2085, 2049}, Sizes{5120, 5120}, Sizes{5121, 5121},
                                           Sizes{100'000, 500'123}));

TEST_F(Rx7040Download, LastFullBlockIsRepeated) {
    firmware_ = random_image(2048);
    const ToolRun run = download();
    const Bytes last(firmware_.end() - 1024, firmware_.end());
    EXPECT_TRUE(contains(run.sent, block(2, last) + block(3, last) + Bytes{0x04}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.progress_lines().at(run.progress_lines().size() - 2), "[PROGRESS] 100.00%\r");
}

TEST_F(Rx7040Download, BlockNumbersWrap) {
    firmware_ = random_image(307'200);
    const ToolRun run = download();
    const Bytes block_256(firmware_.begin() + 261'120, firmware_.begin() + 262'144);
    EXPECT_TRUE(contains(run.sent, block(0, block_256)));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_F(Rx7040Download, SilentRomLoaderIsGivenUpAfterTwentySeconds) {
    SilentModule silent;
    const ToolRun run(silent, arguments());
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Sync the serial failed,err: 0x400");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_GE(run.duration_ms, 20'000U);
    EXPECT_LE(run.duration_ms, 20'020U);
    EXPECT_EQ(silent.heard.size() % 3, 0U);
    EXPECT_NEAR(static_cast<double>(silent.heard.size()) / 3, 20'000 / 10.26, 3);
    EXPECT_TRUE(run.left_open);
}

TEST_F(Rx7040Download, OptionValuesCountUpTo255Characters) {
    SilentModule silent;
    const std::string name(300, 'x');
    const ToolRun run(silent, {"-m", "MX290B", "-p", "COM6", "-L", name, "-D", "-t", "DL"});
    EXPECT_EQ(run.count("[INFO] Loader:" + std::string(255, 'x') + "\n"), 1U);
    EXPECT_EQ(run.count("] debug mode\n"), 1U);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Sync the serial failed,err: 0x400");
}

TEST_F(Rx7040Download, MissingLoaderIsFoundAfterTheSynchronisation) {
    Rx7040Module module;
    const ToolRun run(module, {"-m", "MX290B", "-p", "COM6", "-t", "DL"});
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send loader failed,err: 0x107");
    EXPECT_EQ(as_hex(run.sent), as_hex(text("DLS")));
    EXPECT_EQ(run.result(), upgrade_failure(-1));

    const ToolRun with_folder(module,
                              {"-m", "MX290B", "-p", "COM6", "-L", folder_.path(), "-t", "DL"});
    EXPECT_EQ(with_folder.family_lines().back(), "[ERROR] Send loader failed,err: 0x107");
}

TEST_F(Rx7040Download, MissingFirmwareIsFoundWhenTheLoaderRuns) {
    Rx7040Module module;
    std::vector<std::string> words = arguments();
    words[7] = folder_.path("absent.pkg");
    const ToolRun run(module, words);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send firmware failed,err: 0x107");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_TRUE(run.left_open);
}

TEST_F(Rx7040Download, PortThatDoesNotOpenEndsTheRun) {
    Rx7040Module module;
    Conditions conditions;
    conditions.port.open_error = 16;
    const ToolRun run = download(module, conditions);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Open & config the serial failed");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_F(Rx7040Download, LoaderThatDoesNotRunIsCalledForFourSeconds) {
    Rx7040Module module({.loader_starts = false});
    const ToolRun run = download(module);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] loader run failed,err: 0x400");
    // Twice: at once, after 1 s and after 2 s, which is not yet past the limit.
    const Bytes command = text("xmodem pkg\r\n");
    const Bytes before = text("DLS") + transfer(without_header(loader_));
    const Bytes called = command + command + command;
    EXPECT_TRUE(run.sent == before + called + called);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_F(Rx7040Download, OlderLoaderThatAnswersWithRequestsAloneIsUnderstood) {
    Rx7040Module module({.loader_has_words = false});
    const ToolRun run = download(module);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.flash().holds(flash_base, firmware_));
}

TEST_F(Rx7040Download, LoadersVerdictDecides) {
    Rx7040Module bad({.verdict = "Download failed\r\n"});
    const ToolRun run = download(bad);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Download failed,err: 0x108");
    EXPECT_EQ(run.result(), upgrade_failure(-1));

    Rx7040Module both({.verdict = "1 block failed, sent again: success\r\n"});
    EXPECT_EQ(download(both).result(), upgrade_success) << "success is looked for first";
}

TEST_F(Rx7040Download, VerdictInOneBurstWithTheLastAcknowledgementIsLost) {
    Rx7040Module module({.verify_time = 0});
    const ToolRun run = download(module);
    EXPECT_NE(run.output.find(" receive ACK"), std::string::npos);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Download failed,err: 0x400");
}

TEST_F(Rx7040Download, VerdictIsAwaitedForThirtySeconds) {
    Rx7040Module in_time({.verify_time = sim::milliseconds(29'500)});
    EXPECT_EQ(download(in_time).result(), upgrade_success);

    Rx7040Module too_late({.verify_time = sim::milliseconds(31'000)});
    const ToolRun run = download(too_late);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Download failed,err: 0x400");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_F(Rx7040Download, EachRequestBeforeTheFirstAnswerBringsBlockOneAgain) {
    Rx7040Module module;
    int answers = 0;
    module.tamper_xmodem = [&answers](Bytes& answer) {
        if (answer[0] == ack && answers++ < 3) {
            answer = {'C'};
        }
    };
    const ToolRun run = download(module);
    const Bytes code = without_header(loader_);
    const Bytes first = block(1, Bytes(code.begin(), code.begin() + 1024));
    EXPECT_TRUE(contains(run.sent, text("DLS") + first + first + first + first));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.loader_code() == padded(code));
}

TEST_F(Rx7040Download, LaterRequestSendsTheCurrentBlockAsBlockOne) {
    Rx7040Module module;
    int answers = 0;
    module.tamper_xmodem = [&answers](Bytes& answer) {
        if (answer[0] == ack && ++answers == 2) {
            answer = {'C'};
        }
    };
    const ToolRun run = download(module, unplugged_after_ms(5000));
    const Bytes code = padded(without_header(loader_));
    const Bytes second(code.begin() + 1024, code.end());
    EXPECT_TRUE(contains(run.sent, block(2, second) + block(1, second)));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_F(Rx7040Download, AcknowledgementBeforeTheFirstRequestSkipsABlock) {
    const auto acknowledge_first = [](bool& first) {
        return [&first](Bytes& answer) {
            if (answer[0] == 'C' && std::exchange(first, false)) {
                answer = {ack};
            }
        };
    };
    bool first = true;
    Rx7040Module module;
    module.tamper_xmodem = acknowledge_first(first);
    const ToolRun run = download(module);
    const Bytes code = padded(without_header(loader_));
    const Bytes second(code.begin() + 1024, code.end());
    EXPECT_TRUE(contains(run.sent, text("DLS") + block(1, second) + Bytes{0x04}));

    loader_ = {1, 2, 3};
    first = true;
    Rx7040Module one_block;
    one_block.tamper_xmodem = acknowledge_first(first);
    const ToolRun nothing_sent = download(one_block, unplugged_after_ms(5000));
    EXPECT_EQ(as_hex(std::span(nothing_sent.sent).first(5)), "44 4C 53 04 04");
    EXPECT_EQ(nothing_sent.result(), upgrade_failure(-1));
}

TEST_F(Rx7040Download, RefusedBlockIsSentAgainUpTo25Times) {
    Rx7040Module module;
    int refusals = 25;
    module.tamper_xmodem = [&refusals](Bytes& answer) {
        if (answer[0] == ack && refusals-- > 0) {
            answer = {nak};
        }
    };
    const ToolRun run = download(module);
    EXPECT_EQ(run.result(), upgrade_success);
    Bytes stream = text("DLS");
    const Bytes code = without_header(loader_);
    for (int sendings = 0; sendings < 26; ++sendings) {
        stream = stream + block(1, Bytes(code.begin(), code.begin() + 1024));
    }
    EXPECT_TRUE(contains(run.sent, stream));
}

TEST_F(Rx7040Download, RefusalNumber26EndsTheTransfer) {
    Rx7040Module module;
    int refusals = 0;
    module.tamper_xmodem = [&refusals](Bytes& answer) {
        if (answer[0] == ack) {
            ++refusals;
            answer = {nak};
        }
    };
    const ToolRun run = download(module);
    EXPECT_EQ(refusals, 26);
    EXPECT_EQ(run.sent.size(), 3 + 26 * 1029U) << "nothing is sent after the last refusal";
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send loader failed,err: 0xFFFFFF33");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_F(Rx7040Download, RequestDoesNotEndARowOfRefusals) {
    Rx7040Module module;
    int answers = 0;
    module.tamper_xmodem = [&answers](Bytes& answer) {
        if (answer[0] == ack) {
            answer = {++answers == 26 ? std::uint8_t{'C'} : nak};
        }
    };
    const ToolRun run = download(module);
    EXPECT_EQ(answers, 27) << "25 refusals, a request, the last refusal";
    EXPECT_EQ(run.sent.size(), 3 + 27 * 1029U);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send loader failed,err: 0xFFFFFF33");
}

TEST_F(Rx7040Download, AcknowledgementEndsARowOfRefusals) {
    Rx7040Module module;
    loader_ = random_image(36 + 3 * 1024 - 5);
    constexpr int blocks = 3;
    int answers = 0;
    module.tamper_xmodem = [&answers](Bytes& answer) {
        if (answer[0] == ack && ++answers % 21 != 0 && answers < blocks * 21) {
            answer = {nak};
        }
    };
    const ToolRun run = download(module);
    EXPECT_GT(answers, blocks * 21);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.loader_code() == padded(without_header(loader_)));
}

TEST_F(Rx7040Download, RefusalBeforeTheFirstBlockIsIgnored) {
    Rx7040Module module;
    int requests = 0;
    module.tamper_xmodem = [&requests](Bytes& answer) {
        if (answer[0] == 'C' && requests++ < 30) {
            answer = {nak};
        }
    };
    const ToolRun run = download(module);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(run.sent == text("DLS") + transfer(without_header(loader_)) + twice_called +
                                transfer(firmware_));
}

TEST_F(Rx7040Download, TenThousandJunkBytesAreTolerated) {
    Rx7040Module module;
    bool first = true;
    module.tamper_xmodem = [&first](Bytes& answer) {
        if (answer[0] == 'C' && std::exchange(first, false)) {
            answer = Bytes(10'000, '.') + answer;
        }
    };
    EXPECT_EQ(download(module).result(), upgrade_success);
}

TEST_F(Rx7040Download, MoreJunkEndsTheTransfer) {
    Rx7040Module module;
    module.tamper_xmodem = [](Bytes& answer) { answer = Bytes(10'001, 0x18) + answer; };
    const ToolRun run = download(module);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send loader failed,err: 0xFFFFFF35");
    EXPECT_EQ(run.sent.size(), 3U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_F(Rx7040Download, AcknowledgementForgetsTheJunk) {
    Rx7040Module module;
    int acknowledgements = 0;
    module.tamper_xmodem = [&acknowledgements](Bytes& answer) {
        if (answer[0] == ack && acknowledgements++ < 2) {
            answer = Bytes(9'000, 0x00) + answer;
        }
    };
    EXPECT_EQ(download(module).result(), upgrade_success);
}

TEST_F(Rx7040Download, SilentReceiverIsWaitedForUntilTheDeviceIsGone) {
    Rx7040Module module;
    module.tamper_xmodem = [](Bytes& answer) { answer.clear(); };
    const ToolRun run = download(module, unplugged_after_ms(3'600'000));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send loader failed,err: 0xFFFFFF35");
    EXPECT_GE(run.duration_ms, 3'600'000U);
    EXPECT_LE(run.duration_ms, 3'601'000U);
    EXPECT_TRUE(run.sent == text("DLS"));
}

TEST_F(Rx7040Download, EndIsRepeatedUntilItIsAcknowledged) {
    Rx7040Module module;
    loader_ = {1, 2, 3};
    int answers = 0;
    module.tamper_xmodem = [&answers](Bytes& answer) {
        if (answer[0] == ack && ++answers == 2) {
            answer = {nak};
        }
    };
    const ToolRun run = download(module, unplugged_after_ms(60'000));
    // The module has left the transfer: it does not answer the second end.
    EXPECT_NE(without_stamps(run).find(" Unreceived ACK Unreceived ACK Unreceived ACK"),
              std::string::npos);
    EXPECT_NEAR(static_cast<double>(run.count(" Unreceived ACK")), 60'000 / 200.0, 10);
    EXPECT_EQ(run.family_lines().back().substr(run.family_lines().back().rfind("[ERROR]")),
              "[ERROR] Send loader failed,err: 0xFFFFFF35");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_F(Rx7040Download, LostAcknowledgementOfTheEndIsGivenAgain) {
    Rx7040Module module;
    firmware_ = {1, 2, 3};
    loader_ = {1, 2, 3};
    int answers = 0;
    module.tamper_xmodem = [&answers](Bytes& answer) {
        answers += answer[0] == ack ? 1 : 0;
        if (answer[0] == ack && answers == 4) {
            answer.clear();
        }
    };
    const ToolRun run = download(module);
    EXPECT_NE(without_stamps(run).find(" Unreceived ACK receive ACK[INFO] Download pkg ok\n"),
              std::string::npos);
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_F(Rx7040Download, DisturbedBlockIsSentAgain) {
    Rx7040Module module;
    Conditions conditions;
    conditions.faults.push_back(
        {.kind = sim::FaultKind::flip, .direction = sim::Direction::to_module, .byte = 500});
    const ToolRun run = download(module, conditions);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.loader_code() == padded(without_header(loader_)));
}

TEST_F(Rx7040Download, EndsWhereverTheDeviceVanishes) {
    expect_failure_whenever_unplugged(
        [this](const Conditions& conditions) {
            Rx7040Module module;
            return download(module, conditions);
        },
        {.interval_ms = 41, .most_ms_behind = 31'000});
}

}  // namespace
}  // namespace orbix::test
