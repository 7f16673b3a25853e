// The AG3352 download through the ROM loader, end to end.
#include <gtest/gtest.h>

#include <filesystem>

#include "ag33xx_modules.h"
#include "run/ag33xx_support.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

using sim::Ag3352Module;
using sim::BootAnswer;

constexpr std::size_t agent_size = 43956;
constexpr std::size_t formatted = 0x1F8000;
constexpr std::ptrdiff_t block_size = 4096;

const std::string failed = " Flash upgrade failed";
const std::string invalid_example =
    "[ERROR] Ex: .\\orbix_flash -m TR52G -p COM6 -b 115200 -d .\\ -s .\\da_uart_115200.bin -f "
    "\"bootloader.bin,partition_table.bin,TR52GXXNR01A01S.bin,gnss_config.bin\"";

std::string error(const std::string& text) {
    return "[ERROR] ag3352_download " + text;
}

/// A folder with an agent and a package of one small image.
class Ag3352Download : public ::testing::Test {
  protected:
    Ag3352Download() {
        agent_path = folder.write("agent.bin", agent);
        write_package(folder, images);
    }

    [[nodiscard]] std::vector<std::string> arguments(const std::string& rate = "115200") const {
        return {"-m", "TR52G",       "-p", "COM6",     "-b", rate,
                "-d", folder.path(), "-s", agent_path, "-t", "DL"};
    }

    ToolRun run(Conditions conditions = {}, const std::string& rate = "115200") {
        return ToolRun(module, arguments(rate), std::move(conditions));
    }

    /// Another package in place of the small one.
    void use(std::vector<PackageImage> others) {
        images = std::move(others);
        write_package(folder, images);
    }

    /// A run that ends in failure, with its last line before the common one.
    std::string failure_of(Conditions conditions = {}, const std::string& rate = "115200") {
        const ToolRun result = run(std::move(conditions), rate);
        EXPECT_EQ(result.result(), upgrade_failure(-1));
        EXPECT_FALSE(result.left_open);
        EXPECT_FALSE(result.hit_time_limit);
        auto lines = result.family_lines();
        EXPECT_EQ(lines.back(), failed);
        lines.pop_back();
        return lines.back();
    }

    void expect_flash_holds_package() {
        const auto cells = module.flash().cells();
        EXPECT_EQ(Bytes(cells.begin(), cells.begin() + formatted), flash_with(images, formatted));
    }

    TempDir folder;
    Bytes agent = random_image(agent_size, 7);
    std::string agent_path;
    std::vector<PackageImage> images{{"app.bin", 0x08009000, random_image(5000)}};
    Ag3352Module module;
};

TEST_F(Ag3352Download, SendsExactlyTheseBytes) {
    const ToolRun result = run();

    Bytes expected = hex("A0 0A 50 05");
    append_hex(expected, "D2 A2 08 00 00 00 00 00 01 00 10");
    append_hex(expected, "D2 A2 08 00 30 00 00 00 01 00 40");
    append_hex(expected, "D7 04 20 00 00 00 00 AB B4 00 00 00 00");
    append(expected, agent);
    append_hex(expected, "D5 04 20 00 00");
    append_hex(expected, "05 5A 02 00 0E 21 05 5A 02 00 0F 21 05 5A 02 00 10 21");
    for (std::uint32_t block = 0; block < 31; ++block) {
        append(expected, checked_frame("05 5A 0E 00 04 21" +
                                       le32_hex(0x08000000 + block * 0x10000) + "00 00 01 00"));
    }
    for (std::uint32_t address = 0x081F0000; address < 0x081F8000; address += 0x1000) {
        append(expected, checked_frame("05 5A 0E 00 04 21" + le32_hex(address) + "00 10 00 00"));
    }
    const Bytes& image = images[0].content;
    Bytes last(image.begin() + 4096, image.end());
    last.resize(4096, 0xFF);
    append(expected, checked_frame("05 5A 0C 10 00 21 00 90 00 08 00 10",
                                   Bytes(image.begin(), image.begin() + 4096)));
    append(expected, checked_frame("05 5A 0C 10 00 21 00 A0 00 08 00 10", last));
    EXPECT_TRUE(result.sent == expected) << result.sent.size() << " bytes, not " << expected.size();
    EXPECT_EQ(result.rates, (std::vector<unsigned>{115200}));
}

TEST_F(Ag3352Download, SaysExactlyTheseLines) {
    const ToolRun result = run();
    unsigned sum = 0;
    for (std::size_t index = 0; index < agent.size(); index += 2) {
        sum ^= agent[index] + agent[index + 1] * 256U;
    }
    std::array<char, 32> sum_text{};
    std::snprintf(sum_text.data(), sum_text.size(), "0x%08x", sum);
    const std::vector<std::string> expected{
        "[INFO] entry function",
        " will use device: COM6",
        " baud_rate:115200",
        "[INFO] Handshake... (Press the module reset button!)",
        "[INFO] Disable WDT...",
        "[INFO] Send Da file...",
        " will send Da file(" + agent_path + ") to module",
        " Da_file_size = abb4",
        std::string(" local_check_sum = ") + sum_text.data(),
        "[INFO] Jump to Da...",
        "[INFO] Sync with Da...",
        "[INFO] Format flash...",
        "[INFO] Send Firmware...",
        " send fw file according to " + folder.path() + "/flash_download.cfg",
        "[INFO] will send app.bin to module",
        "",
        " Flash upgrade successfully",
    };
    EXPECT_EQ(result.family_lines(), expected);
    EXPECT_EQ(result.result(), upgrade_success);
    EXPECT_EQ(result.status, 0);
}

TEST_F(Ag3352Download, ReportsProgress) {
    const auto lines = run().progress_lines();
    // The agent: an opening SPEED line, 42 full chunks, the end.
    ASSERT_EQ(lines.size(), 1U + 2 * 43 + 40 + 2 + 2 * 2);
    EXPECT_EQ(lines[0], "[SPEED] 0 Bytes/43956 Bytes    0 KBps");
    EXPECT_EQ(lines[1], "[PROGRESS] 2.33%\r");
    EXPECT_EQ(lines[85], "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(lines[86].starts_with("[SPEED] 43956 Bytes/43956 Bytes    ")) << lines[86];
    // The erase: 0.00, 31 + 7 blocks, 100.
    EXPECT_EQ(lines[87], "[PROGRESS] 0.00%\r");
    EXPECT_EQ(lines[88], "[PROGRESS] 3.17%\r");
    EXPECT_EQ(lines[125], "[PROGRESS] 99.80%\r");
    EXPECT_EQ(lines[126], "[PROGRESS] 100%\r");
    // The image.
    EXPECT_EQ(lines[127], "[PROGRESS] 0.00%\r");
    EXPECT_EQ(lines[128], "[SPEED] 0 Bytes/5000 Bytes    0 KBps");
    EXPECT_EQ(lines[129], "[PROGRESS] 81.92%\r");
    EXPECT_TRUE(lines[130].starts_with("[SPEED] 4096 Bytes/5000 Bytes    ")) << lines[130];
    EXPECT_EQ(lines[131], "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(lines[132].starts_with("[SPEED] 5000 Bytes/5000 Bytes    ")) << lines[132];
}

class Ag3352DownloadSizes : public Ag3352Download,
                            public ::testing::WithParamInterface<std::size_t> {};

TEST_P(Ag3352DownloadSizes, FlashHoldsThePackageAndNothingElse) {
    use({{"bootloader.bin", 0x08000000, random_image(9000, 2)},
         {"app.bin", 0x08009000, random_image(GetParam(), 3)}});
    module.flash().fill(0x00);
    EXPECT_EQ(run({}, "921600").result(), upgrade_success);
    expect_flash_holds_package();
    EXPECT_EQ(module.flash().cells()[formatted - 1], 0xFF);
    EXPECT_EQ(module.flash().cells()[formatted], 0x00) << "the last 32 KiB are not erased";
    EXPECT_EQ(module.boot.voice.count(BootAnswer::write_block), 3 + (GetParam() + 4095) / 4096);
}

INSTANTIATE_TEST_SUITE_P(Ag3352, Ag3352DownloadSizes,
                         ::testing::Values(0, 1, 4095, 4096, 4097, 8192, 200'001));

TEST_F(Ag3352Download, FastRateMovesBothSides) {
    const ToolRun result = run({}, "921600");
    EXPECT_EQ(result.result(), upgrade_success);
    EXPECT_EQ(result.rates, (std::vector<unsigned>{115200, 921600}));
    EXPECT_TRUE(contains(result.sent, hex("DC 00 0E 10 00 D7")));
    const auto lines = result.family_lines();
    ASSERT_EQ(lines[4], "[INFO] Disable WDT...");
    EXPECT_EQ(lines[5], "[INFO] Modify Baud Rate...");
    EXPECT_EQ(lines[6], "[INFO] Change baudrate to 921600");
    EXPECT_EQ(lines[7], "[INFO] Send Da file...");
    expect_flash_holds_package();
}

TEST_F(Ag3352Download, OtherRatesAreRefusedBehindTheWatchdogs) {
    for (const std::string rate : {"460800", "9600", "-1"}) {
        EXPECT_EQ(failure_of({}, rate), "[ERROR] baud_rate error");
        EXPECT_EQ(module.boot.loader().writes().size(), 2U);
        EXPECT_TRUE(module.boot.loader().agent().empty());
    }
}

TEST_F(Ag3352Download, IsTheDefaultMode) {
    auto words = arguments();
    words.resize(words.size() - 2);
    const ToolRun result(module, words);
    EXPECT_EQ(result.result(), upgrade_success);
    EXPECT_EQ(result.count("No upgrade mode specified, use default download mode\n"), 1U);
    words.insert(words.end(), {"-t", "download"});
    EXPECT_EQ(ToolRun(module, words).result(), upgrade_success);
}

TEST_F(Ag3352Download, MissingParameters) {
    for (const std::string letter : {"-p", "-b", "-d", "-s"}) {
        auto words = arguments();
        const auto at = std::find(words.begin(), words.end(), letter);
        words.erase(at, at + 2);
        const ToolRun result(module, words);
        const auto lines = result.family_lines();
        ASSERT_GE(lines.size(), 3U);
        EXPECT_EQ(lines[lines.size() - 3], "[ERROR] Invalid parameter!");
        EXPECT_EQ(lines[lines.size() - 2], invalid_example);
        EXPECT_EQ(lines[lines.size() - 1], failed);
        EXPECT_EQ(result.opens, 0);
        EXPECT_EQ(result.result(), upgrade_failure(-1));
    }
    EXPECT_EQ(failure_of({}, "0"), invalid_example);
}

TEST_F(Ag3352Download, UnknownPortName) {
    auto words = arguments();
    words[3] = "xyz";
    const ToolRun result(module, words);
    EXPECT_EQ(result.family_lines(), (std::vector<std::string>{"[INFO] entry function",
                                                               "[ERROR] unknow dev xyz", failed}));
    EXPECT_EQ(result.opens, 0);
}

TEST_F(Ag3352Download, PathsThatCannotBeRead) {
    auto words = arguments();
    words[7] = folder.path("absent");
    words[9] = folder.path("gone.bin");
    const ToolRun directory(module, words);
    EXPECT_EQ(directory.count("[ERROR] fail to access " + folder.path("absent") +
                              ", errno: 2 (No such file or directory)\n"),
              1U);
    EXPECT_EQ(directory.count("gone.bin, errno"), 0U) << "the directory comes first";
    words[7] = folder.path();
    const ToolRun agent_file(module, words);
    EXPECT_EQ(agent_file.count("[ERROR] fail to access " + folder.path("gone.bin") +
                               ", errno: 2 (No such file or directory)\n"),
              1U);
    EXPECT_EQ(agent_file.opens, 0);
    EXPECT_EQ(agent_file.result(), upgrade_failure(-1));
}

TEST_F(Ag3352Download, PortThatCannotBeOpened) {
    Conditions conditions;
    conditions.port.open_error = EBUSY;
    EXPECT_EQ(failure_of(conditions), "[ERROR] Error opening COM6: Device or resource busy");
}

TEST_F(Ag3352Download, SilentModule) {
    SilentModule silent;
    const ToolRun result(silent, arguments());
    EXPECT_EQ(result.result(), upgrade_failure(-1));
    const auto lines = result.family_lines();
    EXPECT_EQ(lines[lines.size() - 2], error("handshake error"));
    EXPECT_EQ(result.count("Hand Shake Timeout"), 0U) << "the driver alone tells";
    EXPECT_EQ(silent.heard, Bytes(499, 0xA0));
    EXPECT_NEAR(static_cast<double>(result.duration_ms), 499 * 80.0, 100.0);
}

TEST_F(Ag3352Download, ResetPressedLate) {
    Ag3352Module::Settings settings;
    settings.reset_pressed_after = sim::milliseconds(20'000);
    Ag3352Module late(settings);
    const ToolRun result(late, arguments());
    EXPECT_EQ(result.result(), upgrade_success);
}

struct Spoilt {
    BootAnswer which;
    unsigned number;
    const char* line;
};

class Ag3352DownloadAnswers : public Ag3352Download,
                              public ::testing::WithParamInterface<Spoilt> {};

/// Every answer up to the running agent counts as a whole.
TEST_P(Ag3352DownloadAnswers, WrongShortOrMissingEndsTheRun) {
    for (const Spoil how :
         {Spoil::last_byte, Spoil::first_byte, Spoil::shortened, Spoil::missing}) {
        spoil_answer(module.boot.voice, GetParam().which, how, GetParam().number);
        EXPECT_EQ(failure_of({}, "921600"), error(GetParam().line));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Ag3352, Ag3352DownloadAnswers,
    ::testing::Values(Spoilt{BootAnswer::start_0a, 0, "handshake error"},
                      Spoilt{BootAnswer::start_50, 0, "handshake error"},
                      Spoilt{BootAnswer::start_05, 0, "handshake error"},
                      Spoilt{BootAnswer::write_command, 0, "disable_module_WDT error"},
                      Spoilt{BootAnswer::write_address, 0, "disable_module_WDT error"},
                      Spoilt{BootAnswer::write_count, 0, "disable_module_WDT error"},
                      Spoilt{BootAnswer::write_value, 0, "disable_module_WDT error"},
                      Spoilt{BootAnswer::write_command, 1, "disable_module_WDT error"},
                      Spoilt{BootAnswer::write_address, 1, "disable_module_WDT error"},
                      Spoilt{BootAnswer::write_count, 1, "disable_module_WDT error"},
                      Spoilt{BootAnswer::write_value, 1, "disable_module_WDT error"},
                      Spoilt{BootAnswer::rate_command, 0, "modify_baud_rate error"},
                      Spoilt{BootAnswer::rate_value, 0, "modify_baud_rate error"},
                      Spoilt{BootAnswer::agent_command, 0, "send_Da_file error"},
                      Spoilt{BootAnswer::agent_address, 0, "send_Da_file error"},
                      Spoilt{BootAnswer::agent_length, 0, "send_Da_file error"},
                      Spoilt{BootAnswer::agent_signature, 0, "send_Da_file error"},
                      Spoilt{BootAnswer::agent_checksum, 0, "send_Da_file error"},
                      Spoilt{BootAnswer::jump_command, 0, "jump_to_Da error"},
                      Spoilt{BootAnswer::jump_address, 0, "jump_to_Da error"},
                      Spoilt{BootAnswer::jump_status, 0, "jump_to_Da error"}));

TEST_F(Ag3352Download, SendAgentFailureCarriesItsCodeAtTheSlowRate) {
    spoil_answer(module.boot.voice, BootAnswer::agent_checksum, Spoil::first_byte);
    EXPECT_EQ(failure_of(), error("send_Da_file error -1"));
}

TEST_F(Ag3352Download, FirstHandshakeAnswerIsAwaitedAgain) {
    spoil_answer(module.boot.voice, BootAnswer::start_a0, Spoil::last_byte);
    const ToolRun wrong = run();
    EXPECT_EQ(wrong.result(), upgrade_success);
    EXPECT_EQ(as_hex(std::span(wrong.sent).first(3)), "A0 A0 0A");
    Ag3352Module other;
    spoil_answer(other.boot.voice, BootAnswer::start_a0, Spoil::missing);
    EXPECT_EQ(ToolRun(other, arguments()).result(), upgrade_success);
}

TEST_F(Ag3352Download, RateAnswersMayTakeThreeSeconds) {
    for (const auto& [delay, outcome] :
         {std::pair{2900U, upgrade_success}, std::pair{3100U, upgrade_failure(-1)}}) {
        // Behind the bytes of the handshake and of two register writes comes the echo of DC.
        Conditions conditions;
        conditions.faults.push_back({.kind = sim::FaultKind::delay,
                                     .direction = sim::Direction::to_host,
                                     .byte = 4 + 2 * (1 + 4 + 6 + 4),
                                     .amount = delay});
        Ag3352Module::Settings settings;
        settings.boot.loader.watchdog_time = sim::milliseconds(60'000);
        Ag3352Module slow(settings);
        EXPECT_EQ(ToolRun(slow, arguments("921600"), conditions).result(), outcome);
    }
}

struct SilentWrite {
    int first;
    int last;
    const char* line;
};

class Ag3352DownloadWrites : public Ag3352Download,
                             public ::testing::WithParamInterface<SilentWrite> {};

TEST_P(Ag3352DownloadWrites, WriteThatSendsNothingEndsTheRun) {
    for (int number = GetParam().first; number <= GetParam().last; ++number) {
        Conditions conditions;
        conditions.port.failing_write = number;
        EXPECT_EQ(failure_of(conditions, "921600"), error(GetParam().line)) << number;
    }
}

INSTANTIATE_TEST_SUITE_P(Ag3352, Ag3352DownloadWrites,
                         ::testing::Values(SilentWrite{1, 3, "handshake error"},
                                           SilentWrite{4, 11, "disable_module_WDT error"},
                                           SilentWrite{12, 13, "modify_baud_rate error"},
                                           SilentWrite{14, 18, "send_Da_file error"},
                                           SilentWrite{59, 60, "send_Da_file error"},
                                           SilentWrite{61, 62, "jump_to_Da error"},
                                           SilentWrite{63, 65, "sync_with_Da error"},
                                           SilentWrite{66, 68, "format_module_flash error"},
                                           SilentWrite{97, 97, "format_module_flash error"},
                                           SilentWrite{104, 104, "format_module_flash error"},
                                           SilentWrite{105, 106, "send_fw_file error"}));

TEST_F(Ag3352Download, FirstProbeThatSendsNothingIsSentAgain) {
    Conditions conditions;
    conditions.port.failing_write = 0;
    EXPECT_EQ(run(conditions).result(), upgrade_success);
}

TEST_F(Ag3352Download, AgentOfAnotherSizeFails) {
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1024}, agent_size - 1, agent_size + 1, std::size_t{70'000}}) {
        agent_path = folder.write("other.bin", random_image(size, 9));
        EXPECT_EQ(failure_of(), error("send_Da_file error -1")) << size;
    }
}

TEST_F(Ag3352Download, AgentThatIsAFolderFails) {
    std::filesystem::create_directory(folder.path("agent"));
    agent_path = folder.path("agent");
    EXPECT_EQ(failure_of(), error("send_Da_file error -1"));
}

struct Query {
    BootAnswer which;
    std::size_t size;
};

class Ag3352DownloadQueries : public Ag3352Download, public ::testing::WithParamInterface<Query> {};

TEST_P(Ag3352DownloadQueries, OnlyTheStatusCounts) {
    const auto& [which, size] = GetParam();
    spoil_answer(module.boot.voice, which, Spoil::last_byte);
    EXPECT_EQ(run().result(), upgrade_success);
    const auto spoil_status = [which = which](BootAnswer answer, unsigned, Bytes& bytes) {
        if (answer == which) {
            bytes[6] = 0x20;
        }
    };
    module.boot.voice.tamper = spoil_status;
    EXPECT_EQ(failure_of(), error("sync_with_Da error"));
    module.boot.voice.tamper = [which = which](BootAnswer answer, unsigned, Bytes& bytes) {
        if (answer == which) {
            bytes.clear();
        }
    };
    const ToolRun silent = run();
    EXPECT_EQ(silent.family_lines()[silent.family_lines().size() - 2], error("sync_with_Da error"));
    EXPECT_GT(silent.duration_ms, 3000U);
}

INSTANTIATE_TEST_SUITE_P(Ag3352, Ag3352DownloadQueries,
                         ::testing::Values(Query{BootAnswer::flash_address, 11},
                                           Query{BootAnswer::flash_size, 11},
                                           Query{BootAnswer::flash_id, 10}));

TEST_F(Ag3352Download, EraseThatFailsEndsTheRun) {
    for (const unsigned block : {0U, 30U, 31U, 37U, 38U}) {
        Ag3352Module other;
        other.boot.voice.flash_fails = [block](BootAnswer which, unsigned number) {
            return which == BootAnswer::erase_block && number == block;
        };
        const ToolRun result(other, arguments());
        const auto lines = result.family_lines();
        EXPECT_EQ(lines[lines.size() - 3], "[INFO] Format flash...") << "the driver alone tells";
        EXPECT_EQ(lines[lines.size() - 2], error("format_module_flash error"));
        EXPECT_EQ(lines[lines.size() - 1], failed);
    }
}

/// A refused block is not sent again: the following one goes to the same address.
TEST_F(Ag3352Download, RefusedBlocksAreSkipped) {
    use({{"app.bin", 0x08010000, random_image(6 * block_size)}});
    module.boot.voice.flash_fails = [](BootAnswer which, unsigned number) {
        return which == BootAnswer::write_block && (number == 1 || number == 3);
    };
    const ToolRun result = run();
    EXPECT_EQ(result.result(), upgrade_success);
    EXPECT_EQ(result.count("[ERROR] status_response 0x03 error resend -- 1\n"), 1U);
    EXPECT_EQ(result.count("[ERROR] status_response 0x03 error resend -- 2\n"), 1U);
    EXPECT_EQ(module.boot.voice.count(BootAnswer::write_block), 6U);
    Bytes expected;
    for (const std::ptrdiff_t block : {0, 2, 4, 5}) {
        const auto begin = images[0].content.begin() + block * block_size;
        expected.insert(expected.end(), begin, begin + block_size);
    }
    EXPECT_TRUE(module.flash().holds(0x08010000, expected));
}

TEST_F(Ag3352Download, ThirdRefusalEndsTheImage) {
    use({{"app.bin", 0x08010000, random_image(8 * block_size)}});
    module.boot.voice.flash_fails = [](BootAnswer which, unsigned number) {
        return which == BootAnswer::write_block && number >= 1;
    };
    const ToolRun result = run();
    auto lines = result.family_lines();
    EXPECT_EQ(lines[lines.size() - 3], "[ERROR] send fw data fail");
    EXPECT_EQ(lines[lines.size() - 2], error("send_fw_file error"));
    EXPECT_EQ(result.count("error resend -- 3\n"), 1U);
    EXPECT_EQ(module.boot.voice.count(BootAnswer::write_block), 4U);
}

TEST_F(Ag3352Download, ThirdRefusalJustBeforeTheLastBlockEndsTheImageToo) {
    use({{"app.bin", 0x08010000, random_image(4 * block_size)}});
    module.boot.voice.flash_fails = [](BootAnswer which, unsigned number) {
        return which == BootAnswer::write_block && number < 3;
    };
    const ToolRun result = run();
    const auto lines = result.family_lines();
    EXPECT_EQ(lines[lines.size() - 3], "[ERROR] send fw data fail");
    EXPECT_EQ(lines[lines.size() - 2], error("send_fw_file error"));
    EXPECT_EQ(module.boot.voice.count(BootAnswer::write_block), 3U);
}

TEST_F(Ag3352Download, RefusalsAreCountedForEachImage) {
    use({{"one.bin", 0x08010000, random_image(4 * block_size, 1)},
         {"two.bin", 0x08020000, random_image(4 * block_size, 2)}});
    module.boot.voice.flash_fails = [](BootAnswer which, unsigned number) {
        return which == BootAnswer::write_block &&
               (number == 0 || number == 1 || number == 4 || number == 5);
    };
    const ToolRun result = run();
    EXPECT_EQ(result.result(), upgrade_success);
    EXPECT_EQ(result.count("error resend -- 1\n"), 2U);
    EXPECT_EQ(result.count("error resend -- 2\n"), 2U);
}

TEST_F(Ag3352Download, AddressOfTheAnswerIsCompared) {
    // The first block leaves the cells erased, so that the second one can take its place.
    Bytes image = random_image(3 * block_size);
    std::fill_n(image.begin(), 4096, std::uint8_t{0xFF});
    use({{"app.bin", 0x08010000, image}});
    module.boot.voice.tamper = [](BootAnswer which, unsigned number, Bytes& bytes) {
        if (which == BootAnswer::write_block && number == 0) {
            bytes[8] ^= 0x80;
        }
        if (which == BootAnswer::write_block && number == 2) {
            bytes[10] ^= 0x01;  // the last block's address is not looked at
        }
    };
    const ToolRun result = run();
    EXPECT_EQ(result.count("[ERROR] fw_start_addr_send 0x08018000 error resend -- 1\n"), 1U);
    EXPECT_EQ(result.result(), upgrade_success);
    Bytes& content = images[0].content;
    content.erase(content.begin(), content.begin() + 4096);
    expect_flash_holds_package();
}

TEST_F(Ag3352Download, LastBlockHasOneAttempt) {
    module.boot.voice.flash_fails = [](BootAnswer which, unsigned number) {
        return which == BootAnswer::write_block && number == 1;
    };
    EXPECT_EQ(failure_of(), error("send_fw_file error"));
    EXPECT_EQ(module.boot.voice.count(BootAnswer::write_block), 2U);
}

TEST_F(Ag3352Download, BlockAnswersAreAwaitedForThreeSeconds) {
    Ag3352Module::Settings settings;
    settings.boot.new_agent.program_time = sim::milliseconds(2900);
    Ag3352Module slow(settings);
    EXPECT_EQ(ToolRun(slow, arguments()).result(), upgrade_success);
    settings.boot.new_agent.program_time = sim::milliseconds(3100);
    Ag3352Module too_slow(settings);
    const ToolRun result(too_slow, arguments());
    EXPECT_EQ(result.result(), upgrade_failure(-1));
    EXPECT_EQ(result.count("error resend"), 0U) << "an answer that stays away ends it at once";
    EXPECT_EQ(too_slow.boot.voice.count(BootAnswer::write_block), 1U);
}

TEST_F(Ag3352Download, ListSelectsImagesInTheLayoutsOrder) {
    use({{"a.bin", 0x08010000, random_image(100, 1)},
         {"b.bin", 0x08020000, random_image(100, 2)},
         {"c.bin", 0x08030000, random_image(100, 3)}});
    auto words = arguments();
    words.insert(words.end(), {"-f", "c.bin,a.bin,nothing.bin"});
    const ToolRun result(module, words);
    EXPECT_EQ(result.result(), upgrade_success);
    EXPECT_EQ(result.count(" upgrade file:[c.bin]\n"), 1U);
    EXPECT_EQ(result.count("will send b.bin"), 0U);
    EXPECT_LT(result.output.find("will send a.bin"), result.output.find("will send c.bin"));
    images.erase(images.begin() + 1);
    expect_flash_holds_package();
}

TEST_F(Ag3352Download, LayoutOfAnotherName) {
    std::filesystem::rename(folder.path("flash_download.cfg"), folder.path("other.cfg"));
    auto words = arguments();
    words.insert(words.end(), {"-g", "other.cfg"});
    const ToolRun result(module, words);
    EXPECT_EQ(result.result(), upgrade_success);
    EXPECT_EQ(result.count(" flash download file: other.cfg\n"), 1U);
    expect_flash_holds_package();
}

TEST_F(Ag3352Download, MissingImageFails) {
    std::filesystem::remove(folder.path("app.bin"));
    const ToolRun result = run();
    const auto lines = result.family_lines();
    EXPECT_EQ(lines[lines.size() - 3], "[ERROR] " + folder.path() + "/app.bin non-existent");
    EXPECT_EQ(lines[lines.size() - 2], error("send_fw_file error"));
}

TEST_F(Ag3352Download, ImageThatIsAFolderFails) {
    std::filesystem::remove(folder.path("app.bin"));
    std::filesystem::create_directory(folder.path("app.bin"));
    EXPECT_EQ(failure_of(), error("send_fw_file error"));
}

TEST_F(Ag3352Download, PackageWithoutLayoutWritesNothing) {
    std::filesystem::remove(folder.path("flash_download.cfg"));
    const ToolRun result = run();
    EXPECT_EQ(result.result(), upgrade_success);
    EXPECT_EQ(result.count("flash_download.cfg non-existent\n"), 1U);
    images.clear();
    expect_flash_holds_package();
}

TEST_F(Ag3352Download, ImageOutsideTheFlashIsRefused) {
    use({{"app.bin", 0x08200000, random_image(100)}});
    EXPECT_EQ(failure_of(), error("send_fw_file error"));
}

TEST_F(Ag3352Download, WaitsTwoSecondsBeforeItCloses) {
    const ToolRun result = run();
    const auto last_byte = result.trace.back().time - sim::VirtualPort::start;
    const auto after = sim::milliseconds(result.duration_ms) - last_byte;
    // The answer came within the pause of 10 ms behind the last block; another follows it.
    EXPECT_GE(after, sim::milliseconds(2010));
    EXPECT_LE(after, sim::milliseconds(2021));
    EXPECT_EQ(result.closes, 1);
}

TEST_F(Ag3352Download, DebugDumpsTheTraffic) {
    auto words = arguments();
    words.emplace_back("-D");
    const ToolRun result(module, words);
    EXPECT_EQ(result.count(" debug mode\n"), 1U);
    EXPECT_GE(result.count("send to module -- < d2 \n"), 2U);
    EXPECT_EQ(result.result(), upgrade_success);
}

/// The port vanishes at any time: the run ends by itself.
TEST_F(Ag3352Download, UnpluggedAnywhere) {
    const ToolRun whole_run = run({}, "921600");
    ASSERT_EQ(whole_run.result(), upgrade_success);
    const std::uint64_t whole = whole_run.duration_ms - 2100;
    for (std::uint64_t time = 1; time < whole; time += 173) {
        const ToolRun result = run(unplugged_after_ms(time), "921600");
        EXPECT_EQ(result.result(), upgrade_failure(-1)) << time;
        EXPECT_FALSE(result.hit_time_limit);
        EXPECT_LT(result.duration_ms, 60'000U);
    }
}

/// A loop's block costs its bytes on the line, the flash's own time and nothing else.
TEST_F(Ag3352Download, WriteLoopLosesNoTime) {
    const auto duration_of = [this](std::size_t blocks) {
        use({{"app.bin", 0x08010000, random_image(blocks * 4096)}});
        const ToolRun result = run({}, "921600");
        EXPECT_EQ(result.result(), upgrade_success);
        return static_cast<double>(result.duration_ms);
    };
    const double block_ms = (duration_of(70) - duration_of(20)) / 50;
    const double line_ms = (4112 + 11) * 10 / 921.6;
    const double flash_ms = 2;  // the pause of 1 ms falls into it
    EXPECT_NEAR(block_ms, line_ms + flash_ms, 0.1);
}

}  // namespace
}  // namespace orbix::test
