// Keeps processors from idling while something is measured.
#pragma once

#include <thread>
#include <vector>

namespace orbix::bench {

/// Until it is destroyed, each processor has something to do of the idle class, which gives way to
/// anything else at once. A processor that idles takes some tens of microseconds to wake, in a
/// virtual machine more; a dialogue of many small exchanges pays that four times for each.
class AwakeProcessors {
  public:
    AwakeProcessors();

  private:
    std::vector<std::jthread> threads_;
};

}  // namespace orbix::bench
