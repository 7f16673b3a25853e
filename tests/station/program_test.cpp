// The station as a program: with real modules simulated on pseudo-terminals, and with small
// programs in the place of orbix_flash that behave as badly as they can.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "causes.h"
#include "cli/process.h"
#include "temp_dir.h"

namespace orbix::station {
namespace {

using nlohmann::json;
using orbix::sim::random_image;
using orbix::sim::read_text;
using orbix::sim::TempDir;
using orbix::test::Background;
using orbix::test::Finished;
using orbix::test::run_program;
using orbix::test::SimulatedModule;
using namespace std::chrono_literals;

using Words = std::vector<std::string>;

Words operator+(Words left, const Words& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

int status_of(Cause cause) {
    return static_cast<int>(cause);
}

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<json> records_in(const std::string& text) {
    std::vector<json> records;
    for (const std::string& line : lines_of(text)) {
        records.push_back(json::parse(line));
    }
    return records;
}

std::vector<json> of_event(const std::vector<json>& records, std::string_view event) {
    std::vector<json> found;
    std::copy_if(records.begin(), records.end(), std::back_inserter(found),
                 [event](const json& record) { return record["event"] == event; });
    return found;
}

/// Waits for something that another process does; a minute at most.
bool comes_true(const std::function<bool()>& condition) {
    for (int pass = 0; pass < 6000; ++pass) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

/// Reads lines until one contains a text.
bool says(Background& station, std::string_view text) {
    for (int count = 0; count < 1000; ++count) {
        if (contains(station.read_line(), text)) {
            return true;
        }
    }
    return false;
}

/// Whether a process is no more; one that nobody has asked for its status yet counts.
bool has_ended(int process) {
    const std::string stat = read_text("/proc/" + std::to_string(process) + "/stat");
    return stat.empty() || contains(stat, ") Z ");
}

/// A program in the place of orbix_flash: a shell script, in which $PORT is the port, $here the
/// script's folder, and `await FILE` waits until there is such a file.
class Fake {
  public:
    explicit Fake(const std::string& script) {
        path_ = folder_.write("fake",
                              "#!/bin/bash\n"
                              "PORT=${@: -1}\n"
                              "here=$(dirname \"$0\")\n"
                              "await() { while [ ! -e $here/$1 ]; do sleep 0.02; done; }\n" +
                                  script + "\n");
        chmod(path_.c_str(), 0755);
    }

    [[nodiscard]] Words options() const { return {"--flash-program", path_}; }
    [[nodiscard]] std::string path(const std::string& name = "") const {
        return folder_.path(name);
    }

    /// Makes a file for which the script waits, and waits for one that it makes.
    void release(const std::string& name = "release") const { folder_.write(name, std::string()); }
    void await(const std::string& name) const {
        EXPECT_TRUE(comes_true([&] { return std::filesystem::exists(path(name)); })) << name;
    }

  private:
    TempDir folder_;
    std::string path_;
};

const std::string success = "echo '[000.100][SUCCESS] orbix_flash upgrade success'";
const std::string failure = "echo '[000.100][FAIL] orbix_flash upgrade fail,ret:[-1]'";

const Words arguments{"--", "-m", "TR52G", "-b", "115200", "-f", "/nowhere/app.bin", "-t", "UPG"};

Finished run_fake(const Fake& fake, const Words& words) {
    return run_program("orbix_station", fake.options() + words + arguments);
}

/// One port whose program does this: the cause, and what is said of it.
struct Judged {
    int status = -1;
    json result;
};

Judged judged(const std::string& script, const Words& options = {}) {
    const Fake fake(script);
    const Finished run = run_fake(fake, Words{"P1", "--json", "-"} + options);
    const auto results = of_event(records_in(run.output), "result");
    EXPECT_EQ(results.size(), 1U) << run.output << run.errors;
    return {run.status, results.empty() ? json() : results.front()};
}

// --- judging -------------------------------------------------------------------------------------

TEST(Verdict, ExitStatusTellsTheCause) {
    struct Row {
        const char* script;
        Cause cause;
    };
    const std::string prefix = "echo 'new_argv[0]:x'\n";
    for (const Row& row : {
             Row{"", Cause::usage},
             Row{"echo '[000.000][ERROR] Invalid parameter!'\n", Cause::usage},
             Row{"echo '[000.000][ERROR] Fail to open COM6'\n", Cause::port},
             Row{"echo '[000.000][ERROR] fail to access a, errno: 2 (x)'\n", Cause::file},
             Row{"echo '[000.000][ERROR] Sync failed!'\n", Cause::no_sync},
             Row{"echo '[000.000][ERROR] slave msg slave state is 4'\n", Cause::refused},
             Row{"echo '[000.000][INFO] Boot Version:V1'\necho '[000.000][ERROR] timeout.'\n",
                 Cause::transfer},
         }) {
        const Judged run = judged(prefix + row.script + failure);
        const bool file_instead = row.cause == Cause::transfer;  // the image is nowhere
        const Cause expected = file_instead ? Cause::file : row.cause;
        EXPECT_EQ(run.status, status_of(expected)) << row.script;
        EXPECT_EQ(run.result["cause"], cause_name(expected)) << row.script;
        EXPECT_EQ(run.result["result"], "fail");
        EXPECT_EQ(run.result["code"], -1);
    }
    EXPECT_EQ(judged(success).status, 0);
}

TEST(Verdict, BrokenTransferWithAReadableImageIsATransfer) {
    const TempDir folder;
    const Fake fake(std::string("echo '[000.000][INFO] Boot Version:V1'\n") + failure);
    const Finished run = run_program(
        "orbix_station", fake.options() + Words{"P1", "--", "-m", "TR52G", "-f",
                                                folder.write("app.bin", std::string("abc"))});
    EXPECT_EQ(run.status, status_of(Cause::transfer)) << run.output;
}

TEST(Verdict, WorstCauseOfSeveralIsTheExitStatus) {
    const Fake fake(
        "case $PORT in\n"
        "P1) " +
        success +
        ";;\n"
        "P2) echo '[000.000][ERROR] Fail to open x'; " +
        failure +
        ";;\n"
        "P3) exit 0;;\n"
        "P4) echo '[000.000][ERROR] Sync failed!'; " +
        failure + ";;\nesac");
    const Finished run = run_fake(fake, {"P1", "P2", "P3", "P4"});
    EXPECT_EQ(run.status, status_of(Cause::no_result));
    EXPECT_TRUE(contains(run.output, "1 good, 3 bad\n")) << run.output;
    EXPECT_TRUE(contains(run.output, "  P4: the module did not answer: Sync failed!\n"));
}

TEST(Verdict, ProgramThatPrintsNothingOrGarbageHasFailed) {
    for (const char* script :
         {"", "exit 3", "head -c 100000 /dev/urandom", "printf 'a\\0b\\377\\n'",
          "printf '[000.100][SUCCESS] orbix_flash upgrade success'",
          "echo '[000.100][SUCCESS] orbix_flash upgrade success'; echo and more",
          "echo '[000.100][SUCCESS] orbix_flash upgrade success' >&2"}) {
        const Judged run = judged(script);
        EXPECT_EQ(run.status, status_of(Cause::no_result)) << script;
        EXPECT_EQ(run.result["result"], "fail");
        EXPECT_TRUE(run.result["code"].is_null());
        EXPECT_NE(run.result["message"], "");
    }
}

TEST(Verdict, KilledProgramIsReportedAsThat) {
    const Judged run = judged("kill -9 $$");
    EXPECT_EQ(run.status, status_of(Cause::no_result));
    EXPECT_EQ(run.result["message"], "orbix_flash was killed by signal 9");
}

TEST(Verdict, ExitStatusOfTheToolDoesNotMatter) {
    EXPECT_EQ(judged(success + "; exit 7").status, 0);
}

TEST(Verdict, HintOfTheToolIsTold) {
    const Judged run = judged(
        "echo 'hint: another program holds the port' >&2\n"
        "echo '[000.000][ERROR] Fail to open P1'\n" +
        failure);
    EXPECT_EQ(run.result["cause"], "port");
    EXPECT_EQ(run.result["hint"], "another program holds the port");
    EXPECT_TRUE(contains(run.result["message"].get<std::string>(), "Fail to open P1"));
}

// --- limits --------------------------------------------------------------------------------------

double seconds_of(const std::function<void()>& action) {
    const auto begun = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

TEST(Limits, SilentProgramIsEnded) {
    const Judged run = judged("sleep 100", {"--stall", "0.3"});
    EXPECT_EQ(run.status, status_of(Cause::time_limit));
    EXPECT_TRUE(contains(run.result["message"].get<std::string>(), "--stall"));
    EXPECT_LT(run.result["seconds"], 2.0);
}

TEST(Limits, ProgramThatGoesOnForTooLongIsEnded) {
    const Judged run =
        judged("while true; do echo x; sleep 0.05; done", {"--stall", "5", "--timeout", "0.5"});
    EXPECT_EQ(run.status, status_of(Cause::time_limit));
    EXPECT_TRUE(contains(run.result["message"].get<std::string>(), "--timeout"));
    EXPECT_GE(run.result["seconds"], 0.5);
}

TEST(Limits, LimitBelowAMillisecondIsALimit) {
    EXPECT_EQ(judged("sleep 3", {"--timeout", "0.0004"}).status, status_of(Cause::time_limit));
}

TEST(Limits, FloodIsEnded) {
    EXPECT_EQ(judged("exec yes", {"--timeout", "0.3"}).status, status_of(Cause::time_limit));
    EXPECT_EQ(judged("exec cat /dev/zero", {"--timeout", "0.3"}).status,
              status_of(Cause::time_limit));
}

TEST(Limits, ProgramThatClosesItsOutputAndStaysIsEnded) {
    EXPECT_EQ(judged("exec >&- 2>&-; sleep 100", {"--timeout", "0.3", "--stall", "0"}).status,
              status_of(Cause::time_limit));
}

TEST(Limits, ProgramThatIgnoresTheRequestIsForced) {
    // Two seconds are what a program has to follow the request.
    const double seconds = seconds_of([] {
        EXPECT_EQ(
            judged("trap '' TERM; while true; do sleep 0.1; done", {"--timeout", "0.2"}).status,
            status_of(Cause::time_limit));
    });
    EXPECT_LT(seconds, 10);
}

TEST(Limits, GrandchildThatHoldsTheOutputDoesNotHoldTheStation) {
    const Fake fake("sleep 100 &\necho $! >$here/grandchild\n" + success);
    Finished run;
    const double seconds = seconds_of([&] { run = run_fake(fake, {"P1"}); });
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_LT(seconds, 10);
    const int grandchild = std::stoi(read_text(fake.path("grandchild")));
    EXPECT_TRUE(comes_true([grandchild] { return has_ended(grandchild); }));
}

// --- starting ------------------------------------------------------------------------------------

TEST(Starting, WhatCannotBeStartedIsTheStationsOwnFailure) {
    const TempDir folder;
    const std::string no_program = folder.write("text", std::string("no program"));
    EXPECT_EQ(
        run_program("orbix_station", Words{"P1", "--flash-program", no_program} + arguments).status,
        status_of(Cause::internal));
    const Finished absent = run_program(
        "orbix_station", Words{"P1", "--flash-program", folder.path("absent")} + arguments);
    EXPECT_EQ(absent.status, status_of(Cause::internal));
    EXPECT_TRUE(contains(absent.errors, "--flash-program: there is no file"));
}

TEST(Starting, ArgumentsArePassedOnAsTheyAreAndThePortIsPutBehindThem) {
    const Fake fake("printf '%s|' \"$@\" >$here/arguments\n" + success);
    run_program("orbix_station",
                fake.options() + Words{"P1", "--", "-m", "TR52G", "-f", "a b\"$c", "-D"});
    EXPECT_EQ(read_text(fake.path("arguments")), "-m|TR52G|-f|a b\"$c|-D|-p|P1|");
}

TEST(Starting, LinkIsResolvedToTheShorterDevice) {
    const Fake fake("echo $PORT >$here/port\n" + success);
    std::filesystem::create_symlink("/dev/null", fake.path("a-name-that-is-quite-long"));
    const Finished run = run_fake(fake, {fake.path("a-name-that-is-quite-long")});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(read_text(fake.path("port")), "/dev/null\n");
}

TEST(Starting, UsageErrorsHaveOneClearLine) {
    const Words flash{"-m", "TR52G"};
    const TempDir folder;
    std::filesystem::create_symlink("/dev/null", folder.path("link"));
    struct Row {
        Words words;
        std::string_view line;
    };
    for (const Row& row : {
             Row{{}, "behind \"--\""},
             Row{{"P1"}, "behind \"--\""},
             Row{Words{"--"} + flash, "at least one port"},
             Row{Words{"P1", "P1", "--"} + flash, "P1 is named twice"},
             Row{Words{"/dev/null", folder.path("link"), "--"} + flash, "are the same port"},
             Row{Words{"/dev/null", "null", "--"} + flash, "are the same port"},
             Row{Words{"/dev/ttyUSB77", "USB77", "--"} + flash, "are the same port"},
             Row{Words{"P1", "--watch", "/dev/x*", "--"} + flash, "either ports or --watch"},
             Row{Words{"P1", "--"} + flash + Words{"-p", "P2"}, "-p is set by the station"},
             Row{Words{"P1", "--"} + flash + Words{"-Dp", "P2"}, "-p is set by the station"},
             Row{Words{"P1", "--"} + flash + Words{"-S"}, "-S flashes nothing"},
             Row{Words{"P1", "--"} + flash + Words{"--S"}, "-S flashes nothing"},
             Row{Words{"P1", "--"} + flash + Words{"--p", "P2"}, "-p is set by the station"},
             Row{Words{"P1", "--"} + flash + Words{"-h"}, "-h flashes nothing"},
             Row{Words{"P1", "--"} + flash + Words{"-v"}, "-v flashes nothing"},
             Row{Words{"P1", "--"} + flash + Words{"-f"}, "-f lacks its value"},
             Row{Words{"P1", "--"} + flash + Words{"--"}, "stands twice"},
             Row{{"P1", "--", "-b", "115200"}, "lack the model"},
             Row{Words{"P1", "P2", "--"} + flash + Words{"-o", "a"}, "one module"},
             Row{Words{"P1", "--jobs", "0", "--"} + flash, "--jobs"},
             Row{Words{"P1", "--timeout", "x", "--"} + flash, "--timeout"},
             Row{Words{"P1", "--stall", "nan", "--"} + flash, "--stall: nan is no number"},
             Row{Words{"P1", "--nonsense", "--"} + flash, "--nonsense"},
             Row{Words{"P1", "--http", "1.2.3.4:x", "--"} + flash, "1.2.3.4:x"},
         }) {
        const Finished run = run_program("orbix_station", row.words);
        EXPECT_EQ(run.status, status_of(Cause::usage)) << row.line;
        EXPECT_TRUE(contains(run.errors, row.line)) << run.errors << " / " << row.line;
        EXPECT_EQ(run.output, "");
    }
}

TEST(Starting, HelpAndVersionAreNoErrors) {
    const Finished help = run_program("orbix_station", {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(contains(help.output, "orbix_station [OPTIONS] PORT... -- ARGUMENTS"));
    EXPECT_EQ(run_program("orbix_station", {"--version"}).status, 0);
}

TEST(Starting, NoMoreJobsThanAllowed) {
    // Each run notes how many there are, itself included.
    const Fake fake(
        "touch $here/on-$PORT\nls $here | grep -c '^on-' >>$here/counts\nsleep 0.1\n"
        "rm $here/on-$PORT\n" +
        success);
    const Finished run = run_fake(fake, {"P1", "P2", "P3", "P4", "P5", "P6", "P7", "--jobs", "2"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(contains(run.output, "7 good, 0 bad"));
    std::istringstream counts(read_text(fake.path("counts")));
    int most = 0;
    int runs = 0;
    for (int count = 0; counts >> count; ++runs) {
        most = std::max(most, count);
    }
    EXPECT_EQ(most, 2);
    EXPECT_EQ(runs, 7);
}

TEST(Retries, AreMadeAfterAFailureThatMayPass) {
    const Fake fake("if [ -e $here/tried ]; then " + success +
                    "; else touch $here/tried; echo '[000.000][ERROR] Sync failed!'; " + failure +
                    "; fi");
    const Finished run = run_fake(fake, {"P1", "--retries", "2", "--json", "-"});
    EXPECT_EQ(run.status, 0);
    const auto records = records_in(run.output);
    const auto failed = of_event(records, "attempt_failed");
    ASSERT_EQ(failed.size(), 1U);
    EXPECT_EQ(failed[0]["attempt"], 1);
    EXPECT_EQ(failed[0]["cause"], "no_sync");
    EXPECT_EQ(of_event(records, "start").size(), 2U);
    const auto results = of_event(records, "result");
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0]["attempts"], 2);
    EXPECT_EQ(results[0]["result"], "success");
}

TEST(Retries, AreNotMadeWhereTheCommandLineIsWrong) {
    const Judged run = judged(std::string("echo '[000.000][ERROR] Invalid parameter!'\n") + failure,
                              {"--retries", "3"});
    EXPECT_EQ(run.result["attempts"], 1);
}

/// /dev/null has a failed attempt behind it, and its next one has to wait for the module at
/// /dev/zero.
const std::string first_fails_second_stays =
    "if [ $PORT = /dev/null ]; then echo '[000.000][ERROR] Sync failed!'; " + failure +
    "; exit; fi\ntouch $here/started\nawait release\n" + success;
const Words one_at_a_time{"--jobs", "1", "--retries", "1"};

/// Waits until the next attempt is due, a second after the first.
void await_next_attempt(const Fake& fake) {
    fake.await("started");
    std::this_thread::sleep_for(1300ms);
}

TEST(Retries, LastAttemptCountsWhenTheNextOneIsStillQueuedAtTheEnd) {
    const Fake fake(first_fails_second_stays);
    Background station("orbix_station", fake.options() + Words{"/dev/null", "/dev/zero"} +
                                            one_at_a_time + arguments);
    await_next_attempt(fake);
    station.send_signal(SIGINT);
    EXPECT_TRUE(says(station, "once more ends them"));
    fake.release();
    const Finished run = station.finish();
    EXPECT_TRUE(contains(run.output, "/dev/null: FAILED: the module did not answer: Sync failed!"))
        << run.output;
    EXPECT_EQ(run.status, status_of(Cause::no_sync));
}

// --- ending --------------------------------------------------------------------------------------

/// A script that runs until a file appears, and notes its number.
std::string until_released() {
    return "echo $$ >$here/pid-$PORT.new\nmv $here/pid-$PORT.new $here/pid-$PORT\n"
           "await release\n" +
           success;
}

int started_process(const Fake& fake, const std::string& port) {
    fake.await("pid-" + port);
    return std::stoi(read_text(fake.path("pid-" + port)));
}

TEST(Ending, FirstSignalLetsTheRunningOnesFinish) {
    const Fake fake(until_released());
    Background station("orbix_station",
                       fake.options() + Words{"P1", "P2", "--jobs", "1"} + arguments);
    started_process(fake, "P1");
    station.send_signal(SIGINT);
    EXPECT_TRUE(says(station, "once more ends them"));
    fake.release();
    const Finished run = station.finish();
    EXPECT_EQ(run.status, status_of(Cause::stopped));
    EXPECT_TRUE(contains(run.output, "P1: good")) << run.output;
    EXPECT_TRUE(contains(run.output, "P2: FAILED: stopped by the operator: not started"));
    EXPECT_FALSE(std::filesystem::exists(fake.path("pid-P2")));
}

TEST(Ending, SecondSignalEndsThemAtOnce) {
    const Fake fake(until_released());
    Background station("orbix_station", fake.options() + Words{"P1", "P2"} + arguments);
    const int first = started_process(fake, "P1");
    const int second = started_process(fake, "P2");
    station.send_signal(SIGTERM);
    EXPECT_TRUE(says(station, "once more ends them"));
    station.send_signal(SIGTERM);
    const Finished run = station.finish();
    EXPECT_EQ(run.status, status_of(Cause::stopped)) << run.output;
    EXPECT_TRUE(has_ended(first));
    EXPECT_TRUE(has_ended(second));
}

TEST(Ending, KillingTheStationEndsItsChildren) {
    const Fake fake("trap '' TERM INT HUP\n" + until_released());
    auto station = std::make_unique<Background>("orbix_station",
                                                fake.options() + Words{"P1", "P2"} + arguments);
    const int first = started_process(fake, "P1");
    const int second = started_process(fake, "P2");
    station->send_signal(SIGKILL);
    EXPECT_TRUE(comes_true([&] { return has_ended(first) && has_ended(second); }));
}

// --- records and logs ----------------------------------------------------------------------------

TEST(Records, TellTheWholeRun) {
    const TempDir folder;
    const std::string image = folder.write("app.bin", std::string("abc"));
    const std::string agent = folder.write("agent.bin", std::string());
    const Fake fake(
        "echo '[000.000][INFO] Waiting for Sync...'\n"
        "echo '[000.100][INFO] Start to EraseAPP...'\n"
        "echo '[000.200][INFO] Erase Flash success!'\n"
        // Both lines in one write: the first record of progress tells what came by then.
        "cat <<'END'\n[000.300][PROGRESS] 50.00%\n"
        "[000.300][SPEED] 100 Bytes/200 Bytes    12.5 KBps\nEND\nsleep 0.1\n"
        "echo '[000.400][SPEED] 200 Bytes/200 Bytes    12.5 KBps'\n"
        "echo '[000.400][INFO] Upgrade success!'\n" +
        success);
    const Finished run = run_program(
        "orbix_station",
        fake.options() + Words{"P1", "--json", "-", "--", "-m", "TR52G", "-f", image, "-s", agent});
    EXPECT_EQ(run.status, 0);
    const auto records = records_in(run.output);
    for (const json& record : records) {
        EXPECT_EQ(record["schema"], 1);
        const auto time = record["time"].get<std::string>();
        EXPECT_EQ(time.size(), std::string_view("2026-01-01T00:00:00.000Z").size());
        EXPECT_EQ(time.back(), 'Z');
        EXPECT_TRUE(record["event"] == "summary" || record["port"] == "P1");
    }
    std::vector<std::string> phases;
    for (const json& record : of_event(records, "phase")) {
        phases.push_back(record["phase"]);
    }
    EXPECT_EQ(phases, (Words{"connect", "sync", "erase", "write", "verify"}));
    const auto waits = of_event(records, "waiting");
    ASSERT_EQ(waits.size(), 1U);
    EXPECT_EQ(waits[0]["for"], "press reset or power up the module");
    const auto progress = of_event(records, "progress");
    ASSERT_GE(progress.size(), 1U);
    EXPECT_EQ(progress[0]["bytes"], 100);
    EXPECT_EQ(progress[0]["bytes_total"], 200);
    const auto results = of_event(records, "result");
    ASSERT_EQ(results.size(), 1U);
    const json& result = results[0];
    EXPECT_EQ(result["model"], "TR52G");
    EXPECT_EQ(result["result"], "success");
    EXPECT_EQ(result["code"], 0);
    EXPECT_EQ(result["cause"], "none");
    EXPECT_EQ(result["bytes"], 200);
    EXPECT_EQ(result["attempts"], 1);
    // The published digests of "abc" and of nothing.
    EXPECT_EQ(
        result["firmware"],
        (json{{{"path", image},
               {"bytes", 3},
               {"sha256", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"}},
              {{"path", agent},
               {"bytes", 0},
               {"sha256", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"}}}));
    EXPECT_EQ(records.back()["event"], "summary");
    EXPECT_EQ(records.back()["good"], 1);
    EXPECT_EQ(records.back()["exit_status"], 0);
    EXPECT_TRUE(contains(run.errors, "P1: good")) << "plain lines go to standard error";
}

TEST(Records, PackageIsToldFileByFile) {
    const TempDir folder;
    folder.write("one.bin", std::string("abc"));
    folder.write("two.bin", std::string("abc"));
    folder.write("flash_download.cfg",
                 std::string("rom:\n    file: one.bin\r\n    begin_address: 0x08000000\nrom:\n"
                             "    file: absent.bin\n    begin_address: 0x08001000\n"));
    const Fake fake(success);
    const Finished run = run_program(
        "orbix_station",
        fake.options() + Words{"P1", "--json", "-", "--", "-m", "TR40XBA", "-d", folder.path()});
    const auto results = of_event(records_in(run.output), "result");
    ASSERT_EQ(results.size(), 1U);
    const json& files = results[0]["firmware"];
    ASSERT_EQ(files.size(), 3U);
    EXPECT_TRUE(files[0]["path"].get<std::string>().ends_with("flash_download.cfg"));
    EXPECT_TRUE(files[1]["path"].get<std::string>().ends_with("one.bin"));
    EXPECT_EQ(files[1]["bytes"], 3);
    EXPECT_TRUE(files[2]["sha256"].is_null());
}

TEST(WithModules, PackageWithoutAnImageToWriteIsAFileFailure) {
    const TempDir folder;
    folder.write("agent.bin", random_image(2000));
    folder.write("app.bin", random_image(2000));
    folder.write("flash_download.cfg",
                 std::string("rom:\n    file: app.bin\n    begin_address: 0x08000000\n"));
    SimulatedModule module("TR40XBA", {"--instant"});
    const Finished run = run_program(
        "orbix_station", Words{module.port(), "--json", "-", "--", "-m", "TR40XBA", "-b", "115200",
                               "-d", folder.path(), "-s", folder.path("agent.bin"), "-f", "x.bin"});
    EXPECT_EQ(run.status, status_of(Cause::file)) << run.output << run.errors;
    EXPECT_TRUE(contains(run.errors, "the package has no image to write")) << run.errors;
}

TEST(Records, LayoutOfAPackageIsTheOneThatIsNamed) {
    const TempDir folder;
    folder.write("one.bin", std::string("abc"));
    folder.write("flash_download.cfg", std::string("rom:\n    file: two.bin\n"));
    folder.write("other.cfg", std::string("rom:\n    file: one.bin\n"));
    const Fake fake(success);
    const Finished run = run_program(
        "orbix_station", fake.options() + Words{"P1", "--json", "-", "--", "-m", "TR40XBA", "-d",
                                                folder.path(), "-g", "other"});
    const json files = of_event(records_in(run.output), "result").at(0)["firmware"];
    ASSERT_EQ(files.size(), 2U);
    EXPECT_TRUE(files[0]["path"].get<std::string>().ends_with("other.cfg"));
    EXPECT_TRUE(files[1]["path"].get<std::string>().ends_with("one.bin"));
}

TEST(Records, AreLimitedInRate) {
    const Fake fake(
        "echo '[000.000][INFO] Send Firmware...'\nfor i in $(seq 1 400); do echo "
        "\"[000.000][SPEED] $i Bytes/400 Bytes    1 KBps\"; sleep 0.002; done\n" +
        success);
    const Finished run = run_fake(fake, {"P1", "--json", "-"});
    const auto progress = of_event(records_in(run.output), "progress");
    const json result = of_event(records_in(run.output), "result").at(0);
    EXPECT_GE(progress.size(), 1U);
    EXPECT_LE(static_cast<double>(progress.size()), 2 + 2 * result["seconds"].get<double>());
    EXPECT_EQ(result["bytes"], 400);
}

TEST(Records, FileIsContinued) {
    const Fake fake(success);
    const std::string file = fake.path("records");
    run_fake(fake, {"P1", "--json", file});
    run_fake(fake, {"P1", "--json", file});
    EXPECT_EQ(of_event(records_in(read_text(file)), "result").size(), 2U);
}

TEST(Records, FileThatCannotBeWrittenIsOneClearFailure) {
    const Fake fake(success);
    const Finished full = run_fake(fake, {"P1", "P2", "--jobs", "1", "--json", "/dev/full"});
    EXPECT_EQ(full.status, status_of(Cause::internal));
    EXPECT_TRUE(contains(full.errors, "cannot write the records to /dev/full: No space left"));
    EXPECT_EQ(lines_of(full.errors).size(), 1U) << full.errors;
    const Finished absent = run_fake(fake, {"P1", "--json", "/nowhere/records"});
    EXPECT_EQ(absent.status, status_of(Cause::internal));
    EXPECT_TRUE(contains(absent.errors, "cannot write the records to /nowhere/records"));
}

/// A station whose files have room for 8 KiB, and not a byte more.
Words with_little_room(const Words& words) {
    return Words{"-c", "trap '' XFSZ; ulimit -f 8; exec " ORBIX_BIN_DIR "/orbix_station \"$@\"",
                 "bash"} +
           words;
}

/// Fills a file so that these records still fit into it, and no others.
void fill_up(const std::string& file, const std::string& records) {
    std::ofstream(file) << std::string(8192 - records.size(), '\n');
}

TEST(Records, FailedAttemptThatCannotBeRecordedIsTheResult) {
    const Fake fake("echo '[000.000][ERROR] Sync failed!'; " + failure);
    const std::string file = fake.path("records");
    const Words words = fake.options() + Words{"P1", "--retries", "1", "--json", file} + arguments;
    run_program("orbix_station", words);
    const std::string records = read_text(file);
    fill_up(file, records.substr(0, records.find("\"attempt_failed\"") - 20));
    const Finished run = run_program("/bin/bash", with_little_room(words));
    EXPECT_TRUE(contains(run.errors, "cannot write the records to " + file)) << run.errors;
    EXPECT_TRUE(contains(run.output, "P1: FAILED: the module did not answer: Sync failed!"))
        << run.output;
    EXPECT_EQ(run.status, status_of(Cause::no_sync));
}

TEST(Records, DoNotTellOfTheStartOfARunThatHasNoRoomForItsLog) {
    const Fake fake(success);
    const std::string long_name(300, 'x');  // longer than the name of a file may be
    const Finished run = run_fake(fake, {long_name, "--log-dir", fake.path("logs"), "--json", "-"});
    EXPECT_EQ(run.status, status_of(Cause::internal));
    const auto records = records_in(run.output);
    EXPECT_EQ(of_event(records, "start").size(), 0U);
    const auto results = of_event(records, "result");
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0]["cause"], "internal");
    EXPECT_EQ(results[0]["attempts"], 0);
}

TEST(Records, ImageThatIsAPipeIsNotWaitedFor) {
    const Fake fake(success);
    const std::string pipe = fake.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    Background station("orbix_station", fake.options() + Words{"P1", "--json", "-", "--", "-m",
                                                               "TR52G", "-f", pipe});
    std::string first;
    const double seconds = seconds_of([&] { first = station.read_line(); });
    EXPECT_LT(seconds, 10);
    EXPECT_TRUE(json::parse(first)["firmware"][0]["sha256"].is_null());
}

TEST(Logs, HoldTheFullOutputOfEachAttempt) {
    const Fake fake(
        "echo out; echo err >&2; printf 'a\\0b\\n'; echo '[000.000][ERROR] Sync "
        "failed!'; " +
        failure);
    const std::string folder = fake.path("new/logs");
    run_fake(fake, {"P1", "--retries", "1", "--log-dir", folder});
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
        const std::string text = read_text(entry.path());
        EXPECT_TRUE(contains(text, "out\n") && contains(text, "err\n"));
        EXPECT_TRUE(contains(text, std::string("a\0b\n", 4)));
        EXPECT_TRUE(contains(text, "[000.100][FAIL]"));
    }
    std::sort(names.begin(), names.end());
    ASSERT_EQ(names.size(), 2U);
    EXPECT_TRUE(names[0].ends_with("-P1-1.log")) << names[0];
    EXPECT_TRUE(names[1].ends_with("-P1-2.log")) << names[1];
}

TEST(Logs, OfSeveralStationsDoNotClash) {
    const Fake fake("echo $$; " + success);
    const std::string folder = fake.path("logs");
    std::vector<std::unique_ptr<Background>> stations;
    for (int count = 0; count < 6; ++count) {
        stations.push_back(std::make_unique<Background>(
            "orbix_station", fake.options() + Words{"P1", "--log-dir", folder} + arguments));
    }
    for (const auto& station : stations) {
        EXPECT_EQ(station->finish().status, 0);
    }
    const auto entries = std::filesystem::directory_iterator(folder);
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 6);
}

TEST(Logs, FolderThatCannotBeMadeIsOneClearFailure) {
    const Fake fake(success);
    const Finished run = run_fake(fake, {"P1", "--log-dir", "/dev/null/logs"});
    EXPECT_EQ(run.status, status_of(Cause::internal));
    EXPECT_TRUE(contains(run.errors, "cannot make the folder /dev/null/logs"));
}

TEST(PlainOutput, HasWholeLinesEachWithItsPort) {
    const Fake fake(
        "for i in $(seq 1 100); do echo \"[000.000][SPEED] $i Bytes/100 Bytes    1 "
        "KBps\"; done\n" +
        success);
    Words ports;
    for (int number = 0; number < 12; ++number) {
        ports.push_back("P" + std::to_string(number));
    }
    const Finished run = run_fake(fake, ports);
    const auto lines = lines_of(run.output);
    ASSERT_GT(lines.size(), 24U);
    for (std::size_t index = 0; index + 1 < lines.size(); ++index) {
        EXPECT_TRUE(lines[index].starts_with("P") && contains(lines[index], ": ")) << lines[index];
    }
    EXPECT_EQ(lines.back(), "12 good, 0 bad");
}

// --- with simulated modules ----------------------------------------------------------------------

std::string image_file(const TempDir& folder) {
    return folder.write("app.bin", random_image(30'000));
}

Words upgrade_of(const std::string& image) {
    return {"--", "-m", "TR52G", "-b", "921600", "-f", image, "-t", "UPG"};
}

/// Of a module whose tool notices at once that the adapter has vanished.
Words board_upgrade_of(const std::string& image) {
    return {"--", "-m", "GNSS-MODULE-EVB", "-b", "921600", "-f", image};
}

TEST(WithModules, GoodAndFaultyOnesSideBySide) {
    const TempDir folder;
    SimulatedModule good("GNSS-MODULE-EVB", {"--instant", "--rate", "921600"});
    SimulatedModule other("GNSS-MODULE-EVB", {"--instant", "--rate", "921600"});
    SimulatedModule unplugged("GNSS-MODULE-EVB",
                              {"--instant", "--rate", "921600", "--faults", "unplug@12000"});
    const Finished run = run_program(
        "orbix_station",
        Words{good.port(), other.port(), unplugged.port(), "/dev/nosuchport", "--json", "-"} +
            board_upgrade_of(image_file(folder)));
    EXPECT_EQ(run.status, status_of(Cause::transfer)) << run.errors;
    std::map<std::string, std::string> causes;
    for (const json& result : of_event(records_in(run.output), "result")) {
        causes[result["port"]] = result["cause"];
        if (result["cause"] == "none") {
            EXPECT_EQ(result["bytes"], 30'000);
        }
    }
    EXPECT_EQ(causes, (std::map<std::string, std::string>{{good.port(), "none"},
                                                          {other.port(), "none"},
                                                          {unplugged.port(), "transfer"},
                                                          {"/dev/nosuchport", "port"}}));
}

TEST(WithModules, SilentOneIsEndedByTheStallLimit) {
    const TempDir folder;
    SimulatedModule silent("TR52G",
                           {"--instant", "--rate", "921600", "--faults", "silence=0@0:to-host"});
    const Finished run =
        run_program("orbix_station", Words{silent.port(), "--stall", "1", "--json", "-"} +
                                         upgrade_of(image_file(folder)));
    EXPECT_EQ(run.status, status_of(Cause::time_limit)) << run.errors;
    EXPECT_TRUE(contains(run.errors, "waiting: press reset or power up the module"));
}

TEST(WithModules, TwoStationsOnOnePortDoNotDisturbEachOther) {
    const TempDir folder;
    const std::string image = image_file(folder);
    SimulatedModule module("TR52G", {"--pace", "--rate", "921600"});
    Background first("orbix_station", Words{module.port()} + upgrade_of(image));
    while (!contains(first.read_line(), "write 10 %")) {
    }
    const Finished second = run_program("orbix_station", Words{module.port()} + upgrade_of(image));
    EXPECT_EQ(second.status, status_of(Cause::port)) << second.output;
    EXPECT_TRUE(contains(second.output, "another program holds the port"));
    EXPECT_EQ(first.finish().status, 0);
}

// --- production ----------------------------------------------------------------------------------

TEST(Watching, EachModuleIsFlashedOnceWhenItAppears) {
    const TempDir folder;
    const std::string image = image_file(folder);
    const std::string one = folder.path("port1");
    const std::string two = folder.path("port2");
    auto first = std::make_unique<SimulatedModule>(
        "GNSS-MODULE-EVB", Words{"--instant", "--rate", "921600", "--link", one});
    Background station("orbix_station",
                       Words{"--watch", folder.path("port*"), "--json", folder.path("records")} +
                           board_upgrade_of(image));
    EXPECT_TRUE(says(station, "port1: good"));
    SimulatedModule second("GNSS-MODULE-EVB", {"--instant", "--rate", "921600", "--link", two});
    EXPECT_TRUE(says(station, "port2: good"));

    // Unplugged and plugged in again: another module.
    first->stop();
    first.reset();
    ASSERT_TRUE(comes_true([&one] { return !std::filesystem::is_symlink(one); }));
    std::this_thread::sleep_for(600ms);  // twice the station's look at the ports
    first = std::make_unique<SimulatedModule>(
        "GNSS-MODULE-EVB",
        Words{"--instant", "--rate", "921600", "--link", one, "--faults", "unplug@12000"});
    EXPECT_TRUE(says(station, "port1: FAILED"));
    // Long enough for a station that would flash the second one twice.
    std::this_thread::sleep_for(1s);
    station.send_signal(SIGINT);
    const Finished run = station.finish();
    EXPECT_EQ(run.status, status_of(Cause::transfer)) << run.output;
    EXPECT_TRUE(contains(run.output, "2 good, 1 bad")) << run.output;
    const auto results = of_event(records_in(read_text(folder.path("records"))), "result");
    EXPECT_EQ(results.size(), 3U);
}

TEST(Watching, PortThatComesBackInMidRunIsAnotherModule) {
    const TempDir folder;
    const std::string port = folder.path("port1");
    std::filesystem::create_symlink("/dev/null", port);
    const Fake fake("if [ -e $here/started ]; then " + success +
                    "; else touch $here/started; await release; fi");
    Background station("orbix_station",
                       fake.options() + Words{"--watch", folder.path("port*")} + arguments);
    fake.await("started");
    std::filesystem::remove(port);
    std::this_thread::sleep_for(600ms);  // twice the station's look at the ports
    std::filesystem::create_symlink("/dev/null", port);
    fake.release();
    EXPECT_TRUE(says(station, "port1: FAILED"));
    EXPECT_TRUE(says(station, "port1: good"));
    station.send_signal(SIGTERM);
    EXPECT_TRUE(contains(station.finish().output, "1 good, 1 bad"));
}

TEST(Watching, ModuleThatIsUnpluggedBeforeItsNextAttemptHasAResult) {
    const TempDir folder;
    const std::string port = folder.path("port1");
    std::filesystem::create_symlink("/dev/null", port);
    std::filesystem::create_symlink("/dev/zero", folder.path("port2"));
    const Fake fake(first_fails_second_stays);
    Background station("orbix_station", fake.options() + Words{"--watch", folder.path("port*")} +
                                            one_at_a_time + arguments);
    await_next_attempt(fake);
    std::filesystem::remove(port);
    std::this_thread::sleep_for(600ms);  // twice the station's look at the ports
    fake.release();
    EXPECT_TRUE(says(station, "port2: good"));
    station.send_signal(SIGTERM);
    const Finished run = station.finish();
    EXPECT_TRUE(contains(run.output, "1 good, 1 bad")) << run.output;
    EXPECT_EQ(run.status, status_of(Cause::no_sync));
}

TEST(Watching, SignalLetsTheRunningOneFinish) {
    const TempDir folder;
    std::filesystem::create_symlink("/dev/null", folder.path("port1"));
    const Fake fake("touch $here/started\nawait release\n" + success);
    Background station("orbix_station",
                       fake.options() + Words{"--watch", folder.path("port*")} + arguments);
    fake.await("started");
    station.send_signal(SIGINT);
    EXPECT_TRUE(says(station, "once more ends them at once"));
    fake.release();
    const Finished run = station.finish();
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(contains(run.output, "1 good, 0 bad"));
}

// --- the live table ------------------------------------------------------------------------------

/// A terminal that understands as much as the table uses.
class Screen {
  public:
    Screen(std::size_t columns, std::size_t lines) : columns_(columns), cells_(lines) {}

    void take(std::string_view bytes) {
        for (const char byte : bytes) {
            take(byte);
        }
    }

    [[nodiscard]] std::string text() const {
        std::string result;
        for (const std::string& line : cells_) {
            result += line + "\n";
        }
        return result;
    }

    bool cursor_shown = true;
    int draws = 0;         ///< of the whole table: each ends with clearing what is below it
    bool wrapped = false;  ///< a line was longer than the terminal is wide
    std::string unknown;   ///< sequences that are none of the known

  private:
    void take(char byte) {
        if (!sequence_.empty()) {
            sequence_ += byte;
            if (sequence_.size() > 2 && byte >= '@' && byte <= '~') {
                obey(std::exchange(sequence_, {}));
            }
        } else if (byte == '\x1B') {
            sequence_ = byte;
        } else if (byte == '\r') {
            column_ = 0;
        } else if (byte == '\n') {
            if (++line_ == cells_.size()) {
                cells_.erase(cells_.begin());
                cells_.emplace_back();
                --line_;
            }
        } else {
            wrapped = wrapped || column_ >= columns_;
            std::string& line = cells_[line_];
            line.resize(std::max(line.size(), column_ + 1), ' ');
            line[column_++] = byte;
        }
    }

    void obey(const std::string& sequence) {
        if (sequence.ends_with('A')) {
            const auto up = static_cast<std::size_t>(std::stoi(sequence.substr(2)));
            line_ -= std::min(line_, up);
        } else if (sequence == "\x1B[K") {
            cells_[line_].resize(std::min(cells_[line_].size(), column_));
        } else if (sequence == "\x1B[J") {
            ++draws;
            cells_[line_].resize(std::min(cells_[line_].size(), column_));
            std::fill(cells_.begin() + static_cast<std::ptrdiff_t>(line_) + 1, cells_.end(), "");
        } else if (sequence == "\x1B[?25l" || sequence == "\x1B[?25h") {
            cursor_shown = sequence.ends_with('h');
        } else if (!sequence.ends_with('m')) {
            unknown += sequence.substr(1) + " ";
        }
    }

    std::size_t columns_;
    std::vector<std::string> cells_;
    std::size_t line_ = 0;
    std::size_t column_ = 0;
    std::string sequence_;
};

/// The station on a terminal of its own.
class OnTerminal {
  public:
    OnTerminal(const Words& words, unsigned short columns, unsigned short lines,
               const std::string& program = ORBIX_BIN_DIR "/orbix_station")
        : screen(columns, lines) {
        winsize size{.ws_row = lines, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
        Words all = Words{program} + words;
        std::vector<char*> argv;
        for (std::string& word : all) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~OnTerminal() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(terminal_);
    }
    OnTerminal(const OnTerminal&) = delete;
    OnTerminal& operator=(const OnTerminal&) = delete;

    /// Follows the screen until it shows a text, or the program ends.
    bool shows(std::string_view text) {
        while (!contains(screen.text(), text)) {
            if (!follow()) {
                return contains(screen.text(), text);
            }
        }
        return true;
    }

    void type(char key) { EXPECT_EQ(write(terminal_, &key, 1), 1); }

    int finish() {
        while (follow()) {
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    Screen screen;

  private:
    bool follow() {
        pollfd entry{.fd = terminal_, .events = POLLIN, .revents = 0};
        char buffer[8192];
        if (poll(&entry, 1, 30'000) <= 0) {
            return false;
        }
        const ssize_t count = read(terminal_, buffer, sizeof buffer);
        if (count <= 0) {
            return false;
        }
        screen.take({buffer, static_cast<std::size_t>(count)});
        return true;
    }

    int pid_ = -1;
    int terminal_ = -1;
};

TEST(LiveTable, ShowsPhasesBarsAndResults) {
    const Fake fake("if [ $PORT = P2 ]; then echo '[000.000][ERROR] Sync failed!'; " + failure +
                    "; exit; fi\n"
                    "echo '[000.000][INFO] Handshake... (Press the module reset button!)'\n"
                    "await go\n"
                    "echo '[000.000][INFO] Send Firmware...'\n"
                    "echo '[000.000][SPEED] 50 Bytes/100 Bytes    13.8 KBps'\n"
                    "await release\n" +
                    success);
    OnTerminal station(fake.options() + Words{"P1", "P2"} + arguments, 120, 30);
    EXPECT_TRUE(station.shows("waiting: press reset")) << station.screen.text();
    EXPECT_TRUE(station.shows("FAILED the module did not answer: Sync failed!"));
    EXPECT_FALSE(station.screen.cursor_shown);
    fake.release("go");
    EXPECT_TRUE(station.shows("##########..........  50%   13.8")) << station.screen.text();
    fake.release();
    EXPECT_EQ(station.finish(), status_of(Cause::no_sync));
    EXPECT_TRUE(contains(station.screen.text(), "1 good, 1 bad\n")) << station.screen.text();
    EXPECT_TRUE(contains(station.screen.text(), "  P2: the module did not answer: Sync failed!"));
    EXPECT_TRUE(station.screen.cursor_shown);
    EXPECT_FALSE(station.screen.wrapped);
    EXPECT_EQ(station.screen.unknown, "");
}

TEST(LiveTable, StandsAboveAFailureAtTheEnd) {
    const Fake fake(success);
    const std::string file = fake.path("records");
    const Words words = fake.options() + Words{"P1", "--json", file} + arguments;
    run_program("orbix_station", words);
    const std::string records = read_text(file);
    fill_up(file, records.substr(0, records.find("\"summary\"") - 20));
    OnTerminal station(with_little_room(words), 200, 30, "/bin/bash");
    EXPECT_EQ(station.finish(), status_of(Cause::internal));
    const std::string screen = station.screen.text();
    EXPECT_TRUE(contains(screen, "PORT ")) << screen;
    EXPECT_LT(screen.find("1 good, 0 bad\n"), screen.find("cannot write the records")) << screen;
}

TEST(LiveTable, IsDrawnNoMoreThanTenTimesASecond) {
    const Fake fake(
        "echo '[000.000][INFO] Send Firmware...'\nfor i in $(seq 1 300); do echo "
        "\"[000.000][SPEED] $i Bytes/300 Bytes    1 KBps\"; sleep 0.002; done\n" +
        success);
    double seconds = 0;
    int draws = 0;
    seconds = seconds_of([&] {
        OnTerminal station(fake.options() + Words{"P1"} + arguments, 100, 30);
        EXPECT_EQ(station.finish(), 0);
        draws = station.screen.draws;
    });
    EXPECT_GT(draws, 1);
    EXPECT_LE(draws, 10 * seconds + 3);
}

TEST(LiveTable, FitsASmallTerminalAndSaysWhatIsHidden) {
    const Fake fake("if [ $PORT = P17 ]; then exit; fi\nawait release\n" + success);
    Words ports;
    for (int number = 10; number < 30; ++number) {
        ports.push_back("P" + std::to_string(number));
    }
    OnTerminal station(fake.options() + ports + arguments, 60, 10);
    EXPECT_TRUE(station.shows("P17")) << station.screen.text();
    EXPECT_TRUE(station.shows("FAILED")) << station.screen.text();
    EXPECT_TRUE(contains(station.screen.text(), "13 more")) << station.screen.text();
    EXPECT_FALSE(station.screen.wrapped);
    fake.release();
    EXPECT_EQ(station.finish(), status_of(Cause::no_result));
}

TEST(LiveTable, CtrlCReachesTheStationAloneAndTheCursorComesBack) {
    const Fake fake(until_released());
    OnTerminal station(fake.options() + Words{"P1"} + arguments, 100, 30);
    const int child = started_process(fake, "P1");
    EXPECT_TRUE(station.shows("P1"));
    station.type('\x03');
    EXPECT_TRUE(station.shows("once more ends them at once")) << station.screen.text();
    EXPECT_EQ(kill(child, 0), 0);
    station.type('\x03');
    EXPECT_EQ(station.finish(), status_of(Cause::stopped));
    EXPECT_TRUE(station.screen.cursor_shown);
    EXPECT_TRUE(has_ended(child));
}

}  // namespace
}  // namespace orbix::station
