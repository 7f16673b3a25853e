// The serial port layer, against a module that echoes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "core/kv_log.h"
#include "core/kv_uart.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

/// Sends what a test has laid ready when it hears a byte.
class ScriptedModule : public sim::Model {
  public:
    struct Piece {
        Bytes bytes;
        sim::Micros delay;
    };
    std::vector<Piece> answer;
    Bytes heard;

    void power_on(sim::Micros /*now*/, sim::Wire& /*wire*/) override {}
    void receive(std::uint8_t byte, sim::Micros /*now*/, sim::Wire& wire) override {
        heard.push_back(byte);
        for (const Piece& piece : answer) {
            wire.send(piece.bytes, piece.delay);
        }
        answer.clear();
    }
    [[nodiscard]] sim::Flash& flash() override { return flash_; }

  private:
    sim::Flash flash_{0, 0};
};

class UartTest : public ::testing::Test {
  protected:
    explicit UartTest(sim::VirtualPort::Settings settings = {})
        : line_(module_, {}, {}, sim::VirtualPort::start), port_(line_, std::move(settings)) {
        kv_log_reset();
        kv_uart_reset();
        stream_ = open_memstream(&text_, &size_);
        set_log_stream(stream_);
    }
    ~UartTest() override {
        set_log_stream(nullptr);
        std::fclose(stream_);
        std::free(text_);
    }
    std::string text() {
        std::fflush(stream_);
        return {text_, size_};
    }
    [[nodiscard]] std::uint64_t elapsed_ms() const {
        return (port_.now - sim::VirtualPort::start) / 1000;
    }
    SerialHandle open() { return serial_open("COM6", 115200); }

    ScriptedModule module_;
    sim::Line line_;
    sim::VirtualPort port_;

  private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* stream_ = nullptr;
};

const Bytes ten{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

TEST_F(UartTest, OpenSetsTheRateWithoutParityAndBothControlsOff) {
    serial_CfgDTR(no_port, 1);
    serial_CfgRTS(no_port, 0);
    ASSERT_NE(open(), no_port);
    const auto& first = port_.settings_written.front();
    EXPECT_EQ(first.baud, 115200U);
    EXPECT_EQ(first.parity, platform::Parity::none);
    EXPECT_FALSE(first.rts_control);
    EXPECT_FALSE(first.dtr_control);
    EXPECT_EQ(text(), "");
}

TEST_F(UartTest, OpenThatFailsPrintsNothing) {
    EXPECT_EQ(serial_open("COM7", 115200), no_port);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(text(), "");
}

TEST_F(UartTest, BurstReadEndsWithAPauseOfMoreThanOneMillisecond) {
    const SerialHandle handle = open();
    module_.answer = {{ten, 0}, {ten, sim::milliseconds(3)}};
    serial_write_byte(handle, 1);
    Bytes buffer(100);
    EXPECT_EQ(serial_read(handle, buffer, 500), 10U);
    EXPECT_EQ(serial_read(handle, buffer, 500), 10U);
    EXPECT_LT(elapsed_ms(), 20U);
}

TEST_F(UartTest, ReadUntilWaitsForAllBytes) {
    const SerialHandle handle = open();
    module_.answer = {{ten, 0}, {ten, sim::milliseconds(100)}};
    serial_write_byte(handle, 1);
    Bytes buffer(20);
    EXPECT_EQ(serial_read_until(handle, buffer, 500), 20U);
    EXPECT_LT(elapsed_ms(), 110U);
}

TEST_F(UartTest, ReadUntilReturnsWhatItHasAtItsTimeout) {
    const SerialHandle handle = open();
    module_.answer = {{ten, 0}};
    serial_write_byte(handle, 1);
    Bytes buffer(20);
    EXPECT_EQ(serial_read_until(handle, buffer, 500), 10U);
    EXPECT_EQ(elapsed_ms(), 500U);
}

TEST_F(UartTest, ReadOfASilentLineLastsItsTimeout) {
    const SerialHandle handle = open();
    Bytes buffer(20);
    EXPECT_EQ(serial_read(handle, buffer, 70), 0U);
    EXPECT_EQ(elapsed_ms(), 70U);
    EXPECT_FALSE(serial_gone(handle));
}

TEST_F(UartTest, ReadOfAVanishedDeviceLastsItsTimeoutToo) {
    const SerialHandle handle = open();
    line_.unplug();
    Bytes buffer(20);
    EXPECT_EQ(serial_read(handle, buffer, 70), 0U);
    EXPECT_EQ(elapsed_ms(), 70U);
    EXPECT_TRUE(serial_gone(handle));
    EXPECT_EQ(serial_write(handle, ten), 0U);
}

TEST_F(UartTest, FlushDropsWhatWasReceivedAndNothingThatWasWritten) {
    const SerialHandle handle = open();
    module_.answer = {{ten, 0}};
    serial_write(handle, ten);
    Bytes buffer(1);
    EXPECT_EQ(serial_read(handle, buffer, 10), 1U);
    serial_read_until(handle, buffer, 10);
    EXPECT_EQ(serial_flush(handle), 0);
    EXPECT_EQ(module_.heard, ten);
}

TEST_F(UartTest, ChangeOfRateUndoesEvenParityAndKeepsWhatWasReceived) {
    const SerialHandle handle = open();
    EXPECT_EQ(serial_CfgEvenParity(handle), 0);
    EXPECT_EQ(port_.line_settings.parity, platform::Parity::even);
    EXPECT_EQ(port_.line_settings.baud, 115200U);
    EXPECT_EQ(serial_change_br(handle, 460800), 0);
    EXPECT_EQ(port_.line_settings.parity, platform::Parity::none);
    EXPECT_EQ(port_.line_settings.baud, 460800U);
}

TEST_F(UartTest, RateOfZeroOrBelowKeepsTheRate) {
    const SerialHandle handle = open();
    EXPECT_EQ(serial_change_br(handle, 0), 0);
    EXPECT_EQ(port_.line_settings.baud, 115200U);
    EXPECT_EQ(serial_change_br(handle, static_cast<unsigned>(-9600)), 0);
    EXPECT_EQ(port_.line_settings.baud, 115200U);
}

TEST_F(UartTest, LinesAreOnlyRememberedWithoutAPort) {
    EXPECT_EQ(serial_CfgRTS(no_port, 1), 1U);
    EXPECT_EQ(serial_CfgDTR(no_port, 0), 1U);
    EXPECT_TRUE(port_.modem_events.empty());
}

TEST_F(UartTest, DtrOnAnOpenPortMovesRtsControlToo) {
    const SerialHandle handle = open();
    EXPECT_EQ(serial_CfgRTS(handle, 0), 1U);
    EXPECT_EQ(serial_CfgDTR(handle, 1), 1U);
    EXPECT_TRUE(port_.line_settings.rts_control);
    EXPECT_FALSE(port_.line_settings.dtr_control);
    EXPECT_EQ(serial_CfgDTR(handle, 0), 1U);
    EXPECT_FALSE(port_.line_settings.rts_control);
}

TEST_F(UartTest, DumpsShowReadsInUpperAndWritesInLowerCase) {
    const SerialHandle handle = open();
    serial_enable_debug();
    module_.answer = {{{0xAB, 0x0C}, 0}};
    serial_write(handle, hex("AB CD"));
    Bytes buffer(8);
    serial_read(handle, buffer, 10);
    serial_read(handle, buffer, 5);
    EXPECT_EQ(text(),
              "[000.000][DEBUG] send to module -- < ab cd \n"
              "[000.001][DEBUG] recv to module -- < AB 0C ,ret:2\n"
              "[000.006][DEBUG] recv to module -- < ,ret:0\n");
}

TEST_F(UartTest, DumpsShowUpToAHundredBytes) {
    const SerialHandle handle = open();
    serial_enable_debug();
    serial_write(handle, Bytes(101, 0x11));
    EXPECT_EQ(text(), "");
    serial_write(handle, Bytes(100, 0x11));
    EXPECT_NE(text().find("send to module"), std::string::npos);
    const std::string before = text();
    module_.answer = {{Bytes(101, 0x22), 0}};
    serial_write_byte(handle, 1);
    Bytes buffer(200);
    EXPECT_EQ(serial_read(handle, buffer, 100), 101U);
    EXPECT_EQ(text(), before) << "neither a byte write nor a long read is dumped";
    module_.answer = {{Bytes(100, 0x22), 0}};
    serial_write_byte(handle, 1);
    EXPECT_EQ(serial_read(handle, buffer, 100), 100U);
    std::string digits;
    for (int byte = 0; byte < 100; ++byte) {
        digits += "22 ";
    }
    EXPECT_TRUE(text().ends_with("[DEBUG] recv to module -- < " + digits + ",ret:100\n")) << text();
}

TEST_F(UartTest, DumpOfAWriteOfWhichNothingWentOutIsEmpty) {
    const SerialHandle handle = open();
    serial_enable_debug();
    line_.unplug();
    EXPECT_EQ(serial_write(handle, ten), 0U);
    EXPECT_EQ(text(), "[000.000][DEBUG] send to module -- < \n");
}

TEST_F(UartTest, WritesReturnTheirCount) {
    const SerialHandle handle = open();
    EXPECT_EQ(serial_write(handle, ten), 10U);
    EXPECT_EQ(serial_write_byte(handle, 0xA0), 1U);
    line_.unplug();
    EXPECT_EQ(serial_write_byte(handle, 0xA0), 0U);
    EXPECT_EQ(serial_close(handle), 0);
}

class UartWithUnreadableSettings : public UartTest {
  protected:
    UartWithUnreadableSettings() : UartTest({.settings_readable = false}) {}
};

TEST_F(UartWithUnreadableSettings, ChangeOfRateFailsWithMinusOne) {
    EXPECT_EQ(serial_change_br(open(), 9600), -1);
}

TEST_F(UartWithUnreadableSettings, EvenParityClosesThePort) {
    EXPECT_EQ(serial_CfgEvenParity(open()), -1);
    EXPECT_EQ(text(), "[000.000][ERROR] Unable to obtain serial port configuration\n");
    EXPECT_EQ(port_.closes, 1);
}

TEST_F(UartWithUnreadableSettings, LinesReportFailure) {
    const SerialHandle handle = open();
    EXPECT_EQ(serial_CfgRTS(handle, 1), 0U);
    EXPECT_EQ(serial_CfgDTR(handle, 1), 0U);
}

class UartWithUnwritableSettings : public UartTest {
  protected:
    UartWithUnwritableSettings() : UartTest({.settings_writable = false}) {}
};

TEST_F(UartWithUnwritableSettings, ChangeOfRateFailsWithMinusTwo) {
    EXPECT_EQ(serial_change_br(open(), 9600), -2);
}

TEST_F(UartWithUnwritableSettings, LinesReportFailure) {
    const SerialHandle handle = open();
    EXPECT_EQ(serial_CfgRTS(handle, 1), 0U);
    EXPECT_EQ(serial_CfgDTR(handle, 1), 0U);
}

TEST_F(UartWithUnwritableSettings, EvenParityClosesThePort) {
    EXPECT_EQ(serial_CfgEvenParity(open()), -1);
    EXPECT_EQ(text(), "[000.000][ERROR] Unable to set serial port configuration\n");
    EXPECT_EQ(port_.closes, 1);
}

}  // namespace
}  // namespace orbix::test
