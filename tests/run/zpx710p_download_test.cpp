// The ZPX710P download through the main controller's ROM boot loader, end to end.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "run/harness.h"
#include "zpx710p.h"

namespace orbix::test {
namespace {

using sim::Zpx710pRomLoader;
using Question = Zpx710pRomLoader::Question;

constexpr std::uint32_t flash_base = 0x08000000;

std::vector<std::string> arguments(const std::string& image) {
    return {"-m", "ZPX710P", "-p", "COM6", "-b", "115200", "-f", image, "-t", "DL"};
}

/// Bytes with their XOR behind them.
Bytes summed(Bytes bytes) {
    std::uint8_t sum = 0;
    for (const std::uint8_t byte : bytes) {
        sum ^= byte;
    }
    bytes.push_back(sum);
    return bytes;
}

/// What the tool sends for an image when every step succeeds at once.
Bytes expected_bytes(const Bytes& image) {
    Bytes bytes{0x7F};
    const std::size_t pages = (image.size() + 2047) / 2048 % 256;
    for (std::size_t page = 0; page < pages; ++page) {
        append(bytes, hex("43 BC 00 00 00"));
    }
    for (std::size_t at = 0; at < image.size(); at += 240) {
        const std::size_t count = std::min<std::size_t>(240, image.size() - at);
        append(bytes, hex("31 CE"));
        append(bytes, summed({0x08, static_cast<std::uint8_t>(at >> 16),
                              static_cast<std::uint8_t>(at >> 8), static_cast<std::uint8_t>(at)}));
        Bytes block{static_cast<std::uint8_t>(count - 1)};
        block.insert(block.end(), image.begin() + static_cast<std::ptrdiff_t>(at),
                     image.begin() + static_cast<std::ptrdiff_t>(at + count));
        append(bytes, summed(block));
    }
    return bytes;
}

/// The lines from the options to the opened port.
Lines preamble(const std::string& image) {
    return {"[INFO] ZPX710P entry function",
            " Enter download",
            "[INFO] Module: ZPX710P",
            "[INFO] Port: COM6",
            "[INFO] Baud rate:115200",
            "[INFO] Firmware:" + image,
            "[INFO] Connect..."};
}

bool flash_holds(Zpx710pRomLoader& module, const Bytes& image) {
    return module.flash().holds(flash_base, image);
}

/// Answers the first synchronisation bytes with something else.
class RefusingLoader : public Zpx710pRomLoader {
  public:
    explicit RefusingLoader(int refusals) : refusals_(refusals) {}

    void receive(std::uint8_t byte, sim::Micros now, sim::Wire& wire) override {
        if (refusals_ > 0) {
            --refusals_;
            wire.send({0x1F});
            return;
        }
        Zpx710pRomLoader::receive(byte, now, wire);
    }

  private:
    int refusals_;
};

/// Makes a loader refuse every question of a kind, and all that follows it.
auto refusing(Question refused) {
    return [refused, refuses = false](Question question, Bytes& answer) mutable {
        refuses = refuses || question == refused;
        if (refuses) {
            answer = {0x1F};
        }
    };
}

/// Makes a loader fall silent at a question.
auto silent_from(Question last) {
    return [last, silent = false](Question question, Bytes& answer) mutable {
        silent = silent || question == last;
        if (silent) {
            answer.clear();
        }
    };
}

class Zpx710pDownloadSizes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Zpx710pDownloadSizes, FlashHoldsTheImageAndOnlyItsPagesAreErased) {
    const TempDir folder;
    const Bytes image = random_image(GetParam());
    Zpx710pRomLoader module;
    module.flash().fill(0x00);
    const ToolRun run(module, arguments(folder.write("app.bin", image)));

    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.sent, expected_bytes(image));
    EXPECT_TRUE(flash_holds(module, image));
    const std::size_t pages_end = (image.size() + 2047) / 2048 * 2048;
    const auto cells = module.flash().cells();
    EXPECT_TRUE(std::all_of(cells.begin() + static_cast<std::ptrdiff_t>(image.size()),
                            cells.begin() + static_cast<std::ptrdiff_t>(pages_end),
                            [](std::uint8_t cell) { return cell == 0xFF; }));
    EXPECT_EQ(cells[pages_end], 0x00) << "a page behind the image was erased";
    EXPECT_EQ(run.closes, 1);
    EXPECT_FALSE(run.left_open);
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
}

INSTANTIATE_TEST_SUITE_P(Images, Zpx710pDownloadSizes,
                         ::testing::Values(0, 1, 239, 240, 241, 1024, 2048, 2049, 5120, 5121));

TEST(Zpx710pDownload, LinesOfAGoodRun) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(241));
    Zpx710pRomLoader module;
    const ToolRun run(module, arguments(path));

    EXPECT_EQ(run.family_lines(),
              joined(preamble(path), {"[INFO] Handshake success", "[INFO] Firmware size: 241",
                                      "[INFO] Erase 1 pages", "[INFO] bytes_read = 240",
                                      "[INFO] bytes_read = 1", "[INFO] Download success"}));
    const Lines progress = run.progress_lines();
    ASSERT_EQ(progress.size(), 6U);
    EXPECT_EQ(progress[0], "[PROGRESS] 0.00%\r");
    EXPECT_EQ(progress[1], "[SPEED] 0 Bytes/241 Bytes    0 KBps");
    EXPECT_EQ(progress[2], "[PROGRESS] 99.59%\r");
    EXPECT_TRUE(progress[3].starts_with("[SPEED] 240 Bytes/241 Bytes    ")) << progress[3];
    EXPECT_EQ(progress[4], "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(progress[5].starts_with("[SPEED] 241 Bytes/241 Bytes    ")) << progress[5];
}

TEST(Zpx710pDownload, SpeedCountsOneKilobyteMoreOverTheTimeSinceTheStart) {
    const TempDir folder;
    Zpx710pRomLoader module;
    // A block of 240 bytes: 251 bytes of 11 bits on the line with the answers, and 4 ms; at 1200
    // bits a second.
    module.start_baud = 1200;
    const ToolRun run(module, {"-m", "ZPX710P", "-p", "COM6", "-b", "1200", "-f",
                               folder.write("app.bin", random_image(240)), "-t", "DL"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, std::vector<unsigned>{1200});
    EXPECT_EQ(run.count("[SPEED] 240 Bytes/240 Bytes    0.5 KBps\n"), 1U);
}

TEST(Zpx710pDownload, TheStatedPackets) {
    const TempDir folder;
    const Bytes image = random_image(241);
    Zpx710pRomLoader module;
    const ToolRun run(module, arguments(folder.write("app.bin", image)));
    ASSERT_EQ(run.sent, expected_bytes(image));
    EXPECT_EQ(as_hex(std::span(run.sent).first(14)), "7F 43 BC 00 00 00 31 CE 08 00 00 00 08 EF");
    EXPECT_EQ(as_hex(std::span(run.sent).last(10).first(8)), "31 CE 08 00 00 F0 F8 00");
}

TEST(Zpx710pDownload, ServesBothNames) {
    const TempDir folder;
    const Bytes image = random_image(300);
    Zpx710pRomLoader module;
    const ToolRun run(module, {"-m", "ZPX710P-EVB", "-p", "COM6", "-b", "115200", "-f",
                               folder.write("app.bin", image), "-t", "download"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(flash_holds(module, image));
}

// 255 pages of 2048 bytes are the most that are erased.
TEST(Zpx710pDownload, TheLargestImageWithEveryPageErased) {
    const TempDir folder;
    const Bytes image = random_image(522'240);
    Zpx710pRomLoader module;
    module.flash().fill(0x00);
    const ToolRun run(module, arguments(folder.write("app.bin", image)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("[INFO] Erase 255 pages\n"), 1U);
    EXPECT_EQ(run.sent, expected_bytes(image));
    EXPECT_TRUE(flash_holds(module, image));
}

// The number of pages is counted in 8 bits: 257 pages count as one. The image is right where the
// flash is blank; flash in use keeps its zeros, whatever is programmed over them.
TEST(Zpx710pDownload, TheNumberOfPagesWrapsAt256) {
    const TempDir folder;
    const Bytes image = random_image(524'289);
    Zpx710pRomLoader module;
    module.flash().program(flash_base, Bytes(4096, 0x00));
    const ToolRun run(module, arguments(folder.write("app.bin", image)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("[INFO] Erase 1 pages\n"), 1U);
    EXPECT_EQ(run.sent, expected_bytes(image));
    Bytes expected = image;
    std::fill_n(expected.begin() + 2048, 2048, std::uint8_t{0x00});
    EXPECT_TRUE(flash_holds(module, expected));
}

// The pages are erased in order although every erase carries the page number 0.
TEST(Zpx710pDownload, PageNumberIsZeroForEveryPage) {
    const TempDir folder;
    const Bytes image = random_image(6144);
    Zpx710pRomLoader module;
    module.flash().fill(0x00);
    const ToolRun run(module, arguments(folder.write("app.bin", image)));
    ASSERT_EQ(run.sent, expected_bytes(image));
    EXPECT_EQ(as_hex(std::span(run.sent).first(16)),
              "7F 43 BC 00 00 00 43 BC 00 00 00 43 BC 00 00 00");
    EXPECT_TRUE(flash_holds(module, image));
}

TEST(Zpx710pDownload, ASecondRunReplacesTheFirstImage) {
    const TempDir folder;
    const Bytes first = random_image(6000, 1);
    const Bytes second = random_image(5000, 2);
    Zpx710pRomLoader module;
    const ToolRun one(module, arguments(folder.write("a.bin", first)));
    const ToolRun two(module, arguments(folder.write("b.bin", second)));
    EXPECT_EQ(two.result(), upgrade_success);
    EXPECT_TRUE(flash_holds(module, second));
}

// --- What stops it before the dialogue ---

TEST(Zpx710pDownload, PortThatCannotBeOpened) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Zpx710pRomLoader module;
    Conditions conditions;
    conditions.port.open_error = EBUSY;
    const ToolRun run(module, arguments(path), conditions);
    EXPECT_EQ(run.family_lines(),
              joined(preamble(path), {"[ERROR] Open & config the serial failed"}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.closes, 0);
}

TEST(Zpx710pDownload, NothingIsValidated) {
    Zpx710pRomLoader module;
    const ToolRun run(module, {"-m", "ZPX710P", "-t", "DL"});
    EXPECT_EQ(run.family_lines(),
              (Lines{"[INFO] ZPX710P entry function", " Enter download", "[INFO] Module: ZPX710P",
                     "[INFO] Connect...", "[ERROR] Open & config the serial failed"}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Zpx710pDownload, EvenParityThatCannotBeSetClosesThePortTwice) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    {
        Zpx710pRomLoader module;
        Conditions conditions;
        conditions.port.settings_readable = false;
        const ToolRun run(module, arguments(path), conditions);
        EXPECT_EQ(run.family_lines(),
                  joined(preamble(path), {"[ERROR] Unable to obtain serial port configuration",
                                          "[ERROR] Config the serial even parity failed"}));
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.closes, 2);
        EXPECT_TRUE(run.sent.empty());
    }
    Zpx710pRomLoader module;
    Conditions conditions;
    conditions.port.settings_writable = false;
    const ToolRun run(module, arguments(path), conditions);
    EXPECT_EQ(run.family_lines(),
              joined(preamble(path), {"[ERROR] Unable to set serial port configuration",
                                      "[ERROR] Config the serial even parity failed"}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.closes, 2);
}

TEST(Zpx710pDownload, ALoaderWithoutParityIsNotUnderstood) {
    const TempDir folder;
    Zpx710pRomLoader module;
    module.even_parity = false;
    Conditions conditions;
    conditions.port.limit = sim::milliseconds(100);
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))), conditions);
    EXPECT_EQ(run.count("Handshake success"), 0U);
}

// --- The image ---

/// An image that cannot be opened passes as a success up to the result.
void expect_passed_over(const ToolRun& run, const std::string& path) {
    EXPECT_EQ(run.family_lines(),
              joined(preamble(path), {"[INFO] Handshake success", "[INFO] Download success"}));
    EXPECT_EQ(run.result(), upgrade_failure(263));
    EXPECT_EQ(run.sent, Bytes{0x7F});
    EXPECT_EQ(run.closes, 1);
}

TEST(Zpx710pDownload, MissingImageIsCalledASuccessUpToTheResult) {
    const TempDir folder;
    const std::string path = folder.path("absent.bin");
    Zpx710pRomLoader module;
    expect_passed_over(ToolRun(module, arguments(path)), path);
}

TEST(Zpx710pDownload, AFolderIsNoImage) {
    const TempDir folder;
    Zpx710pRomLoader module;
    expect_passed_over(ToolRun(module, arguments(folder.path())), folder.path());
}

TEST(Zpx710pDownload, NoImageGiven) {
    Zpx710pRomLoader module;
    const ToolRun run(module, {"-m", "ZPX710P", "-p", "COM6", "-b", "115200", "-t", "DL"});
    EXPECT_EQ(run.count("[INFO] Download success\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(263));
}

TEST(Zpx710pDownload, EmptyImageErasesAndWritesNothing) {
    const TempDir folder;
    const std::string path = folder.write("empty.bin", Bytes{});
    Zpx710pRomLoader module;
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(
        run.family_lines(true),
        joined(preamble(path), {"[INFO] Handshake success", "[INFO] Firmware size: 0",
                                "[INFO] Erase 0 pages", "[PROGRESS] 0.00%\r",
                                "[SPEED] 0 Bytes/0 Bytes    0 KBps", "[INFO] Download success"}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.sent, Bytes{0x7F});
}

TEST(Zpx710pDownload, AnImageLargerThanTheFlashIsRefusedByTheModule) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(5000));
    Zpx710pRomLoader module(4096);
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(run.family_lines(),
              joined(preamble(path), {"[INFO] Handshake success", "[INFO] Firmware size: 5000",
                                      "[INFO] Erase 3 pages", "[ERROR] Erase page 2 failed",
                                      "[ERROR] Erase failed"}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Zpx710pDownload, AnImageThatChangesItsLengthDuringTheRunIsAFailure) {
    for (const std::uintmax_t length : {5'000U, 10'100U}) {
        const TempDir folder;
        const std::string path = folder.write("app.bin", random_image(10'000));
        Zpx710pRomLoader module;
        module.tamper = [&path, length](Question question, Bytes& /*answer*/) {
            if (question == Question::address) {
                std::filesystem::resize_file(path, length);
            }
        };
        ::testing::internal::CaptureStderr();
        const ToolRun run(module, arguments(path));
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  "hint: the image has changed its length during the run, or cannot be read to its "
                  "end\n");
        EXPECT_EQ(run.count("[SPEED] " + std::to_string(length) + " Bytes/10000 Bytes"), 1U);
        EXPECT_EQ(run.count("[ERROR]"), 1U);
        EXPECT_EQ(run.family_lines().back(), "[ERROR] Send FW failed");
        EXPECT_EQ(run.result(), upgrade_failure(-1));
    }
}

// --- Handshake ---

TEST(Zpx710pDownload, OneHundredRefusalsArePutUpWith) {
    const TempDir folder;
    const Bytes image = random_image(10);
    RefusingLoader module(100);
    const ToolRun run(module, arguments(folder.write("app.bin", image)));
    EXPECT_EQ(run.count("[ERROR] Handshake recv 1f not 79 failed\n"), 100U);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(flash_holds(module, image));
}

TEST(Zpx710pDownload, OneHundredAndOneRefusalsEndTheHandshake) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    RefusingLoader module(101);
    const ToolRun run(module, arguments(path));
    Lines expected = preamble(path);
    expected.insert(expected.end(), 101, "[ERROR] Handshake recv 1f not 79 failed");
    EXPECT_EQ(run.family_lines(),
              joined(expected, {"[ERROR] Handshake Time out!", "[ERROR] Handshake failed"}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.sent, Bytes(101, 0x7F));
    EXPECT_EQ(run.closes, 1);
}

// A loader that is synchronised already takes two bytes for a command and refuses it.
TEST(Zpx710pDownload, ALoaderThatIsSynchronisedAlreadyRefuses) {
    class SynchronisedLoader : public Zpx710pRomLoader {
      public:
        void power_on(sim::Micros now, sim::Wire& wire) override {
            Zpx710pRomLoader::power_on(now, wire);
            sim::Wire unheard(baud);
            receive(0x7F, now, unheard);
        }
    };
    const TempDir folder;
    SynchronisedLoader module;
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))));
    EXPECT_EQ(run.count("[ERROR] Handshake recv 1f not 79 failed\n"), 101U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Zpx710pDownload, SilenceIsNotCounted) {
    const TempDir folder;
    const Bytes image = random_image(10);
    Zpx710pRomLoader module;
    module.start_time = sim::milliseconds(10'000);
    const ToolRun run(module, arguments(folder.write("app.bin", image)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("Handshake recv"), 0U);
    // One byte in 20 ms and its own time.
    const auto bytes = std::ranges::count(run.sent, 0x7F);
    EXPECT_GE(bytes, 10'000 / 21);
    EXPECT_LE(bytes, 10'000 / 20 + 2);
}

TEST(Zpx710pDownload, ASilentModuleKeepsTheHandshakeGoing) {
    const TempDir folder;
    SilentModule module;
    module.even_parity = true;
    Conditions conditions;
    conditions.port.limit = sim::milliseconds(60'000);
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))), conditions);
    EXPECT_TRUE(run.hit_time_limit);
    EXPECT_GT(module.heard.size(), 2000U);
    EXPECT_TRUE(std::ranges::all_of(module.heard, [](std::uint8_t byte) { return byte == 0x7F; }));
}

TEST(Zpx710pDownload, AVanishedDeviceEndsTheHandshake) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    SilentModule module;
    const ToolRun run(module, arguments(path), unplugged_after_ms(30'000));
    EXPECT_FALSE(run.hit_time_limit);
    EXPECT_EQ(run.family_lines(),
              joined(preamble(path), {"[ERROR] Handshake Time out!", "[ERROR] Handshake failed"}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_GE(run.duration_ms, 30'000U + 100 * 20);
    EXPECT_LE(run.duration_ms, 30'000U + 103 * 20);
}

TEST(Zpx710pDownload, AWriteThatFailsIsCountedAndWaitedFor) {
    const TempDir folder;
    const Bytes image = random_image(10);
    Zpx710pRomLoader module;
    Conditions conditions;
    conditions.port.failing_write = 0;
    const ToolRun run(module, arguments(folder.write("app.bin", image)), conditions);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.sent, expected_bytes(image));
    ASSERT_FALSE(run.trace.empty());
    EXPECT_GE(run.trace.front().time - sim::VirtualPort::start, sim::milliseconds(20));
}

// --- Commands and data ---

struct Refusal {
    Question question;
    std::string sent;  ///< from the refused packet on
    Lines lines;       ///< behind the preamble
    unsigned wait_ms;  ///< for each answer
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
    *out << refusal.lines.back();
}

const Lines erase_begun{"[INFO] Handshake success", "[INFO] Firmware size: 4",
                        "[INFO] Erase 1 pages"};
const Lines write_begun = joined(erase_begun, {"[INFO] bytes_read = 4"});

const std::vector<Refusal> refusals{
    {Question::command, "43 BC",
     joined(erase_begun,
            {"[ERROR] Send cmd 43 failed", "[ERROR] Erase page 0 failed", "[ERROR] Erase failed"}),
     200},
    {Question::page, "00 00 00",
     joined(erase_begun, {"[ERROR] Erase page 0 failed", "[ERROR] Erase failed"}), 1000},
    {Question::address, "08 00 00 00 08",
     joined(write_begun, {"[ERROR] Send addr data failed", "[ERROR] Send FW failed"}), 1000},
    {Question::data, "03 11 22 33 44 47",
     joined(write_begun, {"[ERROR] Send data failed", "[ERROR] Send FW failed"}), 1000},
};

class Zpx710pDownloadRefusals : public ::testing::TestWithParam<Refusal> {};

/// The end of what was sent: the packet, six times, and not a seventh time.
void expect_six_attempts(const ToolRun& run, const std::string& packet) {
    const Bytes once = hex(packet);
    Bytes six;
    for (int attempt = 0; attempt < 6; ++attempt) {
        append(six, once);
    }
    ASSERT_GT(run.sent.size(), six.size());
    EXPECT_TRUE(std::ranges::equal(std::span(run.sent).last(six.size()), six));
    append(six, once);
    EXPECT_FALSE(contains(run.sent, six));
}

TEST_P(Zpx710pDownloadRefusals, SixRefusalsEndTheRun) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", hex("11 22 33 44"));
    Zpx710pRomLoader module;
    module.tamper = refusing(GetParam().question);
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(run.family_lines(), joined(preamble(path), GetParam().lines));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.closes, 1);
    expect_six_attempts(run, GetParam().sent);
}

TEST_P(Zpx710pDownloadRefusals, SixSilencesEndTheRunAfterTheirTime) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", hex("11 22 33 44"));
    Zpx710pRomLoader module;
    module.tamper = silent_from(GetParam().question);
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(run.family_lines(), joined(preamble(path), GetParam().lines));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    expect_six_attempts(run, GetParam().sent);
    EXPECT_GE(run.duration_ms, 6 * GetParam().wait_ms);
    EXPECT_LE(run.duration_ms, 6 * GetParam().wait_ms + 50);
}

INSTANTIATE_TEST_SUITE_P(Steps, Zpx710pDownloadRefusals, ::testing::ValuesIn(refusals));

TEST(Zpx710pDownload, RefusedWriteCommandIsReportedTwice) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", hex("11 22 33 44"));
    Zpx710pRomLoader module;
    int commands = 0;
    module.tamper = [&commands](Question question, Bytes& answer) {
        commands += question == Question::command ? 1 : 0;
        if (commands > 1) {
            answer = {0x1F};
        }
    };
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(run.family_lines(),
              joined(preamble(path), joined(write_begun, {"[ERROR] Send cmd 31 failed",
                                                          "[ERROR] Send cmd 31 failed",
                                                          "[ERROR] Send FW failed"})));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    expect_six_attempts(run, "31 CE");
}

TEST(Zpx710pDownload, ACommandIsRepeatedUntilItIsUnderstood) {
    const TempDir folder;
    const Bytes image = random_image(10);
    Zpx710pRomLoader module;
    Conditions conditions;  // the first five erase commands arrive damaged
    conditions.faults.push_back({.kind = sim::FaultKind::flip, .byte = 1, .amount = 10});
    const ToolRun run(module, arguments(folder.write("app.bin", image)), conditions);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(flash_holds(module, image));
    EXPECT_EQ(run.sent.size(), expected_bytes(image).size() + 10);
}

TEST(Zpx710pDownload, AWriteThatFailsCountsAsAnAttempt) {
    const TempDir folder;
    const Bytes image = random_image(10);
    for (int number = 0; number < 6; ++number) {
        Zpx710pRomLoader module;
        Conditions conditions;
        conditions.port.failing_write = number;
        const ToolRun run(module, arguments(folder.write("app.bin", image)), conditions);
        EXPECT_EQ(run.result(), upgrade_success) << number;
        EXPECT_EQ(run.sent, expected_bytes(image)) << number;
    }
}

// A data packet that is refused is over for the loader: its repetition is taken for commands.
TEST(Zpx710pDownload, ADamagedDataPacketEndsTheRun) {
    const TempDir folder;
    Zpx710pRomLoader module;
    Conditions conditions;
    conditions.faults.push_back({.kind = sim::FaultKind::flip, .byte = 20, .amount = 1});
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(100))), conditions);
    EXPECT_EQ(run.count("[ERROR] Send data failed\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

// --- Disturbed lines ---

class Zpx710pDownloadFaults : public ::testing::TestWithParam<sim::FaultKind> {};

/// Whatever is lost or damaged, on the way there or back: the run ends. One turned bit never makes
/// a wrong image pass for a good one; a checksum of 8 bits, without a look at the flash afterwards,
/// cannot promise that for more.
TEST_P(Zpx710pDownloadFaults, AtEveryByte) {
    const TempDir folder;
    const Bytes image = random_image(17);
    const std::string path = folder.write("app.bin", image);
    const std::size_t sent = expected_bytes(image).size();
    const std::size_t received = 6;
    for (const auto direction : {sim::Direction::to_module, sim::Direction::to_host}) {
        const std::size_t count = direction == sim::Direction::to_module ? sent : received;
        for (std::size_t at = 0; at < count; ++at) {
            Zpx710pRomLoader module;
            Conditions conditions;
            conditions.faults.push_back({.kind = GetParam(), .direction = direction, .byte = at});
            const ToolRun run(module, arguments(path), conditions);
            EXPECT_FALSE(run.hit_time_limit) << at;
            if (GetParam() == sim::FaultKind::flip && run.result() == upgrade_success) {
                EXPECT_TRUE(flash_holds(module, image)) << at;
            }
            if (GetParam() == sim::FaultKind::unplug) {
                EXPECT_EQ(run.result(), upgrade_failure(-1)) << at;
                EXPECT_GE(run.count("[ERROR]"), 2U) << at;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, Zpx710pDownloadFaults,
                         ::testing::Values(sim::FaultKind::unplug, sim::FaultKind::drop,
                                           sim::FaultKind::flip, sim::FaultKind::duplicate,
                                           sim::FaultKind::noise, sim::FaultKind::power_cycle));

// --- Options ---

TEST(Zpx710pDownload, OptionsThatAreTakenAndIgnored) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Zpx710pRomLoader module;
    const ToolRun run(module, {"-m", "ZPX710P", "-t", "DL", "-L", "9600", "-p", "COM6", "-b",
                               "115200", "-f", path});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("9600\n"), 1U) << "only main's list of arguments names it";
}

TEST(Zpx710pDownload, DebugModeShowsTheTraffic) {
    const TempDir folder;
    Zpx710pRomLoader module;
    const ToolRun run(module, {"-m", "ZPX710P", "-D", "-p", "COM6", "-b", "115200", "-f",
                               folder.write("app.bin", hex("AB")), "-t", "DL"});
    EXPECT_EQ(run.count("] debug mode\n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] recv to module -- < 79 ,ret:1\n"), 6U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < 43 bc \n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < 00 ab ab \n"), 1U);
}

TEST(Zpx710pDownload, NamesOfAnyLength) {
    const std::string longer(400, 'x');
    Zpx710pRomLoader module;
    const ToolRun run(module,
                      {"-m", "ZPX710P", "-p", longer, "-b", "115200", "-f", longer, "-t", "DL"});
    EXPECT_EQ(run.count("[INFO] Port: " + longer + "\n"), 1U);
    EXPECT_EQ(run.count("[INFO] Firmware:" + longer + "\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

// --- The choice of the mode ---

TEST(Zpx710pEntry, WithoutAModeThereIsNoDefault) {
    for (const auto& words :
         {std::vector<std::string>{}, {"-t", "xyz"}, {"-t", "dl"}, {"-t"}, {"-tDL"}}) {
        std::vector<std::string> all{"-m", "ZPX710P", "-p", "COM6", "-b", "115200"};
        all.insert(all.end(), words.begin(), words.end());
        Zpx710pRomLoader module;
        const ToolRun run(module, all);
        EXPECT_EQ(run.family_lines(),
                  (Lines{"[INFO] ZPX710P entry function", "[ERROR] Invalid upgrade mode"}));
        EXPECT_EQ(run.result(), upgrade_failure(258));
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Zpx710pEntry, UpgradeWinsOverDownloadAndTheLastWordCounts) {
    Zpx710pRomLoader module;
    EXPECT_EQ(ToolRun(module, {"-m", "ZPX710P", "-t", "DL_UPG"}).count("Enter upgrade"), 1U);
    EXPECT_EQ(ToolRun(module, {"-m", "ZPX710P", "-t", "upgrade"}).count("Enter upgrade"), 1U);
    EXPECT_EQ(ToolRun(module, {"-m", "ZPX710P", "-t", "my_download"}).count("Enter download"), 1U);
    EXPECT_EQ(ToolRun(module, {"-m", "ZPX710P", "-t", "UPG", "-t", "DL"}).count("Enter download"),
              1U);
    const std::string late = std::string(31, 'x') + "DL";
    EXPECT_EQ(ToolRun(module, {"-m", "ZPX710P", "-t", late}).result(), upgrade_failure(258))
        << "31 characters of the word count";
}

TEST(Zpx710pEntry, ReadbackIsNotForThisFamily) {
    Zpx710pRomLoader module;
    const ToolRun run(module, {"-m", "ZPX710P", "-o", "out.bin", "-t", "DL"});
    EXPECT_EQ(run.result(), readback_failure(-1));
    EXPECT_EQ(run.opens, 0);
}

// --- What the loader answers besides ---

/// What the loader says to a general programmer's packets, each given in hex.
Bytes answers_to(Zpx710pRomLoader& module, const std::vector<std::string>& packets) {
    sim::Line line(module, {}, {}, 0);
    line.set_host_rate(115200, true);
    sim::Micros now = 0;
    Bytes answers;
    for (const std::string& packet : packets) {
        now = line.send(hex(packet), now) + sim::milliseconds(10'000);
        line.run_until(now);
        append(answers, line.take_arrived(now));
    }
    return answers;
}

TEST(Zpx710pRomLoader, TellsItsVersionItsCommandsAndItsController) {
    Zpx710pRomLoader module;
    EXPECT_EQ(as_hex(answers_to(module, {"7F", "01 FE", "00 FF", "02 FD"})),
              "79 79 31 00 00 79 79 06 31 00 01 02 31 43 44 79 79 01 04 15 79");
    EXPECT_EQ(as_hex(answers_to(module, {"7F", "01 FF", "00 FE", "02 FC"})), "79 1F 1F 1F");
}

TEST(Zpx710pRomLoader, ErasesThePagesThatAreNamed) {
    constexpr std::uint32_t page = Zpx710pRomLoader::page_size;
    const Bytes used(4 * std::size_t{page}, 0x11);
    const Bytes used_page(page, 0x11);
    const Bytes blank_page(page, 0xFF);
    Zpx710pRomLoader module;
    const auto holds = [&module](std::uint32_t number, const Bytes& content) {
        return module.flash().holds(flash_base + number * page, content);
    };
    module.flash().program(flash_base, used);
    EXPECT_EQ(as_hex(answers_to(module, {"7F", "44 BB", "00 01 00 00 00 02 02"})), "79 79 1F");
    EXPECT_TRUE(holds(0, used_page));
    EXPECT_EQ(as_hex(answers_to(module, {"7F", "44 BB", "00 01 00 00 00 02 03"})), "79 79 79");
    EXPECT_TRUE(holds(0, blank_page));
    EXPECT_TRUE(holds(1, used_page));
    EXPECT_TRUE(holds(2, blank_page));
    EXPECT_TRUE(holds(3, used_page));
    EXPECT_EQ(as_hex(answers_to(module, {"7F", "44 BB", "FF FF 00"})), "79 79 79");
    EXPECT_TRUE(holds(3, blank_page));
}

TEST(Zpx710pDownload, EveryByteTakesElevenBitTimes) {
    const TempDir folder;
    Zpx710pRomLoader module;
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(2000))));
    EXPECT_EQ(run.result(), upgrade_success);
    const std::size_t bits = 11 * (run.sent.size() + run.received.size());
    const auto line_time = static_cast<double>(bits) * 1e6 / 115200;
    EXPECT_NEAR(static_cast<double>(run.line_busy), line_time, 100);
    EXPECT_EQ(run.module_busy, module.erase_time + 9 * module.program_time);
}

}  // namespace
}  // namespace orbix::test
