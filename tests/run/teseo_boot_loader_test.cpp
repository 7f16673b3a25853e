// The boot loader dialogue itself, with the differences between the families one by one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "core/kv_log.h"
#include "core/kv_uart.h"
#include "core/kv_util.h"
#include "run/harness.h"
#include "teseo/boot_loader.h"
#include "teseo/sta9100.h"
#include "teseo_chip.h"

namespace orbix::test {
namespace {

using sim::milliseconds;
using sim::TeseoChip;
using sim::TeseoStep;
using teseo::Heard;

/// A scan for tests: takes a read that ends with a line end as one sentence.
Heard whole_read(std::span<const std::uint8_t> received, std::string& sentence) {
    if (received.empty() || received.back() != '\n') {
        return Heard::nothing;
    }
    sentence.assign(received.begin(), received.end() - 2);
    return teseo::judge_sentence(sentence);
}

constexpr teseo::OptionWords words{.a = 0x000FF000, .b = 0x00101000};

/// Changes the rate, tries the handshake often, sends the word a thousand times.
constexpr teseo::BootLoaderFamily fast{
    .flush_before_request = false,
    .request_passes = 6,
    .scan = whole_read,
    .other_sentences_fail = false,
    .words_per_pass = 1000,
    .sync_read_ms = 5,
    .sync_reply_ms = 10000,
    .reports_sync_failure = false,
    .baud_selector = 2,
    .record_pause_ms = 500,
    .fast_baud = 230400,
    .handshake_attempts = 51,
    .erase_ms = 60000,
    .image = {.piece = 16384, .reply = 10, .piece_ack_ms = 100000, .crc_ack_ms = 60000},
    .reports_completion = false,
    .rom_upgrade_mode = 1,
};

TeseoChip::Settings quiet() {
    TeseoChip::Settings settings;
    settings.talker.period = 0;
    settings.loader.nvm_offset = words.a;
    settings.loader.nvm_size = words.b;
    settings.loader.baud_selector = fast.baud_selector;
    settings.rom.dialogue = sim::TeseoBootRom::Dialogue::sta9100;
    settings.rom.program_area = words.a;
    return settings;
}

/// An open port to a module, and what has been logged.
class Dialogue {
  public:
    /// How long the port has been open, and the module on, when a test begins.
    static constexpr unsigned settle_ms = 10;

    explicit Dialogue(sim::Model& module)
        : line_(module, {}, {}, sim::VirtualPort::start),
          port(line_, {}),
          stream_(open_memstream(&text_, &size_)) {
        set_log_stream(stream_);
        kv_log_reset();
        kv_uart_reset();
        flash_tool_msecs();
        handle = serial_open("COM6", 115200);
        sleep_ms(settle_ms);
    }
    ~Dialogue() {
        set_log_stream(nullptr);
        std::fclose(stream_);
        std::free(text_);
    }
    Dialogue(const Dialogue&) = delete;
    Dialogue& operator=(const Dialogue&) = delete;

    [[nodiscard]] std::size_t count(const std::string& wanted) {
        std::fflush(stream_);
        const std::string_view text(text_, size_);
        std::size_t found = 0;
        for (std::size_t at = text.find(wanted); at != std::string_view::npos;
             at = text.find(wanted, at + 1)) {
            ++found;
        }
        return found;
    }
    [[nodiscard]] sim::Micros elapsed() const {
        return port.now - sim::VirtualPort::start - milliseconds(settle_ms);
    }
    [[nodiscard]] std::size_t bytes_sent() const {
        return static_cast<std::size_t>(std::count_if(
            line_.trace().begin(), line_.trace().end(),
            [](const auto& byte) { return byte.direction == sim::Direction::to_module; }));
    }

  private:
    sim::Line line_;

  public:
    sim::VirtualPort port;
    SerialHandle handle = no_port;

  private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* stream_;
};

TEST(TeseoBootLoader, RateGoesUpBehindTheOptions) {
    const TempDir folder;
    const Bytes image = random_image(40'000);
    const std::string path = folder.write("app.bin", image);
    TeseoChip module(quiet());
    module.flash().fill(0x00);
    Dialogue run(module);
    teseo::LoaderState state;
    EXPECT_EQ(teseo::upgrade_by_mode(run.handle, fast, state, path.c_str(), words), 0);

    EXPECT_TRUE(module.completed());
    EXPECT_EQ(module.loader().complaints, std::vector<std::string>{});
    EXPECT_EQ(state.file_len, 40'000);
    EXPECT_EQ(run.port.line_settings.baud, 230400U);
    EXPECT_EQ(module.baud, 230400U);
    const auto& options = module.loader().options();
    EXPECT_EQ(as_hex(std::span(options).first(8)), "01 00 00 02 40 9C 00 00");
    EXPECT_EQ(as_hex(std::span(options).subspan(12)), "00 F0 0F 00 00 10 10 00");
    EXPECT_EQ(run.count("Upgrade complete"), 0U);
    EXPECT_EQ(run.count("Please power up"), 0U);
    EXPECT_EQ(module.flash().cells()[words.a], 0xFF) << "the NVM area is erased";
}

TEST(TeseoBootLoader, FloodIsAThousandWordsAPass) {
    TeseoChip module(quiet());
    Dialogue run(module);
    EXPECT_EQ(teseo::Kv_Sync_Module(run.handle, fast, {}), 0);
    EXPECT_EQ(run.bytes_sent(), 8001U);
}

TEST(TeseoBootLoader, SyncWithoutAnAnswerEndsAfterTheFirstPassPastFiveSeconds) {
    SilentModule module;
    Dialogue run(module);
    EXPECT_EQ(teseo::Kv_Sync_Module(run.handle, fast, {.flash_mode = teseo::mode_recovery}), -1);
    EXPECT_EQ(run.count("[INFO] Please power up the module within 5s.\n"), 1U);
    EXPECT_EQ(run.count("[ERROR] SYNC time out 5000 ms\n"), 1U);
    EXPECT_EQ(module.heard.size(), 8 * 8000U) << "a pass lasts 0.7 s";
    EXPECT_EQ(as_hex(std::span(module.heard).first(12)), "F4 01 D5 BC FF FF FF FF F4 01 D5 BC");
}

TEST(TeseoBootLoader, FailedSyncHasNoLineOfItsOwnWhereNoneIsKnown) {
    const TempDir folder;
    SilentModule module;
    Dialogue run(module);
    teseo::LoaderState state{.flash_mode = teseo::mode_recovery};
    EXPECT_EQ(teseo::upgrade_by_mode(run.handle, fast, state,
                                     folder.write("app.bin", Bytes{1}).c_str(), words),
              -1);
    EXPECT_EQ(run.count("Sync module failed"), 0U);
}

TEST(TeseoBootLoader, WaitsTenSecondsForTheConfirmation) {
    TeseoChip module(quiet());
    module.loader().tamper = [](TeseoStep step, Bytes& answer) {
        if (step == TeseoStep::sync_confirmed) {
            answer.clear();
        }
    };
    Dialogue run(module);
    EXPECT_EQ(teseo::Kv_Sync_Module(run.handle, fast, {}), -1);
    EXPECT_EQ(run.count("[ERROR] ACK time out 10000 ms\n"), 1U);
    EXPECT_GE(run.elapsed(), milliseconds(10'690));
}

/// What the options step says when the loader is deaf for a while.
int options_after(sim::Micros deaf, std::size_t& timeouts, sim::Micros& elapsed) {
    const TempDir folder;
    auto settings = quiet();
    settings.loader.ready_time = deaf;
    TeseoChip module(settings);
    Dialogue run(module);
    teseo::LoaderState state;
    EXPECT_EQ(teseo::Kv_Sync_Module(run.handle, fast, state), 0);
    const sim::Micros before = run.elapsed();
    const int result = teseo::Kv_Write_Options(run.handle, fast, state,
                                               folder.write("app.bin", Bytes{1}).c_str(), words);
    timeouts = run.count("[ERROR] ACK time out 500 ms\n");
    elapsed = run.elapsed() - before;
    return result;
}

TEST(TeseoBootLoader, HandshakeIsTriedFiftyOneTimes) {
    std::size_t timeouts = 0;
    sim::Micros elapsed = 0;
    EXPECT_EQ(options_after(0, timeouts, elapsed), 0);
    EXPECT_EQ(timeouts, 0U);
    EXPECT_EQ(options_after(milliseconds(25'900), timeouts, elapsed), 0) << "the last try counts";
    EXPECT_EQ(timeouts, 50U);
    EXPECT_EQ(options_after(milliseconds(27'000), timeouts, elapsed), -1);
    EXPECT_EQ(timeouts, 51U);
    EXPECT_GE(elapsed, milliseconds(26'500)) << "two pauses and 51 waits of half a second";
}

TEST(TeseoBootLoader, WrongAnswerEndsTheHandshakeAtOnce) {
    const TempDir folder;
    TeseoChip module(quiet());
    module.loader().tamper = [](TeseoStep step, Bytes& answer) {
        if (step == TeseoStep::ready) {
            answer = {0x15};
        }
    };
    Dialogue run(module);
    teseo::LoaderState state;
    EXPECT_EQ(teseo::upgrade_by_mode(run.handle, fast, state,
                                     folder.write("app.bin", Bytes{1}).c_str(), words),
              -1);
    EXPECT_EQ(run.count("[ERROR] ACK not expected [15]\n"), 1U);
    EXPECT_EQ(run.count("ACK time out"), 0U);
    EXPECT_EQ(run.count("[ERROR] Write binary image options failed, upgrade failed.\n"), 1U);
}

struct Limit {
    TeseoStep step;
    const char* line;
};

class TeseoBootLoaderLimits : public ::testing::TestWithParam<Limit> {};

TEST_P(TeseoBootLoaderLimits, SilenceIsWaitedForThatLong) {
    const TempDir folder;
    TeseoChip module(quiet());
    module.loader().tamper = [](TeseoStep step, Bytes& answer) {
        if (step >= GetParam().step) {
            answer.clear();
        }
    };
    Dialogue run(module);
    teseo::LoaderState state;
    EXPECT_EQ(teseo::upgrade_by_mode(run.handle, fast, state,
                                     folder.write("app.bin", Bytes{1}).c_str(), words),
              -1);
    EXPECT_EQ(run.count(GetParam().line), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, TeseoBootLoaderLimits,
    ::testing::Values(Limit{TeseoStep::initialised, "[ERROR] ACK time out 500 ms\n"},
                      Limit{TeseoStep::code_erased, "[ERROR] ACK time out 60000 ms\n"},
                      Limit{TeseoStep::nvm_erased, "[ERROR] ACK time out 60000 ms\n"},
                      Limit{TeseoStep::piece, "[ERROR] ACK time out 100000 ms\n"},
                      Limit{TeseoStep::image_checked, "[ERROR] ACK time out 60000 ms\n"}));

TEST(TeseoBootLoader, RequestFallsBackAfterSentencesWhereTheyAreNoFailure) {
    auto settings = quiet();
    settings.talker.period = milliseconds(100);
    settings.talker.answer = sim::UpgradeAnswer::none;
    TeseoChip module(settings);
    Dialogue run(module);
    teseo::LoaderState state{.flash_mode = teseo::mode_normal};
    EXPECT_EQ(teseo::Kv_Start_Upgrade(run.handle, fast, state), 0);
    EXPECT_EQ(state.flash_mode, teseo::mode_recovery);
    EXPECT_EQ(run.count("[INFO] Unable to find nmea presence, enter recovery mode to upgrade.\n"),
              1U);
}

TEST(TeseoBootLoader, RequestWaitsSixPasses) {
    SilentModule module;
    Dialogue run(module);
    teseo::LoaderState state{.flash_mode = teseo::mode_normal};
    EXPECT_EQ(teseo::Kv_Start_Upgrade(run.handle, fast, state), 0);
    EXPECT_EQ(run.elapsed() / 1000, 6 * 600 + 1U);
}

/// Says something as soon as it has power, and nothing else.
class Greeter : public SilentModule {
  public:
    explicit Greeter(Bytes greeting) : greeting_(std::move(greeting)) {}
    void power_on(sim::Micros /*now*/, sim::Wire& wire) override { wire.send(greeting_); }

  private:
    Bytes greeting_;
};

TEST(TeseoBootLoader, WhatCameBeforeTheRequestCountsUnlessItIsFlushed) {
    teseo::BootLoaderFamily family = fast;
    for (const bool flush : {false, true}) {
        const std::string answer = "$PSTMFWUPGRADEOK*5F\r\n";
        Greeter module({answer.begin(), answer.end()});
        Dialogue run(module);
        family.flush_before_request = flush;
        teseo::LoaderState state{.flash_mode = teseo::mode_normal};
        EXPECT_EQ(teseo::Kv_Start_Upgrade(run.handle, family, state), 0);
        EXPECT_EQ(state.flash_mode, flush ? teseo::mode_recovery : teseo::mode_normal);
    }
}

TEST(TeseoBootLoader, AnswersFromBeforeTheSyncAreDropped) {
    Greeter loader(hex("73 40 98 83 CC"));
    Dialogue sync(loader);
    EXPECT_EQ(teseo::Kv_Sync_Module(sync.handle, fast, {}), -1);
    EXPECT_EQ(sync.count("[ERROR] SYNC time out 5000 ms\n"), 1U);
}

TEST(TeseoBootLoader, AnswersFromBeforeTheRunAreDropped) {
    const TempDir folder;
    Greeter rom(hex("3A 54 2C A6 CC"));
    Dialogue run(rom);
    teseo::LoaderState state{.flash_mode = teseo::mode_boot};
    EXPECT_EQ(teseo::upgrade_by_mode(run.handle, fast, state,
                                     folder.write("app.bin", Bytes{1}).c_str(), words),
              -1);
    EXPECT_EQ(run.count("[ERROR] Sync module failed.Upgrade failed.\n"), 1U);
}

TEST(TeseoBootLoader, ModeBootGoesThroughTheRom) {
    const TempDir folder;
    const Bytes image = random_image(6000);
    TeseoChip module(quiet());
    Dialogue run(module);
    teseo::LoaderState state{.flash_mode = teseo::mode_boot};
    EXPECT_EQ(teseo::upgrade_by_mode(run.handle, fast, state,
                                     folder.write("app.bin", image).c_str(), words),
              0);
    EXPECT_TRUE(module.rom().completed());
    EXPECT_EQ(module.rom().complaints, std::vector<std::string>{});
}

TEST(TeseoBootLoader, AnyRomModeButZeroIsTheFirst) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    for (const int mode : {1, 7, -1}) {
        TeseoChip module(quiet());
        Dialogue run(module);
        EXPECT_EQ(sta9100::process_sta9100_upgrade(run.handle, path.c_str(), mode), 0);
        EXPECT_EQ(run.count("bin size: 10912"), 1U);
    }
}

TEST(TeseoBootLoader, FirmwareThatVanishedIsRefusedByTheModule) {
    const TempDir folder;
    TeseoChip module(quiet());
    Dialogue run(module);
    teseo::LoaderState state;
    EXPECT_EQ(teseo::upgrade_by_mode(run.handle, fast, state, folder.path("gone").c_str(), words),
              -1);
    EXPECT_EQ(run.count("[ERROR] The file does not exist!\n"), 1U);
    EXPECT_EQ(run.count("[ERROR] ACK not expected [33]\n"), 1U);
}

TEST(TeseoBootLoader, SentencesAreJudgedByWhatTheyContain) {
    EXPECT_EQ(teseo::judge_sentence("$PSTMFWUPGRADEOK*5F"), Heard::accepted);
    EXPECT_EQ(teseo::judge_sentence("xPSTMFWUPGRADEOKx"), Heard::accepted);
    EXPECT_EQ(teseo::judge_sentence("$PZRNFWUPGRADEERROR"), Heard::refused);
    EXPECT_EQ(teseo::judge_sentence("PZRNFWUPGRADEERROR"), Heard::sentence);
    EXPECT_EQ(teseo::judge_sentence(""), Heard::sentence);
}

TEST(TeseoBootLoader, ModeWords) {
    SilentModule module;
    Dialogue run(module);
    int mode = teseo::mode_not_given;
    EXPECT_TRUE(teseo::parse_flash_mode("recovery", mode));
    EXPECT_EQ(mode, 0);
    EXPECT_TRUE(teseo::parse_flash_mode("normal", mode));
    EXPECT_EQ(mode, 1);
    EXPECT_TRUE(teseo::parse_flash_mode("boot", mode));
    EXPECT_EQ(mode, 2);
    EXPECT_FALSE(teseo::parse_flash_mode("Boot", mode));
    EXPECT_EQ(run.count("[ERROR] unknow flash mode Boot, FAIL\n"), 1U);
}

}  // namespace
}  // namespace orbix::test
