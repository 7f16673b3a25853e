// orbix_campaign as a program: what it prints, and its exit status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/process.h"

namespace orbix::test {
namespace {

TEST(CampaignProgram, RunsInSeveralProcessesAndSumsUp) {
    const Finished run =
        run_program("orbix_campaign", {"--runs", "62", "--jobs", "2", "--summary"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output.find("VIOLATION"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("62 runs of "), std::string::npos) << run.output;
    EXPECT_NE(run.output.find(": 0 violations"), std::string::npos) << run.output;
}

TEST(CampaignProgram, SeedShowsTheSameRunEachTime) {
    const std::vector<std::string> arguments{"--family", "AG3352", "--mode", "upgrade", "--seed",
                                             "11",       "--runs", "1",      "--trace"};
    const auto without_summary = [](const std::string& output) {
        return output.substr(0, output.rfind("1 runs of "));
    };
    const std::string first = without_summary(run_program("orbix_campaign", arguments).output);
    EXPECT_EQ(first, without_summary(run_program("orbix_campaign", arguments).output));
    EXPECT_NE(first.find("AG3352 upgrade seed 11"), std::string::npos) << first;
    EXPECT_NE(first.find(" tool    >  "), std::string::npos) << first;
}

TEST(CampaignProgram, TakesFaultsInPlaceOfTheDrawnOnes) {
    const Finished run =
        run_program("orbix_campaign", {"--family", "AG3352", "--mode", "upgrade", "--seed", "11",
                                       "--runs", "1", "--faults", "unplug@300", "--trace"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("  faults: unplug@300\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find(" fault     unplug\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("  FAIL after "), std::string::npos) << run.output;
}

TEST(CampaignProgram, WithoutAWorkingFolderItEndsAndSaysSo) {
    // A folder that is gone cannot be gone back to.
    const Finished run =
        run_program("/bin/bash", {"-c", "cd \"$(mktemp -d)\"; rmdir \"$PWD\"; exec " ORBIX_BIN_DIR
                                        "/orbix_campaign --runs 4 --jobs 2"});
    EXPECT_EQ(run.status, 2) << run.output;
    EXPECT_NE(run.errors.find("orbix_campaign: no working folder: "), std::string::npos)
        << run.errors;
    EXPECT_EQ(run.output.find("VIOLATION"), std::string::npos) << run.output;
}

TEST(CampaignProgram, ListsAndRefuses) {
    const Finished list = run_program("orbix_campaign", {"--list"});
    EXPECT_EQ(list.status, 0);
    EXPECT_NE(list.output.find("AG3335     old-agent\n"), std::string::npos) << list.output;
    EXPECT_EQ(run_program("orbix_campaign", {"--family", "nosuch"}).status, 2);
    EXPECT_EQ(run_program("orbix_campaign", {"--nosuch"}).status, 2);
    EXPECT_EQ(run_program("orbix_campaign", {"--runs", "0"}).status, 2);
    EXPECT_EQ(run_program("orbix_campaign", {"--seed", "x"}).status, 2);
    EXPECT_EQ(run_program("orbix_campaign", {"--faults", "nonsense"}).status, 2);
}

}  // namespace
}  // namespace orbix::test
