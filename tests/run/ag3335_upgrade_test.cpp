// The AG3335 upgrade, end to end.
#include <dirent.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <numeric>

#include "ag33xx_modules.h"
#include "run/ag33xx_support.h"
#include "run/harness.h"
#include "wire_words.h"

namespace orbix::test {
namespace {

using sim::Ag3335Module;
using sim::append_big_endian;
using sim::BootAnswer;

constexpr std::uint32_t flash_base = Ag3335Module::flash_base;
constexpr std::size_t old_agent_size = 27895;
constexpr std::size_t new_agent_size = 1500;

const std::string handshake_line = "[INFO] Handshake... (Press the module reset button!)";
const std::string failed = " Flash upgrade failed";

using Image = PackageImage;

/// A module, a package and an agent, with a way to make the module misbehave.
struct Upgrade {
    explicit Upgrade(std::size_t agent_size, const Ag3335Module::Settings& settings = {})
        : module(settings), agent(random_image(agent_size, 7)) {}

    TempDir folder;
    Ag3335Module module;
    Bytes agent;
    std::vector<Image> images{{"app.bin", flash_base + 0x3000, random_image(5000)}};
    std::string model = "TR40XBA";
    bool with_layout = true;

    void write_package() const {
        for (const Image& image : images) {
            folder.write(image.name, image.content);
        }
        if (with_layout) {
            folder.write("flash_download.cfg", layout_of(images));
        }
        folder.write("agent.da", agent);
    }
    [[nodiscard]] std::string directory() const { return folder.path() + "/"; }
    [[nodiscard]] Lines arguments(const Lines& more = {}) const {
        Lines words{"-m",     model, "-p",        "COM6", "-b",
                    "115200", "-d",  directory(), "-s",   folder.path("agent.da")};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
    ToolRun run(const Lines& more = {}, const Conditions& conditions = {}) {
        write_package();
        return ToolRun(module, arguments(more), conditions);
    }

    /// Lets the module give another answer than it would; every time, or the time of that number.
    void answer(BootAnswer which, const Bytes& instead, int time = -1) {
        module.boot.voice.tamper = [=](BootAnswer given, unsigned number, Bytes& bytes) {
            if (given == which && (time < 0 || number == static_cast<unsigned>(time))) {
                bytes = instead;
            }
        };
    }

    /// Something stands in the flash already.
    void dirty_flash() { module.flash().fill(0x00); }

    /// What that flash must hold after a success.
    [[nodiscard]] Bytes expected_flash(std::uint32_t erased) const {
        Bytes cells = flash_with(images, Ag3335Module::flash_size);
        std::fill(cells.begin() + erased, cells.end(), std::uint8_t{0x00});
        return cells;
    }
    [[nodiscard]] bool flash_is(const Bytes& expected) {
        const auto cells = module.flash().cells();
        return cells.size() == expected.size() &&
               std::memcmp(cells.data(), expected.data(), cells.size()) == 0;
    }
};

Bytes be32(std::uint32_t value) {
    return hex(be32_hex(value));
}

std::uint32_t byte_sum(std::span<const std::uint8_t> bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), std::uint32_t{0});
}

/// The lines of the dialogue, without PROGRESS and SPEED.
Lines step_lines(const ToolRun& run) {
    Lines lines = run.family_lines();
    const auto first = std::find(lines.begin(), lines.end(), handshake_line);
    return {first, lines.end()};
}

/// The texts of the ERROR lines.
Lines errors(const ToolRun& run) {
    const std::string tag = "[ERROR] ";
    Lines found;
    for (const std::string& line : run.family_lines()) {
        if (line.starts_with(tag)) {
            found.push_back(line.substr(tag.size()));
        }
    }
    return found;
}

/// A failed run: these ERROR lines and no others, the closing lines, one close of each open port.
void expect_failure(const ToolRun& run, const Lines& expected) {
    EXPECT_EQ(errors(run), expected);
    ASSERT_FALSE(run.family_lines().empty());
    EXPECT_EQ(run.family_lines().back(), failed);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.status, 0);
    EXPECT_FALSE(run.hit_time_limit);
    EXPECT_FALSE(run.left_open);
}

// --- the bytes of a run --------------------------------------------------------------------------

Bytes opening_bytes() {
    return hex("A0 0A 50 05  D2 A2 08 00 00 00 00 00 01 00 10");
}

Bytes agent_bytes(const Bytes& agent, const std::string& address) {
    Bytes bytes = hex("D7" + address);
    append(bytes, be32(static_cast<std::uint32_t>(agent.size())));
    append(bytes, be32(0));
    append(bytes, agent);
    append(bytes, hex("D5" + address));
    return bytes;
}

Bytes old_image_bytes(const Image& image, std::uint8_t closing) {
    Bytes padded = image.content;
    padded.resize((padded.size() + 4095) / 4096 * 4096, 0xFF);
    Bytes bytes = hex("B2");
    append(bytes, be32(image.address));
    append(bytes, be32(static_cast<std::uint32_t>(padded.size())));
    append(bytes, be32(4096));
    for (std::size_t at = 0; at < padded.size(); at += 4096) {
        const auto packet = std::span(padded).subspan(at, 4096);
        append(bytes, packet);
        append(bytes, be32(byte_sum(packet)));
    }
    append(bytes, be32(byte_sum(padded)));
    bytes.push_back(closing);
    return bytes;
}

Bytes erase_frame(std::uint32_t address, std::uint32_t length) {
    return checked_frame("05 5A 0E 00 04 21" + le32_hex(address) + le32_hex(length));
}

Bytes write_frame(std::uint32_t address, std::span<const std::uint8_t> data) {
    Bytes block(data.begin(), data.end());
    block.resize(4096, 0xFF);
    return checked_frame("05 5A 0C 10 00 21" + le32_hex(address) + "00 10", block);
}

Bytes erase_bytes(std::uint32_t length) {
    Bytes bytes;
    std::uint32_t at = 0;
    for (; length - at > 0x10000; at += 0x10000) {
        append(bytes, erase_frame(flash_base + at, 0x10000));
    }
    for (; at < length; at += 0x1000) {
        append(bytes, erase_frame(flash_base + at, 0x1000));
    }
    return bytes;
}

Bytes new_image_bytes(const Image& image) {
    Bytes bytes;
    for (std::size_t at = 0; at < image.content.size(); at += 4096) {
        const std::size_t count = std::min<std::size_t>(4096, image.content.size() - at);
        append(bytes, write_frame(image.address + static_cast<std::uint32_t>(at),
                                  std::span(image.content).subspan(at, count)));
    }
    return bytes;
}

std::size_t count_of(std::span<const std::uint8_t> whole, const Bytes& part) {
    std::size_t found = 0;
    for (auto at = whole.begin();; ++at, ++found) {
        at = std::search(at, whole.end(), part.begin(), part.end());
        if (at == whole.end()) {
            return found;
        }
    }
}

TEST(Ag3335Upgrade, BytesOfARunWithAnOldAgent) {
    Upgrade upgrade(old_agent_size);
    upgrade.images = {{"bootloader.bin", flash_base + 0x1000, random_image(4097)},
                      {"app.bin", flash_base + 0x3000, random_image(4096, 2)}};
    const ToolRun run = upgrade.run();

    Bytes expected = opening_bytes();
    append(expected, agent_bytes(upgrade.agent, "04 20 40 00"));
    append(expected, hex("3F F3 C0 0C 00 5A 00 5A 5A  C0 5A 5A 5A"));
    append(expected, hex("D4 00 08 00 00 00 00 3E 00 00"));
    append(expected, Bytes(98 + 1 + 1, 0x5A));
    append(expected, old_image_bytes(upgrade.images[0], 0x5A));
    append(expected, old_image_bytes(upgrade.images[1], 0xA5));
    EXPECT_EQ(run.sent, expected);
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Ag3335Upgrade, BytesOfARunWithANewAgent) {
    Upgrade upgrade(new_agent_size);
    upgrade.images = {{"bootloader.bin", flash_base + 0x1000, random_image(5000)},
                      {"app.bin", flash_base + 0x3000, random_image(8192, 2)}};
    const ToolRun run = upgrade.run();

    Bytes expected = opening_bytes();
    append(expected, agent_bytes(upgrade.agent, "04 00 00 00"));
    append(expected, hex("05 5A 06 00 15 21 00 C2 01 00"));
    append(expected, hex("05 5A 02 00 0E 21  05 5A 02 00 0F 21  05 5A 02 00 10 21"));
    append(expected, erase_bytes(0x3E0000));
    append(expected, new_image_bytes(upgrade.images[0]));
    append(expected, new_image_bytes(upgrade.images[1]));
    EXPECT_EQ(run.sent, expected);
    EXPECT_EQ(run.result(), upgrade_success);
}

// --- runs that go well ---------------------------------------------------------------------------

class Ag3335UpgradeSizes : public ::testing::TestWithParam<std::tuple<std::size_t, std::size_t>> {};

TEST_P(Ag3335UpgradeSizes, FlashHoldsTheImageAndNothingElse) {
    const auto [agent_size, size] = GetParam();
    Upgrade upgrade(agent_size);
    upgrade.dirty_flash();
    upgrade.images = {{"app.bin", flash_base + 0x3000, random_image(size)}};
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(upgrade.flash_is(upgrade.expected_flash(0x3E0000)));
    const std::string bytes = std::to_string(size) + " Bytes";
    EXPECT_TRUE(run.progress_lines().back().starts_with("[SPEED] " + bytes + "/" + bytes));
}

INSTANTIATE_TEST_SUITE_P(Ag3335, Ag3335UpgradeSizes,
                         ::testing::Combine(::testing::Values(old_agent_size, new_agent_size),
                                            ::testing::Values(1, 4095, 4096, 4097, 5000, 8192,
                                                              8193)));

class Ag3335UpgradeAgents : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Ag3335UpgradeAgents, WholePackageAtAHighRate) {
    Ag3335Module::Settings settings;
    settings.boot.old_agent.rates = {921600};
    Upgrade upgrade(GetParam(), settings);
    upgrade.dirty_flash();
    upgrade.images = {{"partition_table.bin", flash_base, random_image(4096)},
                      {"bootloader.bin", flash_base + 0x3000, random_image(36'420, 2)},
                      {"TR40XBANR01A01S.bin", flash_base + 0x13000, random_image(150'345, 3)},
                      {"gnss_config.bin", flash_base + 0x3D0000, random_image(1204, 4)}};
    const ToolRun run = upgrade.run({"-l", "921600"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(upgrade.flash_is(upgrade.expected_flash(0x3E0000)));
    EXPECT_EQ(run.rates, (std::vector<unsigned>{115200, 921600}));
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 1);
}

INSTANTIATE_TEST_SUITE_P(Ag3335, Ag3335UpgradeAgents,
                         ::testing::Values(old_agent_size, new_agent_size));

TEST(Ag3335Upgrade, WholeOutputOfARunWithAnOldAgent) {
    Upgrade upgrade(old_agent_size);
    const ToolRun run = upgrade.run();
    const std::string folder = upgrade.directory();
    std::array<char, 64> checksum{};
    std::uint16_t low = 0;
    std::uint16_t high = 0;
    for (std::size_t at = 0; at < upgrade.agent.size(); ++at) {
        (at % 2 == 0 ? low : high) ^= upgrade.agent[at];
    }
    std::snprintf(checksum.data(), checksum.size(), " local_check_sum = 0x%08x", high * 256 + low);
    const Lines expected{
        " format_length: 3e0000",
        " will use device: COM6",
        " Communition_Baud:115200",
        " DownLoad_Dir:" + folder,
        " DA_Path:" + upgrade.folder.path("agent.da"),
        handshake_line,
        "[INFO] Disable WDT...",
        "[INFO] Send Da file...",
        " will send Da file(" + upgrade.folder.path("agent.da") + ") to module",
        " Da_file_size = 6cf7",
        checksum.data(),
        "[INFO] Jump to Da...",
        "[INFO] Sync Da...",
        "[INFO] Format flash...",
        " send fw file according to " + folder + "flash_download.cfg",
        "[INFO] will send app.bin to module",
        " Flash upgrade successfully",
    };
    EXPECT_EQ(run.family_lines(), expected);

    Lines progress = run.progress_lines();
    ASSERT_EQ(progress.size(), 1 + 27 * 2 + 2 + 100 + 2 + 2 + 2U);
    const auto at = [&](std::size_t index) { return progress[index]; };
    EXPECT_EQ(at(0), "[SPEED] 0 Bytes/27895 Bytes    0 KBps");
    EXPECT_EQ(at(1), "[PROGRESS] 3.67%\r");
    EXPECT_EQ(at(2), "[SPEED] 1024 Bytes/27895 Bytes    22.2 KBps");
    EXPECT_EQ(at(53), "[PROGRESS] 99.11%\r");
    EXPECT_EQ(at(55), "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(at(56).starts_with("[SPEED] 27895 Bytes/27895 Bytes    ")) << at(56);
    EXPECT_EQ(at(57), "[PROGRESS] 1.00%\r");
    EXPECT_EQ(at(58), "[PROGRESS] 2.00%\r");
    EXPECT_EQ(at(155), "[PROGRESS] 99.00%\r");
    EXPECT_EQ(at(156), "[PROGRESS] 100%\r");
    EXPECT_EQ(at(157), "[PROGRESS] 0.00%\r");
    EXPECT_EQ(at(158), "[SPEED] 0 Bytes/5000 Bytes    0 KBps");
    EXPECT_EQ(at(159), "[PROGRESS] 81.92%\r");
    EXPECT_TRUE(at(160).starts_with("[SPEED] 4096 Bytes/5000 Bytes    ")) << at(160);
    EXPECT_EQ(at(161), "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(at(162).starts_with("[SPEED] 5000 Bytes/5000 Bytes    ")) << at(162);
}

TEST(Ag3335Upgrade, WholeOutputOfARunWithANewAgent) {
    Upgrade upgrade(new_agent_size);
    const ToolRun run = upgrade.run();
    const Lines lines = step_lines(run);
    const Lines expected{
        handshake_line,
        "[INFO] Disable WDT...",
        "[INFO] Send Da file...",
        " will send Da file(" + upgrade.folder.path("agent.da") + ") to module",
        " Da_file_size = 05dc",
        lines.at(5),
        "[INFO] Jump to Da...",
        "[INFO] Sync New Da...",
        "[INFO] Format flash...",
        " send fw file according to " + upgrade.directory() + "flash_download.cfg",
        "[INFO] will send app.bin to module",
        "",
        " Flash upgrade successfully",
    };
    EXPECT_EQ(lines, expected);
    EXPECT_TRUE(lines[5].starts_with(" local_check_sum = 0x0000"));

    Lines progress = run.progress_lines();
    const auto at = [&](std::size_t index) { return progress[index]; };
    ASSERT_EQ(progress.size(), 5 + 1 + 76 + 1 + 2 + 2 + 2U);
    EXPECT_EQ(at(5), "[PROGRESS] 0.00%\r");
    EXPECT_EQ(at(6), "[PROGRESS] 1.61%\r");
    EXPECT_EQ(at(81), "[PROGRESS] 99.90%\r");
    EXPECT_EQ(at(82), "[PROGRESS] 100%\r");
    EXPECT_EQ(at(83), "[PROGRESS] 0.00%\r");
    EXPECT_EQ(at(84), "[SPEED] 0 Bytes/5000 Bytes    0 KBps");
    EXPECT_EQ(at(85), "[PROGRESS] 81.92%\r");
    EXPECT_EQ(at(87), "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(at(88).starts_with("[SPEED] 5000 Bytes/5000 Bytes    ")) << at(88);
    EXPECT_NE(run.output.find("KBps\n\n["), std::string::npos)
        << "a line end before the last block";
}

TEST(Ag3335Upgrade, WaitsTwoSecondsBeforeItClosesThePort) {
    Upgrade upgrade(new_agent_size);
    const ToolRun run = upgrade.run();
    const std::uint64_t last_byte = (run.trace.back().time - sim::VirtualPort::start) / 1000;
    EXPECT_NEAR(static_cast<double>(run.duration_ms - last_byte), 2010, 10);
}

TEST(Ag3335Upgrade, StartsAt115200WhateverTheRateGiven) {
    Upgrade upgrade(new_agent_size);
    upgrade.write_package();
    auto arguments = upgrade.arguments();
    arguments[5] = "460800";
    const ToolRun run(upgrade.module, arguments);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
    EXPECT_NE(run.output.find("Communition_Baud:460800\n"), std::string::npos);
}

TEST(Ag3335Upgrade, NewAgentAt115200KeepsThePortsSettings) {
    Upgrade upgrade(new_agent_size);
    const ToolRun run = upgrade.run({"-l", "115200"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
    EXPECT_TRUE(contains(run.sent, hex("05 5A 06 00 15 21 00 C2 01 00")));
}

TEST(Ag3335Upgrade, NewAgentIsToldTheRateLittleEndian) {
    Upgrade upgrade(new_agent_size);
    const ToolRun run = upgrade.run({"-l", "3000000"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(contains(run.sent, hex("05 5A 06 00 15 21 C0 C6 2D 00")));
    EXPECT_EQ(run.rates, (std::vector<unsigned>{115200, 3'000'000}));
}

// --- the pauses ----------------------------------------------------------------------------------

/// What the tool wrote in one go, by the pause in front of it.
struct Item {
    double pause_ms;  ///< since the item before
    std::size_t size;
};

std::vector<Item> items_of(const ToolRun& run) {
    std::vector<Item> items;
    double last_ms = 0;
    for (const auto& byte : run.trace) {
        if (byte.direction != sim::Direction::to_module) {
            continue;
        }
        const double now_ms = static_cast<double>(byte.time) / 1000;
        if (items.empty() || now_ms - last_ms >= 1) {
            items.push_back({now_ms - last_ms, 0});
        }
        ++items.back().size;
        last_ms = now_ms;
    }
    return items;
}

std::vector<std::size_t> sizes_of(const std::vector<Item>& items) {
    std::vector<std::size_t> sizes;
    for (const Item& item : items) {
        sizes.push_back(item.size);
    }
    return sizes;
}

void repeat(std::vector<std::size_t>& sizes, std::size_t count, std::size_t size) {
    sizes.insert(sizes.end(), count, size);
}

/// The items up to the jump for an agent of some whole chunks and a rest.
std::vector<std::size_t> opening_sizes(std::size_t agent_size) {
    std::vector<std::size_t> sizes{1, 1, 1, 1, 1, 4, 4, 2, 1, 4, 4, 4};
    repeat(sizes, agent_size / 1024, 1024);
    sizes.insert(sizes.end(), {agent_size % 1024, 1, 4});
    return sizes;
}

/// Items that are answered have a pause in front of the answer and one behind it.
void expect_pauses(const std::vector<Item>& items, std::size_t first, std::size_t end,
                   double least_ms) {
    for (std::size_t index = first; index < end; ++index) {
        EXPECT_GE(items.at(index).pause_ms, least_ms) << "item " << index;
    }
}

TEST(Ag3335Pauses, KeepTheItemsOfAnOldAgentApart) {
    Upgrade upgrade(old_agent_size);
    const std::vector<Item> items = items_of(upgrade.run());
    std::vector<std::size_t> expected = opening_sizes(old_agent_size);
    expected.insert(expected.end(), {1, 1, 1, 2, 2, 1, 1, 1, 1, 1, 1});  // the sync
    expected.insert(expected.end(), {2, 4, 4});                          // the format
    repeat(expected, 100, 1);
    expected.insert(expected.end(), {1, 4, 4, 4, 4096, 4, 4096, 4, 4, 1});  // the image
    EXPECT_EQ(sizes_of(items), expected);
    const std::size_t sync = 12 + 28 + 2;
    expect_pauses(items, 2, 12, 2);
    expect_pauses(items, sync, sync + 6, 2);
    EXPECT_GE(items.at(sync + 7).pause_ms, 200) << "the rate changes between two long pauses";
    expect_pauses(items, sync + 8, sync + 11, 2);
}

TEST(Ag3335Pauses, KeepTheFramesOfANewAgentApart) {
    // At 115200 the port is left alone, and no time is needed for it.
    for (const auto& [rate, pause_ms] : {std::pair{"115200", 100U}, {"921600", 200U}}) {
        Ag3335Module::Settings settings;
        settings.boot.new_agent.rate_settles = sim::milliseconds(pause_ms - 50);
        Upgrade upgrade(new_agent_size, settings);
        const std::vector<Item> items = items_of(upgrade.run({"-l", rate}));
        std::vector<std::size_t> expected = opening_sizes(new_agent_size);
        expected.insert(expected.end(), {10, 6, 6, 6});
        repeat(expected, 77, 18);
        repeat(expected, 2, 4112);
        EXPECT_EQ(sizes_of(items), expected);
        const std::size_t sync = 12 + 2 + 2;
        EXPECT_GE(items.at(sync + 1).pause_ms, pause_ms + 1);
        EXPECT_LT(items.at(sync + 1).pause_ms, pause_ms + 2);
        expect_pauses(items, sync + 2, sync + 5, 20);
        expect_pauses(items, sync + 5, sync + 81, 2);
        EXPECT_GE(items.at(sync + 81).pause_ms, 20) << "the last block of the erase settles";
    }
}

// --- agents --------------------------------------------------------------------------------------

struct AgentSize {
    std::size_t size;
    bool old;
};

class Ag3335AgentSizes : public ::testing::TestWithParam<AgentSize> {};

TEST_P(Ag3335AgentSizes, TellTheKindOfAgent) {
    Upgrade upgrade(GetParam().size);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    Bytes expected = opening_bytes();
    append(expected, agent_bytes(upgrade.agent, GetParam().old ? "04 20 40 00" : "04 00 00 00"));
    append(expected, GetParam().old ? hex("3F") : hex("05"));
    ASSERT_GT(run.sent.size(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), run.sent.begin()));
    EXPECT_EQ(upgrade.module.boot.loader().agent(), upgrade.agent);
    EXPECT_EQ(run.count(GetParam().old ? "Sync Da...\n" : "Sync New Da...\n"), 1U);
}

INSTANTIATE_TEST_SUITE_P(Ag3335, Ag3335AgentSizes,
                         ::testing::Values(AgentSize{27895, true}, AgentSize{28107, true},
                                           AgentSize{27894, false}, AgentSize{27896, false},
                                           AgentSize{28106, false}, AgentSize{28108, false},
                                           AgentSize{1, false}, AgentSize{1024, false},
                                           AgentSize{1025, false}, AgentSize{65536, false}));

TEST(Ag3335Agent, KindIsForgottenBetweenRuns) {
    Upgrade first(new_agent_size);
    EXPECT_EQ(first.run().result(), upgrade_success);
    Upgrade second(old_agent_size);
    EXPECT_EQ(second.run().result(), upgrade_success);
}

TEST(Ag3335Agent, TooLargeIsRefusedBeforeItIsAnnounced) {
    Upgrade upgrade(65537);
    const ToolRun run = upgrade.run();
    expect_failure(run, {"Da file size error, " + upgrade.folder.path("agent.da") +
                             " has 65537 bytes, at most 65536 fit",
                         "ag3335_upgrade send_Da_file error"});
    EXPECT_EQ(run.sent, opening_bytes());
}

TEST(Ag3335Agent, FolderCannotBeSent) {
    Upgrade upgrade(new_agent_size);
    upgrade.write_package();
    std::filesystem::create_directory(upgrade.folder.path("folder"));
    auto arguments = upgrade.arguments();
    arguments.back() = upgrade.folder.path("folder");
    const ToolRun run(upgrade.module, arguments);
    const std::string path = upgrade.folder.path("folder");
    // The loader refuses the length FFFFFFFF before the file is opened.
    expect_failure(run, {"Da file size error, check Da file path " + path,
                         "ag3335_send_Da_file serial_read brom_status 0000 fail",
                         "ag3335_upgrade send_Da_file error"});
    EXPECT_TRUE(contains(run.sent, hex("D7 04 20 40 00 FF FF FF FF 00 00 00 00")));

    // One that takes every length meets the file that does not open.
    Upgrade lenient(new_agent_size);
    lenient.answer(BootAnswer::agent_signature, hex("00 00 00 00 00 00"));
    const ToolRun second(lenient.module, arguments);
    expect_failure(second, {"Da file size error, check Da file path " + path,
                            "open " + path + " error(21) (Is a directory)",
                            "ag3335_upgrade send_Da_file error"});
    EXPECT_EQ(second.count(" will send Da file(" + path + ") to module\n"), 1U);
}

TEST(Ag3335Agent, DeviceWithoutAnEndCannotBeSent) {
    Upgrade upgrade(new_agent_size);
    upgrade.answer(BootAnswer::agent_signature, hex("00 00 00 00 00 00"));
    upgrade.write_package();
    auto arguments = upgrade.arguments();
    arguments.back() = "/dev/ptmx";
    const ToolRun run(upgrade.module, arguments);
    expect_failure(run, {"Da file size error, check Da file path /dev/ptmx",
                         "send Da file(-1) fail", "ag3335_upgrade send_Da_file error"});
}

TEST(Ag3335Agent, EmptyFileIsSentAsNothing) {
    Upgrade upgrade(0);
    upgrade.answer(BootAnswer::agent_signature, hex("00 00 00 00 00 00"));
    expect_failure(upgrade.run(), {"ag3335_send_Da_file serial_write last DA fail",
                                   "ag3335_upgrade send_Da_file error"});
}

/// A module during whose run a file becomes shorter.
class ShorteningModule : public Ag3335Module {
  public:
    /// `at` is the number of the byte, from 1, at whose arrival it happens.
    ShorteningModule(std::string path, std::size_t at) : path_(std::move(path)), at_(at) {}
    void receive(std::uint8_t byte, sim::Micros now, sim::Wire& wire) override {
        if (++heard_ == at_) {
            std::filesystem::resize_file(path_, 4096);
        }
        Ag3335Module::receive(byte, now, wire);
    }

  private:
    std::string path_;
    std::size_t at_;
    std::size_t heard_ = 0;
};

TEST(Ag3335Agent, FileThatBecomesShorterEndsTheRun) {
    const std::size_t announcement = opening_bytes().size() + 13;
    for (const auto& [size, line] : {std::pair{8000U, "read Da file(8000) fail"},
                                     std::pair{5000U, "read last Da file(5000) fail"}}) {
        Upgrade upgrade(size);
        upgrade.write_package();
        ShorteningModule module(upgrade.folder.path("agent.da"), announcement + 1);
        const ToolRun run(module, upgrade.arguments());
        expect_failure(run, {line, "ag3335_upgrade send_Da_file error"});
        EXPECT_EQ(run.sent.size(), announcement + 4096);
    }
}

// --- the options ---------------------------------------------------------------------------------

const std::string parameters_error =
    "Please input parameters correctly, such as ./orbix_flash -d directory -p /dev/ttyUSB0 -b "
    "115200 -f \"bootloader.bin,partition_table.bin,TR71KXMNR11A03S.bin,gnss_config.bin\" -s "
    "slave_da_UARTXXX.bin";

TEST(Ag3335Options, ComeInAnyOrder) {
    Upgrade upgrade(new_agent_size);
    upgrade.write_package();
    const ToolRun run(upgrade.module, {"-c",
                                       "x",
                                       "-f",
                                       "app.bin",
                                       "-l",
                                       "921600",
                                       "-d",
                                       upgrade.directory(),
                                       "-D",
                                       "-s",
                                       upgrade.folder.path("agent.da"),
                                       "-g",
                                       "flash_download.cfg",
                                       "-b",
                                       "9600",
                                       "-t",
                                       "x",
                                       "-p",
                                       "COM6",
                                       "-m",
                                       "TR71KXM"});
    EXPECT_EQ(run.result(), upgrade_success);
    Lines lines = run.family_lines();
    lines.erase(std::find(lines.begin(), lines.end(), handshake_line), lines.end());
    const Lines expected{
        " upgrade file:[app.bin]",
        " DownLoad_Baud:921600",
        " DownLoad_Dir:" + upgrade.directory(),
        " debug mode",
        " DA_Path:" + upgrade.folder.path("agent.da"),
        " flash download file: flash_download.cfg",
        " Communition_Baud:9600",
        " will use device: COM6",
        " format_length: 400000",
    };
    EXPECT_EQ(lines, expected);
    EXPECT_NE(run.output.find("[DEBUG] send to module -- < a0 \n"), std::string::npos);
    EXPECT_NE(run.output.find("[DEBUG] recv to module -- < 5F ,ret:1\n"), std::string::npos);
}

TEST(Ag3335Options, LetterThatIsNoOptionIsPassedOver) {
    Upgrade upgrade(new_agent_size);
    upgrade.dirty_flash();
    upgrade.write_package();
    Lines arguments = upgrade.arguments();
    arguments.insert(arguments.begin() + 2, {"-r", "x"});
    ::testing::internal::CaptureStderr();
    const ToolRun run(upgrade.module, arguments);
    EXPECT_NE(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(upgrade.flash_is(upgrade.expected_flash(0x3E0000)));
}

TEST(Ag3335Options, DirectoryPortAndRateAreNeeded) {
    Upgrade upgrade(new_agent_size);
    upgrade.write_package();
    for (const std::size_t missing : {2U, 4U, 6U}) {
        auto arguments = upgrade.arguments();
        arguments.erase(arguments.begin() + static_cast<std::ptrdiff_t>(missing),
                        arguments.begin() + static_cast<std::ptrdiff_t>(missing) + 2);
        const ToolRun run(upgrade.module, arguments);
        expect_failure(run, {parameters_error});
        EXPECT_EQ(run.opens, 0);
    }
    auto arguments = upgrade.arguments();
    arguments[5] = "fast";
    expect_failure(ToolRun(upgrade.module, arguments), {parameters_error});
}

TEST(Ag3335Options, PortNamesFollowTheirFirstCharacter) {
    Upgrade upgrade(new_agent_size);
    upgrade.write_package();
    const std::vector<std::pair<std::string, std::string>> names{
        {"COM7", "COM7"}, {"ttyS0", "/dev/ttyS0"}, {"USB0", "/dev/ttyUSB0"}, {"/x/y", "/x/y"}};
    for (const auto& [given, device] : names) {
        auto arguments = upgrade.arguments();
        arguments[3] = given;
        const ToolRun run(upgrade.module, arguments);
        expect_failure(run, {"Error opening " + device + ": No such file or directory"});
        EXPECT_NE(run.output.find(" will use device: " + device + "\n"), std::string::npos);
    }
    auto arguments = upgrade.arguments();
    arguments[3] = "xyz";
    const ToolRun run(upgrade.module, arguments);
    expect_failure(run, {"unknow dev xyz"});
    EXPECT_EQ(run.family_lines(),
              (Lines{" format_length: 3e0000", "[ERROR] unknow dev xyz", failed}));
}

TEST(Ag3335Options, WhatCannotBeReadFailsBeforeThePortIsOpened) {
    Upgrade upgrade(new_agent_size);
    upgrade.write_package();
    auto arguments = upgrade.arguments();
    arguments[7] = upgrade.folder.path("none");
    arguments[9] = upgrade.folder.path("nothing");
    const ToolRun no_folder(upgrade.module, arguments);
    expect_failure(no_folder, {"fail to access " + upgrade.folder.path("none") +
                               ", errno: 2 (No such file or directory)"});
    EXPECT_EQ(no_folder.opens, 0);

    arguments[7] = upgrade.directory();
    expect_failure(ToolRun(upgrade.module, arguments),
                   {"fail to access " + upgrade.folder.path("nothing") +
                    ", errno: 2 (No such file or directory)"});

    arguments.resize(8);
    expect_failure(ToolRun(upgrade.module, arguments),
                   {"fail to access , errno: 2 (No such file or directory)"});
}

TEST(Ag3335Options, PortThatCannotBeOpened) {
    Upgrade upgrade(new_agent_size);
    Conditions conditions;
    conditions.port.open_error = EBUSY;
    const ToolRun run = upgrade.run({}, conditions);
    expect_failure(run, {std::string("Error opening COM6: ") + std::strerror(EBUSY)});
    EXPECT_EQ(run.closes, 0);
}

TEST(Ag3335Options, LongTextsAreCut) {
    Upgrade upgrade(new_agent_size);
    upgrade.write_package();
    const std::string longest(5000, 'n');
    auto arguments = upgrade.arguments({"-f", longest + ",b", "-g", longest, "-t", longest});
    arguments[7] = "/" + longest;
    const ToolRun run(upgrade.module, arguments);
    const std::string directory = "/" + longest.substr(0, 254);
    EXPECT_NE(run.output.find(" upgrade file:[" + longest.substr(0, 63) + "]\n"),
              std::string::npos);
    EXPECT_NE(run.output.find(" flash download file: " + longest.substr(0, 255) + "\n"),
              std::string::npos);
    expect_failure(run, {"fail to access " + directory + ", errno: 2 (No such file or directory)"});
}

TEST(Ag3335Options, ListOfImagesHasTwelveNames) {
    Upgrade upgrade(new_agent_size);
    const ToolRun run = upgrade.run({"-f", ",1,2,,3,4,5,6,7,8,9,10,11,12,app.bin,"});
    EXPECT_EQ(run.result(), upgrade_success);
    Lines names;
    for (const std::string& line : run.family_lines()) {
        if (line.starts_with(" upgrade file:")) {
            names.push_back(line);
        }
    }
    ASSERT_EQ(names.size(), 12U);
    EXPECT_EQ(names.front(), " upgrade file:[1]");
    EXPECT_EQ(names.back(), " upgrade file:[12]");
    EXPECT_EQ(run.count("will send app.bin"), 0U) << "the 13th name does not count";
}

// --- how much is erased --------------------------------------------------------------------------

struct FormatLength {
    std::string model;
    std::string folder;
    bool type_given;
    std::uint32_t by_old_agent;
    std::uint32_t by_new_agent;
};

class Ag3335FormatLength : public ::testing::TestWithParam<FormatLength> {};

TEST_P(Ag3335FormatLength, FollowsModelFolderAndOption) {
    const FormatLength& expected = GetParam();
    const Lines more = expected.type_given ? Lines{"-t", "0"} : Lines{};
    for (const bool old : {true, false}) {
        Upgrade upgrade(old ? old_agent_size : new_agent_size);
        upgrade.images.clear();
        upgrade.dirty_flash();
        upgrade.model = expected.model;
        const std::string package = upgrade.folder.path(expected.folder);
        std::filesystem::create_directory(package);
        upgrade.write_package();
        upgrade.folder.write(expected.folder + "/flash_download.cfg", "nothing\n");
        auto arguments = upgrade.arguments(more);
        arguments[7] = package;
        const ToolRun run(upgrade.module, arguments);
        EXPECT_EQ(run.result(), upgrade_success);
        const std::uint32_t length = old ? expected.by_old_agent : expected.by_new_agent;
        EXPECT_TRUE(upgrade.flash_is(upgrade.expected_flash(length)));
        if (old) {
            Bytes command = hex("D4 00 08 00 00 00");
            append(command, be32(length));
            EXPECT_TRUE(contains(run.sent, command));
        } else {
            EXPECT_TRUE(contains(run.sent, erase_bytes(length)));
        }
        std::array<char, 32> line{};
        std::snprintf(line.data(), line.size(), " format_length: %02x", expected.by_new_agent);
        EXPECT_EQ(run.family_lines()[0], line.data()) << "what the model says";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Ag3335, Ag3335FormatLength,
    ::testing::Values(FormatLength{"TR40XBA", "fw", false, 0x3E0000, 0x3E0000},
                      FormatLength{"TR71KXM", "fw", false, 0x3E0000, 0x400000},
                      FormatLength{"TR71LXM", "TR41XBA_v1", false, 0x400000, 0x400000},
                      FormatLength{"TR71LXM", "TR41XBA_CSA", false, 0x3E0000, 0x400000},
                      FormatLength{"TR71KXM", "TR40XBB", false, 0x400000, 0x400000},
                      FormatLength{"TR71KXM", "TR42XBA", false, 0x400000, 0x400000},
                      FormatLength{"TR71KXM", "TR45XBA", false, 0x400000, 0x400000},
                      FormatLength{"TR71KXM", "xTR50XBAx", false, 0x400000, 0x400000},
                      FormatLength{"TR71KXM", "TR50XDA", false, 0x3E0000, 0x400000},
                      FormatLength{"TR50XBA", "TR50XBA", false, 0x3E0000, 0x3E0000},
                      FormatLength{"TR71KXM", "TR50XBA", true, 0x3EF000, 0x400000},
                      FormatLength{"TR40XBA", "fw", true, 0x3EF000, 0x3E0000}));

TEST(Ag3335Format, NewAgentGets77Frames) {
    Upgrade upgrade(new_agent_size);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(upgrade.module.boot.voice.count(BootAnswer::erase_block), 77U);
    EXPECT_EQ(count_of(run.sent, hex("05 5A 0E 00 04 21")), 77U);
    EXPECT_EQ(erase_bytes(0x3E0000).size(), 77U * 18);
}

// --- the handshake -------------------------------------------------------------------------------

TEST(Ag3335Handshake, GivesUpAfter499Tries) {
    Upgrade upgrade(new_agent_size);
    upgrade.write_package();
    SilentModule silent;
    const ToolRun run(silent, upgrade.arguments());
    expect_failure(run,
                   {"ag3335_handshake Hand Shake Timeout:0", "ag3335_upgrade handshake error"});
    EXPECT_EQ(run.sent, Bytes(499, 0xA0));
    EXPECT_NEAR(static_cast<double>(run.duration_ms), 499 * 80.0, 100);
}

/// A module of which only its chatter is heard.
class ChattyModule : public SilentModule {
  public:
    explicit ChattyModule(std::string chatter) : chatter_(std::move(chatter)) {}
    void receive(std::uint8_t /*byte*/, sim::Micros /*now*/, sim::Wire& wire) override {
        wire.send(chatter_);
    }

  private:
    std::string chatter_;
};

TEST(Ag3335Handshake, HintTellsWhatWasHeard) {
    Upgrade upgrade(new_agent_size);
    upgrade.write_package();
    const auto hint = [&upgrade](sim::Model& module) {
        ::testing::internal::CaptureStderr();
        const ToolRun run(module, upgrade.arguments());
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.count("hint"), 0U) << "standard output has no hints";
        return ::testing::internal::GetCapturedStderr();
    };
    SilentModule silent;
    EXPECT_TRUE(hint(silent).starts_with("hint: nothing arrived; "));
    ChattyModule running("$GNGGA");
    EXPECT_TRUE(hint(running).starts_with("hint: the module sends text (\"$"));
    ChattyModule noisy("\xE3\x80");
    EXPECT_NE(hint(noisy).find("as if at another rate"), std::string::npos);
}

TEST(Ag3335Handshake, WaitsForTheResetButton) {
    Ag3335Module::Settings settings;
    settings.reset_pressed_after = sim::milliseconds(30'000);
    Upgrade upgrade(new_agent_size, settings);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_GT(count_of(run.sent, hex("A0")), 370U);
}

TEST(Ag3335Handshake, OtherBytesAreIgnoredInThePoll) {
    Upgrade upgrade(new_agent_size);
    unsigned asked = 0;
    upgrade.module.boot.voice.tamper = [&](BootAnswer which, unsigned number, Bytes& bytes) {
        asked += which == BootAnswer::start_a0 ? 1 : 0;
        if (which == BootAnswer::start_a0 && number < 5) {
            bytes = {static_cast<std::uint8_t>(0x58 + number)};
        }
    };
    // The simulated loader takes a wrong answer of its own for one that was given.
    EXPECT_EQ(upgrade.run().result(), upgrade_success);
    EXPECT_EQ(asked, 6U);
}

TEST(Ag3335Handshake, ProbeThatCannotBeWrittenIsTriedAgain) {
    Upgrade upgrade(new_agent_size);
    Conditions conditions;
    conditions.port.failing_write = 0;
    EXPECT_EQ(upgrade.run({}, conditions).result(), upgrade_success);
}

// --- answers that are wrong, and writes that fail ------------------------------------------------

/// An answer that is changed, at which occurrence, and the ERROR lines that follow.
struct WrongAnswer {
    BootAnswer which;
    std::string instead;
    Lines lines;
    int time = -1;
};

void expect_answers(std::size_t agent_size, const std::vector<WrongAnswer>& cases) {
    for (const WrongAnswer& wrong : cases) {
        SCOPED_TRACE(static_cast<int>(wrong.which));
        SCOPED_TRACE(wrong.instead);
        Upgrade upgrade(agent_size);
        upgrade.answer(wrong.which, hex(wrong.instead), wrong.time);
        expect_failure(upgrade.run(), wrong.lines);
    }
}

/// A write, counted from 0, that sends nothing, and the ERROR lines that follow.
struct FailedWrite {
    int number;
    Lines lines;
};

void expect_failed_writes(std::size_t agent_size, const std::vector<FailedWrite>& cases) {
    for (const FailedWrite& write : cases) {
        SCOPED_TRACE(write.number);
        Upgrade upgrade(agent_size);
        Conditions conditions;
        conditions.port.failing_write = write.number;
        expect_failure(upgrade.run({}, conditions), write.lines);
    }
}

Lines step_failed(const std::string& step, const std::string& driver_text) {
    return {step, "ag3335_upgrade " + driver_text};
}

Lines silently_failed(const std::string& driver_text) {
    return {"ag3335_upgrade " + driver_text};
}

TEST(Ag3335Handshake, FailuresAndTheirLines) {
    const auto lines = [](const std::string& text) {
        return step_failed("ag3335_handshake " + text, "handshake error");
    };
    const std::vector<WrongAnswer> answers{
        {BootAnswer::start_0a, "5F", lines("serial_read 0x5F fail")},
        {BootAnswer::start_0a, "", lines("serial_read 0x5F fail")},
        {BootAnswer::start_50, "FA", lines("serial_read 0xAF fail")},
        {BootAnswer::start_50, "", lines("serial_read 0xAF fail")},
        {BootAnswer::start_05, "AF", lines("serial_read 0xAF fail")},
        {BootAnswer::start_05, "", lines("serial_read 0xAF fail")},
    };
    expect_answers(new_agent_size, answers);
    const std::vector<FailedWrite> writes_that_fail{
        {1, lines("serial_write 0x0A fail")},
        {2, lines("serial_write 0x50 fail")},
        {3, lines("serial_write 0x05 fail")},
    };
    expect_failed_writes(new_agent_size, writes_that_fail);
}

TEST(Ag3335Watchdog, FailuresAndTheirLines) {
    const auto lines = [](const std::string& text) {
        return step_failed("ag3335_disable_module_WDT " + text, "disable_module_WDT error");
    };
    const Lines silent = silently_failed("disable_module_WDT error");
    const Lines status = lines("serial_read brom_status 0100 fail");
    const std::vector<WrongAnswer> answers{
        {BootAnswer::write_command, "D3", lines("serial_read 0xD2 fail")},
        {BootAnswer::write_command, "", lines("serial_read 0xD2 fail")},
        {BootAnswer::write_address, "A2 08 00 01", lines("serial_read 0xA2080000 fail")},
        {BootAnswer::write_address, "A2 08 00", lines("serial_read 0xA2080000 fail")},
        {BootAnswer::write_count, "00 00 00 02 00 01", lines("serial_read 0x00000001 fail")},
        {BootAnswer::write_count, "00 00 00 02 00 00", lines("serial_read 0x00000001 fail")},
        {BootAnswer::write_count, "00 00 00 01 00 00", status},
        {BootAnswer::write_count, "00 00 00 01 01 00", status},
        {BootAnswer::write_count, "00 00 00 01 00", silent},
        {BootAnswer::write_count, "", silent},
        {BootAnswer::write_value, "00 11 00 01", lines("serial_read 0x0010 fail")},
        {BootAnswer::write_value, "00 10 00 00", status},
        {BootAnswer::write_value, "00 10 00", silent},
        {BootAnswer::write_value, "", silent},
    };
    expect_answers(new_agent_size, answers);
    const std::vector<FailedWrite> writes_that_fail{
        {4, lines("serial_write 0xD2 fail")},
        {5, lines("serial_write 0xD2 fail")},
        {6, lines("serial_write 0x00000001 fail")},
        {7, lines("serial_write 0x0010 fail")},
    };
    expect_failed_writes(new_agent_size, writes_that_fail);
}

TEST(Ag3335Agent, SendFailuresAndTheirLines) {
    const auto lines = [](const std::string& text) {
        return step_failed("ag3335_send_Da_file " + text, "send_Da_file error");
    };
    const Lines silent = silently_failed("send_Da_file error");
    const Lines status = lines("serial_read brom_status 0000 fail");
    Upgrade probe(new_agent_size);
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    for (std::size_t at = 0; at < probe.agent.size(); ++at) {
        (at % 2 == 0 ? low : high) ^= probe.agent[at];
    }
    Bytes right_sum;
    append_big_endian(right_sum, high * 256 + low, 2);
    std::array<char, 128> mismatch{};
    std::snprintf(mismatch.data(), mismatch.size(),
                  "local_check_sum = 0x%08x != read_check_sum 0x%08x check sum fail",
                  high * 256 + low, high * 256 + (low ^ 1));
    Bytes wrong_sum = right_sum;
    wrong_sum[1] ^= 1;
    // The address lines name the old agent's address, whichever is in use.
    const std::vector<WrongAnswer> answers{
        {BootAnswer::agent_command, "D5", lines("serial_read 0xD7 fail")},
        {BootAnswer::agent_command, "", lines("serial_read 0xD7 fail")},
        {BootAnswer::agent_address, "04 20 40 00", lines("serial_read 0x04204000 fail")},
        {BootAnswer::agent_address, "04", lines("serial_read 0x04204000 fail")},
        {BootAnswer::agent_length, "00 00 05 DD", lines("serial_read 000005dc fail")},
        {BootAnswer::agent_length, "", lines("serial_read 000005dc fail")},
        {BootAnswer::agent_signature, "00 00 00 01 00 00", lines("serial_read 0x00000000 fail")},
        {BootAnswer::agent_signature, "00 00 00 00 00 01", status},
        {BootAnswer::agent_signature, "00 00 00 00 00", silent},
        {BootAnswer::agent_signature, "", silent},
        {BootAnswer::agent_checksum, as_hex(wrong_sum) + " 00 00",
         step_failed(mismatch.data(), "send_Da_file error")},
        {BootAnswer::agent_checksum, as_hex(right_sum) + " 10 00", status},
        {BootAnswer::agent_checksum, as_hex(right_sum) + " 00", silent},
        {BootAnswer::agent_checksum, "00", silent},
        {BootAnswer::agent_checksum, "", lines("serial_read check sum fail")},
    };
    expect_answers(new_agent_size, answers);
    const std::vector<FailedWrite> writes_that_fail{
        {8, lines("serial_write 0xD7 fail")},      {9, lines("serial_write 0x04204000 fail")},
        {10, lines("serial_write 000005dc fail")}, {11, lines("serial_write 0x00000000 fail")},
        {12, lines("serial_write DA fail")},       {13, lines("serial_write last DA fail")},
    };
    expect_failed_writes(new_agent_size, writes_that_fail);
}

TEST(Ag3335Agent, JumpFailuresAndTheirLines) {
    const auto lines = [](const std::string& text) {
        return step_failed("ag3335_jump_to_Da " + text, "jump_to_Da error");
    };
    const Lines status = lines("serial_read brom_status 0000 fail");
    const std::vector<WrongAnswer> answers{
        {BootAnswer::jump_command, "D7", lines("serial_read 0xD5 fail")},
        {BootAnswer::jump_command, "", lines("serial_read 0xD5 fail")},
        {BootAnswer::jump_address, "04 00 00 01",
         lines("serial_read Da_run_state_addr 04000000 fail")},
        {BootAnswer::jump_status, "10 00", status},
        {BootAnswer::jump_status, "", status},
    };
    expect_answers(new_agent_size, answers);
    const std::vector<WrongAnswer> old_answers{
        {BootAnswer::jump_address, "04 00 00 00",
         lines("serial_read Da_run_state_addr 04204000 fail")},
        {BootAnswer::first_word, "C1", lines("serial_read 0xC0 fail")},
        {BootAnswer::first_word, "", lines("serial_read 0xC0 fail")},
    };
    expect_answers(old_agent_size, old_answers);
    const std::vector<FailedWrite> writes_that_fail{
        {14, lines("serial_write 0xD5 fail")},
        {15, lines("serial_write Da_run_state_addr fail")},
    };
    expect_failed_writes(new_agent_size, writes_that_fail);
}

/// The writes of a run with an old agent of 27895 bytes: 12 before the agent's 28 pieces, 2 jump.
constexpr int old_sync_begins = 12 + 28 + 2;
constexpr int old_format_begins = old_sync_begins + 11;
constexpr int old_images_begin = old_format_begins + 3 + 98 + 2;

/// The writes of a run with a new agent of 1500 bytes: 12, 2 pieces, 2 jump.
constexpr int new_sync_begins = 12 + 2 + 2;
constexpr int new_format_begins = new_sync_begins + 4;
constexpr int new_images_begin = new_format_begins + 77;

TEST(Ag3335OldSync, FailuresAndTheirLines) {
    const auto lines = [](const std::string& text) {
        return step_failed("ag3335_sync_with_Da " + text, "sync_with_Da error");
    };
    const Lines silent = silently_failed("sync_with_Da error");
    const auto report = [](const std::string& mount, const std::string& base,
                           const std::string& size, const std::string& end) {
        return "00 C8 00 60 00 16 " + mount + " " + base + " " + size + " " + end;
    };
    const std::string mounted = "00 00 00 00";
    const std::string base = "08 00 00 00";
    const std::string size = "00 40 00 00";
    const std::vector<WrongAnswer> answers{
        {BootAnswer::sync_3f, "0D", lines("serial_read 0x0C fail")},
        {BootAnswer::sync_3f, "", lines("serial_read 0x0C fail")},
        {BootAnswer::sync_f3, "F3", lines("serial_read 0x3F fail")},
        {BootAnswer::sync_c0, "C0", lines("serial_read 0xF3 fail")},
        {BootAnswer::sync_0c00, "5A 69 68", lines("serial_read 0x5A6969 fail")},
        {BootAnswer::sync_0c00, "5A 69", lines("serial_read 0x5A6969 fail")},
        {BootAnswer::sync_5a00, "5A", lines("serial_read 0x69 fail")},
        {BootAnswer::sync_5a, "5A", lines("serial_read 0x69 fail")},
        {BootAnswer::rate_probe, "C1", lines("serial_read 0xC0 fail")},
        {BootAnswer::sync_end, "69 5A", lines("serial_read 0x5A69 fail")},
        {BootAnswer::sync_end, "5A", lines("serial_read 0x5A69 fail")},
        {BootAnswer::flash_report, report("00 00 00 01", base, size, "5A"),
         lines("serial_read flash_mount_status 0000 fail")},
        {BootAnswer::flash_report, report("01 00 00 00", "00 00 00 00", "00 00 00 00", "00"),
         lines("serial_read flash_mount_status 0000 fail")},
        {BootAnswer::flash_report, report(mounted, "00 00 00 08", "00 00 00 00", "00"),
         lines("serial_read flash_base_addr 8000000 fail")},
        {BootAnswer::flash_report, report(mounted, base, "00 20 00 00", "00"),
         lines("serial_read flash_size 400000 fail")},
        {BootAnswer::flash_report, report(mounted, base, size, "5B"),
         lines("serial_read 0x5A fail")},
        {BootAnswer::flash_report, report(mounted, base, size, ""), silent},
        {BootAnswer::flash_report, "", silent},
    };
    expect_answers(old_agent_size, answers);
    const int first = old_sync_begins;
    const std::vector<FailedWrite> writes_that_fail{
        {first, lines("serial_write 0x3F fail")},
        {first + 1, lines("serial_write 0xF3 fail")},
        {first + 2, lines("serial_write 0xC0 fail")},
        {first + 3, lines("serial_write 0x0C00 fail")},
        {first + 4, lines("serial_write 0x5A00 fail")},
        {first + 5, lines("serial_write 0x5A fail")},
        {first + 6, lines("serial_write 0x5A fail")},
        {first + 7, lines("serial_write 0xC0 fail")},
        {first + 8, lines("serial_write 0x5A fail")},
        {first + 9, lines("serial_write 0x5A fail")},
        {first + 10, lines("serial_write 0x5A fail")},
    };
    expect_failed_writes(old_agent_size, writes_that_fail);
}

TEST(Ag3335OldSync, AgentThatIgnoresTheRateProbesIsAsked20Times) {
    Upgrade upgrade(old_agent_size);
    upgrade.answer(BootAnswer::rate_probe, {});
    const ToolRun run = upgrade.run();
    EXPECT_EQ(upgrade.module.boot.voice.count(BootAnswer::rate_probe), 20U);
    EXPECT_EQ(run.result(), upgrade_success) << "the sync goes on regardless";
    Upgrade quick(old_agent_size);
    const auto longer = run.duration_ms - quick.run().duration_ms;
    EXPECT_NEAR(static_cast<double>(longer), 20 * 502, 20);
}

TEST(Ag3335OldSync, LateAnswerToAProbeIsEnough) {
    Upgrade upgrade(old_agent_size);
    upgrade.module.boot.voice.tamper = [](BootAnswer which, unsigned number, Bytes& bytes) {
        if (which == BootAnswer::rate_probe && number < 19) {
            bytes.clear();
        }
    };
    EXPECT_EQ(upgrade.run().result(), upgrade_success);
    EXPECT_EQ(upgrade.module.boot.voice.count(BootAnswer::rate_probe), 20U);
}

TEST(Ag3335OldSync, WrongDownloadRateFails) {
    Ag3335Module::Settings settings;
    settings.boot.old_agent.rates = {460800};
    Upgrade upgrade(old_agent_size, settings);
    const ToolRun run = upgrade.run({"-l", "921600"});
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_FALSE(run.hit_time_limit);
}

TEST(Ag3335NewSync, FailuresAndTheirLines) {
    const auto lines = [](const std::string& text) {
        return step_failed(text, "sync_with_New_Da error");
    };
    const auto writes = [&lines](const std::string& command) {
        return lines("ag3335_sync_with_New_Da serial_write cmd " + command + " fail");
    };
    const Lines rate = lines("Sync New Da Baud set fail");
    const Lines address = lines("Sync New Da Get Flash Addr fail");
    const Lines size = lines("Sync New Da Get Flash Size fail");
    const Lines identifier = lines("Sync New Da Get Flash ID fail");
    const std::vector<WrongAnswer> answers{
        {BootAnswer::set_rate, "05 5A 03 00 15 21 01", rate},
        {BootAnswer::set_rate, "05 5A 03 00 15 21", rate},
        {BootAnswer::set_rate, "", rate},
        {BootAnswer::flash_address, "05 5A 07 00 0E 21 02 00 00 00 08", address},
        {BootAnswer::flash_address, "", address},
        {BootAnswer::flash_size, "05 5A 07 00 0F 21 FF 00 00 40 00", size},
        {BootAnswer::flash_size, "", size},
        {BootAnswer::flash_id, "05 5A 06 00 10 21 01 C8 60 16", identifier},
        {BootAnswer::flash_id, "", identifier},
    };
    expect_answers(new_agent_size, answers);
    const std::vector<FailedWrite> writes_that_fail{
        {new_sync_begins, writes("0x2115")},
        {new_sync_begins + 1, writes("0x210E")},
        {new_sync_begins + 2, writes("0x210F")},
        {new_sync_begins + 3, writes("0x2110")},
    };
    expect_failed_writes(new_agent_size, writes_that_fail);
}

// --- the format ----------------------------------------------------------------------------------

TEST(Ag3335OldFormat, FailuresAndTheirLines) {
    const auto lines = [](const std::string& text) {
        return step_failed(text, "format_module_flash error");
    };
    const auto named = [&lines](const std::string& text) {
        return lines("format_module_flash " + text);
    };
    const int first = old_format_begins;
    const std::vector<WrongAnswer> answers{
        {BootAnswer::format_accepted, "A5 A5", lines("Format flash fail----a5a5")},
        {BootAnswer::format_accepted, "5A", lines("Format flash fail----5a00")},
        {BootAnswer::format_accepted, "", lines("Format flash fail----0000")},
        {BootAnswer::format_progress, "00 00 0B CD", lines("format fail:"), 0},
        {BootAnswer::format_progress, "00 00 0B CE 01", lines("Read BCD-Error"), 0},
        {BootAnswer::format_progress, "00 00 0B CD 02", lines("Read format progress-Error"), 0},
        {BootAnswer::format_closed, "A5", named("serial_read 0x5a fail:")},
        {BootAnswer::format_closed, "", named("serial_read 0x5a fail:")},
    };
    expect_answers(old_agent_size, answers);
    const std::vector<FailedWrite> writes_that_fail{
        {first, named("serial_write 0xD400 fail")},
        {first + 1, named("serial_write format_physical_address fail")},
        {first + 2, named("serial_write format_length fail")},
        {first + 3, named("serial_write 0x5A fail")},
        {first + 3 + 97, named("serial_write 0x5A fail")},
        {first + 3 + 98, lines("format Send last 0x5a fail:")},
        {first + 3 + 99, named("serial_read 0x5a fail:")},
    };
    expect_failed_writes(old_agent_size, writes_that_fail);
}

TEST(Ag3335OldFormat, ReportsThatAreWrongEndItWithoutALineEnd) {
    const std::vector<std::tuple<int, std::string, std::string>> cases{
        {1, "00 00 0B CE 02", "[ERROR] format:0bce --- value2:0bcd["},
        {1, "00 00 0B CD 03", "[ERROR] format:3 --- value2:2["},
        {98, "00 00 0B CD 62", "[ERROR] format:98 --- value2:99["},
        {99, "00 00 0B CD 64", "[ERROR] format:0bcd --- value:0000["},
        {99, "00 00 00 00 63", "[ERROR] format:99 --- value:100["},
    };
    for (const auto& [time, instead, text] : cases) {
        SCOPED_TRACE(text);
        Upgrade upgrade(old_agent_size);
        upgrade.answer(BootAnswer::format_progress, hex(instead), time);
        const ToolRun run = upgrade.run();
        EXPECT_EQ(run.count(text), 1U);
        EXPECT_EQ(run.count("][ERROR] ag3335_upgrade format_module_flash error\n"), 1U);
        EXPECT_EQ(run.result(), upgrade_failure(-1));
    }
}

TEST(Ag3335OldFormat, ShortReportCountsAsGiven) {
    Upgrade upgrade(old_agent_size);
    upgrade.answer(BootAnswer::format_progress, hex("12 34 56"), 50);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("[PROGRESS] 51.00%\r\n"), 1U);
}

TEST(Ag3335OldFormat, SilentAgentIsAskedAgainForTheSamePerCent) {
    Upgrade upgrade(old_agent_size);
    upgrade.module.boot.voice.tamper = [](BootAnswer which, unsigned number, Bytes& bytes) {
        if (which == BootAnswer::format_progress && number > 40 && number <= 240) {
            bytes.clear();
        }
    };
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("[PROGRESS] 42.00%\r\n"), 1U);
    EXPECT_EQ(upgrade.module.boot.voice.count(BootAnswer::format_progress), 300U);
    Upgrade quick(old_agent_size);
    const auto longer = run.duration_ms - quick.run().duration_ms;
    EXPECT_NEAR(static_cast<double>(longer), 200 * 1002, 100);
}

TEST(Ag3335OldFormat, EndlessSilenceEndsOnceTheDeviceIsGone) {
    Upgrade upgrade(old_agent_size);
    upgrade.module.boot.voice.tamper = [](BootAnswer which, unsigned number, Bytes& bytes) {
        if (which == BootAnswer::format_progress && number > 40) {
            bytes.clear();
        }
    };
    const ToolRun run = upgrade.run({}, unplugged_after_ms(600'000));
    expect_failure(run, step_failed("format_module_flash serial_write 0x5A fail",
                                    "format_module_flash error"));
    EXPECT_GT(run.duration_ms, 599'000U);
    EXPECT_LT(run.duration_ms, 602'000U);
}

TEST(Ag3335OldFormat, EndThatIsNotReportedIsAskedFor11Times) {
    Upgrade upgrade(old_agent_size);
    upgrade.module.boot.voice.tamper = [](BootAnswer which, unsigned number, Bytes& bytes) {
        if (which == BootAnswer::format_progress && number >= 99) {
            bytes.clear();
        }
    };
    const ToolRun run = upgrade.run();
    // The twelfth 0x5A is the closing one, which this agent takes for one more question.
    EXPECT_EQ(upgrade.module.boot.voice.count(BootAnswer::format_progress), 99U + 11 + 1);
    EXPECT_EQ(run.count("[PROGRESS] 100%\r\n"), 1U);
    const std::vector<Item> items = items_of(run);
    for (std::size_t index = items.size() - 11; index < items.size(); ++index) {
        EXPECT_NEAR(items[index].pause_ms, 502, 1.5) << "half a second for each answer";
    }
    expect_failure(run, step_failed("format_module_flash serial_read 0x5a fail:",
                                    "format_module_flash error"));
}

TEST(Ag3335OldFormat, ShortReportOfTheEndIsEnough) {
    Upgrade upgrade(old_agent_size);
    upgrade.answer(BootAnswer::format_progress, hex("00 00"), 99);
    EXPECT_EQ(upgrade.run().result(), upgrade_success);
}

TEST(Ag3335NewFormat, FailuresAndTheirLines) {
    const auto lines = [](const std::string& text) {
        return step_failed("format_module_flash_New_Da " + text,
                           "format_module_flash_new_Da error");
    };
    const std::string refusal = "05 5A 07 00 04 21 1F 00 00 00 08";
    const std::vector<WrongAnswer> answers{
        {BootAnswer::erase_block, refusal, lines("serial_read 0x2104 fail 1f:"), 0},
        {BootAnswer::erase_block, refusal, lines("serial_read 0x2104 fail 1f:"), 60},
        {BootAnswer::erase_block, refusal, lines("serial_read 0x2104 fail 1f -- 4k"), 61},
        {BootAnswer::erase_block, refusal, lines("serial_read 0x2104 fail 1f -- 4k"), 75},
        {BootAnswer::erase_block, refusal, lines("serial_read 0x2104 fail 1f -- 4k"), 76},
        {BootAnswer::erase_block, "", lines("serial_read 0x2104 fail ff:"), 0},
        {BootAnswer::erase_block, "", lines("serial_read 0x2104 fail ff -- 4k"), 76},
    };
    expect_answers(new_agent_size, answers);
    const int first = new_format_begins;
    const std::vector<FailedWrite> writes_that_fail{
        {first, lines("serial_write cmd 0x2104 fail")},
        {first + 60, lines("serial_write cmd 0x2104 fail")},
        {first + 61, lines("serial_write cmd 0x2104 fail -- 4k")},
        {first + 76, lines("serial_write cmd 0x2104 fail -- 4k")},
    };
    expect_failed_writes(new_agent_size, writes_that_fail);
}

// --- the write -----------------------------------------------------------------------------------

TEST(Ag3335OldWrite, FailuresAndTheirLines) {
    const auto lines = [](const std::string& text) {
        return step_failed("send_fw_file " + text, "send_fw_file error");
    };
    const Lines silent = silently_failed("send_fw_file error");
    const std::vector<WrongAnswer> answers{
        {BootAnswer::image_accepted, "A5 A5", lines("serial_read 0x5A fail")},
        {BootAnswer::image_accepted, "5A A5", lines("serial_read 0x5A fail")},
        {BootAnswer::image_accepted, "5A", silent},
        {BootAnswer::image_accepted, "", silent},
        {BootAnswer::packet_written, "A5", lines("serial_read 0x69 fail")},
        {BootAnswer::packet_written, "", lines("serial_read 0x69 fail")},
        {BootAnswer::last_packet, "5A 69", lines("serial_read 0x69 fail")},
        {BootAnswer::last_packet, "69 69", lines("serial_read 0x5A fail")},
        {BootAnswer::last_packet, "69", silent},
        {BootAnswer::last_packet, "", silent},
        {BootAnswer::image_sum, "A5", lines("serial_read 0x5A fail")},
        {BootAnswer::image_sum, "", lines("serial_read 0x5A fail")},
        {BootAnswer::image_closed, "A5", lines("serial_read 0x5A fail")},
        {BootAnswer::image_closed, "", lines("serial_read 0x5A fail")},
    };
    expect_answers(old_agent_size, answers);
    const int first = old_images_begin;
    const std::vector<FailedWrite> writes_that_fail{
        {first, lines("serial_write cmd 0xB2 fail")},
        {first + 1, lines("serial_write fw_flash_address fail")},
        {first + 2, lines("serial_write fw_total_length fail")},
        {first + 3, lines("serial_write fw_packet_length fail")},
        {first + 4, lines("serial_write firmware fail")},
        {first + 5, lines("serial_write packet_checksum fail")},
        {first + 6, lines("serial_write firmware fail")},
        {first + 7, lines("serial_write packet_checksum fail")},
        {first + 8, lines("serial_write total_fw_checksum fail")},
        {first + 9, lines("serial_write 0xa5 fail")},
    };
    expect_failed_writes(old_agent_size, writes_that_fail);
}

TEST(Ag3335OldWrite, FlashThatDoesNotTakeAPacketEndsTheWrite) {
    Upgrade upgrade(old_agent_size);
    upgrade.images = {{"a.bin", flash_base, random_image(100)},
                      {"b.bin", flash_base + 0x1000, random_image(12'288, 2)}};
    upgrade.module.boot.voice.flash_fails = [](BootAnswer which, unsigned number) {
        return which == BootAnswer::packet_written && number == 1;
    };
    const ToolRun run = upgrade.run();
    expect_failure(run, step_failed("send_fw_file serial_read 0x69 fail", "send_fw_file error"));
    EXPECT_TRUE(upgrade.module.flash().holds(flash_base, upgrade.images[0].content))
        << "an image that is written stays written";
}

TEST(Ag3335OldWrite, ClosingByteTellsABootLoader) {
    Upgrade upgrade(old_agent_size);
    upgrade.images = {{"my_bootloader.bin.signed", flash_base, random_image(1)},
                      {"Bootloader.bin", flash_base + 0x1000, random_image(1)},
                      {"bootloader.img", flash_base + 0x2000, random_image(1)}};
    EXPECT_EQ(upgrade.run().result(), upgrade_success);
    const auto& images = upgrade.module.boot.old_agent().images();
    ASSERT_EQ(images.size(), 3U);
    EXPECT_EQ(images[0].closing, 0x5A);
    EXPECT_EQ(images[1].closing, 0xA5);
    EXPECT_EQ(images[2].closing, 0xA5);
}

TEST(Ag3335OldWrite, EmptyImageIsRefusedByTheAgent) {
    Upgrade upgrade(old_agent_size);
    upgrade.images = {{"app.bin", flash_base, {}}};
    const ToolRun run = upgrade.run();
    expect_failure(run, step_failed("send_fw_file serial_read 0x5A fail", "send_fw_file error"));
    EXPECT_TRUE(contains(run.sent, hex("B2 08 00 00 00 00 00 00 00 00 00 10 00")));
}

TEST(Ag3335NewWrite, EmptyImageSendsNothing) {
    Upgrade upgrade(new_agent_size);
    upgrade.images = {{"app.bin", flash_base, {}}};
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(upgrade.module.boot.voice.count(BootAnswer::write_block), 0U);
}

const std::string new_write_error = "send_fw_file_new_Da error";

/// The frames that a write of `image` sends when the blocks of these numbers are refused: the file
/// goes on, the address stays.
Bytes frames_with_refusals(const Image& image, const std::vector<std::size_t>& refused) {
    Bytes bytes;
    std::uint32_t address = image.address;
    for (std::size_t block = 0; block * 4096 < image.content.size(); ++block) {
        const std::size_t at = block * 4096;
        const std::size_t count = std::min<std::size_t>(4096, image.content.size() - at);
        append(bytes, write_frame(address, std::span(image.content).subspan(at, count)));
        const bool taken = std::find(refused.begin(), refused.end(), block) == refused.end();
        address += taken ? 4096 : 0;
    }
    return bytes;
}

TEST(Ag3335NewWrite, RefusedBlockIsSkippedAndItsAddressKept) {
    Upgrade upgrade(new_agent_size);
    upgrade.dirty_flash();
    upgrade.images = {{"app.bin", flash_base, random_image(24'676)}};
    upgrade.module.boot.voice.flash_fails = [](BootAnswer which, unsigned number) {
        return which == BootAnswer::write_block && (number == 1 || number == 4);
    };
    const ToolRun run = upgrade.run();
    EXPECT_EQ(errors(run), (Lines{"status_response 0x03 error resend -- 1",
                                  "status_response 0x03 error resend -- 2"}));
    EXPECT_EQ(run.result(), upgrade_success) << "two refusals go unnoticed";
    const Bytes frames = frames_with_refusals(upgrade.images[0], {1, 4});
    EXPECT_TRUE(contains(run.sent, frames));
    EXPECT_EQ(count_of(run.sent, hex("05 5A 0C 10 00 21")), 7U);
    EXPECT_FALSE(upgrade.flash_is(upgrade.expected_flash(0x3E0000)));
    // A refused block has no PROGRESS and SPEED of its own, but counts as sent.
    EXPECT_EQ(run.count("[SPEED] 8192 Bytes/24676 Bytes"), 0U);
    EXPECT_EQ(run.count("[SPEED] 12288 Bytes/24676 Bytes"), 1U);
}

TEST(Ag3335NewWrite, ThirdRefusalInAnImageEndsIt) {
    Upgrade upgrade(new_agent_size);
    upgrade.images = {{"app.bin", flash_base, random_image(36'864)}};
    upgrade.module.boot.voice.flash_fails = [](BootAnswer which, unsigned number) {
        return which == BootAnswer::write_block && number % 2 == 0;
    };
    const ToolRun run = upgrade.run();
    expect_failure(
        run, {"status_response 0x03 error resend -- 1", "status_response 0x03 error resend -- 2",
              "status_response 0x03 error resend -- 3", "send fw data fail",
              "ag3335_upgrade " + new_write_error});
    Image begun = upgrade.images[0];
    begun.content.resize(5 * std::size_t{4096});
    const Bytes frames = frames_with_refusals(begun, {0, 2, 4});
    ASSERT_GE(run.sent.size(), frames.size());
    EXPECT_TRUE(std::equal(frames.rbegin(), frames.rend(), run.sent.rbegin()));
}

TEST(Ag3335NewWrite, ThirdRefusalJustBeforeTheLastBlockEndsItToo) {
    Upgrade upgrade(new_agent_size);
    upgrade.images = {{"app.bin", flash_base, random_image(12'289)}};
    upgrade.module.boot.voice.flash_fails = [](BootAnswer which, unsigned) {
        return which == BootAnswer::write_block;
    };
    const ToolRun run = upgrade.run();
    expect_failure(
        run, {"status_response 0x03 error resend -- 1", "status_response 0x03 error resend -- 2",
              "status_response 0x03 error resend -- 3", "send fw data fail",
              "ag3335_upgrade " + new_write_error});
    EXPECT_EQ(count_of(run.sent, hex("05 5A 0C 10 00 21")), 3U);
}

TEST(Ag3335NewWrite, RefusalsAreCountedForEachImage) {
    Upgrade upgrade(new_agent_size);
    upgrade.images = {{"a.bin", flash_base, random_image(20'480)},
                      {"b.bin", flash_base + 0x10000, random_image(20'480, 2)}};
    upgrade.module.boot.voice.flash_fails = [](BootAnswer which, unsigned number) {
        return which == BootAnswer::write_block && (number % 5 == 0 || number % 5 == 1);
    };
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("error resend -- 1\n"), 2U);
    EXPECT_EQ(run.count("error resend -- 2\n"), 2U);
}

TEST(Ag3335NewWrite, OtherAddressInAReplyIsARefusal) {
    Upgrade upgrade(new_agent_size);
    // The second block goes to the place of the first, which therefore must be blank.
    std::fill_n(upgrade.images[0].content.begin(), 4096, std::uint8_t{0xFF});
    upgrade.answer(BootAnswer::write_block, hex("05 5A 07 00 00 21 00 00 10 00 08"), 0);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(errors(run), Lines{"fw_start_addr_send 0x08001000 error resend -- 1"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(contains(run.sent, frames_with_refusals(upgrade.images[0], {0})));
}

TEST(Ag3335NewWrite, AddressOfTheLastReplyIsNotCompared) {
    Upgrade upgrade(new_agent_size);
    upgrade.answer(BootAnswer::write_block, hex("05 5A 07 00 00 21 00 00 10 00 08"), 1);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(errors(run), Lines{});
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Ag3335NewWrite, SilentFailures) {
    const Lines silent = silently_failed(new_write_error);
    const std::vector<WrongAnswer> answers{
        {BootAnswer::write_block, "", silent, 0},
        {BootAnswer::write_block, "05 5A 07 00 00 21 00 00 30 00", silent, 0},
        {BootAnswer::write_block, "", silent, 1},
        {BootAnswer::write_block, "05 5A 07 00 00 21 03 00 40 00 08", silent, 1},
    };
    expect_answers(new_agent_size, answers);
    const std::vector<FailedWrite> writes_that_fail{{new_images_begin, silent},
                                                    {new_images_begin + 1, silent}};
    expect_failed_writes(new_agent_size, writes_that_fail);
}

TEST(Ag3335NewWrite, LastReplyIsAwaitedLongerThanTheOthers) {
    const auto duration = [](int time, const Bytes& instead) {
        Upgrade upgrade(new_agent_size);
        upgrade.answer(BootAnswer::write_block, instead, time);
        return static_cast<double>(upgrade.run().duration_ms);
    };
    const Bytes refusal = hex("05 5A 07 00 00 21 03 00 40 00 08");
    EXPECT_NEAR(duration(1, {}) - duration(1, refusal), 3000, 5);
    // A full block's answer that stays away: 500 ms after the frame, and its pause.
    Upgrade upgrade(new_agent_size);
    upgrade.answer(BootAnswer::write_block, {}, 0);
    const ToolRun run = upgrade.run();
    const std::uint64_t last_byte = (run.trace.back().time - sim::VirtualPort::start) / 1000;
    EXPECT_NEAR(static_cast<double>(run.duration_ms - last_byte), 501, 2);
}

// --- the waits -----------------------------------------------------------------------------------

/// How long an answer is awaited: the run with a wrong one ends that much earlier than the run
/// without one.
struct Wait {
    BootAnswer which;
    std::string wrong;
    double limit_ms;
    int time = -1;
};

void expect_waits(std::size_t agent_size, const std::vector<Wait>& waits) {
    for (const Wait& wait : waits) {
        SCOPED_TRACE(static_cast<int>(wait.which));
        const auto duration = [&](const Bytes& instead) {
            Upgrade upgrade(agent_size);
            upgrade.answer(wait.which, instead, wait.time);
            return static_cast<double>(upgrade.run().duration_ms);
        };
        // An agent takes its time before it answers.
        EXPECT_NEAR(duration({}) - duration(hex(wait.wrong)), wait.limit_ms, 60);
    }
}

TEST(Ag3335Waits, ForTheLoaderAndTheOldAgent) {
    const std::vector<Wait> waits{
        {BootAnswer::start_0a, "00", 500},
        {BootAnswer::write_address, "00 00 00 00", 500},
        {BootAnswer::write_count, "00 00 00 00 00 00", 500},
        {BootAnswer::agent_signature, "00 00 00 00 00 01", 500},
        {BootAnswer::agent_checksum, "00 00 00 01", 500},
        {BootAnswer::jump_status, "00 01", 500},
        {BootAnswer::first_word, "00", 500},
        {BootAnswer::sync_3f, "00", 500},
        {BootAnswer::sync_0c00, "00 00 00", 500},
        {BootAnswer::sync_end, "00 00", 500},
        {BootAnswer::flash_report, "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00", 500},
        {BootAnswer::format_accepted, "00 00", 1000},
        {BootAnswer::format_progress, "00 00 00 00 00", 3000, 0},
        {BootAnswer::format_closed, "00", 1000},
        {BootAnswer::image_accepted, "00 00", 500},
        {BootAnswer::packet_written, "00", 500},
        {BootAnswer::last_packet, "00 00", 500},
        {BootAnswer::image_sum, "00", 3000},
        {BootAnswer::image_closed, "00", 500},
    };
    expect_waits(old_agent_size, waits);
}

TEST(Ag3335Waits, ForTheNewAgent) {
    const std::vector<Wait> waits{
        {BootAnswer::set_rate, "05 5A 03 00 15 21 01", 3000},
        {BootAnswer::flash_address, "05 5A 07 00 0E 21 01 00 00 00 08", 3000},
        {BootAnswer::flash_size, "05 5A 07 00 0F 21 01 00 00 40 00", 3000},
        {BootAnswer::flash_id, "05 5A 06 00 10 21 01 C8 60 16", 3000},
        {BootAnswer::erase_block, "05 5A 07 00 04 21 01 00 00 00 08", 3000, 0},
        {BootAnswer::erase_block, "05 5A 07 00 04 21 01 00 00 00 08", 3000, 61},
        {BootAnswer::erase_block, "05 5A 07 00 04 21 01 00 00 00 08", 3000, 76},
    };
    expect_waits(new_agent_size, waits);
}

/// Answers are collected whole, however slowly their bytes follow each other.
TEST(Ag3335Waits, BytesOfAnAnswerMayComeApart) {
    for (const std::size_t agent_size : {old_agent_size, new_agent_size}) {
        Upgrade smooth(agent_size);
        const std::uint64_t all = smooth.run().received.size();
        Conditions conditions;
        // Each byte is later than the one before by 2 ms, up to the eighth.
        const auto delay = [&conditions](std::uint64_t byte) {
            conditions.faults.push_back({.kind = sim::FaultKind::delay,
                                         .direction = sim::Direction::to_host,
                                         .byte = byte,
                                         .amount = 2 + byte % 8 * 2});
        };
        for (std::uint64_t byte = 0; byte < 110; ++byte) {
            delay(byte);
        }
        for (std::uint64_t byte = all - 20; byte < all; ++byte) {
            delay(byte);
        }
        Upgrade upgrade(agent_size);
        EXPECT_EQ(upgrade.run({}, conditions).result(), upgrade_success);
    }
}

// --- the package ---------------------------------------------------------------------------------

class Ag3335Package : public ::testing::TestWithParam<std::size_t> {
  protected:
    Ag3335Package() : upgrade(GetParam()) {
        upgrade.dirty_flash();
        for (int number = 0; number < 5; ++number) {
            upgrade.images.resize(5);
            upgrade.images[static_cast<std::size_t>(number)] = {
                std::string(1, static_cast<char>('a' + number)) + ".bin",
                flash_base + 0x1000U * static_cast<unsigned>(number),
                random_image(100, static_cast<unsigned>(number))};
        }
    }
    [[nodiscard]] bool old() const { return GetParam() == old_agent_size; }
    [[nodiscard]] Lines write_failed(const std::string& text) const {
        return {text, std::string("ag3335_upgrade ") +
                          (old() ? "send_fw_file error" : "send_fw_file_new_Da error")};
    }
    static Lines sent_images(const ToolRun& run) {
        Lines found;
        for (const std::string& line : run.family_lines()) {
            if (line.starts_with("[INFO] will send ")) {
                found.push_back(line.substr(17, line.find(" to module") - 17));
            }
        }
        return found;
    }
    [[nodiscard]] unsigned blocks_written() const {
        const auto& voice = upgrade.module.boot.voice;
        return voice.count(BootAnswer::write_block) + voice.count(BootAnswer::image_accepted);
    }

    Upgrade upgrade;
};

INSTANTIATE_TEST_SUITE_P(Ag3335, Ag3335Package, ::testing::Values(old_agent_size, new_agent_size));

TEST_P(Ag3335Package, AllImagesAreSentInLayoutOrder) {
    std::swap(upgrade.images[1], upgrade.images[3]);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(sent_images(run), (Lines{"a.bin", "d.bin", "c.bin", "b.bin", "e.bin"}));
    EXPECT_TRUE(upgrade.flash_is(upgrade.expected_flash(0x3E0000)));
}

TEST_P(Ag3335Package, ListChoosesByWholeNameInLayoutOrder) {
    const ToolRun run = upgrade.run({"-f", "d.bin,A.bin,b.bi,e.bin.,z.bin,b.bin"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(sent_images(run), (Lines{"b.bin", "d.bin"}));
    EXPECT_EQ(blocks_written(), 2U);
}

TEST_P(Ag3335Package, DirectoryNeedsNoSlash) {
    upgrade.write_package();
    auto arguments = upgrade.arguments();
    arguments[7] = upgrade.folder.path();
    const ToolRun run(upgrade.module, arguments);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(
        run.count(" send fw file according to " + upgrade.folder.path() + "/flash_download.cfg\n"),
        1U);
    EXPECT_TRUE(upgrade.flash_is(upgrade.expected_flash(0x3E0000)));
}

TEST_P(Ag3335Package, WithoutALayoutNothingIsSentAndThatIsASuccess) {
    upgrade.with_layout = false;
    const ToolRun run = upgrade.run();
    EXPECT_EQ(errors(run), Lines{upgrade.directory() + "flash_download.cfg non-existent"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.family_lines().back(), " Flash upgrade successfully");
    EXPECT_EQ(blocks_written(), 0U);
}

TEST_P(Ag3335Package, LayoutOfAnotherName) {
    upgrade.with_layout = false;
    upgrade.folder.write("mine.cfg.v2", layout_of({upgrade.images[2]}));
    const ToolRun run = upgrade.run({"-g", "mine.cfg"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(sent_images(run), Lines{"c.bin"});
    EXPECT_EQ(run.count(" send fw file according to " + upgrade.directory() + "mine.cfg.v2\n"), 1U)
        << "the beginning of the name is enough";
}

/// The first of two names in the order in which the system lists a folder.
std::string listed_first(const std::string& folder, const std::string& one,
                         const std::string& other) {
    DIR* const listing = opendir(folder.c_str());
    std::string found;
    for (const dirent* entry = readdir(listing); entry != nullptr && found.empty();
         entry = readdir(listing)) {
        if (entry->d_name == one || entry->d_name == other) {
            found = entry->d_name;
        }
    }
    closedir(listing);
    return found;
}

TEST(Ag3335Layout, FirstOfTheFolderIsTaken) {
    const std::string plain = "flash_download.cfg";
    // Which of two names comes first is up to the file system, by their letters or their age.
    for (const std::string end : {".bak", ".old", "~", "2"}) {
        for (const bool plain_is_older : {true, false}) {
            Upgrade upgrade(new_agent_size);
            upgrade.images.push_back({"other.bin", flash_base + 0x8000, random_image(100)});
            upgrade.with_layout = false;
            const std::string other = plain + end;
            for (const bool is_plain : {plain_is_older, !plain_is_older}) {
                upgrade.folder.write(is_plain ? plain : other,
                                     layout_of({upgrade.images[is_plain ? 0 : 1]}));
            }
            const ToolRun run = upgrade.run();
            const std::string first = listed_first(upgrade.folder.path(), plain, other);
            EXPECT_EQ(run.count(" send fw file according to "), 1U);
            EXPECT_EQ(run.count(" send fw file according to " + upgrade.directory() + first + "\n"),
                      1U)
                << first;
            EXPECT_EQ(run.count(first == plain ? "will send app.bin" : "will send other.bin"), 1U);
        }
    }
}

TEST_P(Ag3335Package, LayoutIsLookedForInTheFolderAlone) {
    upgrade.with_layout = false;
    std::filesystem::create_directory(upgrade.folder.path("sub"));
    upgrade.folder.write("sub/my.cfg", layout_of(upgrade.images));
    const ToolRun run = upgrade.run({"-g", "sub/my.cfg"});
    EXPECT_EQ(errors(run), Lines{upgrade.directory() + "sub/my.cfg non-existent"});
    EXPECT_EQ(run.count("send fw file according to"), 0U);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(blocks_written(), 0U);
}

TEST_P(Ag3335Package, LayoutThatCannotBeOpened) {
    upgrade.with_layout = false;
    std::filesystem::create_directory(upgrade.folder.path("flash_download.cfg"));
    const ToolRun run = upgrade.run();
    EXPECT_EQ(errors(run), Lines{"auto_find_upgrade_file fail to fopen(" + upgrade.directory() +
                                 "flash_download.cfg), errno: 21 (Is a directory)"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(blocks_written(), 0U);
}

TEST_P(Ag3335Package, DanglingLayoutIsNonExistent) {
    upgrade.with_layout = false;
    std::filesystem::create_symlink("nowhere", upgrade.folder.path("flash_download.cfg"));
    const ToolRun run = upgrade.run();
    const std::string path = upgrade.directory() + "flash_download.cfg";
    EXPECT_EQ(run.count(" send fw file according to " + path + "\n"), 1U);
    EXPECT_EQ(errors(run), Lines{path + " non-existent"});
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_P(Ag3335Package, FileInPlaceOfTheDirectoryHoldsNothing) {
    upgrade.write_package();
    auto arguments = upgrade.arguments();
    arguments[7] = upgrade.folder.path("a.bin");
    const ToolRun run(upgrade.module, arguments);
    EXPECT_EQ(errors(run), Lines{});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(blocks_written(), 0U);
}

TEST_P(Ag3335Package, MissingImageFailsAfterTheOnesBefore) {
    upgrade.write_package();
    std::filesystem::remove(upgrade.folder.path("c.bin"));
    const ToolRun run(upgrade.module, upgrade.arguments());
    expect_failure(run, write_failed(upgrade.directory() + "c.bin non-existent"));
    EXPECT_EQ(sent_images(run), (Lines{"a.bin", "b.bin", "c.bin"}));
    EXPECT_EQ(blocks_written(), 2U);
}

TEST_P(Ag3335Package, FolderInPlaceOfAnImageFails) {
    upgrade.write_package();
    std::filesystem::remove(upgrade.folder.path("a.bin"));
    std::filesystem::create_directory(upgrade.folder.path("a.bin"));
    const ToolRun run(upgrade.module, upgrade.arguments());
    if (old()) {
        expect_failure(
            run, write_failed("open " + upgrade.directory() + "a.bin error(21) (Is a directory)"));
    } else {
        expect_failure(run, silently_failed("send_fw_file_new_Da error"));
    }
}

TEST_P(Ag3335Package, DeviceInPlaceOfAnImageFails) {
    upgrade.write_package();
    std::filesystem::remove(upgrade.folder.path("a.bin"));
    std::filesystem::create_symlink("/dev/ptmx", upgrade.folder.path("a.bin"));
    const ToolRun run(upgrade.module, upgrade.arguments());
    expect_failure(run, old() ? write_failed("fseek -1 error(29) (Illegal seek)")
                              : silently_failed("send_fw_file_new_Da error"));
}

TEST_P(Ag3335Package, ImageThatBecomesShorterFails) {
    upgrade.images = {{"a.bin", flash_base, random_image(3 * std::size_t{4096})}};
    const std::string path = upgrade.folder.path("a.bin");
    // What the agent says just before, and just behind, the first piece of the image.
    const BootAnswer moment = old() ? BootAnswer::image_accepted : BootAnswer::write_block;
    upgrade.module.boot.voice.tamper = [&](BootAnswer which, unsigned number, Bytes&) {
        if (which == moment && number == 0) {
            std::filesystem::resize_file(path, 4096);
        }
    };
    expect_failure(upgrade.run(), old() ? write_failed("fread 0 error(0) (Success)")
                                        : silently_failed("send_fw_file_new_Da error"));
}

TEST_P(Ag3335Package, TwelveImagesAreTheMost) {
    const auto numbered = [](unsigned count) {
        std::vector<Image> images;
        for (unsigned number = 0; number < count; ++number) {
            images.push_back({"i" + std::to_string(number) + ".bin", flash_base + 0x1000 * number,
                              random_image(10, number)});
        }
        return images;
    };
    upgrade.images = numbered(12);
    EXPECT_EQ(upgrade.run().result(), upgrade_success);
    EXPECT_TRUE(upgrade.flash_is(upgrade.expected_flash(0x3E0000)));

    Upgrade crowded(GetParam());
    crowded.images = numbered(13);
    const ToolRun run = crowded.run();
    expect_failure(
        run, write_failed(crowded.directory() + "flash_download.cfg lists more than 12 images"));
    EXPECT_EQ(sent_images(run), Lines{}) << "nothing is better than a part";
}

TEST_P(Ag3335Package, LayoutLinesThatMeanNothingDoNoHarm) {
    upgrade.with_layout = false;
    std::string layout =
        "file: before_the_first.bin\nbegin_address: 0x08100000\n\r\n\n"
        "rom: \r\n"
        "\tfile: a.bin\r\n"
        "  begin_address: 0x08001000 # kept\r\n"
        "begin_address:\nbegin_address: \n"
        "key without a value\n" +
        std::string(3000, 'x') + "\n";
    layout += std::string(1, '\0') + "\nrom:\nbegin_address: 0x8005000\nfile: b.bin";
    upgrade.folder.write("flash_download.cfg", layout);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(sent_images(run), (Lines{"a.bin", "b.bin"}));
    EXPECT_TRUE(upgrade.module.flash().holds(flash_base + 0x5000, upgrade.images[1].content));
}

TEST_P(Ag3335Package, LayoutValuesBeginAtAFixedDistanceBehindTheirKeys) {
    upgrade.with_layout = false;
    upgrade.folder.write("flash_download.cfg",
                         std::string("a_rom:_b\nmy_file:|a.bin\nthe_begin_address:===8005000\n"));
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(sent_images(run), Lines{"a.bin"});
    EXPECT_TRUE(upgrade.module.flash().holds(flash_base + 0x5000, upgrade.images[0].content));
}

/// 2047 characters are the most of a line; what stands behind them counts as the next one.
TEST_P(Ag3335Package, LongLayoutLineGoesOnAsAnother) {
    upgrade.with_layout = false;
    const std::string begin = "begin_address: 0x08001000 ";
    const std::string end = "file: a.bin";
    std::string line = begin + std::string(2047 - begin.size() - end.size(), 'x') + end;
    ASSERT_EQ(line.size(), 2047U);
    line += "begin_address: 0x08005000\n";
    upgrade.folder.write("flash_download.cfg", "rom:\nfile: b.bin\n" + line);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(sent_images(run), Lines{"a.bin"});
    const auto held = upgrade.module.flash().read(flash_base + 0x5000, 100);
    EXPECT_TRUE(std::equal(held.begin(), held.end(), upgrade.images[0].content.begin()));
}

TEST_P(Ag3335Package, EntryWithoutAFileFails) {
    upgrade.with_layout = false;
    upgrade.folder.write("flash_download.cfg", std::string("rom:\nfile:\nbegin_address: 0x0\n"));
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.count("will send  to module\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_P(Ag3335Package, AddressOutsideTheFlashIsRefusedByTheAgent) {
    upgrade.images = {{"app.bin", flash_base + Ag3335Module::flash_size, random_image(4097)}};
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_FALSE(run.hit_time_limit);
}

// --- the soft reset ------------------------------------------------------------------------------

const std::string reboot_sentence = "$PAIR023*3B\r\n";

Ag3335Module::Settings running_firmware() {
    Ag3335Module::Settings settings;
    settings.runs_firmware = true;
    return settings;
}

TEST(Ag3335SoftReset, RestartsARunningModuleIntoItsLoader) {
    for (const std::string model : {"TR75XBA-SR01", "TR75XBA-SR02"}) {
        Upgrade upgrade(new_agent_size, running_firmware());
        upgrade.dirty_flash();
        upgrade.module.start_baud = 460800;
        upgrade.model = model;
        upgrade.write_package();
        auto arguments = upgrade.arguments();
        arguments[5] = "460800";
        const ToolRun run(upgrade.module, arguments);
        EXPECT_EQ(run.result(), upgrade_success);
        EXPECT_EQ(upgrade.module.reboots(), 1U);
        EXPECT_EQ(run.rates, (std::vector<unsigned>{460800, 115200}));
        EXPECT_EQ(run.opens, 2);
        EXPECT_EQ(run.closes, 2);
        EXPECT_TRUE(upgrade.flash_is(upgrade.expected_flash(0x3E0000)));
        const Lines lines = run.family_lines();
        EXPECT_EQ(lines[0], "[INFO] Need soft reset");
        EXPECT_EQ(lines[1], " format_length: 3e0000");
        EXPECT_EQ(*(std::find(lines.begin(), lines.end(), handshake_line) - 1),
                  "[INFO] soft reset success");
    }
}

TEST(Ag3335SoftReset, OtherModelsAreNotRestarted) {
    Upgrade upgrade(new_agent_size);
    upgrade.model = "TR80XBA";
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.count("soft reset"), 0U);
    EXPECT_EQ(run.sent[0], 0xA0);
}

TEST(Ag3335SoftReset, AsksUntilTheModuleIsGone) {
    Upgrade upgrade(new_agent_size);
    upgrade.model = "TR75XBA-SR01";
    upgrade.write_package();
    SilentModule silent;
    const ToolRun run(silent, upgrade.arguments(), unplugged_after_ms(600'000));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_FALSE(run.hit_time_limit);
    EXPECT_GT(run.duration_ms, 599'000U);
    EXPECT_LT(run.duration_ms, 601'000U);
    const Lines lines = run.family_lines();
    EXPECT_EQ(
        (Lines{lines.end() - 3, lines.end()}),
        (Lines{" ret = 0 serial_write error", "[ERROR] ag3335_upgrade soft_reset error", failed}));
    EXPECT_EQ(run.closes, 1);
    EXPECT_EQ(Bytes(run.sent.begin(), run.sent.begin() + 13),
              Bytes(reboot_sentence.begin(), reboot_sentence.end()));
}

TEST(Ag3335SoftReset, AsksAgainAfterATenthOfASecond) {
    Upgrade upgrade(new_agent_size);
    upgrade.model = "TR75XBA-SR01";
    upgrade.write_package();
    SilentModule silent;
    const ToolRun run(silent, upgrade.arguments(), unplugged_after_ms(5000));
    const auto pauses = run.pauses();
    // A sentence takes 1.13 ms at 115200.
    EXPECT_EQ(pauses.size(), 49U);
    for (const sim::Micros pause : pauses) {
        EXPECT_NEAR(static_cast<double>(pause), 100'000, 200);
    }
}

/// Firmware that answers every sentence, but does not restart.
class CurtModule : public SilentModule {
  public:
    explicit CurtModule(std::string answer) : answer_(std::move(answer)) {}

    void receive(std::uint8_t byte, sim::Micros now, sim::Wire& wire) override {
        SilentModule::receive(byte, now, wire);
        if (byte == '\n') {
            wire.send(answer_);
        }
    }

  private:
    std::string answer_;
};

TEST(Ag3335SoftReset, FiveBytesAreEnough) {
    for (const std::string answer : {"$PAIR", "$PAIR001,023,0*38\r\n"}) {
        Upgrade upgrade(new_agent_size);
        upgrade.model = "TR75XBA-SR01";
        upgrade.write_package();
        CurtModule module(answer);
        const ToolRun run(module, upgrade.arguments(), unplugged_after_ms(60'000));
        EXPECT_EQ(run.count("[INFO] soft reset success\n"), 1U);
        // What follows the one sentence is the handshake, as soon as the five bytes are there.
        std::vector<sim::TracedByte> sent;
        std::copy_if(run.trace.begin(), run.trace.end(), std::back_inserter(sent),
                     [](const auto& byte) { return byte.direction == sim::Direction::to_module; });
        ASSERT_GT(sent.size(), reboot_sentence.size());
        EXPECT_EQ(sent[reboot_sentence.size()].byte, 0xA0);
        const auto gap = sent[reboot_sentence.size()].time - sent[reboot_sentence.size() - 1].time;
        EXPECT_LT(gap, sim::milliseconds(1));
    }
}

/// Firmware that answers the first sentence in two pieces and the second one whole.
class HesitantModule : public SilentModule {
  public:
    void receive(std::uint8_t byte, sim::Micros now, sim::Wire& wire) override {
        SilentModule::receive(byte, now, wire);
        if (byte == '\n' && ++sentences == 1) {
            wire.send(std::string_view("$PA"));
            wire.send(std::string_view("IR"), sim::milliseconds(20));
        } else if (byte == '\n' && sentences == 2) {
            wire.send(std::string_view("$PAIR001"), sim::milliseconds(60));
        }
    }
    int sentences = 0;
};

TEST(Ag3335SoftReset, AnswerCountsWhenItComesInOnePiece) {
    Upgrade upgrade(new_agent_size);
    upgrade.model = "TR75XBA-SR01";
    upgrade.write_package();
    HesitantModule hesitant;
    const ToolRun run(hesitant, upgrade.arguments());
    EXPECT_GE(hesitant.sentences, 2);
    EXPECT_EQ(run.count("[INFO] soft reset success\n"), 1U);
    expect_failure(run,
                   {"ag3335_handshake Hand Shake Timeout:0", "ag3335_upgrade handshake error"});
}

TEST(Ag3335SoftReset, PortThatCannotBeOpened) {
    Upgrade upgrade(new_agent_size);
    upgrade.model = "TR75XBA-SR02";
    Conditions conditions;
    conditions.port.open_error = EACCES;
    const ToolRun run = upgrade.run({}, conditions);
    const Lines lines = run.family_lines();
    EXPECT_EQ((Lines{lines.end() - 3, lines.end()}),
              (Lines{" serial_open error", "[ERROR] ag3335_upgrade soft_reset error", failed}));
}

TEST(Ag3335SoftReset, PortThatIsGoneAfterwards) {
    Upgrade upgrade(new_agent_size, running_firmware());
    upgrade.model = "TR75XBA-SR02";
    Conditions conditions;
    conditions.port.failing_open = 1;
    const ToolRun run = upgrade.run({}, conditions);
    expect_failure(run, {"Error opening COM6: No such device"});
}

// --- a device that vanishes ----------------------------------------------------------------------

TEST(Ag3335Unplug, EndsEveryStepWithAFailure) {
    constexpr std::uint64_t parts = 16;
    for (const std::size_t agent_size : {old_agent_size, new_agent_size}) {
        Upgrade whole(agent_size);
        const std::uint64_t duration = whole.run().duration_ms - 2050;
        for (std::uint64_t part = 0; part < parts; ++part) {
            SCOPED_TRACE(part);
            Upgrade upgrade(agent_size);
            const ToolRun run = upgrade.run({}, unplugged_after_ms(duration * part / parts));
            EXPECT_EQ(run.result(), upgrade_failure(-1));
            EXPECT_EQ(run.family_lines().back(), failed);
            EXPECT_FALSE(run.hit_time_limit);
            EXPECT_LT(run.duration_ms, duration * part / parts + 45'000);
        }
    }
}

// --- a line that disturbs ------------------------------------------------------------------------

TEST(Ag3335Faults, EveryRunComesToAnEnd) {
    Upgrade whole(new_agent_size);
    const std::uint64_t bytes = whole.run().sent.size();
    for (const sim::FaultKind kind : {sim::FaultKind::drop, sim::FaultKind::flip}) {
        for (std::uint64_t part = 1; part < 12; ++part) {
            SCOPED_TRACE(part);
            Upgrade upgrade(new_agent_size);
            Conditions conditions;
            conditions.faults = {{.kind = kind, .byte = bytes * part / 12}};
            const ToolRun run = upgrade.run({}, conditions);
            EXPECT_FALSE(run.hit_time_limit);
            EXPECT_NE(run.result(), "");
            // Checksums cover all bytes of a command that matter: no loss goes unnoticed.
            EXPECT_TRUE(run.result() == upgrade_failure(-1) || run.count("resend") != 0)
                << run.result();
        }
    }
}

}  // namespace
}  // namespace orbix::test
