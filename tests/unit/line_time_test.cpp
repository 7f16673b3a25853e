// The time that bytes take on the line.
#include "platform/line_time.h"

#include <gtest/gtest.h>

namespace orbix::test {
namespace {

using namespace platform;

TEST(LineTime, TenBitsAByteAndElevenWithParity) {
    EXPECT_EQ(line_time_ns(1, 10'000, false), 1 * millisecond);
    EXPECT_EQ(line_time_ns(1, 10'000, true), 1100 * microsecond);
    EXPECT_EQ(line_time_ns(4096, 921'600, false), 44'444'444U);
    EXPECT_EQ(line_time_ns(0, 921'600, false), 0U);
}

TEST(LineTime, IsNothingAtARateThatIsNotKnown) {
    EXPECT_EQ(line_time_ns(100, 0, false), 0U);
}

TEST(LineTime, AMegabyteAtASlowRateIsCountedRight) {
    EXPECT_EQ(line_time_ns(1U << 20U, 300, true), 38'447'786'666'666U);
}

TEST(LineTime, RestIsRoundedUpAndNothingWhenPassed) {
    EXPECT_EQ(rest_ms(5 * second, 5 * second), 0U);
    EXPECT_EQ(rest_ms(5 * second, 6 * second), 0U);
    EXPECT_EQ(rest_ms(5 * second + 1, 5 * second), 1U);
    EXPECT_EQ(rest_ms(5 * second + millisecond, 5 * second), 1U);
    EXPECT_EQ(rest_ms(5 * second + millisecond + 1, 5 * second), 2U);
}

}  // namespace
}  // namespace orbix::test
