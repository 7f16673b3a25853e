// The native back end on a pseudo-terminal: when the calls return. The wall clock is what they are
// about, so they wait on it, for some milliseconds each; only what must not be too early is
// checked.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/platform.h"

namespace orbix::platform {
namespace {

using std::chrono::duration;
using std::chrono::steady_clock;

/// At this rate a byte takes 1.67 ms, which is a short write; two bytes are none.
constexpr LineSettings slow_line{.baud = 6000};
constexpr double byte_ms = 10 * 1e3 / 6000;
constexpr std::array<std::uint8_t, 2> two_bytes{0x55, 0xAA};
constexpr std::span<const std::uint8_t> one_byte = std::span(two_bytes).first(1);

class NativePort : public testing::Test {
  protected:
    NativePort() : module_(posix_openpt(O_RDWR | O_NOCTTY)) {
        termios raw{};
        tcgetattr(module_, &raw);
        cfmakeraw(&raw);
        tcsetattr(module_, TCSANOW, &raw);
        unlockpt(module_);
        port_ = native().open(ptsname(module_));
        EXPECT_TRUE(native().set_settings(port_, slow_line));
        began_ = steady_clock::now();
    }
    ~NativePort() override {
        native().close(port_);
        close(module_);
    }
    NativePort(const NativePort&) = delete;
    NativePort& operator=(const NativePort&) = delete;

    void module_says(std::span<const std::uint8_t> bytes) const {
        EXPECT_EQ(::write(module_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    int read(std::size_t size, unsigned interval_ms, unsigned total_ms) const {
        std::vector<std::uint8_t> buffer(size);
        return native().read(port_, buffer, interval_ms, total_ms);
    }

    [[nodiscard]] double elapsed_ms() const {
        return duration<double, std::milli>(steady_clock::now() - began_).count();
    }

    Port port_ = no_port;

  private:
    int module_;
    steady_clock::time_point began_;
};

TEST_F(NativePort, LongWriteReturnsWhenTheLineHasCarriedIt) {
    EXPECT_EQ(native().write(port_, two_bytes), 2);
    EXPECT_GE(elapsed_ms(), 2 * byte_ms);
}

TEST_F(NativePort, WhateverFollowsAShortWriteWaitsForItsByte) {
    const std::vector<std::function<void()>> calls{
        [this] { native().discard_received(port_); },
        [this] { native().set_settings(port_, slow_line); },
        [this] { native().set_modem_line(port_, ModemLine::rts, true); },
        [] { native().now_ms(); },
        [] { native().sleep_us(0); },
        [this] { native().close(port_); },
    };
    for (std::size_t number = 0; number < calls.size(); ++number) {
        const double begun = elapsed_ms();
        EXPECT_EQ(native().write(port_, one_byte), 1);
        calls[number]();
        EXPECT_GE(elapsed_ms() - begun, byte_ms) << "call " << number;
    }
}

TEST_F(NativePort, ShortWritesFollowEachOtherAtTheLinesRate) {
    for (int count = 0; count < 5; ++count) {
        EXPECT_EQ(native().write(port_, one_byte), 1);
    }
    native().now_ms();
    EXPECT_GE(elapsed_ms(), 5 * byte_ms);
}

TEST_F(NativePort, TimeOutOfAReadBeginsWhenTheLineIsFree) {
    native().write(port_, one_byte);
    EXPECT_EQ(read(1, 0, 5), 0);
    EXPECT_GE(elapsed_ms(), byte_ms + 5);
}

TEST_F(NativePort, PauseThatEndsAReadIsNotOverBeforeTheLineIsFree) {
    module_says(two_bytes);
    native().write(port_, one_byte);
    EXPECT_EQ(read(10, 1, 100), 2);
    EXPECT_GE(elapsed_ms(), byte_ms + 1);
    EXPECT_LT(elapsed_ms(), 100);
}

TEST_F(NativePort, AnswerAheadOfItsTimeIsNotHandedOnBeforeTheLineIsFree) {
    module_says(one_byte);
    native().write(port_, one_byte);
    EXPECT_EQ(read(1, 0, 1000), 1);
    EXPECT_GE(elapsed_ms(), byte_ms);
    EXPECT_LT(elapsed_ms(), 1000);
}

}  // namespace
}  // namespace orbix::platform
