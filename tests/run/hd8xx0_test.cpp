// The HD8xx0 family, end to end: options and packages, the boot loader, the running firmware, and
// the two processors of a dual-processor module.
#include "families/hd8xx0.h"

#include <gtest/gtest.h>

#include <cstring>

#include "catalogue.h"
#include "checksums.h"
#include "core/kv_log.h"
#include "core/support_table.h"
#include "cyfm_package.h"
#include "hd8xx0_module.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

using sim::BatchEvent;
using sim::Hd8xx0Module;
using sim::KorvaneFrame;
using sim::UpgradeFrame;

/// A model of each variant.
constexpr std::array<const char*, 3> model_of_variant{"MX210A00", "MX240A00", "MX280A00"};

Hd8xx0Module::Settings variant(int number) {
    return {.variant = number};
}

std::vector<std::string> arguments(const std::string& package, const std::string& mode,
                                   const std::string& model = "MX210A00") {
    return {"-m", model, "-p", "COM6", "-b", "115200", "-f", package, "-t", mode};
}

/// What the family prints before its dialogue.
std::vector<std::string> opening_lines(const std::string& package, const std::string& mode,
                                       std::size_t image_size,
                                       const std::string& model = "MX210A00") {
    return {"[INFO] Module: " + model,
            "[INFO] Port: COM6",
            "[INFO] Baud rate:115200",
            "[INFO] Firmware: " + package,
            "[INFO] Mode: " + mode,
            "[INFO] firmware name <" + package + ">, file size <" +
                std::to_string(read_file(package).size()) + ">",
            "[INFO] unzip ok, length:" + std::to_string(image_size) + ", md5 check ok"};
}

std::vector<std::string> operator+(std::vector<std::string> lines,
                                   const std::vector<std::string>& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

Bytes operator+(Bytes bytes, std::span<const std::uint8_t> more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

/// The last lines of the family.
std::vector<std::string> last_lines(const ToolRun& run, std::size_t count) {
    std::vector<std::string> lines = run.family_lines();
    lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(count));
    return lines;
}

Bytes part_of(const Bytes& image, std::size_t offset, std::size_t length) {
    Bytes part(length);
    for (std::size_t at = 0; at < length && offset + at < image.size(); ++at) {
        part[at] = image[offset + at];
    }
    return part;
}

void expect_flash(std::span<const std::uint8_t> flash, const Bytes& image) {
    EXPECT_TRUE(std::equal(image.begin(), image.end(), flash.begin()));
}

/// When a line was printed, in seconds, from its stamp. `line` may be its beginning.
double seconds_of(const ToolRun& run, const std::string& line) {
    constexpr std::size_t stamp_length = 7;
    const std::size_t end = run.output.find("]" + line);
    return std::strtod(run.output.substr(end - stamp_length, stamp_length).c_str(), nullptr);
}

/// A SPEED line in its two parts: what is done, and the rate.
struct SpeedLine {
    explicit SpeedLine(const std::string& line)
        : done(line.substr(0, line.find("    "))),
          rate(std::strtod(line.c_str() + done.size(), nullptr)) {}
    std::string done;
    double rate;
};

class Hd8xx0 : public ::testing::Test {
  protected:
    std::string package_of(const Bytes& image, const std::string& name = "fw.cyfm") {
        return folder_.write(name, sim::make_cyfm(image));
    }

    const TempDir folder_;
};

// ---------------------------------------------------------------------------------------------
// Options and packages

using Hd8xx0Entry = Hd8xx0;

constexpr const char* usage_line =
    "[ERROR] Upgrade failed.Please input parameters correctly, such as ./orbix_flash -m MX260B00 "
    "-f firmware -p /dev/ttyUSB0 -b 115200 -t user";

TEST_F(Hd8xx0Entry, MissingParametersAre258) {
    const std::string package = package_of(random_image(10));
    const std::vector<std::vector<std::string>> incomplete{
        {"-p", "COM6", "-b", "115200"},
        {"-f", package, "-b", "115200"},
        {"-f", package, "-p", "COM6"},
        {"-f", package, "-p", "COM6", "-b", "0"},
        {"-f", package, "-p", "COM6", "-b", "fast"},
        {"-f", "", "-p", "COM6", "-b", "115200"},
        {"-f", package, "-p", "", "-b", "115200"},
    };
    for (const auto& rest : incomplete) {
        Hd8xx0Module module;
        const ToolRun run(module, std::vector<std::string>{"-m", "MX210A00"} + rest);
        EXPECT_EQ(run.result(), upgrade_failure(258));
        EXPECT_EQ(run.family_lines().back(), usage_line);
        EXPECT_EQ(run.opens, 0);
    }
}

TEST_F(Hd8xx0Entry, AbsentPackageIs259) {
    Hd8xx0Module module;
    const std::string path = folder_.path("absent.cyfm");
    const ToolRun run(module, arguments(path, "user"));
    EXPECT_EQ(run.result(), upgrade_failure(259));
    EXPECT_EQ(run.family_lines().back(),
              "[ERROR] Fail to access " + path + ", errno: 2 (No such file or directory)");
    EXPECT_EQ(run.opens, 0);
}

TEST_F(Hd8xx0Entry, SlavePackageIsLookedForInAllUserModeOnly) {
    const std::string package = package_of(random_image(10));
    const std::string absent = folder_.path("absent.cyfm");
    Hd8xx0Module module;
    const ToolRun with_name(
        module, arguments(package, "all_user") + std::vector<std::string>{"-s", absent});
    EXPECT_EQ(with_name.result(), upgrade_failure(259));
    EXPECT_EQ(with_name.count("[INFO] Slave device firmware: " + absent + "\n"), 1U);
    EXPECT_EQ(with_name.family_lines().back(),
              "[ERROR] Fail to access " + absent + ", errno: 2 (No such file or directory)");
    const ToolRun without_name(module, arguments(package, "all_user"));
    EXPECT_EQ(without_name.result(), upgrade_failure(259));
    EXPECT_EQ(without_name.family_lines().back(),
              "[ERROR] Fail to access , errno: 2 (No such file or directory)");
    const ToolRun user(module, arguments(package, "user") + std::vector<std::string>{"-s", absent});
    EXPECT_EQ(user.result(), upgrade_success);
}

TEST_F(Hd8xx0Entry, PortThatDoesNotOpenIs260) {
    Hd8xx0Module module;
    auto words = arguments(package_of(random_image(10)), "user");
    words[3] = "a-name-of-more-than-20-characters";
    const ToolRun run(module, words);
    EXPECT_EQ(run.result(), upgrade_failure(260));
    EXPECT_EQ(run.count("[INFO] Port: a-name-of-more-than-\n"), 1U);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Fail to open a-name-of-more-than-");
}

TEST_F(Hd8xx0Entry, PackageThatCannotBeUnpackedIs262WithThePortLeftOpen) {
    const Bytes image = random_image(70'000);
    Bytes damaged = sim::make_cyfm(image);
    damaged[damaged.size() / 2] ^= 1;
    Bytes too_large = sim::make_cyfm(image);
    too_large.resize(512'001);
    Bytes header_past_end = sim::make_cyfm(image);
    header_past_end[2] = header_past_end[3] = 0xFF;
    header_past_end.resize(60'000);
    Bytes truncated = sim::make_cyfm(image);
    truncated.resize(truncated.size() / 2);
    const std::vector<std::string> packages{
        folder_.write("damaged", damaged),
        folder_.write("too_large", too_large),
        folder_.write("header", header_past_end),
        folder_.write("truncated", truncated),
        folder_.write("empty", Bytes{}),
        folder_.write("short", sim::with_cyfm_header(sim::gzip(Bytes(15)))),
        folder_.write("long", sim::make_cyfm(Bytes(1'048'576))),
        folder_.path(),
    };
    for (const std::string& package : packages) {
        Hd8xx0Module module;
        const ToolRun run(module, arguments(package, "user"));
        EXPECT_EQ(run.result(), upgrade_failure(262)) << package;
        EXPECT_EQ(run.status, 0);
        EXPECT_TRUE(run.sent.empty()) << "nothing may reach the module";
        EXPECT_TRUE(run.left_open);
        EXPECT_EQ(run.closes, 0);
        const std::string reason = package.ends_with("too_large")
                                       ? "[ERROR] [uzip_cyfm 289]cyfm file is incorrect"
                                       : "[ERROR] [uzip_cyfm 304]md5 check is incorrect";
        EXPECT_EQ(run.family_lines().back(), reason) << package;
    }
    for (const std::string mode : {"boot", "s_boot", "master_user", "slave_user", "all_user"}) {
        Hd8xx0Module module;
        const std::string package = folder_.path("truncated");
        const ToolRun run(module,
                          arguments(package, mode) + std::vector<std::string>{"-s", package});
        EXPECT_EQ(run.result(), upgrade_failure(262)) << mode;
        EXPECT_TRUE(run.sent.empty()) << mode;
        EXPECT_TRUE(run.left_open) << mode;
    }
}

TEST_F(Hd8xx0Entry, AllUserPackageTooShortForItsLeadingPartIs262) {
    const std::string package = package_of(Bytes(65'535));
    Hd8xx0Module module;
    const ToolRun run(module,
                      arguments(package, "all_user") + std::vector<std::string>{"-s", package});
    EXPECT_EQ(run.result(), upgrade_failure(262));
    EXPECT_TRUE(run.sent.empty());
}

TEST_F(Hd8xx0Entry, VersionEndsTheRunWithStatusMinusOne) {
    Hd8xx0Module module;
    const ToolRun run(module, {"-m", "MX210A00", "-v", "-b", "115200"});
    EXPECT_EQ(run.status, -1);
    EXPECT_EQ(run.lines().back(), "[INFO] Version: HD8xx0_Flash_Tool_V1.1");
    EXPECT_EQ(run.opens, 0);
    EXPECT_EQ(run.count("[INFO] Baud rate:115200\n"), 1U) << "only main's line";
}

TEST_F(Hd8xx0Entry, DebugTurnsTheDumpsOn) {
    Hd8xx0Module module;
    const ToolRun run(
        module, std::vector<std::string>{"-D"} + arguments(package_of(random_image(10)), "user"));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("] debug mode\n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < f1 d9 06 50 01 00 01 58 62 \n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < 04 \n"), 1U);
}

TEST_F(Hd8xx0Entry, ModeWordsAreComparedByTheirBeginnings) {
    const std::string package = package_of(random_image(10));
    const auto first_line_of = [&](const std::string& mode) {
        Hd8xx0Module module;
        const ToolRun run(module, arguments(package, mode));
        EXPECT_EQ(run.count("[INFO] Mode: " + mode + "\n"), 1U);
        const bool entered = contains(run.sent, hex("F1 D9 06 5F 00 00 65 35"));
        const auto lines = run.family_lines();
        return lines.at(7) + (entered ? " by command" : "");
    };
    const std::string boot = "[INFO] Enter Boot Mode...";
    const std::string user =
        "[INFO] Sets the UART port to be used and the baud rate of the UART...";
    const std::string processor = "[INFO] Synchronize...";
    EXPECT_EQ(first_line_of("boot"), boot);
    EXPECT_EQ(first_line_of("boot2"), boot);
    EXPECT_EQ(first_line_of("s_boot"), boot + " by command");
    EXPECT_EQ(first_line_of("s_bootx"), boot + " by command");
    EXPECT_EQ(first_line_of("s_bo"), boot + " by command");
    EXPECT_EQ(first_line_of("user"), user);
    EXPECT_EQ(first_line_of("users"), user);
    EXPECT_EQ(first_line_of("xyz"), user);
    EXPECT_EQ(first_line_of("boo"), user);
    EXPECT_EQ(first_line_of("master_user"), processor);
    EXPECT_EQ(first_line_of("master_user2"), processor);
    EXPECT_EQ(first_line_of("master_use"), user);
    EXPECT_EQ(first_line_of("slave_user9"), processor);
    EXPECT_EQ(first_line_of("slave"), user);
}

TEST_F(Hd8xx0Entry, UnknownModeWordKeepsTheModeOfBefore) {
    Hd8xx0Module module;
    const ToolRun run(module, arguments(package_of(random_image(10)), "boot") +
                                  std::vector<std::string>{"-t", "xyz"});
    EXPECT_EQ(run.count("[INFO] Mode: xyz\n"), 1U);
    EXPECT_EQ(run.count("[INFO] boot: success\n"), 1U);
}

TEST_F(Hd8xx0Entry, CommandOnceAskedForIsSentWhateverTheLastModeWordIs) {
    Hd8xx0Module module;
    const ToolRun run(module, arguments(package_of(random_image(10)), "s_boot") +
                                  std::vector<std::string>{"-t", "boot"});
    EXPECT_TRUE(contains(run.sent, hex("F1 D9 06 5F 00 00 65 35")));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_F(Hd8xx0Entry, LongPathsAreCutTo255Characters) {
    Hd8xx0Module module;
    const std::string name(5000, 'x');
    const std::string cut(255, 'x');
    const ToolRun run(
        module, {"-m", "MX210A00", "-p", name, "-b", "115200", "-f", name, "-t", name, "-s", name});
    EXPECT_EQ(run.result(), upgrade_failure(259));
    EXPECT_EQ(run.count("[INFO] Firmware: " + cut + "\n"), 1U);
    EXPECT_EQ(run.count("[INFO] Slave device firmware: " + cut + "\n"), 1U);
    EXPECT_EQ(
        run.count("[ERROR] Fail to access " + cut + ", errno: 2 (No such file or directory)\n"),
        1U);
}

// ---------------------------------------------------------------------------------------------
// Through the boot loader

class Hd8xx0Boot : public Hd8xx0 {
  protected:
    ToolRun boot(Hd8xx0Module& module, const Bytes& image, int number = 0,
                 Conditions conditions = {}) {
        package_ = package_of(image);
        return {module,
                arguments(package_, "boot", model_of_variant.at(static_cast<std::size_t>(number))),
                std::move(conditions)};
    }

    /// Makes the module answer the data frames by `answer`, from the `from`th on, `times` times.
    static void spoil_blocks(Hd8xx0Module& module, int from, int times, const Bytes& answer) {
        module.tamper = [count = 0, from, times, answer](const KorvaneFrame& frame,
                                                         Bytes& reply) mutable {
            if (frame.is(0xF4, 0x05) && frame.payload.size() > 6) {
                ++count;
                if (count >= from && count < from + times) {
                    reply = answer;
                }
            }
        };
    }

    std::string package_;
};

/// A module that also says something by itself, once, at a time of the run.
template <typename Module>
class Unasked : public Module {
  public:
    Unasked(sim::Micros time, Bytes text)
        : time_(sim::VirtualPort::start + time), text_(std::move(text)) {}

    [[nodiscard]] std::optional<sim::Micros> wake_time() const override {
        const auto other = Module::wake_time();
        return text_.empty() ? other : std::min(time_, other.value_or(time_));
    }
    void wake(sim::Micros now, sim::Wire& wire) override {
        if (text_.empty() || now < time_) {
            Module::wake(now, wire);
            return;
        }
        wire.send(text_);
        text_.clear();
    }

  private:
    sim::Micros time_;
    Bytes text_;
};

const Bytes probe = hex("F1 D9 0A 04 00 00 0E 34");
const Bytes clock_and_rate = hex("F1 D9 F4 00 08 00 80 BA 8C 01 00 08 07 00 D2 49");

Bytes data_frame(std::uint32_t address, unsigned index, const Bytes& data) {
    Bytes payload;
    for (int shift = 0; shift < 32; shift += 8) {
        payload.push_back(static_cast<std::uint8_t>(address >> shift));
    }
    payload.push_back(static_cast<std::uint8_t>(index));
    payload.push_back(static_cast<std::uint8_t>(index >> 8));
    return sim::make_korvane_frame(0xF4, 0x05, payload + data);
}

TEST_F(Hd8xx0Boot, BytesOfVariant0) {
    const Bytes image = random_image(2048);
    Hd8xx0Module module(variant(0));
    const ToolRun run = boot(module, image, 0);
    EXPECT_EQ(run.result(), upgrade_success);
    const Bytes expected =
        probe + clock_and_rate + probe + hex("F1 D9 F4 07 01 00 02 FE E5") +
        hex("F1 D9 F4 08 04 00 00 02 00 80 82 76") + hex("F1 D9 F4 13 05 00 00 00 02 00 00 0E 55") +
        hex("F1 D9 F4 05 06 00 00 00 10 00 00 00 0F 25") +
        data_frame(0x00100400, 1, part_of(image, 1024, 1024)) +
        data_frame(0x00100800, 2, Bytes(1024)) + data_frame(0x00100000, 3, part_of(image, 0, 1024));
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
}

TEST_F(Hd8xx0Boot, BytesOfVariant1) {
    const Bytes image = random_image(1025);
    Hd8xx0Module module(variant(1));
    const ToolRun run = boot(module, image, 1);
    EXPECT_EQ(run.result(), upgrade_success);
    const Bytes expected =
        probe + clock_and_rate + probe + hex("F1 D9 F4 07 01 00 02 FE E5") +
        hex("F1 D9 F4 08 04 00 00 02 00 80 82 76") + hex("F1 D9 F4 13 05 00 00 00 02 00 00 0E 55") +
        data_frame(0x90000000, 0, {}) + data_frame(0x90000400, 1, part_of(image, 1024, 1024)) +
        data_frame(0x90000800, 2, Bytes(1)) + data_frame(0x90000000, 3, part_of(image, 0, 1024));
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
}

TEST_F(Hd8xx0Boot, BytesOfVariant2) {
    const Bytes image = random_image(1);
    Hd8xx0Module module(variant(2));
    const ToolRun run = boot(module, image, 2);
    EXPECT_EQ(run.result(), upgrade_success);
    const Bytes expected = probe + clock_and_rate + probe + hex("F1 D9 F4 20 01 00 05 1A 4C") +
                           hex("F1 D9 F4 08 04 00 FF FF 4F 00 4D 87") +
                           data_frame(0x00400000, 0, {}) + data_frame(0x00400400, 1, Bytes(1)) +
                           data_frame(0x00400000, 2, part_of(image, 0, 1024));
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
}

TEST_F(Hd8xx0Boot, AnswersAreTheListedOnes) {
    const std::array<std::string, 3> setup{
        "F1 D9 05 00 02 00 00 00 07 26 F1 D9 05 01 02 00 F4 08 04 1B F1 D9 05 00 02 00 F4 13 0E 21",
        "F1 D9 F4 07 04 00 00 0A 01 18 22 21 F1 D9 05 01 02 00 F4 08 04 1B "
        "F1 D9 05 01 02 00 F4 13 0F 26",
        "F1 D9 05 01 02 00 F4 20 1C 33 F1 D9 05 01 02 00 F4 08 04 1B",
    };
    for (int number = 0; number < 3; ++number) {
        Hd8xx0Module module(variant(number));
        const ToolRun run = boot(module, random_image(10), number);
        EXPECT_TRUE(contains(run.received, hex(setup.at(static_cast<std::size_t>(number))) +
                                               hex("F1 D9 05 01 02 00 F4 05 01 18")));
    }
}

TEST_F(Hd8xx0Boot, LinesAndRates) {
    const Bytes image = random_image(2500);
    Hd8xx0Module module;
    const ToolRun run = boot(module, image);
    EXPECT_EQ(run.family_lines(), opening_lines(package_, "boot", 2500) +
                                      (std::vector<std::string>{
                                          "[INFO] Enter Boot Mode...",
                                          "[INFO] Sets reference clock frequeney and baud rate...",
                                          "[INFO] Queries SPI flash ID or status...",
                                          "[INFO] Sends firmware...", "[INFO] boot: success"}));
    EXPECT_EQ(run.rates, (std::vector<unsigned>{115200, 460800}));
    EXPECT_EQ(run.closes, 1);
    EXPECT_FALSE(run.left_open);
}

TEST_F(Hd8xx0Boot, ProgressCountsWhatRemains) {
    Hd8xx0Module module;
    const ToolRun run = boot(module, random_image(2500));
    const auto lines = run.progress_lines();
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ(lines[0], "[PROGRESS] 0.00%");
    EXPECT_EQ(lines[1], "[SPEED] 0 Bytes/2500 Bytes    0 KBps");
    EXPECT_EQ(lines[2], "[PROGRESS] 40.96%");
    EXPECT_EQ(lines[3].rfind("[SPEED] 1024 Bytes/2500 Bytes    ", 0), 0U) << lines[3];
    EXPECT_EQ(lines[4], "[PROGRESS] 81.92%");
    EXPECT_EQ(lines[5].rfind("[SPEED] 2048 Bytes/2500 Bytes    ", 0), 0U) << lines[5];
    EXPECT_EQ(lines[6], "[PROGRESS] 100.00%");
    // Counted one KiB high, over the time since the line with 0 bytes.
    const double begun = seconds_of(run, lines[1]);
    EXPECT_NEAR(SpeedLine(lines[3]).rate, 2 / (seconds_of(run, lines[3]) - begun), 0.06);
    EXPECT_NEAR(SpeedLine(lines[5]).rate, 3 / (seconds_of(run, lines[5]) - begun), 0.06);
}

TEST_F(Hd8xx0Boot, FirstBlockComesLast) {
    Hd8xx0Module module;
    const ToolRun run = boot(module, random_image(3000));
    EXPECT_EQ(module.writes(), (std::vector<Hd8xx0Module::Write>{{0x100400, 1, 1024},
                                                                 {0x100800, 2, 1024},
                                                                 {0x100C00, 3, 3000 - 2048},
                                                                 {0x100000, 4, 1024}}));
    EXPECT_TRUE(module.boot_image_complete());
}

class Hd8xx0BootSizes : public Hd8xx0Boot,
                        public ::testing::WithParamInterface<std::tuple<int, std::size_t>> {};

TEST_P(Hd8xx0BootSizes, FlashHoldsTheImageAndZerosBehindIt) {
    const auto [number, size] = GetParam();
    const Bytes image = random_image(size);
    Hd8xx0Module module(variant(number));
    module.flash().fill(0x00);
    const ToolRun run = boot(module, image, number);
    EXPECT_EQ(run.result(), upgrade_success);
    expect_flash(module.flash().cells(), image);
    const auto behind = module.flash().cells().subspan(size);
    EXPECT_TRUE(std::all_of(behind.begin(),
                            behind.begin() + 1024 - static_cast<std::ptrdiff_t>(size % 1024),
                            [](std::uint8_t byte) { return byte == 0; }));
    EXPECT_EQ(behind[4096], 0xFF) << "it was erased";
    EXPECT_TRUE(module.boot_image_complete());
}

INSTANTIATE_TEST_SUITE_P(Images, Hd8xx0BootSizes,
                         ::testing::Combine(::testing::Values(0, 1, 2),
                                            ::testing::Values(1, 1023, 1024, 1025, 2048)));
INSTANTIATE_TEST_SUITE_P(LargeImage, Hd8xx0BootSizes, ::testing::Values(std::tuple(0, 300'007)));

TEST_F(Hd8xx0Boot, EmptyImageIsSentAsAFrameWithoutDataWhichTheBootLoaderRefuses) {
    Hd8xx0Module module;
    const ToolRun run = boot(module, {});
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_TRUE(contains(run.sent, data_frame(0x00100400, 1, {})));
    EXPECT_TRUE(module.writes().empty());
}

TEST_F(Hd8xx0Boot, EveryModelOfTheFamilyIsServedByItsSimulation) {
    const Bytes image = random_image(1500);
    const std::string package = package_of(image);
    int models = 0;
    for (const ModelName& name : support_table[2].names) {
        if (name[0] == '\0') {
            continue;
        }
        ++models;
        const auto module = sim::make_model(name);
        ASSERT_NE(module, nullptr) << name;
        const ToolRun run(*module, arguments(package, "boot", name));
        EXPECT_EQ(run.result(), upgrade_success) << name;
        expect_flash(module->flash().cells(), image);
    }
    EXPECT_EQ(models, 23);
}

TEST_F(Hd8xx0Boot, LastPrefixThatMatchesDecides) {
    const std::string package = package_of(random_image(100));
    for (const auto& [name, base] :
         std::vector<std::pair<std::string, std::string>>{{"MX260A00", "00 00 10 00"},
                                                          {"MX260C00", "00 00 00 90"},
                                                          {"MX285A00", "00 00 40 00"}}) {
        const auto module = sim::make_model(name);
        const ToolRun run(*module, arguments(package, "boot", name));
        EXPECT_TRUE(contains(run.sent, hex("F1 D9 F4 05 06 00 " + base + " 00 00"))) << name;
    }
    // A second -m that is known overrides the first.
    Hd8xx0Module module(variant(1));
    const ToolRun run(module, std::vector<std::string>{"-m", "MX210A00"} +
                                  arguments(package, "boot", "MX240A00"));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_F(Hd8xx0Boot, EntersByCommandWhenTheBootPinIsNotStrapped) {
    const Bytes image = random_image(5000);
    const std::string package = package_of(image);
    Hd8xx0Module::Settings settings;
    settings.strapped = false;
    Hd8xx0Module module(settings);
    module.start_baud = 38400;
    auto words = arguments(package, "s_boot");
    words[5] = "38400";
    const ToolRun run(module, words);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, (std::vector<unsigned>{38400, 115200, 460800}));
    EXPECT_EQ(as_hex(std::span(run.sent).first(16)),
              "F1 D9 06 5F 00 00 65 35 F1 D9 0A 04 00 00 0E 34");
    expect_flash(module.flash().cells(), image);
}

TEST_F(Hd8xx0Boot, ProbesThreeTimesForABootLoaderThatDoesNotAnswer) {
    SilentModule module;
    const std::string package = package_of(random_image(100));
    const ToolRun run(module, arguments(package, "boot"));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(last_lines(run, 2), (std::vector<std::string>{"[INFO] Enter Boot Mode...",
                                                            "[ERROR] Failed to enter boot mode."}));
    EXPECT_EQ(as_hex(module.heard), as_hex(probe + probe + probe));
    EXPECT_NEAR(static_cast<double>(run.duration_ms), 4000, 10);
    EXPECT_EQ(run.closes, 1);
}

TEST_F(Hd8xx0Boot, RunningFirmwareIsNoBootLoader) {
    Hd8xx0Module::Settings settings;
    settings.strapped = false;
    Hd8xx0Module module(settings);
    const ToolRun run = boot(module, random_image(100));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Failed to enter boot mode.");
}

TEST_F(Hd8xx0Boot, WhatCameBeforeTheFirstProbeIsDropped) {
    Unasked<SilentModule> module(sim::milliseconds(700), hex("42 4F 4F 54"));
    const std::string package = package_of(random_image(100));
    const ToolRun run(module, arguments(package, "boot"));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(last_lines(run, 2), (std::vector<std::string>{"[INFO] Enter Boot Mode...",
                                                            "[ERROR] Failed to enter boot mode."}));
}

TEST_F(Hd8xx0Boot, WhatIsLeftBehindTheSecondProbeIsDropped) {
    // The probe's read takes 100 bytes; the refusal behind them must not be seen by the set-up.
    const Bytes boot_and_more = hex("42 4F 4F 54") + Bytes(96);
    Unasked<Hd8xx0Module> module(sim::milliseconds(2700),
                                 boot_and_more + sim::make_korvane_frame(0x05, 0x00, hex("F4 07")));
    int probes = 0;
    module.tamper = [&probes](const KorvaneFrame& frame, Bytes& reply) {
        if (frame.is(0x0A, 0x04) && ++probes == 2) {
            reply.clear();
        }
    };
    const ToolRun run = boot(module, random_image(100));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(contains(run.received, boot_and_more));
    EXPECT_EQ(probes, 2);
    EXPECT_EQ(run.count("[ERROR] Received NAK\n"), 0U);
}

TEST_F(Hd8xx0Boot, WordOfTheBootLoaderMayComeInTwoPieces) {
    Hd8xx0Module module;
    int probes = 0;
    module.tamper = [&probes](const KorvaneFrame& frame, Bytes& reply) {
        if (frame.is(0x0A, 0x04)) {
            ++probes;
            if (probes == 1) {
                reply = {'B', 'B', 'O'};
            } else if (probes == 2) {
                reply = {'O', 'T'};
            }
        }
    };
    const ToolRun run = boot(module, random_image(100));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(probes, 3);
}

TEST_F(Hd8xx0Boot, RateThatIsNotTakenFails) {
    Hd8xx0Module module;
    int probes = 0;
    module.tamper = [&probes](const KorvaneFrame& frame, Bytes& reply) {
        if (frame.is(0x0A, 0x04) && ++probes > 1) {
            reply.clear();
        }
    };
    const ToolRun run = boot(module, random_image(100));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(last_lines(run, 3),
              (std::vector<std::string>{"[INFO] Sets reference clock frequeney and baud rate...",
                                        "[ERROR] Failed to enter boot mode.",
                                        "[ERROR] Failed to switch baud rate to 460800"}));
    EXPECT_EQ(probes, 4);
}

TEST_F(Hd8xx0Boot, EachReplyOfTheSetUpIsWaitedFor) {
    for (int number = 0; number < 3; ++number) {
        for (const std::uint8_t id : hex("07 08 13 20 05")) {
            const bool used = number == 2 ? id == 0x20 || id == 0x08 || id == 0x05 : id != 0x20;
            if (!used) {
                continue;
            }
            Hd8xx0Module module(variant(number));
            module.tamper = [id](const KorvaneFrame& frame, Bytes& reply) {
                if (frame.is(0xF4, id)) {
                    reply.clear();
                }
            };
            const ToolRun run = boot(module, random_image(100), number);
            EXPECT_EQ(run.result(), upgrade_failure(-1));
            EXPECT_EQ(run.family_lines().back(), "[INFO] Queries SPI flash ID or status...");
            EXPECT_EQ(run.closes, 1);
            // Two changes of the rate, two probes, and three reads for the reply.
            EXPECT_NEAR(static_cast<double>(run.duration_ms), 2 * 1000 + 2 * 1000 + 3 * 1000, 20);
        }
    }
}

TEST_F(Hd8xx0Boot, FlashIdOfAnyContentWillDo) {
    Hd8xx0Module module(variant(1));
    module.tamper = [](const KorvaneFrame& frame, Bytes& reply) {
        if (frame.is(0xF4, 0x07)) {
            reply = sim::make_korvane_frame(0xF4, 0x07, hex("01 02 03 04"));
        }
    };
    EXPECT_EQ(boot(module, random_image(100), 1).result(), upgrade_success);

    // Also in place of another reply, where its length is that reply's.
    Hd8xx0Module odd;
    spoil_blocks(odd, 1, 1, sim::make_korvane_frame(0xF4, 0x07, hex("12 34")));
    const ToolRun run = boot(odd, random_image(2000));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("retry attempts"), 0U);
}

TEST_F(Hd8xx0Boot, FlashIdOfAnotherLengthWillNot) {
    Hd8xx0Module module(variant(1));
    module.tamper = [](const KorvaneFrame& frame, Bytes& reply) {
        if (frame.is(0xF4, 0x07)) {
            reply = sim::make_korvane_frame(0xF4, 0x07, hex("00 0A 01 18 00"));
        }
    };
    const ToolRun run = boot(module, random_image(100), 1);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_GE(run.count("[ERROR] wrong crc\n"), 1U) << "5 bytes of payload are a bad frame";
}

TEST_F(Hd8xx0Boot, ChipsRefusalsAreExpectedAsTheyAreAndNoOthers) {
    Hd8xx0Module wrong_chip(variant(1));
    const ToolRun run = boot(wrong_chip, random_image(100), 0);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    const std::string query = "F1 D9 F4 07 01 00 02 FE E5";
    EXPECT_TRUE(as_hex(run.sent).ends_with(query)) << "a flash ID of another length is ignored";
    Hd8xx0Module other(variant(0));
    const ToolRun second = boot(other, random_image(100), 1);
    EXPECT_EQ(second.result(), upgrade_failure(-1));
    EXPECT_TRUE(as_hex(second.sent).ends_with(query));
    EXPECT_EQ(second.count("Received NAK"), 0U) << "a refusal of another length is ignored";
}

TEST_F(Hd8xx0Boot, BlockIsSentFourTimes) {
    Hd8xx0Module module;
    spoil_blocks(module, 2, 100, {});
    const Bytes image = random_image(5000);
    const ToolRun run = boot(module, image);
    EXPECT_EQ(run.result(), upgrade_failure(512));
    EXPECT_EQ(last_lines(run, 5),
              (std::vector<std::string>{"[INFO] Expected ACK not received, retry attempts: 1",
                                        "[INFO] Expected ACK not received, retry attempts: 2",
                                        "[INFO] Expected ACK not received, retry attempts: 3",
                                        "[INFO] Expected ACK not received, retry attempts: 4",
                                        "[ERROR] [fw_update_boot 654]: update fail"}));
    const Bytes block = data_frame(0x00100800, 2, part_of(image, 2048, 1024));
    Bytes sent = run.sent;
    EXPECT_EQ(as_hex(std::span(sent).last(4 * block.size())),
              as_hex(block + block + block + block));
    EXPECT_FALSE(module.boot_image_complete());
    EXPECT_EQ(run.closes, 1);
}

TEST_F(Hd8xx0Boot, BlockThatArrivesTheFourthTimeIsGoodEnough) {
    Hd8xx0Module module;
    spoil_blocks(module, 1, 3, {});
    const Bytes image = random_image(5000);
    const ToolRun run = boot(module, image);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("Expected ACK not received"), 3U);
    EXPECT_EQ(run.count("retry attempts: 4"), 0U);
    expect_flash(module.flash().cells(), image);
}

TEST_F(Hd8xx0Boot, RefusedBlockIsLoggedAndSentAgain) {
    Hd8xx0Module module;
    spoil_blocks(module, 1, 1, hex("F1 D9 05 00 02 00 F4 05 00 12"));
    const ToolRun run = boot(module, random_image(5000));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("[ERROR] Received NAK\n"), 0U) << "its checksum is wrong";
    EXPECT_EQ(run.count("[ERROR] wrong crc\n"), 1U);

    Hd8xx0Module second;
    spoil_blocks(second, 1, 1, sim::make_korvane_frame(0x05, 0x00, hex("F4 05")));
    const ToolRun refused = boot(second, random_image(5000));
    EXPECT_EQ(refused.result(), upgrade_success);
    EXPECT_EQ(refused.count("[ERROR] Received NAK\n"), 1U);
    EXPECT_EQ(refused.count("retry attempts: 1"), 1U);
}

TEST_F(Hd8xx0Boot, AcknowledgementBehindARefusalCounts) {
    Hd8xx0Module module;
    spoil_blocks(module, 1, 1,
                 sim::make_korvane_frame(0x05, 0x00, hex("F4 05")) +
                     sim::make_korvane_frame(0x05, 0x01, hex("F4 05")));
    const ToolRun run = boot(module, random_image(5000));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("[ERROR] Received NAK\n"), 1U);
    EXPECT_EQ(run.count("retry attempts"), 0U);
}

TEST_F(Hd8xx0Boot, LastAndFirstBlockAreNotRepeated) {
    for (const int block : {3, 4}) {
        Hd8xx0Module module;
        spoil_blocks(module, block, 1, {});
        const ToolRun run = boot(module, random_image(2500));
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.count("retry attempts"), 0U);
        EXPECT_EQ(run.family_lines().back(), "[INFO] Sends firmware...");
    }
}

TEST_F(Hd8xx0Boot, ReplyBehindOtherBytesIsFoundWithinThreeReads) {
    const Bytes good = hex("F1 D9 05 01 02 00 F4 05 01 18");
    for (std::size_t junk = 1; junk <= 20; ++junk) {
        Hd8xx0Module module;
        spoil_blocks(module, 1, 1, Bytes(junk) + good);
        const ToolRun run = boot(module, random_image(2000));
        EXPECT_EQ(run.result(), upgrade_success);
        EXPECT_EQ(run.count("retry attempts"), 0U) << junk;
    }
    Hd8xx0Module module;
    spoil_blocks(module, 1, 1, Bytes(25) + good);
    const ToolRun run = boot(module, random_image(2000));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("retry attempts: 1"), 1U) << "its end came with the next attempt";
}

TEST_F(Hd8xx0Boot, SearchGoesOnAtTheByteBehindABadFrame) {
    const Bytes good = hex("F1 D9 05 01 02 00 F4 05 01 18");
    Hd8xx0Module module;
    // F1 in front of a reply: the second F1 makes it a bad frame, and begins the good one.
    spoil_blocks(module, 1, 1, hex("00 00 00 00 00 00 00 00 00 F1") + good);
    const ToolRun run = boot(module, random_image(2000));
    EXPECT_EQ(run.count("[ERROR] wrong crc\n"), 1U);
    EXPECT_EQ(run.count("retry attempts"), 1U) << "resumed behind the first byte of the read";

    Hd8xx0Module in_one_read;
    spoil_blocks(
        in_one_read, 1, 1,
        hex("00 F1 00 F1 F1 D9 05 00 00 00") + hex("00 00 00 00 00 00 00 00 00 00") + good);
    const ToolRun ends = boot(in_one_read, random_image(2000));
    EXPECT_FALSE(ends.hit_time_limit) << "every search comes to its end";
    EXPECT_GE(ends.count("[ERROR] wrong crc\n"), 2U);
}

TEST_F(Hd8xx0Boot, NoiseOfAllKindsEndsTheRun) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        Hd8xx0Module module;
        Conditions conditions;
        conditions.seed = seed;
        conditions.faults = {{.kind = sim::FaultKind::noise,
                              .direction = sim::Direction::to_host,
                              .byte = 20 + seed * 3,
                              .amount = 40},
                             {.kind = sim::FaultKind::flip,
                              .direction = sim::Direction::to_module,
                              .byte = 60 + seed * 100,
                              .amount = 2}};
        const ToolRun run = boot(module, random_image(3000), 0, conditions);
        EXPECT_FALSE(run.hit_time_limit) << seed;
        EXPECT_EQ(run.result() == upgrade_success, module.boot_image_complete()) << seed;
    }
}

TEST_F(Hd8xx0Boot, WriteThatFallsShortIsLoggedAndTheReplyWaitedFor) {
    Hd8xx0Module module;
    Conditions conditions;
    // probe, rate, probe, three of the set-up, start; then head, data and checksum of block 1.
    conditions.port.failing_write = 8;
    const ToolRun run = boot(module, random_image(3000), 0, conditions);
    EXPECT_EQ(run.count("[ERROR] Data transmission error: 14/1038\n"), 1U);
    EXPECT_EQ(run.count("retry attempts: 1"), 1U);
}

// ---------------------------------------------------------------------------------------------
// Through the running firmware

class Hd8xx0User : public Hd8xx0 {
  protected:
    ToolRun user(sim::Model& module, const Bytes& image, Conditions conditions = {}) {
        package_ = package_of(image);
        return {module, arguments(package_, "user"), std::move(conditions)};
    }

    /// Changes one answer of the receiver: the `number`th of its kind, counted from 1.
    static void spoil(Hd8xx0Module& module, BatchEvent event, int number, const Bytes& answer) {
        module.batch().tamper = [count = 0, event, number, answer](BatchEvent now,
                                                                   Bytes& said) mutable {
            if (now == event && ++count == number) {
                said = answer;
            }
        };
    }

    std::string package_;
};

const Bytes set_rate = hex("F1 D9 06 00 08 00 00 00 00 00 00 08 07 00 1D BE");
const Bytes enter_upgrade = hex("F1 D9 06 50 01 00 01 58 62");

Bytes xmodem_block(std::uint8_t type, std::uint8_t number, const Bytes& data) {
    const std::uint16_t crc = sim::module_crc16(data);
    const Bytes head{type, number, static_cast<std::uint8_t>(0xFF - number)};
    return head + data +
           Bytes{static_cast<std::uint8_t>(crc >> 8), static_cast<std::uint8_t>(crc & 0xFF)};
}

Bytes name_block(const std::string& length) {
    Bytes data(128);
    std::memcpy(data.data(), "gnss26rel16.gz", 14);
    std::memcpy(data.data() + 15, length.data(), length.size());
    return xmodem_block(0x01, 0, data);
}

Bytes padded(Bytes data) {
    data.resize(1024, 0x1A);
    return data;
}

TEST_F(Hd8xx0User, BytesOfAWholeRun) {
    const Bytes image = random_image(1500);
    Hd8xx0Module module;
    const ToolRun run = user(module, image);
    EXPECT_EQ(run.result(), upgrade_success);
    const Bytes expected = set_rate + enter_upgrade + name_block("1500") +
                           xmodem_block(0x02, 1, part_of(image, 0, 1024)) +
                           xmodem_block(0x02, 2, padded(part_of(image, 1024, 476))) + hex("04") +
                           xmodem_block(0x01, 0, Bytes(128));
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
    EXPECT_EQ(module.batch().name(), "gnss26rel16.gz");
}

TEST_F(Hd8xx0User, LinesAndRates) {
    Hd8xx0Module module;
    const ToolRun run = user(module, random_image(2500));
    EXPECT_EQ(run.family_lines(),
              opening_lines(package_, "user", 2500) +
                  (std::vector<std::string>{
                      "[INFO] Sets the UART port to be used and the baud rate of the UART...",
                      "[INFO] Enter Upgrade Mode...", "[INFO] Send SOH PKG...",
                      "[INFO] Send STX PKG...", "[INFO] upgrade: success"}));
    EXPECT_EQ(run.rates, (std::vector<unsigned>{115200, 460800}));
    const auto lines = run.progress_lines();
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[0], "[PROGRESS] 40.96%");
    EXPECT_EQ(lines[1], "[SPEED] 1024 Bytes/2500 Bytes    0 KBps") << "the clock starts here";
    EXPECT_EQ(lines[2], "[PROGRESS] 81.92%");
    EXPECT_EQ(SpeedLine(lines[3]).done, "[SPEED] 2048 Bytes/2500 Bytes");
    EXPECT_NEAR(SpeedLine(lines[3]).rate,
                3 / (seconds_of(run, lines[3]) - seconds_of(run, lines[1])), 0.06);
    EXPECT_EQ(lines[4], "[PROGRESS] 100.00%");
    EXPECT_EQ(run.closes, 1);
}

class Hd8xx0UserSizes : public Hd8xx0User, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(Hd8xx0UserSizes, FirmwareTakesTheImage) {
    const Bytes image = random_image(GetParam());
    Hd8xx0Module module;
    const ToolRun run = user(module, image);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(module.batch().announced(), image.size());
    EXPECT_EQ(module.batch().file(), image);
    expect_flash(module.flash().cells(), image);
    EXPECT_EQ(module.flash().cells()[image.size()], 0xFF) << "the padding is not stored";
    const std::size_t blocks = std::max<std::size_t>(1, (image.size() + 1023) / 1024);
    EXPECT_EQ(run.sent.size(), 16 + 9 + 133 + blocks * 1029 + 1 + 133);
}

INSTANTIATE_TEST_SUITE_P(Images, Hd8xx0UserSizes,
                         ::testing::Values(0, 1, 1023, 1024, 1025, 2048, 300'007));

TEST_F(Hd8xx0User, AnyModelOfTheFamilyIsUpdatedThisWay) {
    const Bytes image = random_image(1500);
    for (const char* const name : model_of_variant) {
        const auto module = sim::make_model(name);
        const ToolRun run(*module, arguments(package_of(image), "user", name));
        EXPECT_EQ(run.result(), upgrade_success) << name;
        expect_flash(module->flash().cells(), image);
    }
}

TEST_F(Hd8xx0User, ReplyIsFoundAmongOtherBytes) {
    for (const std::string around : {"F1", "F1 D9", "F1 D9 05 01 02 00 06", "24 47 4E 47 47 41",
                                     "F1 D9 05 01 02 00 06 50 5E", ""}) {
        Hd8xx0Module module;
        module.tamper = [&around](const KorvaneFrame& frame, Bytes& reply) {
            if (frame.is(0x06, 0x50)) {
                reply = hex(around) + reply + hex(around);
            }
        };
        EXPECT_EQ(user(module, random_image(100)).result(), upgrade_success) << around;
    }
}

TEST_F(Hd8xx0User, TwentyBytesBehindTheChangeOfRateAreDropped) {
    for (const std::size_t before : {19U, 20U}) {
        Hd8xx0Module module;
        // The reply to the second command comes already with the first one's.
        module.tamper = [before](const KorvaneFrame& frame, Bytes& reply) {
            if (frame.is(0x06, 0x00)) {
                reply = Bytes(before) + sim::make_korvane_frame(0x05, 0x01, hex("06 50"));
            } else if (frame.is(0x06, 0x50)) {
                reply.clear();
            }
        };
        const ToolRun run = user(module, random_image(100));
        EXPECT_EQ(run.result(), before == 20 ? upgrade_success : upgrade_failure(-1));
        EXPECT_EQ(run.count("[ERROR] SYNC time out 3000 ms\n"), before == 20 ? 0U : 1U);
    }
}

TEST_F(Hd8xx0User, ReceiverThatTalksNmeaIsUpdated) {
    for (const unsigned period : {20U, 50U, 130U, 1000U}) {
        Hd8xx0Module::Settings settings;
        settings.strapped = false;
        settings.talker.period = sim::milliseconds(period);
        Hd8xx0Module module(settings);
        const ToolRun run = user(module, random_image(2000));
        EXPECT_EQ(run.result(), upgrade_success) << period;
        if (period == 50) {
            EXPECT_TRUE(contains(run.received, hex("24 47 4E 52 4D 43"))) << "$GNRMC";
        }
    }
}

TEST_F(Hd8xx0User, SilentModuleTimesOutAfterThreeSeconds) {
    SilentModule module;
    const ToolRun run = user(module, random_image(100));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(last_lines(run, 2), (std::vector<std::string>{"[INFO] Enter Upgrade Mode...",
                                                            "[ERROR] SYNC time out 3000 ms"}));
    EXPECT_EQ(as_hex(run.sent), as_hex(set_rate + enter_upgrade));
    EXPECT_NEAR(static_cast<double>(run.duration_ms), 500 + 3000 + 3000, 10);
    EXPECT_EQ(run.closes, 1);
}

TEST_F(Hd8xx0User, TalkingModuleThatDoesNotAnswerTimesOutAsWell) {
    Hd8xx0Module::Settings settings;
    settings.strapped = false;
    settings.talker.period = sim::milliseconds(50);
    Hd8xx0Module module(settings);
    module.tamper = [](const KorvaneFrame& frame, Bytes& reply) {
        if (frame.is(0x06, 0x50)) {
            reply.clear();
        }
    };
    module.batch().tamper = [](BatchEvent, Bytes& said) { said = hex("24 47 0D 0A"); };
    const ToolRun run = user(module, random_image(100));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] SYNC time out 3000 ms");
    EXPECT_LT(run.duration_ms, 10'000U);
}

TEST_F(Hd8xx0User, ModuleThatDoesNotAskForTheFileFailsWithoutALine) {
    Hd8xx0Module module;
    module.batch().tamper = [](BatchEvent, Bytes& said) { said.clear(); };
    const ToolRun run = user(module, random_image(100));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.family_lines().back(), "[INFO] Enter Upgrade Mode...");
    EXPECT_NEAR(static_cast<double>(run.duration_ms), 500 + 3000, 20);
}

TEST_F(Hd8xx0User, HeaderMustBeAcknowledgedAndTheFileAskedForInOneBreath) {
    for (const std::string answer : {"", "06", "43", "06 00 43", "15", "06 06 06"}) {
        Hd8xx0Module module;
        spoil(module, BatchEvent::header, 1, hex(answer));
        const ToolRun run = user(module, random_image(100));
        EXPECT_EQ(run.result(), upgrade_failure(-1)) << answer;
        EXPECT_EQ(run.family_lines().back(), "[INFO] Send SOH PKG...");
        EXPECT_NEAR(static_cast<double>(run.duration_ms), 500 + 100 + 3000, 30) << answer;
    }
    for (const std::string answer : {"06 43", "43 43 06 43", "06 06 43", "15 06 43"}) {
        Hd8xx0Module module;
        spoil(module, BatchEvent::header, 1, hex(answer));
        EXPECT_EQ(user(module, random_image(100)).result(), upgrade_success) << answer;
    }
}

TEST_F(Hd8xx0User, RefusedBlockIs770) {
    Hd8xx0Module module;
    spoil(module, BatchEvent::block, 2, hex("15"));
    const ToolRun run = user(module, random_image(5000));
    EXPECT_EQ(run.result(), upgrade_failure(770));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] [fw_update_user 897]: update fail, receive: 15");
    EXPECT_EQ(run.closes, 1);
}

TEST_F(Hd8xx0User, RefusedLastBlockIs771) {
    Hd8xx0Module module;
    spoil(module, BatchEvent::block, 5, hex("AB"));
    const ToolRun run = user(module, random_image(5000));
    EXPECT_EQ(run.result(), upgrade_failure(771));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] [fw_update_user 916]: update fail, receive: AB");
    EXPECT_EQ(run.count("[PROGRESS] 100.00%"), 0U);
}

TEST_F(Hd8xx0User, SilenceBehindABlockIsAZeroByteAfterThreeSeconds) {
    Hd8xx0Module module;
    spoil(module, BatchEvent::block, 1, {});
    const ToolRun run = user(module, random_image(5000));
    EXPECT_EQ(run.result(), upgrade_failure(770));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] [fw_update_user 897]: update fail, receive: 00");
    EXPECT_NEAR(static_cast<double>(run.duration_ms), 500 + 100 + 3000, 50);
}

TEST_F(Hd8xx0User, EndThatIsNotConfirmedIs772) {
    struct End {
        BatchEvent event;
        const char* answer;
        int line;
        const char* received;
    };
    const std::vector<End> ends{
        {BatchEvent::end_of_file, "15 43", 931, "15"},
        {BatchEvent::end_of_file, "06 15", 939, "15"},
        {BatchEvent::end_of_batch, "18 43", 947, "18"},
        {BatchEvent::end_of_batch, "06 44", 955, "44"},
        {BatchEvent::taken, "18 18 18 18 17", 962, "17"},
        {BatchEvent::taken, "06 18 18 18 18", 962, "06"},
        {BatchEvent::taken, "18 18", 962, "00"},
    };
    for (const End& end : ends) {
        Hd8xx0Module module;
        spoil(module, end.event, 1, hex(end.answer));
        const ToolRun run = user(module, random_image(5000));
        EXPECT_EQ(run.result(), upgrade_failure(772));
        EXPECT_EQ(run.family_lines().back(), "[ERROR] [fw_update_user " + std::to_string(end.line) +
                                                 "]: update fail, receive: " + end.received);
        EXPECT_EQ(run.count("[PROGRESS] 100.00%"), 1U);
    }
}

TEST_F(Hd8xx0User, StoringMayTakeAMinute) {
    Hd8xx0Module module;
    module.batch().store_time = sim::milliseconds(59'000);
    EXPECT_EQ(user(module, random_image(5000)).result(), upgrade_success);
    Hd8xx0Module slow;
    slow.batch().store_time = sim::milliseconds(61'000);
    const ToolRun run = user(slow, random_image(5000));
    EXPECT_EQ(run.result(), upgrade_failure(772));
    EXPECT_EQ(run.count("[fw_update_user 962]"), 1U);
}

// ---------------------------------------------------------------------------------------------
// The processors of a dual-processor module

class Hd8xx0Master : public Hd8xx0 {
  protected:
    /// The updates of one processor, "master_user" or "slave_user".
    ToolRun update(sim::Model& module, const Bytes& image, const std::string& mode,
                   Conditions conditions = {}) {
        package_ = package_of(image);
        return {module, arguments(package_, mode), std::move(conditions)};
    }

    /// Both processors, in one run.
    ToolRun update_both(sim::Model& module, const Bytes& image, const std::string& slave_package) {
        package_ = folder_.write("master.cyfm", sim::make_master_cyfm(image));
        return {module,
                arguments(package_, "all_user") + std::vector<std::string>{"-s", slave_package}};
    }

    std::string package_;
};

const Bytes sync_probes = hex("09 13 56 4B 04 A5 03 12");

Bytes big_endian(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

Bytes size_and_crc(const Bytes& image) {
    return big_endian(static_cast<std::uint32_t>(image.size())) +
           big_endian(sim::module_image_crc(image));
}

TEST_F(Hd8xx0Master, BytesForTheMaster) {
    const Bytes image = random_image(1500);
    Hd8xx0Module module;
    const ToolRun run = update(module, image, "master_user");
    EXPECT_EQ(run.result(), upgrade_success);
    const Bytes expected =
        sync_probes + sim::make_upgrade_frame(2, 0x01, hex("00 00 00 00")) +
        sim::make_upgrade_frame(2, 0x02, size_and_crc(image) + hex("00 00 00 00 01 00 00 00")) +
        sim::make_upgrade_frame(2, 0x03, {}) +
        sim::make_upgrade_frame(2, 0x04, big_endian(0) + part_of(image, 0, 1024)) +
        sim::make_upgrade_frame(2, 0x04, big_endian(1) + part_of(image, 1024, 476));
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
    EXPECT_TRUE(module.agent().completed());
    expect_flash(module.flash().cells(), image);
}

TEST_F(Hd8xx0Master, BytesForTheSlave) {
    const Bytes image = random_image(1025);
    Hd8xx0Module module;
    const ToolRun run = update(module, image, "slave_user");
    EXPECT_EQ(run.result(), upgrade_success);
    const Bytes expected =
        sync_probes + sim::make_upgrade_frame(4, 0xE2, {}) +
        sim::make_upgrade_frame(4, 0x01, hex("90 00 00 00")) +
        sim::make_upgrade_frame(4, 0x02, size_and_crc(image) + hex("90 01 00 00 01 00 00 00")) +
        sim::make_upgrade_frame(4, 0x04, big_endian(0) + part_of(image, 0, 1024)) +
        sim::make_upgrade_frame(4, 0x04, big_endian(1) + part_of(image, 1024, 1)) +
        sim::make_upgrade_frame(4, 0xE1, {});
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
    EXPECT_TRUE(module.agent().completed());
    expect_flash(module.slave_flash(image.size()), image);
}

TEST_F(Hd8xx0Master, LinesForTheMaster) {
    Hd8xx0Module module;
    const ToolRun run = update(module, random_image(1500), "master_user");
    EXPECT_EQ(run.family_lines(),
              opening_lines(package_, "master_user", 1500) +
                  (std::vector<std::string>{
                      "[INFO] Synchronize...", "[INFO] Please power up the module within 15s.",
                      "[INFO] Send Firmware Address...", "[INFO] Send Firmware Information...",
                      "[INFO] Send Firmware Upgrade Command...", "[INFO] Sending Firmware..."}));
    const auto progress = run.progress_lines();
    ASSERT_EQ(progress.size(), 4U);
    EXPECT_EQ(progress[0], "[PROGRESS] 68.27%");
    EXPECT_EQ(progress[1].rfind("[SPEED] 1024 Bytes/1500 Bytes    ", 0), 0U);
    EXPECT_EQ(progress[2], "[PROGRESS] 100.00%");
    EXPECT_EQ(run.rates, (std::vector<unsigned>{115200}));
    EXPECT_EQ(run.closes, 1);
}

TEST_F(Hd8xx0Master, LinesForTheSlave) {
    Hd8xx0Module module;
    const ToolRun run = update(module, random_image(1500), "slave_user");
    EXPECT_EQ(run.family_lines(),
              opening_lines(package_, "slave_user", 1500) +
                  (std::vector<std::string>{
                      "[INFO] Synchronize...", "[INFO] Please power up the module within 15s.",
                      "[INFO] Send Firmware Upgrade Command...", "[INFO] Send Firmware Address...",
                      "[INFO] Send Firmware Information...", "[INFO] Sending Firmware...",
                      "[INFO] Send Firmware Upgrade Command..."}));
}

class Hd8xx0MasterSizes : public Hd8xx0Master, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(Hd8xx0MasterSizes, EitherProcessorTakesTheImage) {
    const Bytes image = random_image(GetParam());
    Hd8xx0Module master;
    EXPECT_EQ(update(master, image, "master_user").result(), upgrade_success);
    EXPECT_TRUE(master.agent().completed());
    expect_flash(master.flash().cells(), image);
    Hd8xx0Module slave;
    EXPECT_EQ(update(slave, image, "slave_user").result(), upgrade_success);
    EXPECT_TRUE(slave.agent().completed());
    expect_flash(slave.slave_flash(image.size()), image);
}

INSTANTIATE_TEST_SUITE_P(Images, Hd8xx0MasterSizes,
                         ::testing::Values(0, 1, 1023, 1024, 1025, 2048, 300'007));

TEST_F(Hd8xx0Master, BothProcessorsInOneRun) {
    const Bytes master_image = random_image(3000, 1);
    const Bytes slave_image = random_image(5000, 2);
    Hd8xx0Module module;
    const ToolRun run = update_both(module, master_image, package_of(slave_image, "slave.cyfm"));
    EXPECT_EQ(run.result(), upgrade_success);
    expect_flash(module.flash().cells(), master_image);
    expect_flash(module.slave_flash(slave_image.size()), slave_image);
    EXPECT_EQ(run.count("[INFO] unzip ok, length:3000, md5 check ok\n"), 1U);
    EXPECT_EQ(run.count("[INFO] unzip ok, length:5000, md5 check ok\n"), 1U);
    EXPECT_EQ(run.closes, 1);
    EXPECT_EQ(run.opens, 1);
}

TEST_F(Hd8xx0Master, SpeedOfBothProcessorsIsCountedFromTheMastersFirstPacket) {
    Hd8xx0Module module;
    const ToolRun run =
        update_both(module, random_image(2000), package_of(random_image(1500), "slave.cyfm"));
    const auto lines = run.progress_lines();
    ASSERT_EQ(lines.size(), 8U);
    EXPECT_EQ(lines[1], "[SPEED] 1024 Bytes/2000 Bytes    0 KBps")
        << "a synchronisation at the run's very begin does not start the clock";
    const long begun = time_of(run, lines[1]);
    EXPECT_EQ(lines[3], speed_line(run, 2000, 2000, 2000 / 1024.0, begun));
    EXPECT_EQ(lines[5], speed_line(run, 1024, 1500, 1, begun));
    EXPECT_EQ(lines[7], speed_line(run, 1500, 1500, 1500 / 1024.0, begun));
}

TEST_F(Hd8xx0Master, SlavePackageThatIsDamagedIs262AfterTheMasterWasUpdated) {
    const Bytes master_image = random_image(3000);
    Hd8xx0Module module;
    const ToolRun run =
        update_both(module, master_image, folder_.write("slave.cyfm", random_image(500)));
    EXPECT_EQ(run.result(), upgrade_failure(262));
    EXPECT_TRUE(run.left_open);
    EXPECT_TRUE(module.agent().completed());
    expect_flash(module.flash().cells(), master_image);
    EXPECT_FALSE(contains(run.sent, hex("AA 04 E2")));
}

TEST_F(Hd8xx0Master, SlavePackageThatIsAFolderSendsNothingOfTheMasters) {
    Hd8xx0Module module;
    const ToolRun run = update_both(module, random_image(3000), folder_.path());
    EXPECT_EQ(run.result(), upgrade_failure(262));
    EXPECT_FALSE(contains(run.sent, hex("AA 04")));
}

TEST_F(Hd8xx0Master, MasterThatFailsKeepsTheSlaveAsItIs) {
    Hd8xx0Module module;
    module.agent().tamper = [](const UpgradeFrame& frame, Bytes& reply) {
        if (frame.command == 0x04) {
            reply.clear();
        }
    };
    const ToolRun run =
        update_both(module, random_image(3000), package_of(random_image(10), "slave.cyfm"));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(last_lines(run, 2),
              (std::vector<std::string>{"[ERROR] ACK time out 10000 ms",
                                        "[ERROR] Send firmware failed.Upgrade failed."}));
    EXPECT_EQ(run.closes, 1);
    EXPECT_EQ(run.count("Synchronize..."), 1U);
}

TEST_F(Hd8xx0Master, SynchronisationIsGivenUpAfter700Probes) {
    SilentModule module;
    const ToolRun run = update(module, random_image(100), "master_user");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(last_lines(run, 3),
              (std::vector<std::string>{"[INFO] Synchronize...",
                                        "[INFO] Please power up the module within 15s.",
                                        "[ERROR] Sync module failed.Upgrade failed."}));
    EXPECT_EQ(module.heard.size(), 700U * 4);
    EXPECT_NEAR(static_cast<double>(run.duration_ms), 700 * 40.35, 100);
    EXPECT_EQ(run.closes, 1);
}

TEST_F(Hd8xx0Master, ModuleThatIsPoweredUpLaterIsCaught) {
    Hd8xx0Module module;
    Conditions conditions;
    conditions.faults = {{.kind = sim::FaultKind::silence,
                          .direction = sim::Direction::to_module,
                          .byte = 0,
                          .amount = 14'000}};
    EXPECT_EQ(update(module, random_image(100), "slave_user", conditions).result(),
              upgrade_success);
}

TEST_F(Hd8xx0Master, EachStepHasItsLine) {
    struct Failing {
        const char* mode;
        std::uint8_t command;
        int timeout;
        const char* line;
    };
    const std::vector<Failing> steps{
        {"master_user", 0x01, 3000, "[ERROR] Send firmware address failed.Upgrade failed."},
        {"master_user", 0x02, 3000, "[ERROR] Send firmware information failed.Upgrade failed."},
        {"master_user", 0x03, 180000, "[ERROR] Send upgrade command failed.Upgrade failed."},
        {"master_user", 0x04, 10000, "[ERROR] Send firmware failed.Upgrade failed."},
        {"slave_user", 0xE2, 180000, "[ERROR] Send upgrade command failed.Upgrade failed."},
        {"slave_user", 0x01, 3000, "[ERROR] Send firmware address failed.Upgrade failed."},
        {"slave_user", 0x02, 3000, "[ERROR] Send firmware information failed.Upgrade failed."},
        {"slave_user", 0x04, 10000, "[ERROR] Send firmware failed.Upgrade failed."},
        {"slave_user", 0xE1, 180000, "[ERROR] Send upgrade command failed.Upgrade failed."},
    };
    for (const Failing& step : steps) {
        Hd8xx0Module silent;
        silent.agent().tamper = [&step](const UpgradeFrame& frame, Bytes& reply) {
            if (frame.command == step.command) {
                reply.clear();
            }
        };
        const ToolRun run = update(silent, random_image(2000), step.mode);
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(last_lines(run, 2),
                  (std::vector<std::string>{
                      "[ERROR] ACK time out " + std::to_string(step.timeout) + " ms", step.line}));
        EXPECT_GE(run.duration_ms, static_cast<std::uint64_t>(step.timeout));
        EXPECT_EQ(run.closes, 1);

        Hd8xx0Module refusing;
        refusing.agent().tamper = [&step](const UpgradeFrame& frame, Bytes& reply) {
            if (frame.command == step.command) {
                reply = sim::make_upgrade_frame(frame.address, frame.command, hex("00 00 00 21"));
            }
        };
        const ToolRun refused = update(refusing, random_image(2000), step.mode);
        EXPECT_EQ(refused.result(), upgrade_failure(-1));
        EXPECT_EQ(
            last_lines(refused, 2),
            (std::vector<std::string>{"[ERROR] APP firmware write to Flash error.", step.line}));
    }
}

// ---------------------------------------------------------------------------------------------
// The device vanishes

class Hd8xx0Unplugged : public Hd8xx0, public ::testing::WithParamInterface<const char*> {};

TEST_P(Hd8xx0Unplugged, RunEndsWithAFailureAtEveryMoment) {
    const std::string slave = package_of(random_image(2500), "slave.cyfm");
    const std::string package =
        folder_.write("master.cyfm", sim::make_master_cyfm(random_image(1500)));
    const std::string plain = package_of(random_image(2500));
    const std::string mode = GetParam();
    const auto words = arguments(mode == "all_user" ? package : plain, mode) +
                       std::vector<std::string>{"-s", slave};
    Hd8xx0Module whole;
    const std::uint64_t duration = ToolRun(whole, words).duration_ms;
    ASSERT_GT(duration, 100U);
    // Steps that share no factor with the dialogues' own pauses.
    const std::uint64_t step = std::max<std::uint64_t>(duration / 20, 1) | 1U;
    for (std::uint64_t moment = 0; moment + 1 < duration; moment += step) {
        Hd8xx0Module module;
        const ToolRun run(module, words, unplugged_after_ms(moment));
        EXPECT_FALSE(run.hit_time_limit) << moment;
        EXPECT_TRUE(run.result().starts_with("[FAIL] orbix_flash upgrade fail,ret:["))
            << moment << ": " << run.result();
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, Hd8xx0Unplugged,
                         ::testing::Values("boot", "s_boot", "user", "master_user", "slave_user",
                                           "all_user"));

// ---------------------------------------------------------------------------------------------
// What only a call of the entry itself shows

/// A call of the entry, past the tool's own look at the model name.
struct EntryCall {
    EntryCall(sim::Model& module, std::vector<std::string> words) {
        words.insert(words.begin(), "orbix_flash");
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        sim::Line line(module, {}, {}, sim::VirtualPort::start);
        sim::VirtualPort port(line, {});
        char* text = nullptr;
        std::size_t size = 0;
        std::FILE* const stream = open_memstream(&text, &size);
        set_log_stream(stream);
        result = hd8xx0::hd8xx0_upgrade(static_cast<int>(words.size()), argv.data());
        set_log_stream(nullptr);
        std::fclose(stream);
        log.assign(text, size);
        std::free(text);
        for (const auto& settings : port.settings_written) {
            rates.push_back(settings.baud);
        }
        for (const auto& byte : line.trace()) {
            if (byte.direction == sim::Direction::to_module) {
                sent.push_back(byte.byte);
            }
        }
    }

    int result;
    std::string log;
    Bytes sent;
    std::vector<unsigned> rates;  ///< of all settings that were written
};

TEST_F(Hd8xx0Entry, RateIsSetOnceMoreAfterTheOpen) {
    Hd8xx0Module module;
    const EntryCall call(module, arguments(folder_.write("bad.cyfm", Bytes{}), "user"));
    // The open writes the settings for itself and for each of the two modem lines.
    EXPECT_EQ(call.rates, (std::vector<unsigned>(3 + 1, 115200)));
}

TEST_F(Hd8xx0Entry, ModelThatNoPrefixMatchesHasNoFlashToBoot) {
    Hd8xx0Module module;
    const EntryCall call(module, arguments(package_of(random_image(100)), "boot", "XX210A00"));
    EXPECT_EQ(call.result, -1);
    EXPECT_TRUE(call.log.ends_with("[ERROR] Unknown module model: -1\n")) << call.log;
    EXPECT_TRUE(as_hex(call.sent).ends_with("F1 D9 F4 07 01 00 02 FE E5")) << as_hex(call.sent);
}

TEST_F(Hd8xx0Entry, ModelThatNoPrefixMatchesIsUpdatedThroughItsFirmware) {
    const std::string package = package_of(random_image(100));
    for (const std::string mode : {"user", "master_user", "slave_user"}) {
        Hd8xx0Module module;
        EXPECT_EQ(EntryCall(module, arguments(package, mode, "XX210A00")).result, 0) << mode;
    }
}

}  // namespace
}  // namespace orbix::test
