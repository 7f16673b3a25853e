// Reading AG3335 flash back, with the old and with the new agent, end to end.
#include <gtest/gtest.h>

#include <filesystem>

#include "ag33xx_modules.h"
#include "run/ag33xx_support.h"
#include "run/harness.h"
#include "run/unplugged.h"
#include "wire_words.h"

namespace orbix::test {
namespace {

using sim::Ag3335Module;
using sim::BootAnswer;

constexpr std::uint32_t base = 0x08000000;

/// An agent of this size is an old one; one of any other size is a new one.
constexpr std::size_t old_agent_size = 27895;
constexpr std::size_t new_agent_size = 1500;

const std::string failed = " Flash upgrade failed";

std::string error(const std::string& text) {
    return "[ERROR] ag3335_readback " + text;
}

/// The end of every run in which region `number` failed.
Lines region_failure(Lines lines, int number = 0) {
    lines.push_back("[ERROR] read num " + std::to_string(number) + " readback_flash_data error");
    lines.push_back(error("readback_flash_data error"));
    lines.push_back(failed);
    return lines;
}

/// The last lines of a run, as many as there are in `expected`.
void expect_ends_with(const ToolRun& run, const Lines& expected) {
    Lines lines = run.family_lines();
    ASSERT_GE(lines.size(), expected.size());
    lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(expected.size()));
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(run.result(), readback_failure(-1));
    EXPECT_FALSE(run.left_open);
    EXPECT_FALSE(run.hit_time_limit);
}

class Ag3335ReadbackBase : public ::testing::Test {
  protected:
    explicit Ag3335ReadbackBase(std::size_t agent_size) {
        agent_path = folder.write("agent.bin", random_image(agent_size, 7));
        fill(module);
    }

    static void fill(Ag3335Module& filled) {
        filled.flash().program(base, random_image(0x20000, 5));
        filled.flash().program(base + 0x3FF000, random_image(0x1000, 6));
    }

    ToolRun run_with(Ag3335Module& target, const std::vector<std::string>& lists,
                     Conditions conditions = {}) {
        std::vector<std::string> words{"-m", "TR40XBA", "-p", "COM6", "-s", agent_path};
        words.insert(words.end(), lists.begin(), lists.end());
        return ToolRun(target, words, std::move(conditions));
    }

    ToolRun run(const std::vector<std::string>& lists, Conditions conditions = {}) {
        return run_with(module, lists, std::move(conditions));
    }

    [[nodiscard]] std::vector<std::string> one_region(const std::string& size = "0x1000") const {
        return {"-a", "0x08000000", "-t", size, "-o", folder.path("out.bin")};
    }

    void expect_file_holds(const std::string& path, std::uint32_t address, std::size_t size) {
        const auto held = module.flash().read(address, size);
        EXPECT_TRUE(read_file(path) == Bytes(held.begin(), held.end())) << path;
    }

    /// Changes an answer of one kind, the first `times` times.
    void tamper(BootAnswer kind, unsigned times, const std::function<void(Bytes& bytes)>& change) {
        module.boot.voice.tamper = [=](BootAnswer which, unsigned number, Bytes& bytes) {
            if (which == kind && number < times) {
                change(bytes);
            }
        };
    }

    TempDir folder;
    std::string agent_path;
    Ag3335Module module;
};

/// With the old agent.
class Ag3335Readback : public Ag3335ReadbackBase {
  protected:
    Ag3335Readback() : Ag3335ReadbackBase(old_agent_size) {}
};

/// With the new agent.
class Ag3335ReadbackNewAgent : public Ag3335ReadbackBase {
  protected:
    Ag3335ReadbackNewAgent() : Ag3335ReadbackBase(new_agent_size) {}
};

TEST_F(Ag3335Readback, SendsExactlyTheseBytes) {
    const ToolRun result = run({"-a", "0x08001000", "-t", "2000", "-o", folder.path("out.bin")});
    EXPECT_EQ(result.result(), readback_success);
    Bytes expected = hex("A0 0A 50 05");
    append_hex(expected, "D2 A2 08 00 00 00 00 00 01 00 10");
    append_hex(expected, "D7 04 20 40 00 00 00 6C F7 00 00 00 00");
    append(expected, read_file(agent_path));
    append_hex(expected, "D5 04 20 40 00");
    append_hex(expected, "3F F3 C0 0C 00 5A 00 5A 5A C0 5A 5A 5A");
    append_hex(expected, "D6 08 00 10 00 00 00 20 00 00 00 10 00 5A 5A");
    EXPECT_TRUE(result.sent == expected);
    expect_file_holds(folder.path("out.bin"), base + 0x1000, 0x2000);
}

TEST_F(Ag3335Readback, SaysExactlyTheseLines) {
    const auto regions = regions_in(folder, 2);
    const ToolRun result = run(region_lists(regions));
    Lines lines = result.family_lines();
    std::erase_if(lines, [](const std::string& line) {
        return line.starts_with(" local_check_sum = 0x0000");
    });
    Lines expected{
        " will read back mode: TR40XBA",
        " will use device: COM6",
        " readback_addr_num: 2",
        " readback_size_num: 2",
        " readback_num: 2",
        "[INFO] Handshake... (Press the module reset button!)",
        "[INFO] Disable WDT...",
        "[INFO] Send Da file...",
        " will send Da file(" + agent_path + ") to module",
        " Da_file_size = 6cf7",
        "[INFO] Jump to Da...",
        "[INFO] Sync Da...",
    };
    for (int number = 0; number < 2; ++number) {
        const std::string digit = std::to_string(number);
        expected.insert(
            expected.end(),
            {"[INFO] readback flash 0x800" + digit + "000---0x1000...",
             "[INFO] send readback command 0xD6",
             "[INFO] send readback addr 0x0800" + digit + "000",
             "[INFO] send readback size 0x00001000", "[INFO] send readback packet size 0x00001000",
             "[INFO] read num " + digit + " readback_flash_data success"});
    }
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(result.result(), readback_success);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.closes, 1);
}

TEST_F(Ag3335Readback, ReportsProgress) {
    Lines lines = run(one_region("0x3000")).progress_lines();
    lines.erase(lines.begin(), lines.end() - 8);
    EXPECT_EQ(lines[0], "[PROGRESS] 0.00%\r");
    EXPECT_EQ(lines[1], "[SPEED] 0 Bytes/12288 Bytes    0 KBps");
    EXPECT_EQ(lines[2], "[PROGRESS] 33.33%\r");
    EXPECT_TRUE(lines[3].starts_with("[SPEED] 4096 Bytes/12288 Bytes    ")) << lines[3];
    EXPECT_EQ(lines[6], "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(lines[7].starts_with("[SPEED] 12288 Bytes/12288 Bytes    ")) << lines[7];
}

TEST_F(Ag3335Readback, FilesEqualTheFlash) {
    for (const std::size_t count : {1U, 2U, 20U}) {
        const auto regions = regions_in(folder, count);
        EXPECT_EQ(run(region_lists(regions, "ota")).result(), readback_success);
        for (std::size_t index = 0; index < count; ++index) {
            expect_file_holds(regions[index].path,
                              base + static_cast<std::uint32_t>(index) * 0x1000, 0x1000);
            std::filesystem::remove(regions[index].path);
        }
    }
}

TEST_F(Ag3335Readback, EndOfTheFlash) {
    const std::string out = folder.path("out.bin");
    EXPECT_EQ(run({"-a", "0x083FF000", "-t", "0x1000", "-o", out}).result(), readback_success);
    expect_file_holds(out, 0x083FF000, 0x1000);
    for (const std::string address : {"0x08400000", "0xFFFFF000"}) {
        const ToolRun result = run({"-a", address, "-t", "0x1000", "-o", folder.path("none.bin")});
        const std::string digits = address == "0x08400000" ? "0x8400000" : "0xfffff000";
        expect_ends_with(
            result, region_failure({"[INFO] readback flash " + digits + "---0x1000...",
                                    " flash_addr " + digits + " or flash_size 0x1000 is error"}));
    }
    expect_ends_with(run({"-a", "0x08001000", "-t", "0x400000", "-o", folder.path("none.bin")}),
                     region_failure({"[INFO] readback flash 0x8001000---0x400000...",
                                     " flash_addr 0x8001000 or flash_size 0x400000 is error"}));
    EXPECT_FALSE(std::filesystem::exists(folder.path("none.bin")));
}

TEST_F(Ag3335Readback, TwentyOneRegionsAreTooMany) {
    const auto regions = regions_in(folder, 21);
    for (const auto& [order, line] : {std::pair{"ato", "[ERROR] readback_num_addr overthan MAX.20"},
                                      std::pair{"toa", "[ERROR] readback_size_num overthan MAX.20"},
                                      std::pair{"ota", "[ERROR] readback_num overthan MAX.20"}}) {
        const ToolRun result = run(region_lists(regions, order));
        expect_ends_with(result, {line, failed});
        EXPECT_EQ(result.opens, 0);
    }
}

TEST_F(Ag3335Readback, ListsMayStandAnywhere) {
    const auto regions = regions_in(folder, 2);
    const ToolRun result(
        module, {"-a", regions[0].address, regions[1].address, "-m", "TR40XBA", "-t", "0x1000",
                 "1000", "-o", regions[0].path, regions[1].path, "-s", agent_path, "-p", "COM6"});
    EXPECT_EQ(result.result(), readback_success);
    expect_file_holds(regions[1].path, base + 0x1000, 0x1000);
}

TEST_F(Ag3335Readback, CountsMustAgree) {
    const ToolRun result =
        run({"-a", "0x08000000", "0x08001000", "-t", "0x1000", "-o", "1", "2", "3"});
    expect_ends_with(
        result, {"[ERROR] Please input corresponding number of readback_addr and readback_size",
                 "[ERROR] input readback path num 3", "input readback_size num 1",
                 "input readback_addr num 2", failed});
    EXPECT_EQ(result.opens, 0);
}

TEST_F(Ag3335Readback, BadAddressesAndSizes) {
    const std::string out = folder.path("out.bin");
    expect_ends_with(run({"-a", "0x07FFFFFF", "-t", "0x1000", "-o", out}),
                     {"[ERROR] readback_addr error 0x07ffffff", failed});
    expect_ends_with(run({"-a", "0x08000000", "-t", "0x400001", "-o", out}),
                     {" readback_addr_num: 1", "[ERROR] readback_size error 0x00400001", failed});
    const std::string unaligned =
        "[ERROR] flash_addr or flash_size is error please align according to 4k size";
    for (const auto& [address, size] :
         {std::pair{"0x08000000", "0x1800"}, std::pair{"0x08000004", "0x1000"}}) {
        const ToolRun result = run({"-a", address, "-t", size, "-o", out});
        expect_ends_with(result, region_failure({"[INFO] Sync Da...", unaligned}));
        EXPECT_FALSE(contains(result.sent, hex("D6 08 00 00")));
    }
}

TEST_F(Ag3335Readback, RefusalShowsItsCode) {
    expect_ends_with(run(one_region("0")),
                     region_failure({"[INFO] send readback packet size 0x00001000",
                                     " readback error code:0xbd1"}));
    // A code that is cut short shows what came of it.
    tamper(BootAnswer::read_accepted, 1, [](Bytes& bytes) { bytes.resize(2); });
    expect_ends_with(run(one_region("0")), region_failure({" readback error code:0x0"}));
    tamper(BootAnswer::read_accepted, 1, [](Bytes& bytes) { bytes.clear(); });
    expect_ends_with(run(one_region("0")),
                     region_failure({"[INFO] send readback packet size 0x00001000"}));
}

TEST_F(Ag3335Readback, ConsentAndSumAreAwaitedForHalfASecond) {
    const auto duration = [this](const std::string& size) {
        return static_cast<double>(run(one_region(size)).duration_ms);
    };
    const double refused = duration("0");
    tamper(BootAnswer::read_accepted, 1, [](Bytes& bytes) { bytes.clear(); });
    EXPECT_NEAR(duration("0") - refused, 500, 5);
    tamper(BootAnswer::read_packet, 1, [](Bytes& bytes) { bytes.back() ^= 0x01; });
    const double wrong_sum = duration("0x1000");
    tamper(BootAnswer::read_packet, 1, [](Bytes& bytes) { bytes.resize(bytes.size() - 4); });
    EXPECT_NEAR(duration("0x1000") - wrong_sum, 500, 5);
}

TEST_F(Ag3335Readback, WrongSumEndsTheRun) {
    module.boot.voice.tamper = [](BootAnswer which, unsigned number, Bytes& bytes) {
        if (which == BootAnswer::read_packet && number == 2) {
            bytes.back() ^= 0x01;
        }
    };
    const auto data = module.flash().read(base + 0x2000, 0x1000);
    std::uint32_t sum = 0;
    for (const std::uint8_t byte : data) {
        sum += byte;
    }
    std::array<char, 64> line{};
    std::snprintf(line.data(), line.size(), " local:0x%08x,from device 0x%08x", sum, sum ^ 1);
    expect_ends_with(run(one_region("0x5000")), region_failure({line.data(), " checksum error"}));
    expect_file_holds(folder.path("out.bin"), base, 0x2000);
}

TEST_F(Ag3335Readback, SumThatIsCutShortEndsTheRun) {
    module.flash().erase(base, 0x1000);
    module.flash().program(base, Bytes(0x1000, 0x00));  // a sum of 0, like nothing received
    for (const std::size_t missing : {1U, 4U}) {
        tamper(BootAnswer::read_packet, 1,
               [missing](Bytes& bytes) { bytes.resize(bytes.size() - missing); });
        expect_ends_with(
            run(one_region()),
            region_failure({" local:0x00000000,from device 0x00000000", " checksum error"}));
    }
}

/// A packet may come as slowly as it likes.
TEST_F(Ag3335Readback, PacketInPieces) {
    Conditions conditions;
    // Behind everything up to the agent's consent, in the middle of the first packet.
    const std::size_t before = run({"-o", "x"}).received.size();
    EXPECT_EQ(before, 0U);
    const std::size_t all = run(one_region()).received.size();
    conditions.faults.push_back({.kind = sim::FaultKind::delay,
                                 .direction = sim::Direction::to_host,
                                 .byte = all - 2000,
                                 .amount = 7300});
    const ToolRun result = run(one_region(), conditions);
    EXPECT_EQ(result.result(), readback_success);
    EXPECT_GT(result.duration_ms, 7300U);
    expect_file_holds(folder.path("out.bin"), base, 0x1000);
}

TEST_F(Ag3335Readback, PacketThatNeverEndsStopsWithTheDevice) {
    tamper(BootAnswer::read_packet, 1, [](Bytes& bytes) { bytes.resize(4000); });
    Conditions conditions = unplugged_after_ms(100'000);
    const ToolRun result = run(one_region(), conditions);
    expect_ends_with(result, region_failure({}));
    EXPECT_GE(result.duration_ms, 100'000U);
    EXPECT_LE(result.duration_ms, 102'000U);
}

TEST_F(Ag3335Readback, OutputThatCannotBeCreated) {
    for (const std::string& path :
         {folder.path("no/such/folder.bin"), folder.path(), std::string()}) {
        const ToolRun result = run({"-a", "0x08000000", "-t", "0x1000", "-o", path});
        expect_ends_with(result, region_failure({" open file error"}));
        EXPECT_EQ(result.sent.back(), 0x5A) << "nothing was asked for";
    }
}

TEST_F(Ag3335Readback, FullDiskEndsTheRegion) {
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "no device that is always full";
    }
    ::testing::internal::CaptureStderr();
    const ToolRun result = run({"-a", "0x08000000", "-t", "0x3000", "-o", "/dev/full"});
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "/dev/full: the file could not be written: No space left on device\n");
    expect_ends_with(result, region_failure({"[INFO] send readback packet size 0x00001000"}));
    EXPECT_EQ(module.boot.voice.count(BootAnswer::read_packet), 1U);
}

TEST_F(Ag3335Readback, LaterRegionFails) {
    auto regions = regions_in(folder, 3);
    regions[1].size = "0x800";
    expect_ends_with(
        run(region_lists(regions)),
        region_failure(
            {"[INFO] read num 0 readback_flash_data success",
             "[ERROR] flash_addr or flash_size is error please align according to 4k size"},
            1));
    expect_file_holds(regions[0].path, base, 0x1000);
    EXPECT_FALSE(std::filesystem::exists(regions[2].path));
}

TEST_F(Ag3335Readback, RateIsThatOfTheDownloadOption) {
    Ag3335Module::Settings settings;
    settings.boot.old_agent.rates = {460800};
    Ag3335Module fast(settings);
    fill(fast);
    auto words = one_region();
    words.insert(words.end(), {"-l", "460800", "-b", "9600"});
    const ToolRun by_option = run_with(fast, words);
    EXPECT_EQ(by_option.result(), readback_success);
    EXPECT_EQ(by_option.rates, (std::vector<unsigned>{115200, 460800}));
    EXPECT_EQ(by_option.count(" baud_rate:9600\n"), 1U);

    words = one_region();
    words.insert(words.end(), {"-b", "460800"});
    EXPECT_EQ(run_with(fast, words).rates, (std::vector<unsigned>{115200, 460800}))
        << "without -l the rate of -b";
    expect_file_holds(folder.path("out.bin"), base, 0x1000);

    words = one_region();
    words.insert(words.end(), {"-l", "921600"});
    EXPECT_EQ(run_with(fast, words).result(), readback_failure(-1))
        << "the agent's rate is another";
}

TEST_F(Ag3335Readback, SoftResetModels) {
    for (const std::string model : {"TR75XBA-SR01", "TR75XBA-SR02"}) {
        Ag3335Module::Settings settings;
        settings.runs_firmware = true;
        Ag3335Module running(settings);
        running.start_baud = 460800;
        fill(running);
        std::vector<std::string> words{"-m",       model, "-p",     "COM6", "-s",
                                       agent_path, "-b",  "460800", "-l",   "115200"};
        const auto lists = one_region();
        words.insert(words.end(), lists.begin(), lists.end());
        const ToolRun result(running, words);
        EXPECT_EQ(result.result(), readback_success);
        EXPECT_EQ(running.reboots(), 1U);
        EXPECT_EQ(result.count("[INFO] Need soft reset\n"), 1U);
        EXPECT_EQ(result.count("[INFO] soft reset success\n"), 1U);
        EXPECT_EQ(result.count(" will read back mode: " + model + "\n"), 1U);
        EXPECT_EQ(result.opens, 2);
        EXPECT_EQ(result.closes, 2);
        expect_file_holds(folder.path("out.bin"), base, 0x1000);
    }
}

TEST_F(Ag3335Readback, SoftResetFails) {
    Conditions conditions;
    conditions.port.failing_write = 0;
    std::vector<std::string> words{"-m", "TR75XBA-SR01", "-p", "COM6", "-s", agent_path};
    const auto lists = one_region();
    words.insert(words.end(), lists.begin(), lists.end());
    expect_ends_with(ToolRun(module, words, conditions),
                     {" ret = 0 serial_write error", error("soft_reset error"), failed});
    Conditions busy;
    busy.port.open_error = EBUSY;
    expect_ends_with(ToolRun(module, words, busy),
                     {" serial_open error", error("soft_reset error"), failed});
}

TEST_F(Ag3335Readback, AgentAndPortAreNeeded) {
    const std::string agent = agent_path;
    agent_path = folder.path("gone.bin");
    const ToolRun missing = run(one_region());
    expect_ends_with(
        missing, {"[ERROR] fail to access " + agent_path + ", errno: 2 (No such file or directory)",
                  failed});
    EXPECT_EQ(missing.opens, 0);
    agent_path = agent;
    Conditions busy;
    busy.port.open_error = EBUSY;
    expect_ends_with(run(one_region(), busy),
                     {"[ERROR] Error opening COM6: Device or resource busy", failed});
    const ToolRun unknown(module, {"-m", "TR40XBA", "-p", "xyz", "-o", "x"});
    expect_ends_with(unknown, {" will read back mode: TR40XBA", "[ERROR] unknow dev xyz", failed});
}

struct Spoilt {
    BootAnswer which;
    const char* step_line;
    const char* driver_line;
};

class Ag3335ReadbackAnswers : public Ag3335Readback,
                              public ::testing::WithParamInterface<Spoilt> {};

TEST_P(Ag3335ReadbackAnswers, StepAndDriverTellWhatFailed) {
    spoil_answer(module.boot.voice, GetParam().which, Spoil::last_byte);
    expect_ends_with(run(one_region()),
                     {GetParam().step_line, error(GetParam().driver_line), failed});
}

INSTANTIATE_TEST_SUITE_P(
    Ag3335, Ag3335ReadbackAnswers,
    ::testing::Values(
        Spoilt{BootAnswer::start_0a, "[ERROR] ag3335_handshake serial_read 0x5F fail",
               "handshake error"},
        Spoilt{BootAnswer::write_command, "[ERROR] ag3335_disable_module_WDT serial_read 0xD2 fail",
               "disable_module_WDT error"},
        Spoilt{BootAnswer::agent_address, "[ERROR] ag3335_send_Da_file serial_read 0x04204000 fail",
               "send_Da_file error"},
        Spoilt{BootAnswer::first_word, "[ERROR] ag3335_jump_to_Da serial_read 0xC0 fail",
               "jump_to_Da error"},
        Spoilt{BootAnswer::sync_end, "[ERROR] ag3335_sync_with_Da serial_read 0x5A69 fail",
               "sync_with_Da error"}));

TEST_F(Ag3335Readback, WriteThatSendsNothingEndsTheRegion) {
    const int before = 53;  // writes up to the request
    const Lines announcements{
        "[INFO] readback flash 0x8000000---0x2000...", "[INFO] send readback command 0xD6",
        "[INFO] send readback addr 0x08000000", "[INFO] send readback size 0x00002000",
        "[INFO] send readback packet size 0x00001000"};
    for (int number = 0; number < 6; ++number) {
        Conditions conditions;
        conditions.port.failing_write = before + number;
        const ToolRun result = run(one_region("0x2000"), conditions);
        const auto said = announcements.begin() + std::min(number + 2, 5);
        expect_ends_with(result, region_failure({announcements.begin(), said}));
    }
}

TEST_F(Ag3335Readback, UnpluggedAnywhere) {
    const auto words = one_region("0x4000");
    expect_failure_whenever_unplugged(
        [&](const Conditions& conditions) { return run(words, conditions); },
        {.interval_ms = 397, .most_ms_behind = 60'000});
}

TEST_F(Ag3335ReadbackNewAgent, SendsExactlyTheseBytes) {
    auto words = one_region("0x2000");
    words.insert(words.end(), {"-l", "921600"});
    const ToolRun result = run(words);
    EXPECT_EQ(result.result(), readback_success);
    Bytes expected = hex("A0 0A 50 05");
    append_hex(expected, "D2 A2 08 00 00 00 00 00 01 00 10");
    append_hex(expected, "D7 04 00 00 00 00 00 05 DC 00 00 00 00");
    append(expected, read_file(agent_path));
    append_hex(expected, "D5 04 00 00 00");
    append_hex(expected, "05 5A 06 00 15 21 00 10 0E 00");
    append_hex(expected, "05 5A 02 00 0E 21 05 5A 02 00 0F 21 05 5A 02 00 10 21");
    append(expected, checked_frame("05 5A 0C 00 01 21 00 00 00 08 00 10"));
    append(expected, checked_frame("05 5A 0C 00 01 21 00 10 00 08 00 10"));
    EXPECT_TRUE(result.sent == expected);
    EXPECT_EQ(result.rates, (std::vector<unsigned>{115200, 921600}));
    expect_file_holds(folder.path("out.bin"), base, 0x2000);
}

TEST_F(Ag3335ReadbackNewAgent, SaysExactlyTheseLines) {
    const ToolRun result = run(one_region());
    Lines lines = result.family_lines();
    std::erase_if(lines, [](const std::string& line) {
        return line.starts_with(" local_check_sum = 0x0000");
    });
    EXPECT_EQ(lines, (Lines{
                         " will read back mode: TR40XBA",
                         " will use device: COM6",
                         " readback_addr_num: 1",
                         " readback_size_num: 1",
                         " readback_num: 1",
                         "[INFO] Handshake... (Press the module reset button!)",
                         "[INFO] Disable WDT...",
                         "[INFO] Send Da file...",
                         " will send Da file(" + agent_path + ") to module",
                         " Da_file_size = 05dc",
                         "[INFO] Jump to Da...",
                         "[INFO] Sync New Da...",
                         "[INFO] read num 0 readback_flash_data success",
                     }));
    EXPECT_EQ(result.rates, (std::vector<unsigned>{115200}));
}

TEST_F(Ag3335ReadbackNewAgent, TwentyRegions) {
    const auto regions = regions_in(folder, 20);
    EXPECT_EQ(run(region_lists(regions)).result(), readback_success);
    for (std::size_t index = 0; index < regions.size(); ++index) {
        expect_file_holds(regions[index].path, base + static_cast<std::uint32_t>(index) * 0x1000,
                          0x1000);
    }
}

TEST_F(Ag3335ReadbackNewAgent, FlashIsTwiceThatOfAg3352) {
    const std::string out = folder.path("out.bin");
    EXPECT_EQ(run({"-a", "0x083FE000", "-t", "0x2000", "-o", out}).result(), readback_success);
    expect_file_holds(out, 0x083FE000, 0x2000);
    expect_ends_with(
        run({"-a", "0x08401000", "-t", "0x1000", "-o", out}),
        region_failure({"[ERROR] readback_flash param error,08401000,00001000," + out}));
    expect_ends_with(run({"-a", "0x08400000", "-t", "0x1000", "-o", out}),
                     region_failure({"[ERROR] readback_flash fail 0x08400000"}));
    expect_ends_with(run({"-a", "0x08000000", "-t", "0x1800", "-o", out}),
                     region_failure({"[ERROR] start_addr or read_len is error please align "
                                     "according to 4k size"}));
    // The largest size is asked for, whatever the agent says then.
    tamper(BootAnswer::read_block, 5, [](Bytes& bytes) { bytes[6] = 1; });
    expect_ends_with(run({"-a", "0x08000000", "-t", "0x400000", "-o", out}),
                     region_failure({"[ERROR] readback_flash fail 0x08000000"}));
}

TEST_F(Ag3335ReadbackNewAgent, FifthBadReplyEndsTheRegion) {
    tamper(BootAnswer::read_block, 4, [](Bytes& bytes) { bytes[6] = 1; });
    EXPECT_EQ(run(one_region()).result(), readback_success);
    tamper(BootAnswer::read_block, 5, [](Bytes& bytes) { bytes[6] = 1; });
    expect_ends_with(run(one_region()), region_failure({"[ERROR] readback_flash fail 0x08000000"}));
}

TEST_F(Ag3335ReadbackNewAgent, RepliesAreAwaitedForThreeSeconds) {
    tamper(BootAnswer::read_block, 5, [](Bytes& bytes) { bytes.clear(); });
    const ToolRun silent = run(one_region());
    tamper(BootAnswer::read_block, 5, [](Bytes& bytes) { bytes[6] = 1; });
    const ToolRun refused = run(one_region());
    EXPECT_EQ(refused.result(), readback_failure(-1));
    // A whole reply takes 357 ms on the line.
    EXPECT_NEAR(static_cast<double>(silent.duration_ms - refused.duration_ms), 5 * (3000 - 357),
                10);
}

TEST_F(Ag3335ReadbackNewAgent, FailedSyncHasTheLineOfTheOldAgent) {
    tamper(BootAnswer::flash_size, 1, [](Bytes& bytes) { bytes[6] = 1; });
    expect_ends_with(run(one_region()), {"[ERROR] Sync New Da Get Flash Size fail",
                                         error("sync_with_Da error"), failed});
}

TEST_F(Ag3335ReadbackNewAgent, UnpluggedAnywhere) {
    const auto words = one_region("0x4000");
    expect_failure_whenever_unplugged(
        [&](const Conditions& conditions) { return run(words, conditions); },
        {.interval_ms = 97, .most_ms_behind = 60'000});
}

}  // namespace
}  // namespace orbix::test
