// The ZPX710P application upgrade of the three processors, end to end.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "checksums.h"
#include "run/harness.h"
#include "upgrade_frames.h"
#include "zpx710p.h"

namespace orbix::test {
namespace {

using sim::AppLoader;
using sim::make_upgrade_frame;
using sim::make_vnc_frame;
using sim::Zpx710pModule;

/// What differs between the processors, as an operator's table would show it.
struct Target {
    const char* mode;
    std::uint8_t address;
    std::uint32_t load_address;
    std::size_t block_size;
    const char* request;  ///< the pass-through request, empty for none
    const char* version;  ///< empty when it is not asked
    AppLoader Zpx710pModule::*loader;
};

const Target mcu{"MCU_UPG", 2, 0, 5120, "", "V2.0.7", &Zpx710pModule::mcu};
const Target gnss{"GNSS_UPG",          3, 0, 1024, "56 4E 03 55 04 00 03 00 00 00 5F 8F", "V1.10.3",
                  &Zpx710pModule::gnss};
const Target lora{
    "LORA_UPG",          4, 0x08000000, 1024, "56 4E 03 55 04 00 04 00 00 00 60 93", "",
    &Zpx710pModule::lora};
const std::vector<Target> targets{mcu, gnss, lora};

void PrintTo(const Target& target, std::ostream* out) {
    *out << target.mode;
}

std::vector<std::string> arguments(const Target& target, const std::string& image) {
    return {"-m", "ZPX710P", "-p", "COM6", "-b", "115200", "-f", image, "-t", target.mode};
}

Bytes big_endian(std::initializer_list<std::uint32_t> words) {
    Bytes bytes;
    for (const std::uint32_t word : words) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes.push_back(static_cast<std::uint8_t>(word >> shift));
        }
    }
    return bytes;
}

/// The frame that carries the block of that number.
Bytes firmware_frame(const Target& target, const Bytes& image, std::uint32_t number) {
    const std::size_t at = number * target.block_size;
    const std::size_t count = std::min(target.block_size, image.size() - at);
    Bytes payload = big_endian({number});
    payload.insert(payload.end(), image.begin() + static_cast<std::ptrdiff_t>(at),
                   image.begin() + static_cast<std::ptrdiff_t>(at + count));
    return make_upgrade_frame(target.address, 0x04, payload);
}

/// What the tool sends for an image when every step succeeds at once, from the second phase of the
/// handshake on.
Bytes expected_from_second_probe(const Target& target, const Bytes& image) {
    Bytes bytes = hex("04 A5 03 12");
    if (*target.version != '\0') {
        append(bytes, make_upgrade_frame(target.address, 0x71, {}));
    }
    append(bytes,
           make_upgrade_frame(target.address, 0x02,
                              big_endian({static_cast<std::uint32_t>(image.size()),
                                          sim::module_image_crc(image), target.load_address, 0})));
    append(bytes, make_upgrade_frame(target.address, 0x03, {}));
    for (std::uint32_t block = 0; block * target.block_size < image.size(); ++block) {
        append(bytes, firmware_frame(target, image, block));
    }
    append(bytes, make_upgrade_frame(target.address, 0x31, Bytes{target.address, 0}));
    return bytes;
}

/// The request, the first probe as often as the processor needs to start, and the rest.
Bytes expected_bytes(const Target& target, const Bytes& image) {
    Bytes bytes = hex(target.request);
    const int probes = *target.request == '\0' ? 1 : 3;
    for (int probe = 0; probe < probes; ++probe) {
        append(bytes, hex("09 13 56 4B"));
    }
    append(bytes, expected_from_second_probe(target, image));
    return bytes;
}

std::string hex_number(std::uint32_t value) {
    std::array<char, 9> digits{};
    std::snprintf(digits.data(), digits.size(), "%x", value);
    return digits.data();
}

Lines preamble(const Target& target, const std::string& image) {
    return {"[INFO] ZPX710P entry function",
            " Enter upgrade",
            "[INFO] Module: ZPX710P",
            "[INFO] Port: COM6",
            "[INFO] Baud rate:115200",
            "[INFO] Firmware:" + image,
            std::string("[INFO] Upgrade mode: ") + target.mode,
            "[INFO] Connect...",
            "[INFO] Synchronize..."};
}

/// The lines of the steps, each to be followed by the next when it succeeds.
Lines passed_through(const Target& target) {
    return *target.request == '\0' ? Lines{}
                                   : Lines{"[INFO] complete GET1",
                                           "[INFO] ZPX_Upgrade_Sync VNC success Start handshake"};
}
const Lines first_answer{"[INFO] ZPX_Upgrade_Sync --- rsp1 = aafc3a4d success"};
const Lines second_answer{"[INFO] ZPX_Upgrade_Sync --- rsp2 = 55fd5ba0"};

Lines until_synchronised(const Target& target, const std::string& path) {
    return joined(joined(joined(preamble(target, path), passed_through(target)), first_answer),
                  second_answer);
}
Lines until_version(const Target& target, const std::string& path) {
    Lines lines = until_synchronised(target, path);
    if (*target.version != '\0') {
        lines.push_back(std::string("[INFO] Boot Version: ") + target.version);
    }
    return lines;
}
Lines until_information(const Target& target, const std::string& path, const Bytes& image) {
    return joined(until_version(target, path),
                  {"[INFO] Send Firmware Information...",
                   "[INFO] File FW_size: " + std::to_string(image.size()),
                   "[INFO] File CRC32: " + hex_number(sim::module_image_crc(image)),
                   "[INFO] File FW_addr: " + hex_number(target.load_address)});
}

bool flash_holds(Zpx710pModule& module, const Target& target, const Bytes& image) {
    return (module.*target.loader).flash().holds(target.load_address, image);
}

/// Turns every response to a command into a general acknowledgement with that slave state.
auto answering(std::uint8_t command, std::uint8_t state) {
    return [command, state](const sim::UpgradeFrame& frame, Bytes& response) {
        if (frame.command == command) {
            response = make_upgrade_frame(frame.address, command, Bytes{0, 0, 0, state});
        }
    };
}

class Zpx710pUpgradeSizes : public ::testing::TestWithParam<std::tuple<Target, std::size_t>> {};

TEST_P(Zpx710pUpgradeSizes, TheProcessorHoldsTheImage) {
    const auto& [target, size] = GetParam();
    const TempDir folder;
    const Bytes image = random_image(size);
    Zpx710pModule module;
    for (AppLoader* loader : {&module.mcu, &module.gnss, &module.lora}) {
        loader->flash().fill(0x00);
    }
    const ToolRun run(module, arguments(target, folder.write("app.bin", image)));

    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.sent, expected_bytes(target, image));
    EXPECT_TRUE(flash_holds(module, target, image));
    for (AppLoader* loader : {&module.mcu, &module.gnss, &module.lora}) {
        const bool meant = loader == &(module.*target.loader);
        EXPECT_EQ(loader->rebooted(), meant);
        EXPECT_EQ(loader->flash().cells().back(), meant ? 0xFF : 0x00);
    }
    EXPECT_EQ(run.closes, 1);
    EXPECT_FALSE(run.left_open);
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
}

INSTANTIATE_TEST_SUITE_P(Images, Zpx710pUpgradeSizes,
                         ::testing::Combine(::testing::ValuesIn(targets),
                                            ::testing::Values(0, 1, 240, 241, 1024, 1025, 2048,
                                                              2049, 5120, 5121)));
INSTANTIATE_TEST_SUITE_P(LargeImages, Zpx710pUpgradeSizes,
                         ::testing::Values(std::tuple{mcu, 530'001}, std::tuple{gnss, 280'123}));

class Zpx710pUpgrade : public ::testing::TestWithParam<Target> {};
INSTANTIATE_TEST_SUITE_P(Processors, Zpx710pUpgrade, ::testing::ValuesIn(targets));

TEST_P(Zpx710pUpgrade, LinesOfAGoodRun) {
    const TempDir folder;
    const Bytes image = random_image(GetParam().block_size + 1);
    const std::string path = folder.write("app.bin", image);
    Zpx710pModule module;
    const ToolRun run(module, arguments(GetParam(), path));

    EXPECT_EQ(run.family_lines(),
              joined(until_information(GetParam(), path, image), {"[INFO] Send Firmware..."}));
    const std::string total = std::to_string(image.size());
    const Lines progress = run.progress_lines();
    ASSERT_EQ(progress.size(), 6U);
    EXPECT_EQ(progress[0], "[PROGRESS] 0.00%\r");
    EXPECT_EQ(progress[1], "[SPEED] 0 Bytes/" + total + " Bytes    0 KBps");
    EXPECT_EQ(progress[2],
              GetParam().block_size == 1024 ? "[PROGRESS] 99.90%\r" : "[PROGRESS] 99.98%\r");
    EXPECT_EQ(progress[4], "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(progress[5].starts_with("[SPEED] " + total + " Bytes/" + total + " Bytes    "));
}

TEST(Zpx710pUpgradeModes, FirstProcessorOfTheTableWins) {
    const TempDir folder;
    const Bytes image = random_image(100);
    const std::string path = folder.write("app.bin", image);
    const std::vector<std::pair<std::string, Target>> modes{{"MCU_GNSS_LORA_UPG", lora},
                                                            {"MCU_GNSS_upgrade", gnss},
                                                            {"upgradeMCU", mcu},
                                                            {"DL_UPG_GNSS", gnss}};
    for (const auto& [mode, target] : modes) {
        Zpx710pModule module;
        const ToolRun run(
            module, {"-m", "ZPX710P-EVB", "-p", "COM6", "-b", "115200", "-f", path, "-t", mode});
        EXPECT_EQ(run.result(), upgrade_success) << mode;
        EXPECT_EQ(run.sent, expected_bytes(target, image)) << mode;
    }
}

TEST(Zpx710pUpgradeModes, AWordWithoutAProcessorIsRefusedAtOnce) {
    Zpx710pModule module;
    for (const std::string mode : {"UPG", "upgrade", "gnss_UPG"}) {
        const ToolRun run(module, {"-m", "ZPX710P", "-t", mode, "-p", "COM6", "-b", "115200"});
        EXPECT_EQ(
            run.family_lines(),
            (Lines{"[INFO] ZPX710P entry function", " Enter upgrade", "[INFO] Module: ZPX710P",
                   "[INFO] Upgrade mode: " + mode, "[ERROR] Invalid upgrade mode: " + mode}));
        EXPECT_EQ(run.result(), upgrade_failure(258));
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Zpx710pUpgradeModes, EveryWordIsLookedAtInTurn) {
    Zpx710pModule module;
    const ToolRun run(module, {"-m", "ZPX710P", "-t", "GNSS", "-t", "UPG"});
    EXPECT_EQ(run.family_lines(),
              (Lines{"[INFO] ZPX710P entry function", " Enter upgrade", "[INFO] Module: ZPX710P",
                     "[INFO] Upgrade mode: GNSS", "[INFO] Upgrade mode: UPG",
                     "[ERROR] Invalid upgrade mode: UPG"}));
    EXPECT_EQ(run.result(), upgrade_failure(258));
}

TEST(Zpx710pUpgradeModes, ALongWordIsTakenWhole) {
    const std::string mode = "UPG" + std::string(300, 'x') + "GNSS";
    Zpx710pModule module;
    const ToolRun run(module, {"-m", "ZPX710P", "-t", mode, "-p", std::string(300, 'p')});
    EXPECT_EQ(run.count("[INFO] Upgrade mode: " + mode + "\n"), 1U);
    EXPECT_EQ(run.count("[ERROR] Open & config the serial failed\n"), 1U);
}

// The entry looks for "-t" anywhere, the driver takes it for the value of -f.
TEST(Zpx710pUpgradeModes, AWordThatOnlyTheEntrySeesChoosesNoProcessor) {
    Zpx710pModule module;
    const ToolRun run(module, {"-m", "ZPX710P", "-f", "-t", "GNSS_UPG"});
    EXPECT_EQ(run.count("[ERROR] Invalid upgrade mode: \n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(258));
    EXPECT_EQ(run.opens, 0);
}

TEST(Zpx710pUpgradeModes, DebugModeShowsTheTraffic) {
    const TempDir folder;
    Zpx710pModule module;
    auto words = arguments(gnss, folder.write("app.bin", random_image(10)));
    words.emplace_back("-D");
    const ToolRun run(module, words);
    EXPECT_EQ(run.count("] debug mode\n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < 56 4e 03 55 04 00 03 00 00 00 5f 8f \n"), 1U);
}

TEST_P(Zpx710pUpgrade, APortThatCannotBeOpenedIsReportedAsSuccess) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Zpx710pModule module;
    Conditions conditions;
    conditions.port.open_error = EACCES;
    const ToolRun run(module, arguments(GetParam(), path), conditions);
    Lines expected = preamble(GetParam(), path);
    expected.back() = "[ERROR] Open & config the serial failed";
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.closes, 0);
}

TEST(Zpx710pUpgradeModes, NothingElseIsValidated) {
    Zpx710pModule module;
    const ToolRun run(module, {"-m", "ZPX710P", "-t", "MCU_UPG"});
    EXPECT_EQ(run.family_lines(),
              (Lines{"[INFO] ZPX710P entry function", " Enter upgrade", "[INFO] Module: ZPX710P",
                     "[INFO] Upgrade mode: MCU_UPG", "[INFO] Connect...",
                     "[ERROR] Open & config the serial failed"}));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Zpx710pUpgradeModes, OneModuleServesEveryMode) {
    const TempDir folder;
    sim::Zpx710p module;
    unsigned seed = 1;
    for (const Target& target : targets) {
        const Bytes image = random_image(3000, seed++);
        const ToolRun run(module, arguments(target, folder.write("app.bin", image)));
        EXPECT_EQ(run.result(), upgrade_success);
        EXPECT_TRUE(module.flash().holds(target.load_address, image));
    }
    module.even_parity = true;  // on a pseudo-terminal there is none
    const Bytes image = random_image(3000, seed);
    const ToolRun run(module, {"-m", "ZPX710P", "-p", "COM6", "-b", "115200", "-f",
                               folder.write("app.bin", image), "-t", "DL"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.flash().holds(0x08000000, image));
}

// --- The pass-through request ---

TEST_P(Zpx710pUpgrade, SilenceEndsTheSynchronisationAfter20Seconds) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    SilentModule module;
    const ToolRun run(module, arguments(GetParam(), path));
    EXPECT_EQ(run.family_lines(),
              joined(preamble(GetParam(), path), {"[ERROR] Sync the serial failed,err: 0x400"}));
    EXPECT_EQ(run.result(), upgrade_failure(1024));
    EXPECT_EQ(run.closes, 1);
    EXPECT_GT(run.duration_ms, 20'000U);
    EXPECT_LE(run.duration_ms, 20'000U + 700);
    // The same bytes again and again: a request and its answer take 600 ms, a probe 70 ms.
    const bool direct = *GetParam().request == '\0';
    const Bytes once = hex(direct ? "09 13 56 4B" : GetParam().request);
    Bytes expected;
    for (int count = 0; count < (direct ? 285 : 34); ++count) {
        append(expected, once);
    }
    EXPECT_EQ(run.sent, expected);
}

TEST_P(Zpx710pUpgrade, SilenceOfADeviceThatVanishedEndsToo) {
    const TempDir folder;
    SilentModule module;
    const ToolRun run(module, arguments(GetParam(), folder.write("app.bin", random_image(10))),
                      unplugged_after_ms(3000));
    EXPECT_EQ(run.result(), upgrade_failure(1024));
    EXPECT_LE(run.duration_ms, 20'000U + 700);
}

/// An acknowledgement that is not accepted, and what is said of it.
struct BadAcknowledgement {
    const char* name;
    const char* bytes;
    Lines lines;
};

void PrintTo(const BadAcknowledgement& bad, std::ostream* out) {
    *out << bad.name;
}

const std::string sync_error = "[ERROR] Sync --- Kv_Upgrade_DecodeMsg failed errro code -1";
const std::string complete = "[INFO] complete GET1";

// The checksum of 01 01 04 00 03 55 00 00 is 5E 32; those of the variants were summed by hand.
const std::vector<BadAcknowledgement> bad_acknowledgements{
    {"group", "56 4E 02 01 04 00 03 55 00 00 5F 3A", {"[ERROR] Msg Group GET 2"}},
    {"number", "56 4E 01 02 04 00 03 55 00 00 5F 39", {"[ERROR] Msg Number GET 2"}},
    {"length over 1024", "56 4E 01 01 01 04 03 55", {"[ERROR] Payload length GET 401"}},
    {"acknowledged group",
     "56 4E 01 01 04 00 04 55 00 00 5F 36",
     {"[ERROR] Payload[1] GET4 --- 0x03"}},
    {"acknowledged number",
     "56 4E 01 01 04 00 03 54 00 00 5D 2F",
     {"[ERROR] Payload[2] GET54 --- 0x55"}},
    {"no payload", "56 4E 01 01 00 00 02 07", {complete, "[ERROR] PayloadLen ERROR 0", sync_error}},
    {"payload of 5",
     "56 4E 01 01 05 00 03 55 00 00 00 5F 97",
     {complete, "[ERROR] PayloadLen ERROR 5", sync_error}},
    {"error code",
     "56 4E 01 01 04 00 03 55 01 00 5F 34",
     {complete, "[ERROR] ERRORCODE ERROR 1", sync_error}},
    {"error code, upper byte",
     "56 4E 01 01 04 00 03 55 00 01 5F 33",
     {complete, "[ERROR] ERRORCODE ERROR 100", sync_error}},
    {"checksum in the second place",
     "56 4E 01 01 04 00 03 55 00 00 77 5E 32",
     {complete, "[ERROR] CHECKSUM ERROR 325e --- 5e77", sync_error}},
    {"checksum that never comes", "56 4E 01 01 04 00 03 55 00 00 5E 33", {}},
    {"checksum with its bytes exchanged", "56 4E 01 01 04 00 03 55 00 00 32 5E", {}},
    {"cut short", "56 4E 01 01 04 00 03 55 00", {}},
    {"nothing", "", {}},
    {"noise", "00 4E 4E 01 01 04 00", {}},
};

class Zpx710pAcknowledgement : public ::testing::TestWithParam<BadAcknowledgement> {};
INSTANTIATE_TEST_SUITE_P(Bad, Zpx710pAcknowledgement, ::testing::ValuesIn(bad_acknowledgements));

TEST_P(Zpx710pAcknowledgement, IsNotAcceptedAndTheRequestRepeated) {
    const TempDir folder;
    const Bytes image = random_image(10);
    const std::string path = folder.write("app.bin", image);
    Zpx710pModule module;
    int answers = 0;
    module.tamper_acknowledgement = [&answers](Bytes& answer) {
        if (++answers <= 2) {
            answer = hex(GetParam().bytes);
        }
    };
    const ToolRun run(module, arguments(gnss, path));
    Lines expected = preamble(gnss, path);
    expected = joined(joined(expected, GetParam().lines), GetParam().lines);
    expected = joined(joined(joined(expected, passed_through(gnss)), first_answer), second_answer);
    Lines lines = run.family_lines();
    lines.resize(std::min(lines.size(), expected.size()));
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(module.requests, 3);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(flash_holds(module, gnss, image));
}

TEST(Zpx710pPassThrough, NoiseBeforeAndInsideTheHeadIsSkipped) {
    const TempDir folder;
    const Bytes image = random_image(10);
    Zpx710pModule module;
    module.tamper_acknowledgement = [](Bytes& answer) {
        answer.insert(answer.begin() + 1, {0x56, 0x00, 0x24});
        answer.insert(answer.begin(), {0x24, 0x4E, 0xFF});
    };
    const ToolRun run(module, arguments(lora, folder.write("app.bin", image)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(module.requests, 1);
}

TEST(Zpx710pPassThrough, TheLongestPayloadIsReceivedWhole) {
    const TempDir folder;
    Zpx710pModule module;
    int answers = 0;
    module.start_baud = 921600;  // so that it arrives in time
    module.tamper_acknowledgement = [&answers](Bytes& answer) {
        if (++answers == 1) {
            Bytes payload(1024, 0xEE);
            payload[0] = 0x03;
            payload[1] = 0x55;
            answer = make_vnc_frame(0x01, 0x01, payload);
        }
    };
    const ToolRun run(module, {"-m", "ZPX710P", "-p", "COM6", "-b", "921600", "-f",
                               folder.write("app.bin", random_image(10)), "-t", "GNSS_UPG"});
    EXPECT_EQ(run.count("[ERROR] PayloadLen ERROR 400\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Zpx710pPassThrough, RefusalsGoOnUntilTheDeadline) {
    const TempDir folder;
    Zpx710pModule module;
    module.tamper_acknowledgement = [](Bytes& answer) {
        answer = hex("56 4E 01 01 04 00 03 55 01 00 5F 34");
    };
    const ToolRun run(module, arguments(gnss, folder.write("app.bin", random_image(10))));
    EXPECT_EQ(run.result(), upgrade_failure(1024));
    EXPECT_GT(run.count(sync_error), 500U);
    EXPECT_GT(run.duration_ms, 20'000U);
    EXPECT_LT(run.duration_ms, 20'100U);
}

TEST(Zpx710pPassThrough, AnAcknowledgementIsWaitedForHalfASecond) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    for (const auto& [delay, requests] : {std::pair{480, 1}, std::pair{620, 2}}) {
        Zpx710pModule module;
        Conditions conditions;
        conditions.faults.push_back({.kind = sim::FaultKind::delay,
                                     .direction = sim::Direction::to_host,
                                     .byte = 0,
                                     .amount = static_cast<std::uint64_t>(delay)});
        const ToolRun run(module, arguments(gnss, path), conditions);
        EXPECT_EQ(run.result(), upgrade_success);
        EXPECT_EQ(module.requests, requests) << delay;
    }
}

// --- Handshake ---

/// Lets the loader answer a probe wrongly a number of times.
auto wrong_at_first(sim::SyncEvent wrong, int times) {
    return [wrong, times](sim::SyncEvent probe, Bytes& answer) mutable {
        if (probe == wrong && times-- > 0) {
            answer.back() ^= 0x01;
        }
    };
}

TEST(Zpx710pHandshake, FirstProbeIsRepeatedUntilItsAnswerIsRight) {
    const TempDir folder;
    Zpx710pModule module;
    module.mcu.tamper_sync = wrong_at_first(sim::SyncEvent::first_probe, 7);
    const ToolRun run(module, arguments(mcu, folder.write("app.bin", random_image(10))));
    EXPECT_EQ(run.result(), upgrade_success);
    Bytes probes;
    for (int count = 0; count < 8; ++count) {
        append(probes, hex("09 13 56 4B"));
    }
    append(probes, hex("04 A5 03 12 AA"));
    EXPECT_TRUE(std::ranges::equal(std::span(run.sent).first(probes.size()), probes));
}

TEST(Zpx710pHandshake, AFirstAnswerInTwoPiecesIsPutTogether) {
    const TempDir folder;
    Zpx710pModule module;
    int probes = 0;
    module.mcu.tamper_sync = [&probes](sim::SyncEvent probe, Bytes& answer) {
        if (probe == sim::SyncEvent::first_probe) {
            answer = ++probes == 1 ? hex("4D 3A") : hex("FC AA");
        }
    };
    const ToolRun run(module, arguments(mcu, folder.write("app.bin", random_image(10))));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(probes, 2);
}

TEST(Zpx710pHandshake, SecondProbeIsRepeatedFor2Seconds) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Zpx710pModule module;
    module.mcu.tamper_sync = wrong_at_first(sim::SyncEvent::second_probe, 100);
    const ToolRun run(module, arguments(mcu, path));
    Lines expected = joined(preamble(mcu, path), first_answer);
    expected.insert(expected.end(), 4, "[INFO] ZPX_Upgrade_Sync --- rsp2 = 54fd5ba0");
    expected.push_back("[ERROR] Sync the serial failed,err: 0x401");
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_failure(1025));
    EXPECT_EQ(as_hex(run.sent), "09 13 56 4B 04 A5 03 12 04 A5 03 12 04 A5 03 12 04 A5 03 12");
    // The 2 s are counted from the first phase's last probe; 500 ms and 50 ms a turn.
    EXPECT_GT(run.duration_ms, 2'200U);
    EXPECT_LT(run.duration_ms, 2'300U);
    EXPECT_EQ(run.closes, 1);
}

// At 600 bits a second the first phase takes so long that it shows: counted from its end, there
// would be time for a fourth probe.
TEST(Zpx710pHandshake, The2SecondsAreCountedFromTheFirstPhasesLastProbe) {
    const TempDir folder;
    Zpx710pModule module;
    module.start_baud = 600;
    module.mcu.tamper_sync = wrong_at_first(sim::SyncEvent::second_probe, 100);
    const ToolRun run(module, {"-m", "ZPX710P", "-p", "COM6", "-b", "600", "-f",
                               folder.write("app.bin", random_image(10)), "-t", "MCU_UPG"});
    EXPECT_EQ(run.count("[INFO] ZPX_Upgrade_Sync --- rsp2 = 54fd5ba0\n"), 3U);
    EXPECT_EQ(run.result(), upgrade_failure(1025));
}

TEST(Zpx710pHandshake, TheThirdSecondAnswerIsStillGood) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Zpx710pModule module;
    int probes = 0;
    module.mcu.tamper_sync = [&probes](sim::SyncEvent probe, Bytes& answer) {
        if (probe == sim::SyncEvent::second_probe && ++probes <= 2) {
            answer.clear();
        }
    };
    const ToolRun run(module, arguments(mcu, path));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("[INFO] ZPX_Upgrade_Sync --- rsp2 = 0\n"), 2U);
    EXPECT_EQ(run.count("[INFO] ZPX_Upgrade_Sync --- rsp2 = 55fd5ba0\n"), 1U);
}

TEST(Zpx710pHandshake, TheSecondRegisterStartsAfresh) {
    const TempDir folder;
    Zpx710pModule module;
    int probes = 0;
    module.mcu.tamper_sync = [&probes](sim::SyncEvent probe, Bytes& answer) {
        if (probe == sim::SyncEvent::second_probe) {
            answer = ++probes == 1 ? hex("A0 5B") : hex("FD 55");
        }
    };
    const ToolRun run(module, arguments(mcu, folder.write("app.bin", random_image(10))));
    EXPECT_EQ(run.count("[INFO] ZPX_Upgrade_Sync --- rsp2 = 5ba00000\n"), 1U);
    EXPECT_EQ(run.count("[INFO] ZPX_Upgrade_Sync --- rsp2 = 55fd0000\n"), 3U);
    EXPECT_EQ(run.result(), upgrade_failure(1025));
}

TEST(Zpx710pHandshake, TheSecondAnswerIsReadAfterHalfASecond) {
    const TempDir folder;
    Zpx710pModule module;
    const ToolRun run(module, arguments(mcu, folder.write("app.bin", random_image(10))));
    const auto next = std::ranges::find_if(run.trace, [](const auto& byte) {
        return byte.byte == 0xAA && byte.direction == sim::Direction::to_module;
    });
    ASSERT_NE(next, run.trace.end());
    // 20 ms and 50 ms of the first phase, 500 ms and 50 ms of the second, and the bytes.
    EXPECT_GE(next->time - sim::VirtualPort::start, sim::milliseconds(620));
    EXPECT_LE(next->time - sim::VirtualPort::start, sim::milliseconds(625));
}

// --- Framed steps ---

TEST_P(Zpx710pUpgrade, RefusedBootVersion) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Zpx710pModule module;
    (module.*GetParam().loader).tamper = answering(0x71, 0x04);
    const ToolRun run(module, arguments(GetParam(), path));
    if (*GetParam().version == '\0') {
        EXPECT_EQ(run.result(), upgrade_success) << "the version is not asked";
        return;
    }
    EXPECT_EQ(run.family_lines(),
              joined(until_synchronised(GetParam(), path),
                     {"[ERROR] slave msg length: 4\r",
                      "[ERROR] GetBootVer --- Kv_Upgrade_DecodeBootVer failed errro code 5",
                      " [WARN] Get boot ver failed,err: 0x108"}));
    EXPECT_EQ(run.result(), upgrade_failure(264));
    EXPECT_EQ(run.closes, 1);
}

/// A run whose `command` is refused with a slave state says `complaints` behind the information,
/// and fails.
void expect_refusal(const Target& target, std::uint8_t command, std::uint8_t state,
                    const Lines& complaints) {
    const TempDir folder;
    const Bytes image = random_image(10);
    const std::string path = folder.write("app.bin", image);
    Zpx710pModule module;
    (module.*target.loader).tamper = answering(command, state);
    const ToolRun run(module, arguments(target, path));
    EXPECT_EQ(run.family_lines(), joined(until_information(target, path, image), complaints));
    EXPECT_EQ(run.result(), upgrade_failure(264));
    EXPECT_EQ(run.closes, 1);
}

TEST_P(Zpx710pUpgrade, RefusedInformation) {
    expect_refusal(GetParam(), 0x02, 0x06,
                   {"[ERROR] slave msg slave state is 6\r",
                    "[ERROR] SendFirmwareInfo --- Kv_Upgrade_DecodeMsg failed errro code 0006",
                    "[ERROR] Send fw info failed,err: 0x108"});
}

TEST_P(Zpx710pUpgrade, RefusedErase) {
    expect_refusal(GetParam(), 0x03, 0x05,
                   {"[ERROR] slave msg slave state is 5\r",
                    "[ERROR] EraseAPP --- Kv_Upgrade_DecodeMsg failed errro code 0005",
                    "[ERROR] Erase Flash app area failed,err: 0x108"});
}

TEST_P(Zpx710pUpgrade, ABlockIsSentTenTimes) {
    const TempDir folder;
    const Bytes image = random_image(10);
    const std::string path = folder.write("app.bin", image);
    Zpx710pModule module;
    (module.*GetParam().loader).tamper = answering(0x04, 0x02);
    const ToolRun run(module, arguments(GetParam(), path));
    Lines expected =
        joined(until_information(GetParam(), path, image), {"[INFO] Send Firmware..."});
    for (int attempt = 1; attempt <= 10; ++attempt) {
        expected = joined(
            expected, {"[ERROR] slave msg slave state is 2\r",
                       "[ERROR] SendFirmware --- Kv_Upgrade_DecodeMsg failed errro code 0002--1",
                       " Retry count: " + std::to_string(attempt)});
    }
    expected = joined(expected, {"[ERROR] Exceeding the maximum number of retry attempts!",
                                 "[ERROR] Send firmware failed,err: 0x108"});
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_failure(264));
    Bytes frames;
    for (int attempt = 1; attempt <= 10; ++attempt) {
        append(frames, firmware_frame(GetParam(), image, 0));
    }
    EXPECT_TRUE(std::ranges::equal(std::span(run.sent).last(frames.size()), frames));
    EXPECT_EQ(run.closes, 1);
}

TEST_P(Zpx710pUpgrade, ATenthAttemptIsStillGood) {
    const TempDir folder;
    const Bytes image = random_image(2 * GetParam().block_size + 5);
    Zpx710pModule module;
    int refusals = 9;
    (module.*GetParam().loader).tamper = [&refusals](const sim::UpgradeFrame& frame,
                                                     Bytes& response) {
        if (frame.command == 0x04 && frame.word(0) == 1 && refusals-- > 0) {
            response = make_upgrade_frame(frame.address, 0x04, Bytes{0, 0, 0, 2});
        }
    };
    const ToolRun run(module, arguments(GetParam(), folder.write("app.bin", image)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count(" Retry count: 9\n"), 1U);
    EXPECT_EQ(run.count(" Retry count: 10\n"), 0U);
    EXPECT_TRUE(flash_holds(module, GetParam(), image));
}

TEST_P(Zpx710pUpgrade, AWrongTailIsRetriedToo) {
    const TempDir folder;
    const Bytes image = random_image(10);
    Zpx710pModule module;
    int damaged = 1;
    (module.*GetParam().loader).tamper = [&damaged](const sim::UpgradeFrame& frame,
                                                    Bytes& response) {
        if (frame.command == 0x04 && damaged-- > 0) {
            response.back() = 0x54;
        }
    };
    const ToolRun run(module, arguments(GetParam(), folder.write("app.bin", image)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count(" Retry count: 1\n"), 1U);
    EXPECT_EQ(run.count("[ERROR]"), 0U);
}

TEST_P(Zpx710pUpgrade, RefusedReset) {
    const TempDir folder;
    const Bytes image = random_image(10);
    const std::string path = folder.write("app.bin", image);
    Zpx710pModule module;
    (module.*GetParam().loader).tamper = answering(0x31, 0x14);
    const ToolRun run(module, arguments(GetParam(), path));
    EXPECT_EQ(run.family_lines(),
              joined(until_information(GetParam(), path, image),
                     {"[INFO] Send Firmware...", "[ERROR] slave msg slave state is 14\r",
                      "[ERROR] Reset --- Kv_Upgrade_DecodeMsg failed errro code 0014",
                      "[ERROR] Reset the serial failed,err: 0x108"}));
    EXPECT_EQ(run.result(), upgrade_failure(264));
    EXPECT_EQ(run.closes, 1);
}

/// The code of a reception that failed is the result of the run, as it is.
TEST_P(Zpx710pUpgrade, AWrongTailInEveryStep) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    const std::vector<std::pair<std::uint8_t, std::string>> steps{
        {0x71, " [WARN] Get boot ver failed,err: 0x402"},
        {0x02, "[ERROR] Send fw info failed,err: 0x402"},
        {0x03, "[ERROR] Erase Flash app area failed,err: 0x402"},
        {0x31, "[ERROR] Reset the serial failed,err: 0x402"}};
    for (const auto& [command, line] : steps) {
        if (command == 0x71 && *GetParam().version == '\0') {
            continue;
        }
        Zpx710pModule module;
        (module.*GetParam().loader).tamper = [wanted = command](const sim::UpgradeFrame& frame,
                                                                Bytes& response) {
            if (frame.command == wanted) {
                response.back() = 0x54;
            }
        };
        const ToolRun run(module, arguments(GetParam(), path));
        EXPECT_EQ(run.family_lines().back(), line);
        EXPECT_EQ(run.result(), upgrade_failure(1026));
        EXPECT_EQ(run.closes, 1);
    }
}

/// A loader that says nothing is waited for without end, as long as the device is there.
TEST_P(Zpx710pUpgrade, SilenceInEveryStepEndsWhenTheDeviceVanishes) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    const std::vector<std::pair<std::uint8_t, std::string>> steps{
        {0x71, " [WARN] Get boot ver failed,err: 0x107"},
        {0x02, "[ERROR] Send fw info failed,err: 0x107"},
        {0x03, "[ERROR] Erase Flash app area failed,err: 0x107"},
        {0x04, "[ERROR] Send firmware failed,err: 0x108"},
        {0x31, "[ERROR] Reset the serial failed,err: 0x107"}};
    for (const auto& [command, line] : steps) {
        if (command == 0x71 && *GetParam().version == '\0') {
            continue;
        }
        Zpx710pModule module;
        (module.*GetParam().loader).tamper = [wanted = command](const sim::UpgradeFrame& frame,
                                                                Bytes& response) {
            if (frame.command == wanted) {
                response.clear();
            }
        };
        const ToolRun run(module, arguments(GetParam(), path), unplugged_after_ms(3'600'000));
        EXPECT_FALSE(run.hit_time_limit);
        EXPECT_EQ(run.family_lines().back(), line);
        EXPECT_EQ(run.result(), upgrade_failure(command == 0x04 ? 264 : 263));
        EXPECT_GE(run.duration_ms, 3'600'000U);
        EXPECT_LE(run.duration_ms, 3'606'000U);
    }
}

// --- The image ---

TEST_P(Zpx710pUpgrade, AnImageThatCannotBeHad) {
    const TempDir folder;
    const std::vector<std::pair<std::string, int>> paths{
        {folder.path("absent.bin"), 259}, {folder.path(), 263}, {std::string(5000, 'x'), 259}};
    for (const auto& [path, code] : paths) {
        Zpx710pModule module;
        const ToolRun run(module, arguments(GetParam(), path));
        EXPECT_EQ(run.family_lines(),
                  joined(until_version(GetParam(), path),
                         {"[INFO] Send Firmware Information...",
                          code == 259 ? "[ERROR] Send fw info failed,err: 0x103"
                                      : "[ERROR] Send fw info failed,err: 0x107"}));
        EXPECT_EQ(run.result(), upgrade_failure(code));
        EXPECT_EQ(run.closes, 1);
    }
}

TEST(Zpx710pUpgradeModes, NoImageGiven) {
    Zpx710pModule module;
    const ToolRun run(module, {"-m", "ZPX710P", "-p", "COM6", "-b", "115200", "-t", "MCU_UPG"});
    EXPECT_EQ(run.result(), upgrade_failure(259));
}

TEST_P(Zpx710pUpgrade, AnImageLargerThanTheFlashIsRefusedByTheModule) {
    const TempDir folder;
    Zpx710pModule module;
    const ToolRun run(module,
                      arguments(GetParam(), folder.write("app.bin", Bytes(1024 * 1024 + 1))));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send fw info failed,err: 0x108");
    EXPECT_EQ(run.result(), upgrade_failure(264));
}

// --- Disturbed lines ---

TEST_P(Zpx710pUpgrade, UnpluggedAtEveryByte) {
    const TempDir folder;
    const Bytes image = random_image(20);
    const std::string path = folder.write("app.bin", image);
    const std::size_t count = expected_bytes(GetParam(), image).size();
    for (std::size_t at = 0; at < count; ++at) {
        Zpx710pModule module;
        Conditions conditions;
        conditions.faults.push_back({.kind = sim::FaultKind::unplug, .byte = at});
        const ToolRun run(module, arguments(GetParam(), path), conditions);
        EXPECT_FALSE(run.hit_time_limit) << at;
        EXPECT_TRUE(run.result().starts_with("[FAIL]")) << at;
        EXPECT_GE(run.count("[ERROR]") + run.count("[WARN]"), 1U) << at;
        EXPECT_LE(run.duration_ms, 30'000U) << at;
    }
}

/// One byte lost or damaged on the way to the module, or the module restarted: whatever comes of
/// it, a run that says success leaves the image in the flash. A wait that such a fault makes
/// endless ends with the device.
TEST_P(Zpx710pUpgrade, DisturbedAtEveryByte) {
    const TempDir folder;
    const Bytes image = random_image(20);
    const std::string path = folder.write("app.bin", image);
    const std::size_t count = expected_bytes(GetParam(), image).size();
    for (const auto kind : {sim::FaultKind::drop, sim::FaultKind::flip, sim::FaultKind::duplicate,
                            sim::FaultKind::power_cycle}) {
        for (std::size_t at = 0; at < count; ++at) {
            Zpx710pModule module;
            Conditions conditions = unplugged_after_ms(40'000);
            conditions.faults.push_back({.kind = kind, .byte = at});
            const ToolRun run(module, arguments(GetParam(), path), conditions);
            EXPECT_FALSE(run.hit_time_limit) << at;
            if (run.result() == upgrade_success) {
                EXPECT_TRUE(flash_holds(module, GetParam(), image)) << at;
            }
        }
    }
}

}  // namespace
}  // namespace orbix::test
