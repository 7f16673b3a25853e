// Keeps processors from halting while something is measured.
#pragma once

namespace orbix::bench {

/// Asks the system, until it is destroyed, for processors that wake without delay: where it may, it
/// holds /dev/cpu_dma_latency at 0, as latency tests do, and the processors poll where they would
/// halt. A halted processor takes some tens of microseconds to wake, in a virtual machine more. A
/// dialogue of many small exchanges pays that four times for each, and would be measured for what
/// the machine does instead of the tool.
class AwakeProcessors {
  public:
    AwakeProcessors();
    ~AwakeProcessors();
    AwakeProcessors(const AwakeProcessors&) = delete;
    AwakeProcessors& operator=(const AwakeProcessors&) = delete;

    /// Whether the system has taken the request.
    [[nodiscard]] bool held() const { return descriptor_ >= 0; }

  private:
    int descriptor_;
};

}  // namespace orbix::bench
