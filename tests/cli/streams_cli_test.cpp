// Standard output is the same byte for byte wherever standard error goes: to a file, nowhere, or to
// the same pipe.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <thread>

#include "cli/process.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

/// What the time of day and the machine's speed bring into a line.
std::string masked(const std::string& output) {
    static const std::regex stamp(R"(\[\d{3,}\.\d{3}\])");
    static const std::regex rate(R"([\d.]+ KBps)");
    return std::regex_replace(std::regex_replace(output, stamp, "[stamp]"), rate, "rate");
}

std::string without_hints(const std::string& output) {
    std::istringstream lines(output);
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
        kept += line.starts_with("hint: ") ? "" : line + "\n";
    }
    return kept;
}

/// The tool with these arguments, and the shell's redirection behind them.
Finished run_tool(const std::string& arguments, const std::string& redirection,
                  const TempDir& folder) {
    return run_program("/bin/sh",
                       {"-c", std::string("exec ") + ORBIX_BIN_DIR + "/orbix_flash " + arguments +
                                  " " + redirection},
                       folder.path(""));
}

/// Runs three times and expects the same lines. Returns what standard error had.
std::string expect_same_output(const std::string& arguments,
                               std::chrono::milliseconds between_runs = {}) {
    const TempDir folder;
    folder.write("app.bin", random_image(3000));
    const auto output = [&](const std::string& redirection) {
        std::this_thread::sleep_for(between_runs);
        return run_tool(arguments, redirection, folder).output;
    };
    const std::string to_file = output("2>errors");
    const std::string to_nowhere = output("2>&-");
    const std::string to_pipe = output("2>&1");
    EXPECT_NE(to_file, "");
    EXPECT_EQ(to_file.find("hint"), std::string::npos);
    EXPECT_EQ(masked(to_file), masked(to_nowhere));
    EXPECT_EQ(masked(to_file), masked(without_hints(to_pipe)));
    return sim::read_text(folder.path("errors"));
}

TEST(Streams, RunsThatFailPrintTheSameWhereverTheHintGoes) {
    for (const std::string arguments :
         {"-p ttyUSB0", "-m nosuch -p ttyUSB0", "-m TS90B -o x", "-m TR52G -t UPG -p ttyNOSUCH",
          "-m TR52G -t UPG -p /dev/null", "-m MX240A00 -b 1 -f app.bin -p /tmp",
          "-m TS50A -b 1 -f app.bin -p /etc/passwd", "-m ZPX710P -b 1 -t MCU_UPG -p ttyNOSUCH",
          "-m MX290B", "-m MN10A -t APP -r AUTO", "-m RTA500C_EVB_NXP"}) {
        const std::string errors = expect_same_output(arguments);
        EXPECT_TRUE(errors.starts_with("hint: ")) << arguments << ": " << errors;
    }
}

TEST(Streams, RunThatGoesWellPrintsTheSame) {
    SimulatedModule module("TR52G", {"--rate", "921600"});
    // The module restarts when it sees the port closed.
    EXPECT_EQ(expect_same_output("-m TR52G -b 921600 -f app.bin -t UPG -p " + module.port(),
                                 std::chrono::milliseconds(200)),
              "");
}

/// A hint in the middle of the dialogue, and a port that could take the place of a closed stream:
/// nothing but the dialogue goes down the line, and nothing but the flash into the file.
TEST(Streams, ClosedStreamIsNotTakenForThePort) {
    for (const std::string redirection : {"2>&-", "<&- >&- 2>&-"}) {
        const TempDir folder;
        const Bytes image = random_image(3000);
        folder.write("app.bin", image);
        SimulatedModule module("TS90B", {"--dump", folder.path("flash.bin")});
        run_tool("-m TS90B -b 115200 -f app.bin -p " + module.port(), redirection, folder);
        module.stop();
        EXPECT_TRUE(dump_holds(folder.path("flash.bin"), 0, image)) << redirection;
    }
}

}  // namespace
}  // namespace orbix::test
