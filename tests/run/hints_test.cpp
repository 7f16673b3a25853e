// Hints on standard error: what arrived instead of an answer, and why a port did not open, for
// every family and mode.
#include "core/hints.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <regex>

#include "ag33xx_modules.h"
#include "app_loader.h"
#include "campaign/campaign.h"
#include "catalogue.h"
#include "core/support_table.h"
#include "cyfm_package.h"
#include "run/harness.h"
#include "zpx710p.h"

namespace orbix::test {
namespace {

using campaign::Rig;
using campaign::Workplace;

/// Says the same thing ten times a second.
class Talker : public SilentModule {
  public:
    explicit Talker(Bytes words) : words_(std::move(words)) {}
    [[nodiscard]] std::optional<sim::Micros> wake_time() const override { return next_; }
    void wake(sim::Micros now, sim::Wire& wire) override {
        wire.send(words_);
        next_ = now + sim::milliseconds(100);
    }

  private:
    Bytes words_;
    std::optional<sim::Micros> next_ = sim::VirtualPort::start;
};

Bytes text(const std::string& words) {
    return {words.begin(), words.end()};
}

const Bytes sentence = text("$GNGGA,092725.00,4717.11399,N*5B\r\n");
const Bytes rate_garbage = hex("F8 00 7E E0 06 80");
const Bytes other_bytes = hex("01 02 03 04");

// --- every family and mode -----------------------------------------------------------------------

/// A mode, and how its command line is made of that of one of the campaign's.
struct Mode {
    std::string name;
    const campaign::Scenario* scenario;
    std::string word;         ///< the scenario's argument
    std::string replacement;  ///< and what stands in its place
};

void PrintTo(const Mode& mode, std::ostream* out) {
    *out << mode.name;
}

std::vector<Mode> all_modes() {
    std::vector<Mode> modes;
    for (const campaign::Scenario& scenario : campaign::scenarios()) {
        const std::string name = std::string(scenario.family) + " " + scenario.mode;
        modes.push_back({name, &scenario, "", ""});
        const auto variant = [&](const std::string& base, const std::string& word,
                                 const std::string& replacement) {
            if (name == base) {
                modes.push_back({name + ", " + replacement, &scenario, word, replacement});
            }
        };
        variant("HD8xx0 boot", "boot", "s_boot");
        variant("monitor1 upgrade", "MANUAL", "MANUAL");
        variant("monitor2 upgrade", "MANUAL", "MANUAL");
        variant("STA8100 recovery", "recovery", "normal");
        variant("STA8089 recovery", "recovery", "normal");
        for (const char* area : {"gnss", "app", "slave_gnss", "slave_app"}) {
            variant("STA8100 area", "slave_boot", area);
            variant("RTA500C area", "slave_boot", area);
        }
    }
    return modes;
}

bool has_argument(const Rig& rig, const std::string& word) {
    return std::find(rig.arguments.begin(), rig.arguments.end(), word) != rig.arguments.end();
}

/// A run of the mode. Where the scenario draws between several, the one with the mode's word; a
/// module that is reset by its firmware is left out, it is waited for without a limit.
Rig rig_of(const Mode& mode, std::uint64_t first_seed = 1) {
    for (std::uint64_t seed = first_seed;; ++seed) {
        campaign::Draw draw(seed);
        Rig rig = mode.scenario->make(draw);
        const bool monitor = mode.name.starts_with("monitor");
        const std::string wanted = mode.word.empty() && monitor ? "AUTO" : mode.word;
        if ((wanted.empty() || has_argument(rig, wanted)) && !has_argument(rig, "TR75XBA-SR01") &&
            !has_argument(rig, "TR75XBA-SR02")) {
            std::replace(rig.arguments.begin(), rig.arguments.end(), mode.word, mode.replacement);
            return rig;
        }
    }
}

class HintsOfAllModes : public ::testing::TestWithParam<Mode> {
  protected:
    /// The rate at which the mode's first synchronisation is held.
    static unsigned first_rate(const Rig& rig) {
        const std::string& name = GetParam().name;
        if (name == "HD8xx0 user") {
            return 460800;
        }
        const bool fixed = name.starts_with("AG3335") || name == "AG3352 download" ||
                           name == "AG3352 readback" || name == "RX7040 download";
        const auto baud = std::find(rig.arguments.begin(), rig.arguments.end(), "-b");
        return fixed || baud == rig.arguments.end()
                   ? 115200
                   : static_cast<unsigned>(std::stoul(*std::next(baud)));
    }

    /// Whether the first answer is awaited without a limit while the line is silent.
    static bool waits_for_ever() { return GetParam().name == "ZPX710P DL"; }

    /// Whether it is judged by its first byte.
    static bool judges_one_byte() { return GetParam().name == "STA8100 app_boot"; }

    /// Whether the mode tries several rates by itself.
    static bool resets_at_any_rate() {
        return GetParam().name == "monitor1 upgrade" || GetParam().name == "monitor2 upgrade";
    }

    std::string hints_against(SilentModule& module, Conditions conditions = {}) {
        const Rig rig = rig_of(GetParam());
        module.start_baud = first_rate(rig);
        module.even_parity = waits_for_ever() || judges_one_byte();
        if (waits_for_ever()) {
            conditions.faults = unplugged_after_ms(60'000).faults;
        }
        ::testing::internal::CaptureStderr();
        const ToolRun run(module, rig.arguments, conditions);
        const std::string errors = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(run.output.find("hint"), std::string::npos);
        EXPECT_FALSE(run.hit_time_limit);
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
        return errors;
    }

  private:
    Workplace workplace_;
};

TEST_P(HintsOfAllModes, NothingArrived) {
    SilentModule module;
    EXPECT_EQ(hints_against(module),
              waits_for_ever()
                  ? "hint: the port vanished during the run; was the adapter unplugged?\n"
                  : "hint: nothing arrived; is the module powered, wired (TX to RX), and was it "
                    "reset?\n");
}

TEST_P(HintsOfAllModes, TextOfARunningReceiver) {
    Talker module(sentence);
    const std::string hint = hints_against(module);
    EXPECT_TRUE(hint.starts_with(judges_one_byte() ? "hint: 1 byte arrived (24), no answer; "
                                                   : "hint: the module sends text (\""))
        << hint;
}

TEST_P(HintsOfAllModes, GarbageAsOfAnotherRate) {
    Talker module(rate_garbage);
    const std::string hint = hints_against(module);
    if (judges_one_byte()) {
        EXPECT_TRUE(hint.starts_with("hint: 1 byte arrived (F8), no answer; ")) << hint;
        return;
    }
    if (resets_at_any_rate()) {
        return;  // where the rates do not agree, a few bytes may look like anything
    }
    static const std::regex expected(
        R"(hint: \d+ bytes arrived \([0-9A-F ]+ \.\.\.\) as if at another rate than \d+; .*\n)");
    EXPECT_TRUE(std::regex_match(hint, expected)) << hint;
}

TEST_P(HintsOfAllModes, BytesThatDoNotFit) {
    Talker module(other_bytes);
    const std::string hint = hints_against(module);
    static const std::regex expected(
        R"(hint: (1 byte|\d+ bytes) arrived \([0-9A-F .]+\), no answer; .*\n)");
    EXPECT_TRUE(std::regex_match(hint, expected)) << hint;
}

TEST_P(HintsOfAllModes, WhyThePortDidNotOpen) {
    const auto hint = [this](int error) {
        SilentModule module;
        Conditions conditions;
        conditions.port.open_error = error;
        return hints_against(module, conditions);
    };
    EXPECT_NE(hint(ENOENT).find("COM6: there is no such port; "), std::string::npos);
    EXPECT_NE(hint(EBUSY).find("COM6: another program holds the port; "), std::string::npos);
    EXPECT_NE(hint(EACCES).find("dialout"), std::string::npos);
    EXPECT_NE(hint(ENOTTY).find("COM6: that is no serial port"), std::string::npos);
    EXPECT_EQ(hint(EIO), "hint: COM6: the port could not be opened: Input/output error\n");
}

TEST_P(HintsOfAllModes, NoneOnARunThatGoesWell) {
    int succeeded = 0;
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
        const Rig rig = rig_of(GetParam(), seed);
        ::testing::internal::CaptureStderr();
        const ToolRun run(*rig.module, rig.arguments);
        const std::string errors = ::testing::internal::GetCapturedStderr();
        if (run.output.find("[SUCCESS]") == std::string::npos) {
            continue;
        }
        ++succeeded;
        // A real chip cannot run a placeholder: only a simulated one goes well with it.
        if (errors.find("placeholder") == std::string::npos) {
            EXPECT_EQ(errors, "");
        }
    }
    EXPECT_GT(succeeded, 0);
}

/// Standard error, closed while the object lives.
class ClosedStandardError {
  public:
    ClosedStandardError() : kept_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100)) {
        close(STDERR_FILENO);
        // The number stays taken, as the program sees to at its start.
        nowhere_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    ~ClosedStandardError() {
        dup2(kept_, STDERR_FILENO);
        close(kept_);
    }
    ClosedStandardError(const ClosedStandardError&) = delete;
    ClosedStandardError& operator=(const ClosedStandardError&) = delete;

  private:
    int kept_;
    int nowhere_ = -1;
};

TEST_P(HintsOfAllModes, LinesAreTheSameWhereTheHintsCannotBeWritten) {
    const std::array<std::vector<sim::Fault>, 3> disturbances{
        {{},
         {{.kind = sim::FaultKind::silence, .direction = sim::Direction::to_host, .byte = 0}},
         {{.kind = sim::FaultKind::noise,
           .direction = sim::Direction::to_host,
           .byte = 0,
           .amount = 50}}}};
    for (const auto& faults : disturbances) {
        Conditions conditions = unplugged_after_ms(300'000);
        conditions.faults.insert(conditions.faults.begin(), faults.begin(), faults.end());
        const auto lines = [&] {
            const Rig rig = rig_of(GetParam());
            return ToolRun(*rig.module, rig.arguments, conditions).output;
        };
        const std::string with_hints = lines();
        const ClosedStandardError closed;
        EXPECT_EQ(lines(), with_hints);
    }
}

INSTANTIATE_TEST_SUITE_P(All, HintsOfAllModes, ::testing::ValuesIn(all_modes()),
                         [](const auto& parameter) {
                             std::string name = parameter.param.name;
                             std::erase_if(name, [](char letter) {
                                 return std::isalnum(static_cast<unsigned char>(letter)) == 0;
                             });
                             return name;
                         });

// --- what else is told ---------------------------------------------------------------------------

struct Told {
    std::string output;
    std::string errors;
};

Told run_told(sim::Model& module, const std::vector<std::string>& arguments,
              const Conditions& conditions = {}) {
    ::testing::internal::CaptureStderr();
    const ToolRun run(module, arguments, conditions);
    return {run.output, ::testing::internal::GetCapturedStderr()};
}

Told run_against(sim::Model& module, const Conditions& conditions = {}) {
    const TempDir folder;
    return run_told(module,
                    {"-m", "TR52G", "-p", "COM6", "-b", "115200", "-f",
                     folder.write("app.bin", random_image(100)), "-t", "UPG"},
                    conditions);
}

std::string hint_of(const std::vector<std::string>& arguments) {
    SilentModule module;
    return run_told(module, arguments).errors;
}

TEST(Hints, QuoteWhatTheModuleSays) {
    Talker module(sentence);
    EXPECT_EQ(run_against(module).errors,
              "hint: the module sends text (\"$GNGGA,092725.00,4717.11399,N*5B\"): its firmware "
              "runs; reset it, or try another mode\n");
}

TEST(Hints, ShowHowManyBytesCameAndTheFirstOfThem) {
    Talker module(rate_garbage);
    const std::string errors = run_against(module).errors;
    EXPECT_NE(errors.find("bytes arrived (F8 00 7E E0 06 80 F8 00 ...) as if at another rate than "
                          "115200; reset the module, or try another -b\n"),
              std::string::npos)
        << errors;
}

TEST(Hints, NoneOnceTheModuleWasUnderstood) {
    sim::AppLoader module;
    module.tamper = [](const sim::UpgradeFrame& /*frame*/, Bytes& response) {
        response.back() = 0;
    };
    const Told told = run_against(module);
    EXPECT_NE(told.output.find("[FAIL]"), std::string::npos);
    EXPECT_EQ(told.errors, "");
}

TEST(Hints, VanishedPortIsTold) {
    sim::AppLoader module;
    EXPECT_EQ(run_against(module, unplugged_after_ms(300)).errors,
              "hint: the port vanished during the run; was the adapter unplugged?\n");
}

TEST(Hints, RateThatThePortCannotDoIsTold) {
    SilentModule module;
    Conditions conditions;
    conditions.port.settings_writable = false;
    EXPECT_EQ(run_against(module, conditions).errors,
              "hint: the port cannot do 115200 baud; choose another rate\n");
}

TEST(Hints, MissingRateIsTold) {
    EXPECT_EQ(hint_of({"-m", "GNSS-MODULE-EVB", "-p", "COM6", "-f", "app.bin"}),
              "hint: no rate was given; -b names it, such as -b 115200\n");
}

TEST(Hints, MissingPortIsTold) {
    EXPECT_EQ(hint_of({"-m", "GNSS-MODULE-EVB", "-b", "115200", "-f", "app.bin"}),
              "hint: no port was given; -p names it, such as -p /dev/ttyUSB0\n");
}

TEST(Hints, PortNameOfAnUnknownFormIsTold) {
    EXPECT_EQ(hint_of({"-m", "TR52G", "-p", "serial1", "-t", "UPG"}),
              "hint: ports are named like /dev/ttyUSB0, ttyUSB0, USB0 or COM6\n");
}

TEST(Hints, ProcessorBehindTheMainControllerIsAwaitedAnew) {
    sim::Zpx710pModule module;
    module.gnss.start_baud = 9600;  // it never understands
    const TempDir folder;
    const Told told = run_told(module, {"-m", "ZPX710P", "-p", "COM6", "-b", "115200", "-f",
                                        folder.write("a", random_image(9)), "-t", "GNSS_UPG"});
    if (told.output.find("Start handshake") != std::string::npos &&
        told.output.find("[FAIL]") != std::string::npos) {
        EXPECT_EQ(told.errors.find("56 4E"), std::string::npos)
            << "the controller's consent is no wrong answer";
    }
}

// --- the command line ----------------------------------------------------------------------------

constexpr const char* way =
    "hint: for example: orbix_flash -m TR52G -p /dev/ttyUSB0 -b 115200 -f app.bin -t UPG; "
    "-S lists the models, man orbix_flash tells the rest\n";

TEST(Hints, WithoutArgumentsOrModelATypicalCommandIsShown) {
    EXPECT_EQ(hint_of({}), way);
    EXPECT_EQ(hint_of({"-p", "COM6"}), way);
    EXPECT_EQ(hint_of({"-S"}), "") << "that goes well";
}

TEST(Hints, UnknownModelIsToldWithOneThatMayBeMeant) {
    const auto hint = [](const std::string& model) { return hint_of({"-m", model}); };
    EXPECT_EQ(hint("tr52g"), "hint: there is no model \"tr52g\"; is it TR52G? -S lists them all\n");
    EXPECT_EQ(hint("TR71"), "hint: there is no model \"TR71\"; is it TR71KXM? -S lists them all\n");
    EXPECT_EQ(hint("TR52GXX"),
              "hint: there is no model \"TR52GXX\"; is it TR52G? -S lists them all\n");
    EXPECT_EQ(hint("nosuch"), "hint: there is no model \"nosuch\"; -S lists them all\n");
}

TEST(Hints, ReadbackOfAFamilyWithoutOneIsTold) {
    EXPECT_EQ(hint_of({"-m", "TS90B", "-o", "x"}),
              "hint: the flash of TS90B cannot be read back: leave -o out\n");
}

TEST(Hints, RunThatNeverReachesThePortShowsHowTheFamilyIsFlashed) {
    EXPECT_EQ(hint_of({"-m", "MX240A00"}),
              "hint: for example: orbix_flash -m MX240A00 -p /dev/ttyUSB0 -b 115200 -f app.cyfm "
              "-t user; docs/hd8xx0.md tells more\n");
    EXPECT_EQ(hint_of({"-m", "TR52G", "-o", "x"}),
              "hint: how TR52G is read back is told in docs/ag3352.md\n");
}

TEST(Hints, SuccessWithoutAWordToTheModuleIsTold) {
    SilentModule module;
    const Told told = run_told(module, {"-m", "TS30A", "-p", "COM6", "-c", "x"});
    EXPECT_TRUE(told.output.ends_with(upgrade_success + "\n")) << told.output;
    EXPECT_NE(told.errors.find("hint: nothing was sent to the module: it is as it was before\n"),
              std::string::npos)
        << told.errors;
}

TEST(Hints, NothingOnStandardErrorWhereTheFamilyOnlyTellsItsVersion) {
    EXPECT_EQ(hint_of({"-m", "TS50A", "-v"}), "");
}

/// The files that the typical command lines name.
void put_typical_files() {
    const Bytes image = random_image(5000);
    campaign::put_file("app.bin", image);
    campaign::put_file("app.pkg", image);
    campaign::put_file("app.cyfm", sim::make_cyfm(image));
    campaign::put_file("da_uart.bin", random_image(30'000));
    std::filesystem::create_directory("fw");
    campaign::put_file("fw/image.bin", image);
    campaign::put_file("fw/flash_download.cfg",
                       text("rom:\n    file: image.bin\n    begin_address: 0x08000000\n"));
}

TEST(Hints, PackageWithoutAnImageToWriteIsTold) {
    const Workplace workplace;
    put_typical_files();
    const auto module = sim::make_model("TR40XBA");
    const Told told = run_told(*module, {"-m", "TR40XBA", "-p", "COM6", "-b", "115200", "-d", "fw",
                                         "-s", "da_uart.bin", "-f", "other.bin"});
    EXPECT_TRUE(told.output.ends_with(upgrade_success + "\n")) << told.output;
    EXPECT_EQ(told.errors,
              "hint: the package has no image to write: the module is erased, and stays empty\n");
}

TEST(Hints, AgentOfUnexpectedSizeIsTold) {
    const Workplace workplace;
    put_typical_files();
    const auto module = sim::make_model("TR52G");
    EXPECT_EQ(run_told(*module, {"-m", "TR52G", "-p", "COM6", "-b", "115200", "-d", "fw", "-s",
                                 "da_uart.bin", "-t", "DL"})
                  .errors,
              "hint: da_uart.bin has 30000 bytes, an agent of these modules has 43956\n");
}

TEST(Hints, TypicalCommandOfEachFamilyFlashesItsModules) {
    const Workplace workplace;
    put_typical_files();
    for (const SupportRow& row : support_table) {
        const auto module = sim::make_model(row.names[0]);
        std::vector<std::string> arguments{"-m", row.names[0], "-p", "COM6"};
        std::istringstream options(row.typical_options);
        for (std::string word; options >> word;) {
            arguments.push_back(word);
        }
        const Told told = run_told(*module, arguments);
        EXPECT_TRUE(told.output.ends_with(upgrade_success + "\n")) << told.output << told.errors;
    }
}

}  // namespace
}  // namespace orbix::test
