// The command line, the dispatch and the result lines, around a module that says nothing.
#include <gtest/gtest.h>

#include <cerrno>
#include <regex>
#include <set>

#include "core/support_table.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

/// A run whose port does not exist: it ends at once, after all that comes before.
ToolRun without_port(const std::vector<std::string>& arguments) {
    SilentModule module;
    Conditions conditions;
    conditions.port.open_error = ENOENT;
    return ToolRun(module, arguments, conditions);
}

/// All models in the order of the list.
const Lines all_models{
    "TR40XBA",         "TR40XBB",  "TR40XCA",  "TR40XDA",  "TR41XBA",      "TR41XCA",
    "TR42XAA",         "TR42XBA",  "TR45XBA",  "TR45XCA",  "TR50XBA",      "TR50XDA",
    "TR60XBA",         "TR60XCA",  "TR71KXM",  "TR71LXM",  "TR75XBA-SR01", "TR75XBA-SR02",
    "TR80XBA",         "TR80XCA",  "TR52G",    "TR52GA",   "TR52GB",       "TR52GC",
    "TR52D",           "TR52L",    "TR53G",    "TR53GA",   "TR53D",        "TR54G",
    "TR54D",           "TR55G",    "TR55GA",   "TR56G",    "TR57G",        "TR58G",
    "MX210A00",        "MX210B00", "MX211A00", "MX211B00", "MX220A00",     "MX220B00",
    "MX221A00",        "MX230A00", "MX230B00", "MX240A00", "MX240B00",     "MX241A00",
    "MX250A00",        "MX250B00", "MX260A00", "MX260B00", "MX260C00",     "MX260C01",
    "MX270A00",        "MX270B00", "MX280A00", "MX280B00", "MX285A00",     "GNSS-MODULE-EVB",
    "MN10A",           "MN10B",    "MN20A",    "MN20B",    "MX290A",       "MX290B",
    "MX291A",          "MX291B",   "MX295A",   "MX295B",   "TS50A",        "TS50A-EXT",
    "TS50B",           "TS50C",    "TS51A",    "TS51B",    "TS52A",        "TS52A-L",
    "TS52B",           "TS60A",    "TS60A-H",  "TS60B",    "TS61A",        "TS61B",
    "TS62A",           "TS62B",    "TS65A",    "TS65B",    "TS90B",        "TS30A",
    "TS30B",           "TS30C",    "TS30D",    "TS31A",    "TS31B",        "TS32A",
    "TS32B",           "TS33A",    "TS35A",    "TS35B",    "ZPX710P",      "ZPX710P-EVB",
    "RTA500C_EVB_NXP",
};

const Lines usage_lines{
    " Usage: orbix_flash [options...]",
    "  -m,  Specify module name,Eg:TR40XBA",
    "  -p,  Specify port name,Eg:/dev/ttyUSB0",
    "  -b,  Specify handshake Baud rate",
    "  -R,  Specify RTS",
    "  -d,  Specify firmware path(Partial module support)",
    "  -f,  Specify firmware file(Partial module support)",
    "  -s,  Specify DA firmware file(Partial module support)",
    "  -S,  Print all currently supported modules",
    "  -l,  Specify download Baud rate(Partial module support)",
    "  -D,  Enable debug mode",
    "  -t,  Specify Upgrade mode(Partial module support)",
    "  -c,  Specify Upgrade partition(Partial module support)",
};

TEST(Core, FirstLineIsTheBannerAtTimeZero) {
    const ToolRun run = without_port({});
    EXPECT_TRUE(run.output.starts_with("[000.000][INFO] V1.0.9 ")) << run.output;
    static const std::regex banner(
        R"(\[INFO\] V1\.0\.9 [A-Z][a-z]{2} [ \d]\d \d{4} \d\d:\d\d:\d\d)");
    EXPECT_TRUE(std::regex_match(run.lines()[0], banner)) << run.lines()[0];
    EXPECT_EQ(run.lines()[1], "[INFO] Enter flash tool ");
}

TEST(Core, NoArgumentsPrintsUsageAndReturnsMinusOne) {
    const ToolRun run = without_port({});
    const Lines lines = run.lines();
    EXPECT_EQ(Lines(lines.begin() + 2, lines.end()), usage_lines);
    EXPECT_EQ(run.status, -1);
}

TEST(Core, NoModulePrintsUsageAndReturnsZero) {
    const ToolRun run = without_port({"-p", "COM6", "-b", "9600"});
    const Lines lines = run.lines();
    EXPECT_EQ(lines[2], "[INFO] dev :COM6");
    EXPECT_EQ(lines[3], "[INFO] Baud rate:9600");
    EXPECT_EQ(Lines(lines.begin() + 4, lines.end()), usage_lines);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.opens, 0);
}

TEST(Core, ListWinsOverEverythingElse) {
    const ToolRun run = without_port({"-m", "TR52G", "-p", "COM6", "-S", "-b", "115200"});
    const Lines lines = run.lines();
    EXPECT_EQ(Lines(lines.begin() + 2, lines.end()), all_models);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.opens, 0);
}

TEST(Core, NamesOfTheListHaveNoStamp) {
    const ToolRun run = without_port({"-S"});
    std::string list;
    for (const std::string& name : all_models) {
        list += name + "\n";
    }
    EXPECT_TRUE(run.output.ends_with("[INFO] Enter flash tool \n" + list)) << run.output;
}

TEST(Core, OptionsAreLoggedInTheOrderTyped) {
    const ToolRun run = without_port(
        {"-b", "115200x", "-o", "x", "-T", "0", "-m", "nosuch", "-R", "1", "-p", "COM6"});
    const Lines lines = run.lines();
    const Lines expected{"[INFO] Baud rate:115200", "[INFO] readback", "[INFO] DTR :0",
                         "[INFO] name :nosuch",     "[INFO] RTS :1",   "[INFO] dev :COM6"};
    EXPECT_EQ(Lines(lines.begin() + 2, lines.begin() + 8), expected);
}

/// An option of a family takes its argument here too: what follows it is then no module name.
TEST(Core, OptionsOfTheFamiliesTakeTheirArguments) {
    for (const char letter : std::string("ampdbfsrtlLcgRTo")) {
        const ToolRun run = without_port({std::string("-") + letter, "-m", "nosuch"});
        EXPECT_EQ(run.count("[INFO] name :nosuch\n"), 0U) << letter;
    }
    for (const char letter : std::string("vD")) {
        const ToolRun run = without_port({std::string("-") + letter, "-m", "nosuch"});
        EXPECT_EQ(run.count("[INFO] name :nosuch\n"), 1U) << letter;
    }
    EXPECT_EQ(without_port({"-vDx", "-Dm", "nosuch"}).count("[INFO] name :nosuch\n"), 1U);
}

/// There are no long options: the second '-' is a letter that is not known, and the others count.
TEST(Core, LettersBehindTwoDashesCount) {
    const ToolRun run = without_port({"--m", "nosuch", "--Db9600", "--zz", "-p", "COM6"});
    const Lines lines = run.lines();
    const Lines expected{"[INFO] name :nosuch", "[INFO] Baud rate:9600", "[INFO] dev :COM6"};
    EXPECT_EQ(Lines(lines.begin() + 2, lines.begin() + 5), expected);
}

TEST(Core, PlainWordsAreSteppedOverAndTwoDashesAloneEndTheOptions) {
    const ToolRun run = without_port({"word", "-m", "nosuch", "word", "-b", "9600", "--", "-R1"});
    const Lines lines = run.lines();
    const Lines expected{"[INFO] name :nosuch", "[INFO] Baud rate:9600"};
    EXPECT_EQ(Lines(lines.begin() + 2, lines.begin() + 4), expected);
    EXPECT_EQ(run.count("[INFO] RTS"), 0U);
}

TEST(Core, LinePairsAreTakenOutOfTheFamilysArguments) {
    const ToolRun run =
        without_port({"-m", "TR52G", "-R", "0", "-T", "0", "-p", "COM6", "-t", "UPG"});
    Lines arguments;
    for (const std::string& line : run.lines()) {
        if (line.starts_with("new_argv[")) {
            arguments.push_back(line);
        }
    }
    // The number is the place where the argument stood, the text the one that stood at the place
    // where it goes: after a pair the two differ.
    const Lines expected{"new_argv[0]:orbix_flash", "new_argv[1]:-m", "new_argv[2]:TR52G",
                         "new_argv[7]:-R",          "new_argv[8]:0",  "new_argv[9]:-T",
                         "new_argv[10]:0"};
    EXPECT_EQ(arguments, expected);
    EXPECT_TRUE(has_line(run, "[INFO] RTS :0"));
    EXPECT_TRUE(has_line(run, "[INFO] DTR :0"));
    EXPECT_TRUE(has_line(run, " will use device: COM6")) << "the family sees what is left";
}

TEST(Core, LinesOfTheFamilysArgumentsHaveNoStamp) {
    const ToolRun run = without_port({"-m", "nosuch"});
    EXPECT_NE(run.output.find("\nnew_argv[0]:orbix_flash\nnew_argv[1]:-m\nnew_argv[2]:nosuch\n"),
              std::string::npos)
        << run.output;
}

TEST(Core, LineValueJoinedToItsLetterStays) {
    const ToolRun run = without_port({"-m", "TR52G", "-R1", "-p", "COM6", "-t", "UPG"});
    EXPECT_TRUE(has_line(run, "[INFO] RTS :1"));
    EXPECT_TRUE(has_line(run, "new_argv[3]:-R1"));
}

TEST(Core, LinePairAtTheEndHasNoValue) {
    const ToolRun run = without_port({"-m", "nosuch", "-R"});
    EXPECT_EQ(run.count("new_argv["), 3U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Core, UnknownModelFailsWithMinusOne) {
    const ToolRun run = without_port({"-m", "TR52", "-p", "COM6"});
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.opens, 0);
}

TEST(Core, UnknownModelWithReadback) {
    const ToolRun run = without_port({"-m", "nosuch", "-o", "file"});
    EXPECT_EQ(run.result(), readback_failure(-1));
    EXPECT_EQ(run.status, 0);
}

TEST(Core, LookupIsExactAndCaseSensitive) {
    EXPECT_EQ(without_port({"-m", "tr52g"}).result(), upgrade_failure(-1));
    EXPECT_EQ(find_model("TR52G"), &support_table[1]);
    EXPECT_EQ(find_model("TR52GX"), nullptr);
    EXPECT_EQ(find_model(""), nullptr);
}

TEST(Core, LongModelNameCountsToItsFifteenthCharacter) {
    const ToolRun run = without_port({"-m", "GNSS-MODULE-EVBxxxxx"});
    EXPECT_TRUE(has_line(run, "[INFO] name :GNSS-MODULE-EVB"));
    EXPECT_EQ(find_model("GNSS-MODULE-EVB"), &support_table[3]);
}

TEST(Core, ReadbackOfAFamilyWithoutItFails) {
    for (const auto& row : support_table) {
        if (row.readback == nullptr) {
            const ToolRun run = without_port({"-m", row.names[0], "-o", "file", "-p", "COM6"});
            EXPECT_EQ(run.result(), readback_failure(-1)) << row.names[0];
            EXPECT_TRUE(run.family_lines().empty()) << row.names[0];
            EXPECT_EQ(run.opens, 0);
        }
    }
}

TEST(Core, LongArgumentsAreSafe) {
    const std::string long_text(5000, 'C');
    const ToolRun run = without_port(
        {"-m", long_text, "-p", long_text, "-f", long_text, "-b", long_text, "-t", long_text});
    EXPECT_TRUE(has_line(run, "[INFO] name :CCCCCCCCCCCCCCC"));
    EXPECT_TRUE(has_line(run, "[INFO] dev :CCCCCCCCCCCCCCC"));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    const ToolRun family = without_port(
        {"-m", "TR52G", "-p", long_text, "-f", long_text, "-b", "1", "-t", "UPG" + long_text});
    EXPECT_TRUE(has_line(family, " will use device: CCCCCCCCCCCCCCCCCCCC"));
    EXPECT_EQ(family.result(), upgrade_failure(-1));
}

TEST(Core, BothLinesAreAssertedUnlessTheyAreGiven) {
    using platform::ModemLine;
    const std::vector<std::string> arguments{"-m", "TR52G", "-p", "COM6",
                                             "-b", "9600",  "-t", "UPG"};
    const auto events = [&](const std::vector<std::string>& more) {
        SilentModule module;
        auto all = arguments;
        all.insert(all.end(), more.begin(), more.end());
        return ToolRun(module, all, unplugged_after_ms(100)).modem_events;
    };
    using Events = std::vector<sim::VirtualPort::ModemEvent>;
    EXPECT_EQ(events({}), (Events{{ModemLine::dtr, true}, {ModemLine::rts, true}}));
    EXPECT_EQ(events({"-R", "0"}), (Events{{ModemLine::dtr, true}, {ModemLine::rts, false}}));
    EXPECT_EQ(events({"-T", "0"}), (Events{{ModemLine::dtr, false}, {ModemLine::rts, true}}));
    EXPECT_EQ(events({"-R", "0", "-T", "0"}),
              (Events{{ModemLine::dtr, false}, {ModemLine::rts, false}}));
}

TEST(SupportTable, NamesFitAreUniqueAndFillTheirRowFromTheFront) {
    std::set<std::string> seen;
    for (const auto& row : support_table) {
        bool ended = false;
        for (const auto& name : row.names) {
            const std::string text(name);
            if (text.empty()) {
                ended = true;
                continue;
            }
            EXPECT_FALSE(ended) << text << " stands behind an empty slot";
            EXPECT_LE(text.size(), 15U) << text;
            EXPECT_TRUE(seen.insert(text).second) << text << " stands twice";
        }
        EXPECT_NE(row.upgrade, nullptr);
    }
    EXPECT_EQ(seen.size(), 103U);
}

TEST(SupportTable, RowsHaveTheirNumberOfNames) {
    const std::vector<int> expected{20, 16, 23, 1, 2, 2, 6, 18, 1, 11, 2, 1};
    std::vector<int> found;
    for (const auto& row : support_table) {
        found.push_back(
            static_cast<int>(std::count_if(std::begin(row.names), std::end(row.names),
                                           [](const ModelName& name) { return name[0] != '\0'; })));
    }
    EXPECT_EQ(found, expected);
}

TEST(SupportTable, OnlyTwoFamiliesReadBack) {
    for (std::size_t row = 0; row < support_table.size(); ++row) {
        EXPECT_EQ(support_table[row].readback != nullptr, row < 2) << row;
    }
}

}  // namespace
}  // namespace orbix::test
