// Reading AG3352 flash back, end to end.
#include <gtest/gtest.h>

#include <filesystem>

#include "ag33xx_modules.h"
#include "run/ag33xx_support.h"
#include "run/harness.h"
#include "run/unplugged.h"

namespace orbix::test {
namespace {

using sim::Ag3352Module;
using sim::BootAnswer;

constexpr std::uint32_t base = 0x08000000;
constexpr std::size_t agent_size = 43956;

const std::string failed = " Flash upgrade failed";

std::string error(const std::string& text) {
    return "[ERROR] ag3352_readback " + text;
}

/// A module whose flash begins with 128 KiB of content, and the words that every run needs.
class Ag3352Readback : public ::testing::Test {
  protected:
    Ag3352Readback() {
        agent_path = folder.write("agent.bin", random_image(agent_size, 7));
        module.flash().program(base, random_image(0x20000, 5));
        // The flash ends with something, too.
        module.flash().program(base + 0x1FF000, random_image(0x1000, 6));
    }

    ToolRun run(const std::vector<std::string>& lists, Conditions conditions = {},
                const std::string& rate = "921600") {
        std::vector<std::string> words{"-m", "TR53G", "-p", "COM6", "-b", rate, "-s", agent_path};
        words.insert(words.end(), lists.begin(), lists.end());
        return ToolRun(module, words, std::move(conditions));
    }

    /// The lines of a failed run, without those of its options and without the common last one.
    Lines failure_lines(const std::vector<std::string>& lists, Conditions conditions = {},
                        const std::string& rate = "921600") {
        const ToolRun result = run(lists, std::move(conditions), rate);
        EXPECT_EQ(result.result(), readback_failure(-1));
        EXPECT_FALSE(result.left_open);
        EXPECT_FALSE(result.hit_time_limit);
        opens = result.opens;
        Lines lines = result.family_lines();
        EXPECT_EQ(lines.back(), failed);
        lines.pop_back();
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("[ERROR]"); });
        return lines;
    }

    [[nodiscard]] std::vector<std::string> one_region() const {
        return region_lists(regions_in(folder, 1));
    }

    void expect_file_holds(const std::string& path, std::uint32_t address, std::size_t size) {
        const auto held = module.flash().read(address, size);
        EXPECT_TRUE(read_file(path) == Bytes(held.begin(), held.end())) << path;
    }

    /// Answers a read with something else, for the first `times` reads.
    void tamper_reads(unsigned times, const std::function<void(Bytes& bytes)>& change) {
        module.boot.voice.tamper = [=](BootAnswer which, unsigned number, Bytes& bytes) {
            if (which == BootAnswer::read_block && number < times) {
                change(bytes);
            }
        };
    }

    TempDir folder;
    std::string agent_path;
    Ag3352Module module;
    int opens = 0;
};

TEST_F(Ag3352Readback, SendsExactlyTheseBytes) {
    const ToolRun result =
        run({"-a", "0x08001000", "-t", "2000", "-o", folder.path("out.bin")}, {}, "115200");
    EXPECT_EQ(result.result(), readback_success);
    Bytes expected = hex("A0 0A 50 05");
    append_hex(expected, "D2 A2 08 00 00 00 00 00 01 00 10");
    append_hex(expected, "D2 A2 08 00 30 00 00 00 01 00 40");
    append_hex(expected, "D7 04 20 00 00 00 00 AB B4 00 00 00 00");
    append(expected, read_file(agent_path));
    append_hex(expected, "D5 04 20 00 00");
    append_hex(expected, "05 5A 02 00 0E 21 05 5A 02 00 0F 21 05 5A 02 00 10 21");
    append(expected, checked_frame("05 5A 0C 00 01 21 00 10 00 08 00 10"));
    append(expected, checked_frame("05 5A 0C 00 01 21 00 20 00 08 00 10"));
    EXPECT_TRUE(result.sent == expected);
    EXPECT_EQ(result.rates, (std::vector<unsigned>{115200}));
    expect_file_holds(folder.path("out.bin"), base + 0x1000, 0x2000);
}

TEST_F(Ag3352Readback, SaysExactlyTheseLines) {
    const ToolRun result = run(region_lists(regions_in(folder, 2)));
    Lines lines = result.family_lines();
    const auto checksum = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.starts_with(" local_check_sum = 0x0000");
    });
    ASSERT_NE(checksum, lines.end());
    lines.erase(checksum);
    EXPECT_EQ(lines, (Lines{
                         " will read back mode: TR53G",
                         " will use device: COM6",
                         " baud_rate:921600",
                         " readback_addr_num: 2",
                         "[INFO] readback_size_num: 2",
                         " readback_num: 2",
                         "[INFO] Handshake... (Press the module reset button!)",
                         "[INFO] Disable WDT...",
                         "[INFO] Modify Baud Rate...",
                         "[INFO] Change baudrate to 921600",
                         "[INFO] Send Da file...",
                         " will send Da file(" + agent_path + ") to module",
                         " Da_file_size = abb4",
                         "[INFO] Jump to Da...",
                         "[INFO] Sync with Da...",
                     }));
    EXPECT_EQ(result.result(), readback_success);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.closes, 1);
}

TEST_F(Ag3352Readback, ReportsProgress) {
    Lines lines =
        run({"-a", "0x08000000", "-t", "0x3000", "-o", folder.path("out.bin")}).progress_lines();
    lines.erase(lines.begin(), lines.end() - 8);
    EXPECT_EQ(lines[0], "[PROGRESS] 0.00%\r");
    EXPECT_EQ(lines[1], "[SPEED] 0 Bytes/12288 Bytes    0 KBps");
    EXPECT_EQ(lines[2], "[PROGRESS] 33.33%\r");
    EXPECT_TRUE(lines[3].starts_with("[SPEED] 4096 Bytes/12288 Bytes    ")) << lines[3];
    EXPECT_EQ(lines[6], "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(lines[7].starts_with("[SPEED] 12288 Bytes/12288 Bytes    ")) << lines[7];
}

TEST_F(Ag3352Readback, FilesEqualTheFlash) {
    for (const std::size_t count : {1U, 2U, 20U}) {
        const auto regions = regions_in(folder, count);
        EXPECT_EQ(run(region_lists(regions)).result(), readback_success);
        for (std::size_t index = 0; index < count; ++index) {
            expect_file_holds(regions[index].path,
                              base + static_cast<std::uint32_t>(index) * 0x1000, 0x1000);
            std::filesystem::remove(regions[index].path);
        }
    }
}

TEST_F(Ag3352Readback, LargestSizeIsAskedFor) {
    tamper_reads(5, [](Bytes& bytes) { bytes[6] = 1; });
    EXPECT_EQ(
        failure_lines({"-a", "0x08000000", "-t", "0x200000", "-o", folder.path("out.bin")}),
        (Lines{"[ERROR] readback_flash fail 0x08000000", error("readback_flash_data error")}));
}

TEST_F(Ag3352Readback, EndOfTheFlash) {
    const std::string out = folder.path("out.bin");
    EXPECT_EQ(run({"-a", "0x081F0000", "-t", "0x10000", "-o", out}).result(), readback_success);
    expect_file_holds(out, 0x081F0000, 0x10000);
}

/// The 21st region: the address list bounds the size list, so the sizes have to come first.
TEST_F(Ag3352Readback, TwentyOneRegions) {
    const auto regions = regions_in(folder, 21);
    for (const std::string order : {"tao", "ota"}) {
        const ToolRun result = run(region_lists(regions, order));
        EXPECT_EQ(result.result(), readback_success) << order;
        EXPECT_EQ(result.count("[INFO] readback_size_num: 21\n"), 1U);
        expect_file_holds(regions[20].path, base + 20 * 0x1000, 0x1000);
    }
    EXPECT_EQ(failure_lines(region_lists(regions, "ato")),
              (Lines{"[ERROR] readback_num overthan MAX.20"}));
    EXPECT_EQ(opens, 0);
}

TEST_F(Ag3352Readback, TwentyTwoRegions) {
    const auto regions = regions_in(folder, 22);
    EXPECT_EQ(failure_lines(region_lists(regions, "tao")),
              (Lines{"[ERROR] readback_num_addr overthan MAX.20"}));
    EXPECT_EQ(failure_lines(region_lists(regions, "ota")),
              (Lines{"[ERROR] readback_num overthan MAX.20"}));
    auto words = region_lists(regions, "t");
    const auto rest = region_lists(regions_in(folder, 1), "ao");
    words.insert(words.end(), rest.begin(), rest.end());
    EXPECT_EQ(failure_lines(words).size(), 2U) << "sizes have no bound of their own";
    EXPECT_EQ(opens, 0);
}

TEST_F(Ag3352Readback, ListsMayStandAnywhere) {
    const auto regions = regions_in(folder, 2);
    const ToolRun result(module, {"-a", regions[0].address, regions[1].address, "-m", "TR53G", "-t",
                                  "0x1000", "0x1000", "-p", "COM6", "-o", regions[0].path,
                                  regions[1].path, "-s", agent_path, "-b", "115200"});
    EXPECT_EQ(result.result(), readback_success);
    expect_file_holds(regions[1].path, base + 0x1000, 0x1000);
}

TEST_F(Ag3352Readback, ListsMayComeInPieces) {
    const auto regions = regions_in(folder, 2);
    EXPECT_EQ(run({"-a", "08000000", "-t", "1000", "-o", regions[0].path, "-a", "8001000", "-t",
                   "0x1000", "-o", regions[1].path})
                  .result(),
              readback_success);
    expect_file_holds(regions[1].path, base + 0x1000, 0x1000);
}

TEST_F(Ag3352Readback, CountsMustAgree) {
    const ToolRun result =
        run({"-a", "0x08000000", "0x08001000", "-t", "0x1000", "-o", "1", "2", "3"});
    Lines lines = result.family_lines();
    lines.erase(lines.begin(), lines.end() - 5);
    EXPECT_EQ(lines,
              (Lines{"[ERROR] Please input corresponding number of readback_addr and readback_size",
                     "[ERROR] input readback path num 3", "input readback_size num 1",
                     "input readback_addr num 2", failed}));
    EXPECT_EQ(result.opens, 0);
    EXPECT_EQ(failure_lines({"-o", "1"}).size(), 2U);
}

TEST_F(Ag3352Readback, BadAddressesAndSizes) {
    const std::string out = folder.path("out.bin");
    EXPECT_EQ(failure_lines({"-a", "0x07FFF000", "-t", "0x1000", "-o", out}),
              (Lines{"[ERROR] readback_addr error 0x07fff000"}));
    EXPECT_EQ(failure_lines({"-a", "nonsense", "-t", "0x1000", "-o", out}),
              (Lines{"[ERROR] readback_addr error 0x00000000"}));
    EXPECT_EQ(failure_lines({"-a", "0x08000000", "-t", "0x200001", "-o", out}),
              (Lines{"[ERROR] readback_size error 0x00200001"}));
    EXPECT_EQ(failure_lines({"-a", "0x08000000", "-t", "-1", "-o", out}),
              (Lines{"[ERROR] readback_size error 0xffffffff"}));
    EXPECT_EQ(failure_lines({"-a", "0x08000000", "-t", "0x123456789ABCDEF0123", "-o", out}),
              (Lines{"[ERROR] readback_size error 0xffffffff"}));
    EXPECT_EQ(opens, 0);
}

TEST_F(Ag3352Readback, RegionsThatCannotBeRead) {
    const std::string out = folder.path("out.bin");
    const std::string end = error("readback_flash_data error");
    const std::string unaligned =
        "[ERROR] start_addr or read_len is error please align according to 4k size";
    EXPECT_EQ(failure_lines({"-a", "0x08000800", "-t", "0x1000", "-o", out}),
              (Lines{unaligned, end}));
    EXPECT_EQ(failure_lines({"-a", "0x08000000", "-t", "0x1800", "-o", out}),
              (Lines{unaligned, end}));
    EXPECT_EQ(failure_lines({"-a", "0x08000000", "-t", "0", "-o", out}),
              (Lines{"[ERROR] readback_flash param error,08000000,00000000," + out, end}));
    EXPECT_EQ(failure_lines({"-a", "0x08201000", "-t", "0x1000", "-o", out}),
              (Lines{"[ERROR] readback_flash param error,08201000,00001000," + out, end}));
    EXPECT_EQ(failure_lines({"-a", "0x08000000", "-t", "0x1000", "-o", ""}),
              (Lines{"[ERROR] readback_flash param error,08000000,00001000,", end}));
    EXPECT_FALSE(std::filesystem::exists(out));
}

/// The parameters let a region start where the flash ends; the agent does not.
TEST_F(Ag3352Readback, AgentRefusesWhatLiesBehindTheFlash) {
    const std::string out = folder.path("out.bin");
    const std::string end = error("readback_flash_data error");
    EXPECT_EQ(failure_lines({"-a", "0x08200000", "-t", "0x1000", "-o", out}),
              (Lines{"[ERROR] readback_flash fail 0x08200000", end}));
    EXPECT_EQ(module.boot.voice.count(BootAnswer::read_block), 5U);
    EXPECT_EQ(failure_lines({"-a", "0x081FF000", "-t", "0x2000", "-o", out}),
              (Lines{"[ERROR] readback_flash fail 0x08200000", end}));
    expect_file_holds(out, 0x081FF000, 0x1000);
}

TEST_F(Ag3352Readback, FourBadRepliesAreForgiven) {
    tamper_reads(4, [](Bytes& bytes) { bytes[6] = 1; });
    const ToolRun result = run(one_region());
    EXPECT_EQ(result.result(), readback_success);
    EXPECT_EQ(result.count("[ERROR]"), 0U) << "a status that says no has no line";
    EXPECT_EQ(module.boot.voice.count(BootAnswer::read_block), 5U);
    expect_file_holds(folder.path("part0.bin"), base, 0x1000);
}

TEST_F(Ag3352Readback, TheFifthBadReplyEndsTheRegion) {
    tamper_reads(5, [](Bytes& bytes) { bytes[6] = 1; });
    EXPECT_EQ(failure_lines(one_region()), (Lines{"[ERROR] readback_flash fail 0x08000000",
                                                  error("readback_flash_data error")}));
    EXPECT_EQ(module.boot.voice.count(BootAnswer::read_block), 5U);
    EXPECT_TRUE(read_file(folder.path("part0.bin")).empty());
}

TEST_F(Ag3352Readback, BadRepliesAreCountedOverTheWholeRegion) {
    module.boot.voice.tamper = [](BootAnswer which, unsigned number, Bytes& bytes) {
        if (which == BootAnswer::read_block && number % 2 == 0) {
            bytes[6] = 1;
        }
    };
    const std::string out = folder.path("out.bin");
    EXPECT_EQ(
        failure_lines({"-a", "0x08000000", "-t", "0x10000", "-o", out}),
        (Lines{"[ERROR] readback_flash fail 0x08004000", error("readback_flash_data error")}));
    expect_file_holds(out, base, 0x4000);

    // Two regions, four bad replies each.
    module.boot.voice.tamper = [](BootAnswer which, unsigned number, Bytes& bytes) {
        if (which == BootAnswer::read_block && number % 5 != 4) {
            bytes[6] = 1;
        }
    };
    EXPECT_EQ(run(region_lists(regions_in(folder, 2))).result(), readback_success);
}

TEST_F(Ag3352Readback, WrongAddressAndWrongData) {
    tamper_reads(1, [](Bytes& bytes) { bytes[9] ^= 0x40; });
    const ToolRun address = run(one_region());
    EXPECT_EQ(address.result(), readback_success);
    EXPECT_EQ(address.count("[ERROR] readback_flash read_start_addr error 0x08400000\n"), 1U);

    tamper_reads(1, [](Bytes& bytes) {
        std::fill(bytes.begin() + 15, bytes.end(), std::uint8_t{0});
        std::fill_n(bytes.begin() + 11, 4, std::uint8_t{0x11});
    });
    const ToolRun data = run(one_region());
    EXPECT_EQ(data.result(), readback_success);
    EXPECT_EQ(data.count("[ERROR] readback_flash CRC error local 0xc71c0011 recv 0x11111111\n"),
              1U);
    expect_file_holds(folder.path("part0.bin"), base, 0x1000);
}

TEST_F(Ag3352Readback, MissingAndShortRepliesAreAskedForAgain) {
    tamper_reads(1, [](Bytes& bytes) { bytes.clear(); });
    const ToolRun missing = run(one_region());
    EXPECT_EQ(missing.result(), readback_success);
    EXPECT_EQ(missing.count("[ERROR] readback_flash read_start_addr error 0x00000000\n"), 1U);
    EXPECT_GT(missing.duration_ms, 3000U);

    tamper_reads(1, [](Bytes& bytes) { bytes.resize(4000); });
    const ToolRun shortened = run(one_region());
    EXPECT_EQ(shortened.result(), readback_success);
    EXPECT_EQ(shortened.count("[ERROR] readback_flash CRC error local 0x"), 1U);
    expect_file_holds(folder.path("part0.bin"), base, 0x1000);
}

/// What came before still stands where the reply would be.
TEST_F(Ag3352Readback, MissingReplyBehindAGoodOneShowsThatOnesAddress) {
    module.boot.voice.tamper = [](BootAnswer which, unsigned number, Bytes& bytes) {
        if (which == BootAnswer::read_block && (number == 2 || number == 3)) {
            bytes.clear();
        }
    };
    const std::string out = folder.path("out.bin");
    const ToolRun result = run({"-a", "0x08000000", "-t", "0x4000", "-o", out});
    EXPECT_EQ(result.result(), readback_success);
    EXPECT_EQ(result.count("[ERROR]"), 2U);
    EXPECT_EQ(result.count("[ERROR] readback_flash read_start_addr error 0x08001000\n"), 2U);
    expect_file_holds(out, base, 0x4000);
}

TEST_F(Ag3352Readback, SilentAgentEndsInFiveWaits) {
    tamper_reads(100, [](Bytes& bytes) { bytes.clear(); });
    const std::uint64_t usual = run({"-o", "x"}).duration_ms;
    EXPECT_EQ(failure_lines(one_region()).size(), 7U);
    const ToolRun result = run(one_region());
    EXPECT_NEAR(static_cast<double>(result.duration_ms - usual), 5 * 3000.0, 1500.0);
}

TEST_F(Ag3352Readback, RequestThatSendsNothingIsRepeated) {
    Conditions conditions;
    conditions.port.failing_write = 66;
    const ToolRun result = run(one_region(), conditions);
    EXPECT_EQ(result.result(), readback_success);
    EXPECT_EQ(result.count("read_start_addr error 0x00000000\n"), 1U);
    EXPECT_EQ(module.boot.voice.count(BootAnswer::read_block), 1U);
}

TEST_F(Ag3352Readback, OutputThatCannotBeCreated) {
    const std::string end = error("readback_flash_data error");
    for (const std::string& path : {folder.path("no/such/folder.bin"), folder.path()}) {
        const ToolRun result = run({"-a", "0x08000000", "-t", "0x1000", "-o", path});
        Lines lines = result.family_lines();
        lines.erase(lines.begin(), lines.end() - 3);
        EXPECT_EQ(lines, (Lines{" open file error", end, failed}));
        EXPECT_EQ(result.result(), readback_failure(-1));
    }
}

TEST_F(Ag3352Readback, FullDiskEndsTheRegion) {
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "no device that is always full";
    }
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(failure_lines({"-a", "0x08000000", "-t", "0x3000", "-o", "/dev/full"}),
              (Lines{error("readback_flash_data error")}));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "/dev/full: the file could not be written: No space left on device\n");
    EXPECT_EQ(module.boot.voice.count(BootAnswer::read_block), 1U);
}

TEST_F(Ag3352Readback, EarlierFilesStayWhenALaterRegionFails) {
    auto regions = regions_in(folder, 3);
    regions[1].size = "0x800";
    EXPECT_EQ(failure_lines(region_lists(regions)).back(), error("readback_flash_data error"));
    expect_file_holds(regions[0].path, base, 0x1000);
    EXPECT_FALSE(std::filesystem::exists(regions[2].path));
}

TEST_F(Ag3352Readback, OldContentIsReplaced) {
    folder.write("part0.bin", random_image(9999, 3));
    EXPECT_EQ(run(one_region()).result(), readback_success);
    expect_file_holds(folder.path("part0.bin"), base, 0x1000);
}

TEST_F(Ag3352Readback, OtherRatesAreRefusedBehindTheWatchdogs) {
    EXPECT_EQ(failure_lines(one_region(), {}, "460800"), (Lines{"[ERROR] baud_rate error"}));
    EXPECT_EQ(module.boot.loader().writes().size(), 2U);
    EXPECT_EQ(failure_lines(one_region(), {}, "0"), (Lines{"[ERROR] baud_rate error"}));
}

TEST_F(Ag3352Readback, AgentAndPortAreNeeded) {
    const std::string agent = agent_path;
    agent_path = folder.path("gone.bin");
    EXPECT_EQ(failure_lines(one_region()), (Lines{"[ERROR] fail to access " + agent_path +
                                                  ", errno: 2 (No such file or directory)"}));
    EXPECT_EQ(opens, 0);
    agent_path = agent;
    Conditions busy;
    busy.port.open_error = EBUSY;
    EXPECT_EQ(failure_lines(one_region(), busy),
              (Lines{"[ERROR] Error opening COM6: Device or resource busy"}));
    const ToolRun unknown(module, {"-m", "TR53G", "-p", "xyz", "-o", "x"});
    EXPECT_EQ(unknown.family_lines(),
              (Lines{" will read back mode: TR53G", "[ERROR] unknow dev xyz", failed}));
}

struct Spoilt {
    BootAnswer which;
    const char* line;
};

class Ag3352ReadbackAnswers : public Ag3352Readback,
                              public ::testing::WithParamInterface<Spoilt> {};

TEST_P(Ag3352ReadbackAnswers, DriverAloneTellsWhichStepFailed) {
    spoil_answer(module.boot.voice, GetParam().which, Spoil::missing);
    EXPECT_EQ(failure_lines(one_region()), (Lines{error(GetParam().line)}));
}

INSTANTIATE_TEST_SUITE_P(Ag3352, Ag3352ReadbackAnswers,
                         ::testing::Values(Spoilt{BootAnswer::start_50, "handshake error"},
                                           Spoilt{BootAnswer::write_value,
                                                  "disable_module_WDT error"},
                                           Spoilt{BootAnswer::rate_value, "modify_baud_rate error"},
                                           Spoilt{BootAnswer::agent_checksum, "send_Da_file error"},
                                           Spoilt{BootAnswer::jump_status, "jump_to_Da error"},
                                           Spoilt{BootAnswer::flash_size, "sync_with_Da error"}));

TEST_F(Ag3352Readback, SendAgentFailureCarriesItsCodeAtTheSlowRate) {
    spoil_answer(module.boot.voice, BootAnswer::agent_address, Spoil::missing);
    EXPECT_EQ(failure_lines(one_region(), {}, "115200"), (Lines{error("send_Da_file error -1")}));
}

TEST_F(Ag3352Readback, UnpluggedAnywhere) {
    const auto words = region_lists(regions_in(folder, 4));
    expect_failure_whenever_unplugged(
        [&](const Conditions& conditions) { return run(words, conditions); },
        {.interval_ms = 61, .most_ms_behind = 60'000});
}

}  // namespace
}  // namespace orbix::test
