// What the station makes of orbix_flash's lines: whole runs of every family in virtual time, whose
// output goes through it line by line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "campaign/campaign.h"
#include "campaign/scenario.h"
#include "flash_lines.h"
#include "line_splitter.h"
#include "tool_run.h"

namespace orbix::station {
namespace {

using campaign::Draw;
using campaign::Rig;
using campaign::Scenario;
using campaign::Workplace;
using sim::Conditions;
using sim::Direction;
using sim::Fault;
using sim::FaultKind;

/// What the station has seen of a run.
struct Followed {
    FlashLines lines;
    std::vector<Phase> phases;       ///< each that was entered, in order
    std::vector<std::string> waits;  ///< for what a hand was asked
    double greatest_percent = 0;
};

void follow(Followed& followed, std::string_view line) {
    FlashLines& lines = followed.lines;
    const Phase before = lines.phase;
    const std::string waited = lines.waiting_for;
    lines.take(line);
    if (lines.phase != before) {
        followed.phases.push_back(lines.phase);
    }
    if (lines.waiting_for != waited && !lines.waiting_for.empty()) {
        followed.waits.push_back(lines.waiting_for);
    }
    followed.greatest_percent = std::max(followed.greatest_percent, lines.percent);
}

Followed follow(const std::string& output, const std::string& errors = "", bool port_gone = false) {
    Followed followed;
    LineSplitter splitter;
    splitter.take(output, [&](std::string_view line) { follow(followed, line); });
    LineSplitter error_splitter;
    error_splitter.take(errors,
                        [&](std::string_view line) { followed.lines.take_error_output(line); });
    followed.lines.end(splitter.unfinished(), port_gone);
    return followed;
}

/// A run of a scenario without faults but the given ones.
struct Outcome {
    Followed followed;
    std::string output;
};

Outcome run_with(const Rig& rig, Conditions conditions) {
    conditions.traced = false;
    conditions.faults.push_back({.kind = FaultKind::unplug,
                                 .byte = std::nullopt,
                                 .time = sim::milliseconds(campaign::patience_ms)});
    testing::internal::CaptureStderr();
    const sim::ToolRun run(*rig.module, rig.arguments, conditions);
    const std::string errors = testing::internal::GetCapturedStderr();
    const bool port_gone = conditions.faults.front().kind == FaultKind::unplug;
    return {follow(run.output, errors, port_gone), run.output};
}

/// A rig that succeeds undisturbed.
Rig good_rig(const Scenario& scenario, std::uint64_t seed) {
    for (;; ++seed) {
        Draw draw(seed);
        Rig rig = scenario.make(draw);
        if (rig.success_expected == true || std::string_view(scenario.mode) == "app_boot") {
            return rig;
        }
    }
}

/// One of those that moves some thousand bytes.
Rig large_rig(const Scenario& scenario) {
    for (std::uint64_t seed = 1;; ++seed) {
        Rig rig = good_rig(scenario, seed);
        if (std::max(rig.bytes_to_module, rig.bytes_to_host) > 8000) {
            return rig;
        }
    }
}

std::string name_of(const Scenario& scenario) {
    std::string name = std::string(scenario.family) + "_" + scenario.mode;
    std::replace_if(
        name.begin(), name.end(),
        [](char letter) { return std::isalnum(static_cast<unsigned char>(letter)) == 0; }, '_');
    return name;
}

/// The fault that makes a module silent from its first byte on.
Fault silent_module() {
    return {.kind = FaultKind::silence, .direction = Direction::to_host, .byte = 0, .amount = 0};
}

class EveryMode : public ::testing::TestWithParam<std::size_t> {
  protected:
    const Scenario& scenario = campaign::scenarios()[GetParam()];
    const Workplace workplace;
};

INSTANTIATE_TEST_SUITE_P(All, EveryMode,
                         ::testing::Range<std::size_t>(0, campaign::scenarios().size()),
                         [](const auto& parameter) {
                             return name_of(campaign::scenarios()[parameter.param]);
                         });

TEST_P(EveryMode, GoodRunGoesThroughItsPhasesInOrderAndIsGood) {
    for (std::uint64_t seed = 1; seed <= 5; ++seed) {
        const Rig rig = good_rig(scenario, seed * 1000);
        const Outcome outcome = run_with(rig, {});
        if (outcome.output.find("[SUCCESS]") == std::string::npos) {
            continue;  // a processor that is read-protected, in the mode that may fail
        }
        const Followed& followed = outcome.followed;
        EXPECT_EQ(followed.lines.cause, Cause::none) << outcome.output;
        EXPECT_EQ(followed.lines.message, "");
        EXPECT_TRUE(std::is_sorted(followed.phases.begin(), followed.phases.end()));
        EXPECT_EQ(followed.lines.waiting_for, "");
        for (const Phase phase : {Phase::sync, Phase::write}) {
            EXPECT_EQ(std::count(followed.phases.begin(), followed.phases.end(), phase), 1)
                << phase_name(phase) << "\n"
                << outcome.output;
        }
        EXPECT_LE(followed.greatest_percent, 100.0);
    }
}

TEST_P(EveryMode, GoodRunTellsAllBytesOfTheImages) {
    const Rig rig = good_rig(scenario, 77);
    std::uint64_t expected = 0;
    for (const auto& held : rig.held) {
        expected += held.content.size();
    }
    for (const auto& written : rig.written) {
        expected += written.content.size();
    }
    const Outcome outcome = run_with(rig, {});
    if (outcome.output.find("[SUCCESS]") == std::string::npos) {
        GTEST_SKIP() << "the drawn module may refuse";
    }
    // XMODEM transfers end before the last block's line, those of the boot loader of HD8xx0 before
    // the last two.
    const std::uint64_t untold =
        scenario.mode == std::string_view("boot") && scenario.family == std::string_view("HD8xx0")
            ? 1024
        : scenario.mode == std::string_view("user") || scenario.mode == std::string_view("download")
            ? 1024
            : 0;
    EXPECT_GE(outcome.followed.lines.bytes_flashed + untold, expected) << outcome.output;
    EXPECT_LE(outcome.followed.lines.bytes_flashed, expected);
}

TEST_P(EveryMode, SilentModuleDidNotAnswer) {
    Conditions conditions;
    conditions.faults = {silent_module()};
    const Outcome outcome = run_with(good_rig(scenario, 1), conditions);
    EXPECT_EQ(outcome.followed.lines.cause, Cause::no_sync) << outcome.output;
    EXPECT_LE(outcome.followed.lines.phase, Phase::sync);
}

TEST_P(EveryMode, AbsentPortIsAPortCause) {
    Conditions conditions;
    conditions.port.open_error = ENOENT;
    const Rig rig = good_rig(scenario, 1);
    const Outcome outcome = run_with(rig, conditions);
    if (outcome.output.find("[SUCCESS]") != std::string::npos) {
        // A ZPX710P upgrade says SUCCESS; the ERROR line is told beside it.
        EXPECT_STREQ(scenario.family, "ZPX710P");
        EXPECT_EQ(outcome.followed.lines.message, "Open & config the serial failed");
        return;
    }
    if (outcome.output.find("Need soft reset") != std::string::npos) {
        return;  // these have one line for every failure of the soft reset
    }
    EXPECT_EQ(outcome.followed.lines.cause, Cause::port) << outcome.output;
}

TEST_P(EveryMode, DeviceThatVanishesInMidTransferBreaksTheTransferOff) {
    const Rig rig = large_rig(scenario);
    // A readback moves its bytes the other way.
    const bool reads = !rig.written.empty();
    Conditions conditions;
    conditions.faults = {{.kind = FaultKind::unplug,
                          .direction = reads ? Direction::to_host : Direction::to_module,
                          .byte = (reads ? rig.bytes_to_host : rig.bytes_to_module) * 3 / 4}};
    const Outcome outcome = run_with(rig, conditions);
    ASSERT_NE(outcome.output.find("[FAIL]"), std::string::npos) << outcome.output;
    EXPECT_EQ(outcome.followed.lines.cause, Cause::transfer) << outcome.output;
    EXPECT_NE(outcome.followed.lines.message, "");
}

TEST_P(EveryMode, MissingImageIsAFileCause) {
    const Rig rig = good_rig(scenario, 1);
    if (!rig.written.empty()) {
        GTEST_SKIP() << "a readback takes no image";
    }
    const auto value_of = [&rig](const char* option) {
        const auto place = std::find(rig.arguments.begin(), rig.arguments.end(), option);
        return place == rig.arguments.end() ? std::string() : *std::next(place);
    };
    const std::string image = value_of("-f");
    const std::string layout = value_of("-d") + "/flash_download.cfg";
    ASSERT_TRUE(std::filesystem::remove(image.empty() ? layout : image));
    const Outcome outcome = run_with(rig, {});
    if (scenario.family == std::string_view("AG3352") ||
        scenario.family == std::string_view("ZPX710P")) {
        // No line names the file; the station adds what it knows itself.
        EXPECT_TRUE(outcome.followed.lines.cause == Cause::transfer ||
                    outcome.followed.lines.cause == Cause::file)
            << outcome.output;
        return;
    }
    EXPECT_EQ(outcome.followed.lines.cause, Cause::file) << outcome.output;
}

TEST_P(EveryMode, VerdictIsThatOfTheLastLineWhateverHappensOnTheLine) {
    int failed = 0;
    for (std::uint64_t seed = 1; seed <= 15; ++seed) {
        const campaign::Record record = campaign::run_seed(scenario, seed);
        const Followed followed = follow(record.output);
        const Cause cause = followed.lines.cause;
        EXPECT_EQ(cause == Cause::none, record.succeeded) << "seed " << seed;
        if (record.succeeded) {
            continue;
        }
        ++failed;
        const bool fits = cause == Cause::no_sync || cause == Cause::refused ||
                          cause == Cause::transfer || cause == Cause::port;
        EXPECT_TRUE(fits) << "seed " << seed << ": " << cause_name(cause) << "\n"
                          << record.output.substr(
                                 record.output.size() > 600 ? record.output.size() - 600 : 0);
        EXPECT_NE(followed.lines.code, 0);
        EXPECT_TRUE(std::is_sorted(followed.phases.begin(), followed.phases.end()));
    }
    EXPECT_GT(failed, 0) << "runs that never fail show nothing";
}

// --- the result line -----------------------------------------------------------------------------

constexpr const char* success = "[001.000][SUCCESS] orbix_flash upgrade success\n";

TEST(ResultLine, LastLineDecides) {
    EXPECT_EQ(follow(success).lines.cause, Cause::none);
    EXPECT_EQ(follow("[000.000][SUCCESS] orbix_flash readback success\r\n").lines.cause,
              Cause::none);
    EXPECT_EQ(follow("[1234567.000][SUCCESS] orbix_flash upgrade success\n").lines.cause,
              Cause::none);
}

TEST(ResultLine, SuccessIsNotBelievedWhereTheToolSaysThatItCouldNotBegin) {
    const std::string arguments = "new_argv[0]:orbix_flash\n";
    EXPECT_EQ(follow(arguments + "[000.003][ERROR] Open & config the serial failed\n" + success)
                  .lines.cause,
              Cause::port);
    EXPECT_EQ(follow(arguments + "[000.000] Usage: orbix_flash [OPTIONS]\n" + success).lines.cause,
              Cause::usage);
    // The package has no layout: its flash is erased, and nothing is written.
    const Followed no_layout =
        follow(arguments + "[000.900][ERROR] fw/flash_download.cfg non-existent\n" +
               "[000.950] Flash upgrade successfully\n" + success);
    EXPECT_EQ(no_layout.lines.cause, Cause::file);
    // What is tried again does not count.
    EXPECT_EQ(follow(arguments + "[000.900][ERROR] ACK time out 500 ms\n" + success).lines.cause,
              Cause::none);
}

TEST(ResultLine, NothingMayStandBehindIt) {
    EXPECT_EQ(follow(success + std::string("more\n")).lines.cause, Cause::no_result);
    EXPECT_EQ(follow(success + std::string("\n")).lines.cause, Cause::no_result);
    EXPECT_EQ(follow(success + std::string("x")).lines.cause, Cause::no_result);
    EXPECT_EQ(follow(success + std::string(success)).lines.cause, Cause::no_result);
    EXPECT_EQ(follow("[001.000][FAIL] orbix_flash upgrade fail,ret:[-1]\n" + std::string(success))
                  .lines.cause,
              Cause::no_result);
}

TEST(ResultLine, MustBeWhole) {
    for (const char* output :
         {"", "[001.000][SUCCESS] orbix_flash upgrade success", "[001.000][SUCCESS] orbix_flash\n",
          "[SUCCESS] orbix_flash upgrade success\n",
          "[01.000][SUCCESS] orbix_flash upgrade success\n",
          " [001.000][SUCCESS] orbix_flash upgrade success\n",
          "x[001.000][SUCCESS] orbix_flash upgrade success\n",
          "[001.000][SUCCESS] orbix_flash upgrade success.\n",
          "[001.000][FAIL] orbix_flash upgrade fail,ret:[]\n",
          "[001.000][FAIL] orbix_flash upgrade fail,ret:[-1\n", "\n\n\n"}) {
        EXPECT_EQ(follow(output).lines.cause, Cause::no_result) << output;
    }
}

TEST(ResultLine, CodeOfAFailureIsTold) {
    EXPECT_EQ(follow("[001.000][FAIL] orbix_flash upgrade fail,ret:[-1]\n").lines.code, -1);
    EXPECT_EQ(follow("[001.000][FAIL] orbix_flash upgrade fail,ret:[1024]\n").lines.code, 1024);
}

TEST(ResultLine, UnknownModelIsAUsageCause) {
    EXPECT_EQ(follow("[000.000][INFO] name :NOSUCH\nnew_argv[0]:orbix_flash\n"
                     "[000.000][FAIL] orbix_flash upgrade fail,ret:[-1]\n")
                  .lines.cause,
              Cause::usage);
}

TEST(ResultLine, UsageTextIsAUsageCause) {
    EXPECT_EQ(follow("[000.000] Usage: orbix_flash [options...]\n  -m,  Specify\n").lines.cause,
              Cause::usage);
}

// --- causes --------------------------------------------------------------------------------------

/// A run that has come to a step, and then failed with these ERROR lines.
Cause cause_of(const std::string& step, const std::vector<std::string>& errors) {
    std::string output = "new_argv[0]:orbix_flash\n[000.000][INFO] " + step + "\n";
    for (const std::string& error : errors) {
        output += "[000.100][ERROR] " + error + "\n";
    }
    return follow(output + "[000.200][FAIL] orbix_flash upgrade fail,ret:[-1]\n").lines.cause;
}

TEST(CauseOfFailure, FollowsTheLineThatTellsMost) {
    EXPECT_EQ(cause_of("Synchronize...",
                       {"SYNC time out 10000 ms", "Sync module failed.Upgrade failed."}),
              Cause::no_sync);
    EXPECT_EQ(cause_of("Sending Firmware...",
                       {"ACK time out 10000 ms", "Send firmware failed.Upgrade failed."}),
              Cause::transfer);
    EXPECT_EQ(cause_of("Sending Firmware...",
                       {"CRC32 checksum error.", "Send firmware failed.Upgrade failed."}),
              Cause::refused);
    EXPECT_EQ(
        cause_of("Start to EraseAPP...", {"slave msg slave state is 4\r", "Erase Flash failed!"}),
        Cause::refused);
    EXPECT_EQ(cause_of("Send SOH PKG...", {"[fw_update_user 897]: update fail, receive: 15"}),
              Cause::refused);
    EXPECT_EQ(cause_of("Send Da file...", {"Da file size error, agent.bin has 70000 bytes, at "
                                           "most 65536 fit"}),
              Cause::file);
    EXPECT_EQ(cause_of("Connect...", {"Open & config the serial failed"}), Cause::port);
    EXPECT_EQ(cause_of("entry function", {"Invalid parameter!"}), Cause::usage);
}

TEST(CauseOfFailure, SameSilenceIsAnotherCauseBeforeAndAfterTheFirstAnswer) {
    EXPECT_EQ(cause_of("Readyding receive commands....", {"timeout."}), Cause::no_sync);
    EXPECT_EQ(cause_of("Write Memory...", {"timeout."}), Cause::transfer);
}

TEST(CauseOfFailure, WhatTheRunHasGotOverDoesNotCount) {
    const std::string output =
        "[000.000][INFO] Sending Firmware...\n[000.100][ERROR] ACK not expected [33]\n"
        "[000.200][PROGRESS] 10.00%\n[000.300][ERROR] ACK time out 3000 ms\n"
        "[000.400][FAIL] orbix_flash upgrade fail,ret:[-1]\n";
    const Followed followed = follow(output);
    EXPECT_EQ(followed.lines.cause, Cause::transfer);
    EXPECT_EQ(followed.lines.message, "ACK time out 3000 ms");
}

TEST(CauseOfFailure, ImageThatTheToolCannotOpenIsToldOnStandardError) {
    const std::string output =
        "[000.000][INFO] Send Firmware Information...\n"
        "[000.000][ERROR] Send fw info failed,err: 0x107\n"
        "[000.000][FAIL] orbix_flash upgrade fail,ret:[-1]\n";
    EXPECT_EQ(follow(output, "fopen: No such file or directory\n").lines.cause, Cause::file);
    EXPECT_EQ(follow(output).lines.cause, Cause::refused);
}

TEST(CauseOfFailure, HintIsKept) {
    const Followed followed = follow(
        "[000.000][ERROR] Fail to open COM6\n"
        "[000.000][FAIL] orbix_flash upgrade fail,ret:[260]\n",
        "hint: another program holds the port; fuser -v PORT names it\n");
    EXPECT_EQ(followed.lines.hint, "another program holds the port; fuser -v PORT names it");
    EXPECT_EQ(followed.lines.cause, Cause::port);
}

// --- progress and waits --------------------------------------------------------------------------

TEST(Waits, AreTakenFromTheToolsLinesAndEndWithTheNext) {
    FlashLines lines;
    lines.take("[000.000][INFO] Handshake... (Press the module reset button!)");
    EXPECT_EQ(lines.waiting_for, "press reset");
    lines.take("[001.000][INFO] Disable WDT...");
    EXPECT_EQ(lines.waiting_for, "");
    lines.take("[001.000][INFO] Please power up the module within 10s.");
    EXPECT_EQ(lines.waiting_for, "power up the module");
}

TEST(Waits, SilentOnesAreKnownByTheMode) {
    const auto waits_of = [](const std::vector<std::string>& lines) {
        std::string output;
        for (const std::string& line : lines) {
            output += "[000.000]" + line + "\n";
        }
        const Followed followed = follow(output);
        return followed.waits.empty() ? "" : followed.waits.back();
    };
    EXPECT_EQ(waits_of({"[INFO] rx7040 entry function", " Enter upgrade", "[INFO] Connect...",
                        "[INFO] Synchronize..."}),
              "press reset or power up the module");
    EXPECT_EQ(
        waits_of({"[INFO] rx7040 entry function", " Enter download", "[INFO] Synchronize..."}),
        "press reset");
    EXPECT_EQ(waits_of({"[INFO] ZPX710P entry function", " Enter download", "[INFO] Connect..."}),
              "start the controller in its ROM boot loader");
    EXPECT_EQ(waits_of({" Enter GNSS_EVB_upgrade", "[INFO] Auto-reset finish...",
                        "[INFO] Synchronize..."}),
              "");
    EXPECT_EQ(waits_of({" Enter GNSS_EVB_upgrade", "[INFO] Manual reset", "[INFO] Synchronize..."}),
              "press reset");
    EXPECT_EQ(waits_of({"[INFO] Mode: boot", "[INFO] Synchronize..."}),
              "start the chip in its boot ROM");
    EXPECT_EQ(waits_of({"[INFO] Mode: normal", "[INFO] Synchronize..."}), "");
    EXPECT_EQ(waits_of({"[INFO] Waiting for Sync..."}), "press reset or power up the module");
    EXPECT_EQ(waits_of({"[INFO] Need soft reset", " DownLoad_Dir:fw"}),
              "the running module must answer; check -b");
}

TEST(Progress, BytesOfSeveralImagesAddUp) {
    FlashLines lines;
    lines.take("[000.000][INFO] will send one.bin to module");
    lines.take("[000.000][SPEED] 0 Bytes/100 Bytes    0 KBps");
    lines.take("[000.000][SPEED] 100 Bytes/100 Bytes    1.5 KBps");
    lines.take("[000.000][INFO] will send two.bin to module");
    lines.take("[000.000][SPEED] 0 Bytes/300 Bytes    0 KBps");
    lines.take("[000.000][SPEED] 150 Bytes/300 Bytes    2.5 KBps");
    EXPECT_EQ(lines.bytes_flashed, 250U);
    EXPECT_EQ(lines.bytes_done, 150U);
    EXPECT_EQ(lines.bytes_total, 300U);
    EXPECT_DOUBLE_EQ(lines.percent, 50);
    EXPECT_DOUBLE_EQ(lines.kbytes_per_second, 2.5);
}

TEST(Progress, StaysBetweenNothingAndAllWhateverIsPrinted) {
    FlashLines lines;
    lines.take("[000.000][INFO] Send Firmware...");
    for (const char* line :
         {"[000.000][PROGRESS] nan%", "[000.000][PROGRESS] -inf%", "[000.000][PROGRESS] 1e300%",
          "[000.000][SPEED] 18000000000000000000 Bytes/1 Bytes    1 KBps"}) {
        lines.take(line);
        EXPECT_TRUE(lines.percent >= 0 && lines.percent <= 100) << line << lines.percent;
    }
}

TEST(Progress, LinesWithoutAnEndAreReadOneByOne) {
    FlashLines lines;
    lines.take("[000.280] receive ACK[000.280][INFO] Send Firmware...");
    EXPECT_EQ(lines.phase, Phase::write);
}

// --- bytes into lines ----------------------------------------------------------------------------

std::vector<std::string> split(std::initializer_list<std::string_view> pieces) {
    LineSplitter splitter;
    std::vector<std::string> lines;
    for (const std::string_view piece : pieces) {
        splitter.take(piece, [&lines](std::string_view line) { lines.emplace_back(line); });
    }
    lines.push_back("rest:" + splitter.unfinished());
    return lines;
}

TEST(Splitter, PutsLinesTogetherHoweverTheyArrive) {
    EXPECT_EQ(split({"on", "e\ntw", "o\r\n", "", "\n", "three"}),
              (std::vector<std::string>{"one", "two\r", "", "rest:three"}));
}

TEST(Splitter, KeepsTheStartOfALongLineAndFindsTheNext) {
    const std::string endless(1'000'000, 'x');
    const auto lines = split({endless, endless, "\nnext\n"});
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].size(), LineSplitter::longest);
    EXPECT_EQ(lines[1], "next");
}

TEST(Splitter, BytesOfAnyValueBecomePrintable) {
    EXPECT_EQ(printable("caf\xC3\xA9"), "caf\xC3\xA9");
    EXPECT_EQ(printable(std::string_view("a\0b\x1B[2Jc\x7F\x80\xFF", 11)),
              "a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD[2Jc\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(printable("\xC2\x9B"), "\xEF\xBF\xBD\xEF\xBF\xBD") << "a control character in UTF-8";
    EXPECT_EQ(printable("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD") << "a surrogate";
    EXPECT_EQ(printable("\xE2\x82"), "\xEF\xBF\xBD\xEF\xBF\xBD") << "cut off";
}

}  // namespace
}  // namespace orbix::station
