// What only a process can show: exit status, flushing, exclusive ports, signals.
#include <gtest/gtest.h>

#include "cli/process.h"

namespace orbix::test {
namespace {

TEST(Program, NoArgumentsIsUsageAndStatus255) {
    const Finished run = run_program("orbix_flash", {});
    EXPECT_EQ(run.status, 255);
    EXPECT_NE(run.output.find(" Usage: "), std::string::npos);
}

}  // namespace
}  // namespace orbix::test
