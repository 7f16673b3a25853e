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
#include "run/harness.h"
#include "rx7040_module.h"
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
            const Record first = campaign::run_seed(scenario, seed, true);
            const Record again = campaign::run_seed(scenario, seed, true);
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
std::set<Check> found_in_output(const std::string& output, std::uint64_t duration_ms = 0) {
    const Workplace workplace;
    const Scenario scenario{"AG3352", "upgrade", good_rig, {-1}};
    SilentModule module;
    sim::ToolRun run(module, {"-S"});
    run.status = 0;
    Record record;
    record.scenario = &scenario;
    record.output = output;
    record.waited = duration_ms >= campaign::patience_ms;
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

TEST(CampaignChecks, FindAWaitThatIsNotStated) {
    const std::string late =
        "[1200.600][ERROR] gone\n"
        "[1200.600][FAIL] orbix_flash upgrade fail,ret:[-1]\n";
    EXPECT_EQ(
        found_in_output("[000.001][INFO] Waiting for Sync...\n" + late, campaign::patience_ms),
        std::set<Check>{Check::ends});
    EXPECT_EQ(found_in_output("[000.001][INFO] Sync success!\n" + late, campaign::patience_ms),
              std::set<Check>{});
}

// --- what stands behind the exceptions -----------------------------------------------------------

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
    Bytes image(3000, 0xFF);
    image[1500] = 0x04;  // in the second block
    image[2500] = 0x04;  // in the last one, which the loader hears as the end once more
    sim::Rx7040Module module;
    const std::vector<std::string> arguments{
        "-m", "MX290B",
        "-p", "COM6",
        "-L", folder.write("loader.pkg", random_image(1500, 7)),
        "-f", folder.write("fw.pkg", image),
        "-t", "DL"};
    Conditions clean;
    const std::size_t sent = ToolRun(module, arguments, clean).sent.size();
    Conditions conditions;
    // The second block loses its head: what is left of it is heard as the transfer's end.
    const std::size_t second_block = sent - 1 - 2 * 1029;
    conditions.faults.push_back({.kind = FaultKind::drop, .byte = second_block, .amount = 3});
    const ToolRun run(module, arguments, conditions);
    const auto held = module.flash().read(module.flash().base(), image.size());
    EXPECT_FALSE(std::equal(held.begin(), held.end(), image.begin()));
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

TEST(CampaignExceptions, XorOverAPacketMissesTwoTurnedBits) {
    const TempDir folder;
    const Bytes image = random_image(240);
    const std::vector<std::string> arguments{"-m", "ZPX710P", "-p", "COM6",
                                             "-b", "115200",  "-f", folder.write("fw.bin", image),
                                             "-t", "DL"};
    bool missed = false;
    for (std::uint64_t seed = 1; seed <= 40 && !missed; ++seed) {
        sim::Zpx710pRomLoader module;
        Conditions conditions;
        conditions.seed = seed;
        conditions.faults.push_back({.kind = FaultKind::flip, .byte = 100, .amount = 2});
        const ToolRun run(module, arguments, conditions);
        const auto held = module.flash().read(module.flash().base(), image.size());
        const bool right = std::equal(held.begin(), held.end(), image.begin());
        missed = !right && run.result() == upgrade_success;
    }
    EXPECT_TRUE(missed) << "one pair of turned bits in eight stands in the same place";
}

}  // namespace
}  // namespace orbix::test
