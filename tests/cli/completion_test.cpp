// The completion for bash, in bash itself: what it offers, and what a person at a terminal gets.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>

#include "cli/process.h"
#include "core/support_table.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

using Words = std::vector<std::string>;

constexpr const char* flash_program = ORBIX_BIN_DIR "/orbix_flash";
constexpr const char* sim_program = ORBIX_BIN_DIR "/orbix_sim";
constexpr const char* station_program = ORBIX_BIN_DIR "/orbix_station";

/// What the completion knows about the families, in the order of the table of models.
struct Family {
    std::string name;
    Words modes;  ///< offered for -t
    Words areas;  ///< offered for -c
};

const Words teseo_modes{"recovery", "normal", "boot"};
const Words common_areas{"gnss", "app", "slave_gnss", "slave_app", "slave_boot"};
const Words sta8100_areas{"gnss", "app", "slave_gnss", "slave_app", "slave_boot", "app_boot"};

const std::array<Family, 12> families = {{
    {"AG3335", {}, {}},
    {"AG3352", {"UPG", "DL"}, {}},
    {"HD8xx0", {"boot", "s_boot", "user", "master_user", "slave_user", "all_user"}, {}},
    {"GNSS-MODULE-EVB", {}, {}},
    {"Monitors", {"APP", "BOOT"}, {}},
    {"Monitors", {"APP", "BOOT"}, {}},
    {"RX7040", {"UPG", "DL"}, {}},
    {"STA8100", teseo_modes, sta8100_areas},
    {"STA9100", {}, {}},
    {"STA8089", teseo_modes, {}},
    {"ZPX710P", {"MCU_UPG", "GNSS_UPG", "LORA_UPG", "DL"}, {}},
    {"RTA500C", {}, common_areas},
}};

Words models_of(const SupportRow& row) {
    Words models;
    for (const ModelName& name : row.names) {
        if (name[0] != '\0') {
            models.emplace_back(name);
        }
    }
    return models;
}

Words split(const std::string& text) {
    std::istringstream stream(text);
    Words words;
    for (std::string line; std::getline(stream, line);) {
        words.push_back(line);
    }
    return words;
}

/// Runs a script in bash with the completion of a program read in. Words behind it are $1 and so
/// on.
Words in_bash(const std::string& program, const std::string& script, Words arguments) {
    const Words beginning{"--noprofile", "--norc", "-c",
                          "source " ORBIX_SOURCE_DIR "/completion/" + program + "\n" + script,
                          "bash"};
    arguments.insert(arguments.begin(), beginning.begin(), beginning.end());
    const Finished run = run_program("/bin/bash", arguments);
    EXPECT_EQ(run.errors, "");
    return split(run.output);
}

/// What is offered for the last of these words, the first being the program. What the completion
/// leaves to bash itself is told as "(default)" for files and "(dirnames)" for folders.
Words offered(Words words, const std::string& setting = "") {
    const std::string name = std::filesystem::path(words.front()).filename();
    return in_bash(name, setting + R"(
        compopt() { [[ $2 == nospace ]] || printf '(%s)\n' "$2"; }
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _)" + name + R"( "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
        [[ ${#COMPREPLY[@]} -eq 0 ]] || printf '%s\n' "${COMPREPLY[@]}")",
                   std::move(words));
}

Words offered_by_flash(Words words, const std::string& setting = "") {
    words.insert(words.begin(), flash_program);
    return offered(std::move(words), setting);
}

TEST(Completion, ModelNamesAreThoseOfTheProgram) {
    Words all;
    for (const SupportRow& row : support_table) {
        const Words models = models_of(row);
        all.insert(all.end(), models.begin(), models.end());
    }
    EXPECT_EQ(all.size(), 103U);
    EXPECT_EQ(offered_by_flash({"-m", ""}), all);
    EXPECT_EQ(offered_by_flash({"-b", "115200", "-m", "TR75"}),
              (Words{"TR75XBA-SR01", "TR75XBA-SR02"}));
    EXPECT_EQ(offered_by_flash({"-m", "NOSUCH"}), Words{});
}

TEST(Completion, KnowsTheFamilyOfEveryModel) {
    Words models;
    Words expected;
    for (std::size_t row = 0; row < families.size(); ++row) {
        for (const std::string& model : models_of(support_table[row])) {
            models.push_back(model);
            expected.push_back(model + " " + families[row].name);
        }
    }
    EXPECT_EQ(
        in_bash("orbix_flash",
                "for model; do _orbix_flash_family $model; echo $model $family; done", models),
        expected);
}

TEST(Completion, ModesAndAreasAreThoseOfTheModel) {
    for (std::size_t row = 0; row < families.size(); ++row) {
        const Words models = models_of(support_table[row]);
        for (const std::string& model : {models.front(), models.back()}) {
            EXPECT_EQ(offered_by_flash({"-m", model, "-t", ""}), families[row].modes) << model;
            EXPECT_EQ(offered_by_flash({"-m", model, "-c", ""}), families[row].areas) << model;
        }
    }
    EXPECT_EQ(offered_by_flash({"-mZPX710P", "-t", "L"}), Words{"LORA_UPG"});
    EXPECT_EQ(offered_by_flash({"-t", ""}), Words{});
    EXPECT_EQ(offered_by_flash({"-m", "TR52G", "-o", "a.bin", "-t", ""}), Words{})
        << "sizes, in a readback";
    EXPECT_EQ(offered_by_flash({"-m", "MN10A", "-r", ""}), (Words{"AUTO", "MANUAL"}));
}

/// Whether the program understands a mode or an area: a run with it, on a port that does not exist.
/// HD8xx0 takes a word that it does not know for "user" without a word.
bool is_understood(const std::string& model, const std::string& option, const std::string& word) {
    Words arguments{"-m", model, "-p", "/dev/ttyNOSUCH", "-b", "115200", option, word};
    if (model.starts_with("MN")) {
        arguments.insert(arguments.end(), {"-r", "AUTO"});
    }
    const Finished run = run_program("orbix_flash", arguments);
    static const std::regex refusal(
        "unknow flash mode|unknow flash area|Invalid upgrade mode|No upgrade mode|Usage: |"
        "mode\\(ex:|-t UPG|-t DL");
    return !std::regex_search(run.output, refusal);
}

TEST(Completion, EveryModeAndAreaIsUnderstoodByTheProgram) {
    for (std::size_t row = 0; row < families.size(); ++row) {
        const std::string model = models_of(support_table[row]).front();
        for (const std::string& mode : families[row].modes) {
            EXPECT_TRUE(is_understood(model, "-t", mode)) << model << " " << mode;
        }
        for (const std::string& area : families[row].areas) {
            EXPECT_TRUE(is_understood(model, "-c", area)) << model << " " << area;
        }
        if (!families[row].modes.empty() && families[row].name != "HD8xx0") {
            EXPECT_FALSE(is_understood(model, "-t", "nosuch")) << model;
        }
        if (!families[row].areas.empty()) {
            EXPECT_FALSE(is_understood(model, "-c", "nosuch")) << model;
        }
    }
}

TEST(Completion, EveryOptionIsTakenByTheProgram) {
    EXPECT_NE(offered_by_flash({"-"}), Words{});
    Words models{""};  // without a model all options are offered
    for (const SupportRow& row : support_table) {
        models.push_back(models_of(row).front());
    }
    for (const std::string& model : models) {
        for (const std::string& option : offered_by_flash({"-m", model, "-"})) {
            Words arguments{"-m", model, option, "1"};
            if (option == "-a") {
                arguments.insert(arguments.end(), {"-o", "x"});  // an option of readbacks
            }
            const Finished run = run_program("orbix_flash", arguments);
            EXPECT_EQ(run.errors.find("invalid option"), std::string::npos) << model << option;
            EXPECT_TRUE(model.empty() || run.output.find("Usage: ") == std::string::npos)
                << model << option;
        }
    }
}

TEST(Completion, FilesAndFolders) {
    EXPECT_EQ(offered_by_flash({"-m", "TS50A", "-f", ""}), Words{"(default)"});
    EXPECT_EQ(offered_by_flash({"-s", "da"}), Words{"(default)"});
    EXPECT_EQ(offered_by_flash({"-d", "fw"}), Words{"(dirnames)"});
    EXPECT_EQ(offered_by_flash({"-m", "TR52G", "-o", "a.bin", "b"}), Words{"(default)"});
    EXPECT_EQ(offered_by_flash({"-m", "TR52G", "-o", "a.bin", "-t", "0x1000", ""}).front(), "-m");
}

TEST(Completion, ImagesOfAPackage) {
    const TempDir folder;
    const std::string layout =
        "rom:\n    file: app.bin\n    begin_address: 0x08013000\nrom:\n"
        "    file: boot.bin\n    begin_address: 0x08003000\n";
    folder.write("flash_download.cfg", layout);
    folder.write("other.cfg", std::string("    file: other.bin\n"));
    const std::string path = folder.path();
    EXPECT_EQ(offered_by_flash({"-m", "TR40XBA", "-d", path, "-f", ""}),
              (Words{"app.bin", "boot.bin"}));
    EXPECT_EQ(offered_by_flash({"-m", "TR40XBA", "-d", path, "-f", "app.bin,b"}),
              Words{"app.bin,boot.bin"});
    EXPECT_EQ(offered_by_flash({"-m", "TR52G", "-d", path, "-g", "other.cfg", "-f", ""}),
              Words{"other.bin"});
    EXPECT_EQ(offered_by_flash({"-m", "TR52G", "-d", path + "/absent", "-f", ""}), Words{});
}

TEST(Completion, PortsAsTheFamilyTakesThem) {
    const TempDir devices;
    std::filesystem::create_directories(devices.path("serial/by-id"));
    for (const std::string name :
         {"ttyUSB0", "ttyUSB12", "ttyACM3", "ttyS0", "tty5", "ttyprintk", "serial/by-id/usb-A"}) {
        std::filesystem::create_symlink("/dev/null", devices.path(name));
    }
    const std::string here = "_orbix_flash_devices=" + devices.path();
    const auto full = [&devices](const std::string& name) { return devices.path(name); };
    const Words short_ones{"(default)", full("ttyUSB0"), full("ttyUSB12"), full("ttyACM3"),
                           full("ttyS0")};
    Words all = short_ones;
    all.push_back(full("serial/by-id/usb-A"));
    EXPECT_EQ(offered_by_flash({"-m", "TR52G", "-p", ""}, here), short_ones)
        << "20 characters of a name count in this family";
    EXPECT_EQ(offered_by_flash({"-m", "MN10A", "-p", ""}, here), all);
    EXPECT_EQ(offered_by_flash({"-m", "MN10A", "-p", "ttyU"}, here),
              (Words{"(default)", "ttyUSB0", "ttyUSB12"}));
}

TEST(Completion, LongPortNamesAreOfferedWhereTheProgramTakesThem) {
    const std::string name = "/dev/serial/by-id/usb-NOSUCH-if00-port0";
    for (std::size_t row = 0; row < families.size(); ++row) {
        const std::string model = models_of(support_table[row]).front();
        const Words has =
            in_bash("orbix_flash", "_orbix_flash_family $1; echo \"$long_ports\"", {model});
        const std::string mode = families[row].modes.empty() ? "" : families[row].modes.front();
        const std::string image = ORBIX_SOURCE_DIR "/LICENSE";
        const Finished run =
            run_program("orbix_flash",
                        {"-m", model, "-p", name, "-b", "115200", "-f", image, "-d",
                         ORBIX_SOURCE_DIR, "-s", image, "-r", "MANUAL", "-c", "gnss", "-t", mode});
        const bool is_taken = run.output.find("Port: " + name) != std::string::npos ||
                              run.output.find("Error opening " + name) != std::string::npos;
        EXPECT_EQ(is_taken, has == Words{"yes"}) << model << run.output;
    }
}

TEST(Completion, SimulatorTellsItsModelsAndOptions) {
    EXPECT_EQ(offered({sim_program, ""}), split(run_program("orbix_sim", {"--list"}).output));
    EXPECT_EQ(offered({sim_program, "RTA500C_EVB_NXP", "--"}),
              (Words{"--link", "--count", "--rate", "--pace", "--instant", "--faults", "--seed",
                     "--dump", "--list", "--help"}));
    EXPECT_EQ(offered({sim_program, "TR52G", "--dump", ""}), Words{"(default)"});
}

TEST(Completion, StationTakesPortsAndGoesOnAsTheToolBehindTheSeparator) {
    if (!std::filesystem::exists(station_program)) {
        GTEST_SKIP() << "the station is not part of this build";
    }
    EXPECT_EQ(offered({station_program, "--j"}), (Words{"--jobs", "--json"}));
    EXPECT_EQ(offered({station_program, "ttyS0", "--", "-m", "MN10"}), (Words{"MN10A", "MN10B"}));
    EXPECT_EQ(offered({station_program, "--jobs", "2", "ttyS0", "--", "-m", "MN10A", "-t", ""}),
              (Words{"APP", "BOOT"}));
    EXPECT_EQ(offered({station_program, "--json", ""}), Words{"(default)"});
}

/// An interactive bash on a terminal of its own, with the completions read in.
class Terminal {
  public:
    explicit Terminal(const std::string& folder) {
        const winsize size{.ws_row = 50, .ws_col = 250, .ws_xpixel = 0, .ws_ypixel = 0};
        process_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (process_ == 0) {
            setenv("TERM", "dumb", 1);
            setenv("INPUTRC", "/dev/null", 1);
            setenv("HISTFILE", "/dev/null", 1);
            setenv("PATH", ORBIX_BIN_DIR ":/usr/bin:/bin", 1);
            if (chdir(folder.c_str()) == 0) {
                execl("/bin/bash", "bash", "--noprofile", "--norc", "-i", nullptr);
            }
            _exit(127);
        }
        type("source " ORBIX_SOURCE_DIR
             "/completion/orbix_flash; "
             "source " ORBIX_SOURCE_DIR
             "/completion/orbix_sim; PS1=; "
             "bind 'set enable-bracketed-paste off'; echo re''ady\n");
        read_to("ready\r\n");
    }

    ~Terminal() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
        close(terminal_);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Types a line with tabs in it, and returns the words that the command would get. Ctrl-A goes
    /// to the line's beginning.
    std::string words_of(const std::string& line) {
        type(line + "\001printf '<%s>' \n");
        type("echo e''nd\n");
        const std::string text = read_to("end\r\n");
        const std::size_t first = text.rfind("<orbix_");
        return first == std::string::npos ? text
                                          : text.substr(first, text.find("echo", first) - first);
    }

    /// Types a line with two tabs behind it, and returns what is shown for it.
    std::string shown_for(const std::string& line) {
        type(line + "\t\t");
        type("\001\013echo e''nd\n");  // Ctrl-A and Ctrl-K empty the line
        return read_to("end\r\n");
    }

  private:
    void type(const std::string& text) const {
        EXPECT_EQ(write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    /// All that is shown up to and with a text, or within ten seconds.
    std::string read_to(const std::string& end) {
        std::string text;
        while (text.find(end) == std::string::npos) {
            pollfd entry{.fd = terminal_, .events = POLLIN, .revents = 0};
            std::array<char, 4096> buffer{};
            if (poll(&entry, 1, 10'000) <= 0) {
                ADD_FAILURE() << "bash shows no " << end << " but " << text;
                break;
            }
            const ssize_t count = read(terminal_, buffer.data(), buffer.size());
            if (count <= 0) {
                break;
            }
            text.append(buffer.data(), static_cast<std::size_t>(count));
        }
        return text;
    }

    int terminal_ = -1;
    pid_t process_ = -1;
};

TEST(CompletionAtATerminal, CompletesModelsModesAreasAndPaths) {
    const TempDir folder;
    folder.write("firmware of today.bin", std::string("x"));
    std::filesystem::create_directories(folder.path("package"));
    folder.write("packed.bin", std::string("x"));
    Terminal bash(folder.path());
    EXPECT_EQ(bash.words_of("orbix_flash -m RTA\t-c slave_b\t"),
              "<orbix_flash><-m><RTA500C_EVB_NXP><-c><slave_boot>");
    EXPECT_EQ(bash.words_of("orbix_flash -m ZPX710P-\t-t GN\t-b 11\t"),
              "<orbix_flash><-m><ZPX710P-EVB><-t><GNSS_UPG><-b><115200>");
    EXPECT_EQ(bash.words_of("orbix_flash -t no\t -m TS50A"), "<orbix_flash><-t><no><-m><TS50A>")
        << "the model is not known yet";
    EXPECT_EQ(bash.words_of("orbix_flash -m TS50A -t no\t-f firm\t"),
              "<orbix_flash><-m><TS50A><-t><normal><-f><firmware of today.bin>");
    EXPECT_EQ(bash.words_of("orbix_flash -d pa\t -s packe\t"),
              "<orbix_flash><-d><package/><-s><packed.bin>");
    EXPECT_EQ(bash.words_of("orbix_flash -p ./packe\t -D"), "<orbix_flash><-p><./packed.bin><-D>")
        << "a file where no port fits, such as the link of a simulated module";
    EXPECT_EQ(bash.words_of("orbix_sim GNSS\t--du\tpacke\t"),
              "<orbix_sim><GNSS-MODULE-EVB><--dump><packed.bin>");
}

TEST(CompletionAtATerminal, ShowsWhatThereIsToChooseFrom) {
    const TempDir folder;
    Terminal bash(folder.path());
    const std::string modes = bash.shown_for("orbix_flash -m MX210A00 -t ");
    for (const std::string& mode : families[2].modes) {
        EXPECT_NE(modes.find(mode), std::string::npos) << mode << modes;
    }
    const std::string areas = bash.shown_for("orbix_flash -m TS65B -c ");
    for (const std::string& area : sta8100_areas) {
        EXPECT_NE(areas.find(area), std::string::npos) << area << areas;
    }
}

}  // namespace
}  // namespace orbix::test
