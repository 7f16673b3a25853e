// The console log and its clock, in virtual time.
#include <gtest/gtest.h>

#include <cstdlib>

#include "core/kv_log.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

class LogTest : public ::testing::Test {
  protected:
    LogTest() : line_(module_, {}, {}, sim::VirtualPort::start), port_(line_, {}) {
        kv_log_reset();
        stream_ = open_memstream(&text_, &size_);
        set_log_stream(stream_);
    }
    ~LogTest() override {
        set_log_stream(nullptr);
        std::fclose(stream_);
        std::free(text_);
    }

    void pass_ms(std::uint64_t count) { port_.now += sim::milliseconds(count); }
    std::string text() {
        std::fflush(stream_);
        return {text_, size_};
    }

  private:
    SilentModule module_;
    sim::Line line_;
    sim::VirtualPort port_;
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* stream_ = nullptr;
};

TEST_F(LogTest, ClockStartsWithItsFirstReading) {
    EXPECT_EQ(flash_tool_msecs(), 0U);
    pass_ms(1234);
    EXPECT_EQ(flash_tool_msecs(), 1234U);
}

TEST_F(LogTest, ClockGoesOnWhenItsReadingWrapsAt32Bits) {
    pass_ms((1ULL << 32) - sim::VirtualPort::start / 1000 - 100);
    EXPECT_EQ(flash_tool_msecs(), 0U);
    pass_ms(1234);
    EXPECT_EQ(flash_tool_msecs(), 1234U);
}

TEST_F(LogTest, SecondsStartWithTheirOwnFirstReading) {
    flash_tool_msecs();
    pass_ms(500);
    EXPECT_FLOAT_EQ(flash_tool_secs(), 0.0F);
    pass_ms(2250);
    EXPECT_FLOAT_EQ(flash_tool_secs(), 2.25F);
}

TEST_F(LogTest, StampWidensAfterAThousandSeconds) {
    log_info("a\n");
    pass_ms(1007);
    log_error("b\n");
    pass_ms(1'000'123 - 1007);
    log_plain(" c\n");
    EXPECT_EQ(text(), "[000.000][INFO] a\n[001.007][ERROR] b\n[1000.123] c\n");
}

TEST_F(LogTest, ProgressLines) {
    log_progress(12.345F, LineEnd::lf);
    log_progress(0.0F, LineEnd::crlf);
    log_progress_complete();
    EXPECT_EQ(text(),
              "[000.000][PROGRESS] 12.35%\n[000.000][PROGRESS] 0.00%\r\n"
              "[000.000][PROGRESS] 100%\r\n");
}

TEST_F(LogTest, SpeedLines) {
    log_speed_start(2048);
    log_speed(1024, 2048, rounded_kbytes(1024), 0.5F);
    log_speed(1024, 2048, 1.0F, 0.0F);
    EXPECT_EQ(text(),
              "[000.000][SPEED] 0 Bytes/2048 Bytes    0 KBps\n"
              "[000.000][SPEED] 1024 Bytes/2048 Bytes    4.0 KBps\n"
              "[000.000][SPEED] 1024 Bytes/2048 Bytes    0 KBps\n");
}

}  // namespace
}  // namespace orbix::test
