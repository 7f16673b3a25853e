// The manual pages hold what the programs know, and nothing in them troubles man.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>

#include "cli/process.h"
#include "core/support_table.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

/// The headings of the families, in the order of the table of models.
const std::array<std::string, 12> headings{
    "AG3335",   "AG3352",   "HD8xx0",  "GNSS module evaluation board",
    "Monitors", "Monitors", "RX7040",  "STA8100",
    "STA9100",  "STA8089",  "ZPX710P", "RTA500C"};

std::string source_of(const std::string& page) {
    const Bytes content = read_file(ORBIX_SOURCE_DIR "/man/" + page + ".1.scd");
    return {content.begin(), content.end()};
}

/// The text between a heading and the next one of that or of a higher level.
std::string section(const std::string& source, const std::string& level,
                    const std::string& heading) {
    const std::size_t begin = source.find("\n" + level + " " + heading + "\n");
    if (begin == std::string::npos) {
        return "";
    }
    const std::size_t end =
        std::min(source.find("\n" + level + " ", begin + 1), source.find("\n# ", begin + 1));
    return source.substr(begin, end - begin);
}

/// Whether an option has an entry of its own: it stands, in bold, at the beginning of a line, or
/// behind another one there.
bool has_entry(const std::string& options, const std::string& option) {
    return std::regex_search(options,
                             std::regex("\n(\\*-[^\n]*, )?\\*" + option + "\\*[^\n]*\n\t"));
}

bool names_a_model(const std::string& text, const std::string& model) {
    return std::regex_search(text, std::regex("[ \n]" + model + "[,. \n]"));
}

TEST(ManualPage, HasEveryOptionOfTheTool) {
    const std::string options = section(source_of("orbix_flash"), "#", "OPTIONS");
    int count = 0;
    for (const char letter :
         std::string("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789")) {
        const std::string option = std::string("-") + letter;
        const Finished run = run_program("orbix_flash", {"-m", "nosuch", option, "1"});
        const bool is_known = run.errors.find("invalid option") == std::string::npos;
        count += is_known ? 1 : 0;
        EXPECT_EQ(has_entry(options, option), is_known) << option;
    }
    EXPECT_EQ(count, 19);
}

TEST(ManualPage, HasEveryFamilyWithItsModels) {
    const std::string source = source_of("orbix_flash");
    std::size_t count = 0;
    for (std::size_t row = 0; row < headings.size(); ++row) {
        const std::string family = section(source, "##", headings[row]);
        EXPECT_NE(family, "") << headings[row];
        for (const ModelName& name : support_table[row].names) {
            if (name[0] != '\0') {
                ++count;
                EXPECT_TRUE(names_a_model(family, name)) << name;
            }
        }
    }
    EXPECT_NE(source.find("It knows " + std::to_string(count) + " models of twelve families"),
              std::string::npos);
}

TEST(ManualPage, HasEveryOptionOfTheSimulator) {
    const std::string options = section(source_of("orbix_sim"), "#", "OPTIONS");
    const std::string help = run_program("orbix_sim", {"--help"}).output;
    static const std::regex entry("\n  (--[a-z]+)");
    int count = 0;
    for (std::sregex_iterator it(help.begin(), help.end(), entry), end; it != end; ++it) {
        ++count;
        EXPECT_TRUE(has_entry(options, (*it)[1])) << (*it)[1];
    }
    EXPECT_EQ(count, 10);
    const std::string faults = section(source_of("orbix_sim"), "#", "FAULTS");
    for (const std::string kind :
         {"drop", "flip", "duplicate", "noise", "delay", "silence", "unplug", "power-cycle"}) {
        EXPECT_NE(faults.find("*" + kind + "*"), std::string::npos) << kind;
        EXPECT_NE(help.find(kind), std::string::npos) << kind;
    }
}

TEST(ManualPage, HasEveryOptionAndExitStatusOfTheStation) {
    if (!std::filesystem::exists(ORBIX_BIN_DIR "/orbix_station")) {
        GTEST_SKIP() << "the station is not part of this build";
    }
    const std::string options = section(source_of("orbix_station"), "#", "OPTIONS");
    const std::string help = run_program("orbix_station", {"--help"}).output;
    static const std::regex entry("\n  (?:-h,)?(--[a-z-]+)");
    int count = 0;
    for (std::sregex_iterator it(help.begin(), help.end(), entry), end; it != end; ++it) {
        ++count;
        EXPECT_TRUE(has_entry(options, (*it)[1])) << (*it)[1];
    }
    EXPECT_EQ(count, 12);
    const std::string statuses = section(source_of("orbix_station"), "#", "EXIT STATUS");
    for (int status = 0; status <= 10; ++status) {
        EXPECT_TRUE(has_entry(statuses, std::to_string(status))) << status;
    }
}

TEST(ManualPage, IsRenderedWithoutAWarning) {
    if (access("/usr/bin/man", X_OK) != 0 ||
        !std::filesystem::exists(ORBIX_BIN_DIR "/man/orbix_flash.1.gz")) {
        GTEST_SKIP() << "the pages are built where scdoc is installed, and shown by man";
    }
    setenv("MANWIDTH", "80", 1);
    for (const std::string page : {"orbix_flash", "orbix_sim", "orbix_station"}) {
        const Finished run = run_program(
            "/usr/bin/man", {"--warnings", "--encoding=UTF-8", "--troff-device=utf8", "--ditroff",
                             "--local-file", ORBIX_BIN_DIR "/man/" + page + ".1.gz"});
        EXPECT_EQ(run.errors, "") << page;
        EXPECT_EQ(run.status, 0) << page;
        EXPECT_NE(run.output, "") << page;
    }
}

}  // namespace
}  // namespace orbix::test
