// The fault campaign: a short form of it, and the campaign itself: that a seed tells the whole run,
// that the checks find what they are for, and what stands behind its exceptions.
#include "campaign/campaign.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>

#include "ag33xx_modules.h"
#include "campaign/checks.h"
#include "campaign/knowledge.h"
#include "cyfm_package.h"
#include "hd8xx0_module.h"
#include "run/harness.h"
#include "rx7040_module.h"
#include "sta8100_module.h"
#include "teseo_chip.h"
#include "zpx710p.h"

namespace orbix::test {
namespace {

using campaign::Check;
using campaign::Record;
using campaign::Rig;
using campaign::Scenario;
using campaign::Workplace;
using sim::Direction;
using sim::FaultKind;

// --- the short form ------------------------------------------------------------------------------

class CampaignModes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(CampaignModes, HoldWhateverHappensOnTheLine) {
    const Workplace workplace;
    const Scenario& scenario = campaign::scenarios()[GetParam()];
    int succeeded = 0;
    for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        const Record record = campaign::run_seed(scenario, seed);
        for (const auto& violation : record.violations) {
            ADD_FAILURE() << scenario.family << " " << scenario.mode << " seed " << seed << " ("
                          << campaign::name_of(violation.check) << "): " << violation.what;
        }
        succeeded += record.succeeded ? 1 : 0;
    }
    EXPECT_GT(succeeded, 0) << "runs that never succeed show nothing";
}

INSTANTIATE_TEST_SUITE_P(All, CampaignModes,
                         ::testing::Range<std::size_t>(0, campaign::scenarios().size()),
                         [](const auto& parameter) {
                             const Scenario& scenario = campaign::scenarios()[parameter.param];
                             std::string name = std::string(scenario.family) + scenario.mode;
                             std::erase_if(name, [](char letter) {
                                 return std::isalnum(static_cast<unsigned char>(letter)) == 0;
                             });
                             return name;
                         });

TEST(Campaign, CoversEveryFamily) {
    std::set<std::string> families;
    for (const Scenario& scenario : campaign::scenarios()) {
        families.insert(scenario.family);
    }
    EXPECT_EQ(families, (std::set<std::string>{"AG3335", "AG3352", "EVB", "HD8xx0", "RTA500C",
                                               "RX7040", "STA8089", "STA8100", "STA9100", "ZPX710P",
                                               "monitor1", "monitor2"}));
}

// --- a seed tells the whole run ------------------------------------------------------------------

const Scenario& scenario_of(const std::string& family, const std::string& mode) {
    const auto& all = campaign::scenarios();
    return *std::find_if(all.begin(), all.end(), [&](const Scenario& scenario) {
        return scenario.family == family && scenario.mode == mode;
    });
}

TEST(Campaign, SeedReplaysTheSameRunByteForByte) {
    const Workplace workplace;
    for (const char* mode : {"upgrade", "download"}) {
        const Scenario& scenario = scenario_of("AG3352", mode);
        for (std::uint64_t seed = 1; seed <= 5; ++seed) {
            const Record first = campaign::run_seed(scenario, seed, {.traced = true});
            const Record again = campaign::run_seed(scenario, seed, {.traced = true});
            EXPECT_EQ(first.output, again.output);
            EXPECT_EQ(campaign::readable_trace(first), campaign::readable_trace(again));
            const Record untraced = campaign::run_seed(scenario, seed);
            EXPECT_EQ(first.output, untraced.output) << "watching does not change the run";
        }
    }
}

TEST(Campaign, FaultsAreDescribedAsTheSimulatorReadsThem) {
    const std::vector<sim::Fault> faults{
        {.kind = FaultKind::drop, .direction = Direction::to_module, .byte = 17, .amount = 3},
        {.kind = FaultKind::delay,
         .direction = Direction::to_host,
         .byte = std::nullopt,
         .time = sim::milliseconds(250),
         .amount = 40},
        {.kind = FaultKind::power_cycle, .direction = Direction::to_module, .byte = 5}};
    const std::string text = campaign::describe(faults);
    EXPECT_EQ(text, "drop=3@17,delay=40@250ms:to-host,power-cycle@5");
    std::string error;
    const auto parsed = sim::parse_faults(text, error);
    ASSERT_TRUE(parsed) << error;
    EXPECT_EQ(campaign::describe(*parsed), text);
}

TEST(Campaign, TraceShowsBothDirectionsWithTheirTimesAndTheLines) {
    Record record;
    const sim::Micros start = sim::VirtualPort::start;
    record.trace = {{start + 1500, Direction::to_module, 0xAA},
                    {start + 1600, Direction::to_module, '$'},
                    {start + 20'000, Direction::to_host, 0x55}};
    record.output = "[000.000][INFO] begin\n[000.010][INFO] later\n";
    const auto blanks = [](std::size_t count) { return std::string(count, ' '); };
    EXPECT_EQ(campaign::readable_trace(record),
              "             log       [INFO] begin\n"
              "    0.001500 tool    >  AA 24" +
                  blanks(44) +
                  ".$\n"
                  "             log       [INFO] later\n"
                  "    0.020000   module <  55" +
                  blanks(47) + "U\n");
}

TEST(Campaign, TraceShowsWhereTheFaultsStruck) {
    Record record;
    const sim::Micros start = sim::VirtualPort::start;
    record.trace = {{start + 1500, Direction::to_module, 0xAA},
                    {start + 1700, Direction::to_module, '$'}};
    record.strikes = {{start + 1600, FaultKind::drop, Direction::to_module, 1, 0},
                      {start + 1600, FaultKind::drop, Direction::to_module, 2, 0},
                      {start + 1700, FaultKind::flip, Direction::to_host, 3, 2},
                      {start + 9000, FaultKind::unplug, Direction::to_module, 0, 0}};
    const std::string blanks(47, ' ');
    EXPECT_EQ(campaign::readable_trace(record),
              "    0.001500 tool    >  AA" + blanks +
                  ".\n"
                  "    0.001600 fault     drop to the module, 2 bytes\n"
                  "    0.001700 fault     flip to the tool\n"
                  "    0.001700 tool    >  24" +
                  blanks +
                  "$\n"
                  "    0.009000 fault     unplug\n");
}

// --- the checks find what they are for -----------------------------------------------------------

/// A scenario of a run that goes well, with something wrong in what is expected of it.
Rig good_rig(campaign::Draw& draw) {
    static const Scenario& base = scenario_of("AG3352", "upgrade");
    return base.make(draw);
}

/// The checks that find something in the first run of a scenario that meets no fault.
std::set<Check> found_in(Rig (*make)(campaign::Draw& draw), std::vector<int> codes = {-1}) {
    const Workplace workplace;
    const Scenario scenario{"AG3352", "upgrade", make, std::move(codes)};
    for (std::uint64_t seed = 1; seed < 200; ++seed) {
        const Record record = campaign::run_seed(scenario, seed);
        if (record.faults.empty()) {
            std::set<Check> found;
            for (const auto& violation : record.violations) {
                found.insert(violation.check);
            }
            return found;
        }
    }
    ADD_FAILURE() << "no run without a fault";
    return {};
}

TEST(CampaignChecks, FindNothingInAGoodRun) {
    EXPECT_EQ(found_in(good_rig), std::set<Check>{});
}

TEST(CampaignChecks, FindAFlashThatDoesNotHoldTheImage) {
    EXPECT_EQ(found_in([](campaign::Draw& draw) {
                  Rig rig = good_rig(draw);
                  rig.held.front().content.front() ^= 1;
                  return rig;
              }),
              std::set<Check>{Check::holds_image});
}

TEST(CampaignChecks, FindAReadbackThatIsNotTheFlash) {
    EXPECT_EQ(found_in([](campaign::Draw& draw) {
                  Rig rig = scenario_of("AG3352", "readback").make(draw);
                  rig.written.front().content.back() ^= 1;
                  return rig;
              }),
              std::set<Check>{Check::holds_image});
}

TEST(CampaignChecks, FindWhatIsWrittenOutsideTheRegion) {
    EXPECT_EQ(found_in([](campaign::Draw& draw) {
                  Rig rig = good_rig(draw);
                  rig.regions.front().begin += 1;
                  return rig;
              }),
              std::set<Check>{Check::stays_inside});
}

TEST(CampaignChecks, FindAFailureWithoutAFault) {
    EXPECT_EQ(found_in([](campaign::Draw& draw) {
                  Rig rig = good_rig(draw);
                  rig.option("-f", "absent.bin");
                  return rig;
              }),
              std::set<Check>{Check::undisturbed});
}

TEST(CampaignChecks, FindASuccessThatShouldBeNone) {
    EXPECT_EQ(found_in([](campaign::Draw& draw) {
                  Rig rig = good_rig(draw);
                  rig.success_expected = false;
                  return rig;
              }),
              std::set<Check>{Check::undisturbed});
}

TEST(CampaignChecks, FindACodeThatIsNoneOfTheModes) {
    EXPECT_EQ(found_in(
                  [](campaign::Draw& draw) {
                      Rig rig = good_rig(draw);
                      rig.option("-f", "absent.bin");
                      rig.success_expected = false;
                      return rig;
                  },
                  {258}),
              std::set<Check>{Check::agrees});
}

/// Judges an output as if a run had written it.
struct RunEnd {
    std::uint64_t duration_ms = 0;
    int status = 0;
    bool cut_off = false;
};
std::set<Check> found_in_output(const std::string& output, const RunEnd& end = {}) {
    const Workplace workplace;
    const Scenario scenario{"AG3352", "upgrade", good_rig, {-1}};
    SilentModule module;
    sim::ToolRun run(module, {"-S"});
    run.status = end.status;
    run.hit_time_limit = end.cut_off;
    Record record;
    record.scenario = &scenario;
    record.output = output;
    record.waited = end.duration_ms >= campaign::patience_ms;
    record.faults.push_back({});
    campaign::judge(record, {}, run);
    std::set<Check> found;
    for (const auto& violation : record.violations) {
        found.insert(violation.check);
    }
    return found;
}

TEST(CampaignChecks, FindLinesThatAreNotWellFormed) {
    const std::string end =
        "[000.009][ERROR] x\n[000.009][FAIL] orbix_flash upgrade fail,ret:[-1]\n";
    const std::set<Check> form{Check::well_formed};
    EXPECT_EQ(found_in_output("[000.001][INFO] fine\n" + end), std::set<Check>{});
    EXPECT_EQ(found_in_output("no stamp\n" + end), form);
    EXPECT_EQ(found_in_output("[000.001]no tag\n" + end), form);
    EXPECT_EQ(found_in_output("[000.001][INFO] bell \a\n" + end), form);
    EXPECT_EQ(found_in_output("[000.010][INFO] back in time\n" + end), form);
    EXPECT_EQ(found_in_output("[000.001][PROGRESS] 101.00%\n" + end), form);
    EXPECT_EQ(found_in_output("[000.001][PROGRESS] -nan%\n" + end), form);
    EXPECT_EQ(found_in_output("[000.001][PROGRESS] 50.00%\r\n" + end), std::set<Check>{});
    EXPECT_EQ(found_in_output("[000.001][SPEED] 9 Bytes/8 Bytes    1.0 KBps\n" + end), form);
    EXPECT_EQ(found_in_output("[000.001][SPEED] 8 Bytes/8 Bytes    0 KBps\n" + end),
              std::set<Check>{});
    EXPECT_EQ(found_in_output(end.substr(0, end.size() - 1)), form);
}

TEST(CampaignChecks, FindAFailureThatIsNotNamed) {
    EXPECT_EQ(found_in_output("[000.001][INFO] x\n"
                              "[000.001][FAIL] orbix_flash upgrade fail,ret:[-1]\n"),
              std::set<Check>{Check::names_failure});
}

TEST(CampaignChecks, FindResultsThatDoNotAgree) {
    const std::string error = "[000.001][ERROR] x\n";
    const std::string fail = "[000.001][FAIL] orbix_flash upgrade fail,ret:[-1]\n";
    const std::set<Check> agreement{Check::agrees};
    EXPECT_EQ(found_in_output(error), (std::set<Check>{Check::agrees}));
    EXPECT_EQ(found_in_output(error + fail + fail), agreement);
    EXPECT_EQ(found_in_output(fail + error), agreement);
    EXPECT_EQ(found_in_output(error + "[000.001][FAIL] orbix_flash upgrade fail,ret:[7]\n"),
              agreement);
}

TEST(CampaignChecks, FindAnExitStatus) {
    const std::string fail =
        "[000.001][ERROR] x\n[000.001][FAIL] orbix_flash upgrade fail,ret:[-1]\n";
    EXPECT_EQ(found_in_output(fail, {.status = 1}), std::set<Check>{Check::agrees});
}

TEST(CampaignChecks, FindARunThatGoesOnWithoutItsDevice) {
    const std::string stated = "[000.001][INFO] Sync success!\n";
    const RunEnd end{.duration_ms = campaign::patience_ms, .cut_off = true};
    EXPECT_EQ(found_in_output(stated, end), std::set<Check>{Check::ends});
}

TEST(CampaignChecks, FindAWaitThatIsNotStated) {
    const std::string late =
        "[1200.600][ERROR] gone\n"
        "[1200.600][FAIL] orbix_flash upgrade fail,ret:[-1]\n";
    EXPECT_EQ(found_in_output("[000.001][INFO] Waiting for Sync...\n" + late,
                              {.duration_ms = campaign::patience_ms}),
              std::set<Check>{Check::ends});
    EXPECT_EQ(found_in_output("[000.001][INFO] Sync success!\n" + late,
                              {.duration_ms = campaign::patience_ms}),
              std::set<Check>{});
}

// --- what stands behind the exceptions -----------------------------------------------------------

/// The entries of a table that no run of many seeds has met, nor one of the `rare` runs.
template <typename Entry>
std::string entries_not_met(const std::vector<Entry>& table, const Entry* Record::*met,
                            const std::vector<Record>& rare = {}) {
    const Workplace workplace;
    std::set<const Entry*> missing;
    for (const Entry& entry : table) {
        missing.insert(&entry);
    }
    for (const Record& record : rare) {
        missing.erase(record.*met);
    }
    constexpr std::uint64_t seeds = 2000;
    for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
        for (const Scenario& scenario : campaign::scenarios()) {
            const bool wanted = std::any_of(missing.begin(), missing.end(), [&](const auto* entry) {
                return campaign::concerns(entry->family, scenario.family) &&
                       campaign::concerns(entry->mode, scenario.mode);
            });
            if (wanted) {
                missing.erase(campaign::run_seed(scenario, seed).*met);
            }
        }
    }
    std::string text;
    for (const Entry* entry : missing) {
        text += std::string(entry->family) + " " + entry->mode + " \"" + entry->last_line + "\"\n";
    }
    return text;
}

/// A run of a mode with these faults and no others.
Record run_with_faults(const std::string& family, const std::string& mode,
                       const std::string& text) {
    const Workplace workplace;
    std::string error;
    const auto faults = sim::parse_faults(text, error);
    EXPECT_TRUE(faults) << error;
    return campaign::run_seed(scenario_of(family, mode), 1, {.faults = faults});
}

TEST(CampaignKnowledge, EachUnlimitedWaitIsMet) {
    // Something that is no answer, and then nothing for ever.
    const Record junk = run_with_faults("ZPX710P", "DL", "noise=1@0:to-host,silence@0:to-host");
    EXPECT_EQ(entries_not_met(campaign::unlimited_waits, &Record::wait, {junk}), "");
}

TEST(CampaignKnowledge, EachSilentStepIsMet) {
    EXPECT_EQ(entries_not_met(campaign::silent_steps, &Record::silent_step), "");
}

TEST(CampaignExceptions, EachNamesATestThatIsThere) {
    std::set<std::string> tests;
    const auto& unit = *::testing::UnitTest::GetInstance();
    for (int suite = 0; suite < unit.total_test_suite_count(); ++suite) {
        const auto& cases = *unit.GetTestSuite(suite);
        for (int test = 0; test < cases.total_test_count(); ++test) {
            tests.insert(std::string(cases.name()) + "." + cases.GetTestInfo(test)->name());
        }
    }
    for (const auto& exception : campaign::exceptions) {
        EXPECT_TRUE(tests.contains(exception.test)) << exception.test;
        EXPECT_FALSE(std::string(exception.reason).empty());
    }
}

TEST(CampaignExceptions, SpareAcknowledgementStandsInForTheVerdict) {
    const TempDir folder;
    const std::vector<std::string> arguments{
        "-m",     "TS30A", "-p",       "COM6", "-b",
        "115200", "-t",    "recovery", "-f",   folder.write("app.bin", random_image(5000))};
    const auto quiet = [] {
        auto settings = sim::TeseoChip::sta8089();
        settings.talker.period = 0;
        return settings;
    }();
    sim::TeseoChip undisturbed(quiet);
    const std::size_t sent = ToolRun(undisturbed, arguments).sent.size();
    ASSERT_TRUE(undisturbed.completed());

    // Four bytes answer the sync word, then single ones: two for the start, one each for the
    // options, the code, the NVM area, the image's only piece, and the verdict.
    constexpr std::uint64_t nvm_erased = 8;
    Conditions conditions;
    conditions.faults.push_back(
        {.kind = FaultKind::duplicate, .direction = Direction::to_host, .byte = nvm_erased});
    conditions.faults.push_back({.kind = FaultKind::flip, .byte = sent - 100});
    sim::TeseoChip module(quiet);
    const ToolRun run(module, arguments, conditions);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_FALSE(module.completed());
}

TEST(CampaignExceptions, XmodemEndsAtAByteOfADamagedBlock) {
    const TempDir folder;
    const Bytes image = random_image(3500);
    sim::Rx7040Module module;
    const std::vector<std::string> arguments{
        "-m", "MX290B",
        "-p", "COM6",
        "-L", folder.write("loader.pkg", random_image(1500, 7)),
        "-f", folder.write("fw.pkg", image),
        "-t", "DL"};
    const std::size_t sent = ToolRun(module, arguments).sent.size();
    Conditions conditions;
    // The last block is number 4. Without its first byte it begins with this number: the end.
    conditions.faults.push_back({.kind = FaultKind::drop, .byte = sent - 1 - 1029});
    const ToolRun run(module, arguments, conditions);
    const sim::Flash& flash = module.flash();
    EXPECT_TRUE(flash.holds(flash.base(), std::span(image).first(3072)));
    EXPECT_FALSE(flash.holds(flash.base(), image));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(CampaignExceptions, ByteSumOverAPacketMissesTwoTurnedBits) {
    const TempDir folder;
    const Bytes content = random_image(4096);
    const std::string part = folder.path("part.bin");
    const std::vector<std::string> arguments{
        "-m", "TR40XBA",    "-p", "COM6",
        "-b", "115200",     "-s", folder.write("agent.bin", random_image(27895)),
        "-a", "0x08000000", "-t", "0x1000",
        "-o", part};
    const auto read_back = [&](Conditions conditions) {
        sim::Ag3335Module module;
        module.flash().program(0x08000000, content);
        return ToolRun(module, arguments, std::move(conditions));
    };
    const std::size_t received = read_back({}).received.size();
    bool missed = false;
    for (std::uint64_t seed = 1; seed <= 60 && !missed; ++seed) {
        Conditions conditions;
        conditions.seed = seed;
        conditions.faults.push_back({.kind = FaultKind::flip,
                                     .direction = Direction::to_host,
                                     .byte = received - 1000,
                                     .amount = 2});
        const bool succeeded = read_back(conditions).result() == readback_success;
        missed = succeeded && read_file(part) != content;
    }
    EXPECT_TRUE(missed) << "one pair of turned bits in sixteen goes unseen";
}

TEST(CampaignExceptions, FletcherSumsOverABlockMissThreeTurnedBits) {
    const TempDir folder;
    // +1, -2, +1 in a row changes neither the sum of the bytes nor the sum of the sums.
    constexpr std::ptrdiff_t offset = 1500;
    Bytes image = random_image(4000);
    image[offset] = image[offset + 2] = 0x00;
    image[offset + 1] = 0xFF;
    const std::vector<std::string> arguments{
        "-m",     "MX210A00", "-p",   "COM6", "-b",
        "115200", "-t",       "boot", "-f",   folder.write("fw.cyfm", sim::make_cyfm(image))};
    sim::Hd8xx0Module undisturbed;
    const Bytes sent = ToolRun(undisturbed, arguments).sent;
    const auto begin = image.begin() + offset;
    const auto place = std::search(sent.begin(), sent.end(), begin, begin + 100) - sent.begin();
    bool missed = false;
    for (std::uint64_t seed = 1; seed <= 400 && !missed; ++seed) {
        sim::Hd8xx0Module module;
        Conditions conditions;
        conditions.seed = seed;
        conditions.faults.push_back(
            {.kind = FaultKind::flip, .byte = static_cast<std::uint64_t>(place), .amount = 3});
        const ToolRun run(module, arguments, conditions);
        const bool right = module.flash().holds(module.flash().base(), image);
        missed = !right && run.result() == upgrade_success;
    }
    EXPECT_TRUE(missed) << "one triple of turned bits in about eighty goes unseen";
}

/// An image for the application processor of a STA8100 under faults.
class AppBootRun {
  public:
    explicit AppBootRun(std::vector<sim::Fault> faults = {}, std::uint64_t seed = 1) {
        const TempDir folder;
        const Bytes image = random_image(1024);
        auto settings = sim::Sta8100Module::of_model("TS50A");
        settings.chip.talker.period = 0;
        settings.app_waits = true;
        sim::Sta8100Module module(settings);
        Conditions conditions;
        conditions.faults = std::move(faults);
        conditions.seed = seed;
        const ToolRun run(module,
                          {"-m", "TS50A", "-p", "COM6", "-b", "115200", "-c", "app_boot", "-f",
                           folder.write("app.bin", image)},
                          conditions);
        succeeded = run.result() == upgrade_success;
        sent = run.sent.size();
        received = run.received.size();
        const auto& flash = module.app().flash();
        holds_image = flash.holds(flash.base(), image);
    }

    bool succeeded = false;
    bool holds_image = false;
    std::size_t sent = 0;
    std::size_t received = 0;
};

TEST(CampaignExceptions, XorOverAnAppBlockMissesTwoTurnedBits) {
    bool missed = false;
    for (std::uint64_t seed = 1; seed <= 40 && !missed; ++seed) {
        const AppBootRun run({{.kind = FaultKind::flip, .byte = 500, .amount = 2}}, seed);
        missed = run.succeeded && !run.holds_image;
    }
    EXPECT_TRUE(missed) << "one pair of turned bits in eight stands in the same place";
}

TEST(CampaignExceptions, SpareAcknowledgementStandsInForAnAppBlock) {
    const AppBootRun undisturbed;
    ASSERT_TRUE(undisturbed.succeeded && undisturbed.holds_image);
    // Three acknowledgements for each of the four blocks: that of the first block's data comes
    // twice, and the last block loses a byte.
    const AppBootRun run({{.kind = FaultKind::duplicate,
                           .direction = Direction::to_host,
                           .byte = undisturbed.received - 10},
                          {.kind = FaultKind::drop, .byte = undisturbed.sent - 100}});
    EXPECT_TRUE(run.succeeded);
    EXPECT_FALSE(run.holds_image);
}

/// A download into the ROM loader of a ZPX710P under faults.
class Zpx710pRomRun {
  public:
    Zpx710pRomRun(const Bytes& image, std::vector<sim::Fault> faults, std::uint64_t seed = 1) {
        const TempDir folder;
        Conditions conditions;
        conditions.faults = std::move(faults);
        conditions.seed = seed;
        const ToolRun run(module,
                          {"-m", "ZPX710P", "-p", "COM6", "-b", "115200", "-f",
                           folder.write("fw.bin", image), "-t", "DL"},
                          conditions);
        succeeded = run.result() == upgrade_success;
        holds_image = module.flash().holds(module.flash().base(), image);
    }

    sim::Zpx710pRomLoader module;
    bool succeeded = false;
    bool holds_image = false;
};

/// What a download of one page and one block begins with: the call, the erase command and its page,
/// the write command, the address. The block's length follows.
constexpr std::uint64_t address_byte = 1 + 2 + 3 + 2;
constexpr std::uint64_t block_byte = address_byte + 5;

TEST(CampaignExceptions, XorOverAPacketMissesTwoTurnedBits) {
    const Bytes image = random_image(240);
    bool missed = false;
    for (std::uint64_t seed = 1; seed <= 40 && !missed; ++seed) {
        const Zpx710pRomRun run(image, {{.kind = FaultKind::flip, .byte = 100, .amount = 2}}, seed);
        missed = run.succeeded && !run.holds_image;
    }
    EXPECT_TRUE(missed) << "one pair of turned bits in eight stands in the same place";
}

TEST(CampaignExceptions, PacketThatLostAByteIsFilledUpByItsRepetition) {
    // The address 08000000 without its checksum, and once more from the front: 08 is the checksum.
    // The rest of the repetition is a block of one zero.
    const Zpx710pRomRun run({1, 2, 3}, {{.kind = FaultKind::drop, .byte = address_byte + 4}});
    EXPECT_TRUE(run.succeeded);
    EXPECT_FALSE(run.holds_image);
}

TEST(CampaignExceptions, SpareAcknowledgementStandsInForABlock) {
    // From its first answers on the tool is ahead, and writes while the module still erases and
    // hears nothing.
    const Zpx710pRomRun run(
        Bytes{7},
        {{.kind = FaultKind::duplicate, .direction = Direction::to_host, .byte = 0, .amount = 3}});
    EXPECT_TRUE(run.succeeded);
    EXPECT_FALSE(run.holds_image);
}

TEST(CampaignExceptions, RepeatedAddressIsTakenForData) {
    // Two bytes from nowhere in front of the address's acknowledgement: it is sent twice more, and
    // the block behind it. 08 is the length of a block of nine bytes, whose XOR is right.
    constexpr std::uint64_t answer_to_the_address = 4;
    const Zpx710pRomRun run(Bytes{7}, {{.kind = FaultKind::noise,
                                        .direction = Direction::to_host,
                                        .byte = answer_to_the_address,
                                        .amount = 2}});
    EXPECT_TRUE(run.succeeded);
    EXPECT_FALSE(run.holds_image);
    EXPECT_TRUE(run.module.took_address_for_data());
}

TEST(CampaignExceptions, ByteOfTheImageSynchronisesARestartedModule) {
    Bytes image = random_image(240);
    std::replace(image.begin(), image.end(), std::uint8_t{0x7F}, std::uint8_t{0});
    image[200] = 0x7F;
    const Zpx710pRomRun run(image, {{.kind = FaultKind::power_cycle, .byte = block_byte + 100}});
    EXPECT_TRUE(run.succeeded);
    EXPECT_FALSE(run.holds_image);
    EXPECT_EQ(run.module.synchronisations(), 2);
}

}  // namespace
}  // namespace orbix::test
