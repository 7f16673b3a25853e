// The built programs as processes, and a simulated module on a pseudo-terminal.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "temp_dir.h"

namespace orbix::test {

/// What a finished process left behind.
struct Finished {
    int status = -1;  ///< exit status, or -1 when a signal ended it
    int signal = 0;
    std::string output;
    std::string errors;
    double processor_seconds = 0;
    long peak_kib = 0;  ///< of memory
};

/// Runs one of the built programs (or any, given by its path) to its end, in `folder` when one is
/// given. It is killed after a minute.
Finished run_program(const std::string& program, const std::vector<std::string>& arguments,
                     const std::string& folder = "");

/// A program that runs beside the test.
class Background {
  public:
    Background(const std::string& program, const std::vector<std::string>& arguments,
               const std::string& folder = "");
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    /// Waits for the next line of its standard output and returns it without its end.
    std::string read_line();

    void send_signal(int number) const;

    /// Waits for its end, at most a minute.
    Finished finish();

  private:
    int pid_ = -1;
    int output_ = -1;
    int errors_ = -1;
    std::string pending_;
};

/// orbix_sim with a model, ready to be used.
class SimulatedModule {
  public:
    explicit SimulatedModule(const std::string& model, std::vector<std::string> options = {});

    [[nodiscard]] const std::string& port() const { return port_; }

    /// Stops it, so that the dump is written.
    Finished stop();

  private:
    Background process_;
    std::string port_;
};

/// Whether a dump of a module's flash holds an image at an offset.
bool dump_holds(const std::string& dump, std::size_t offset, const sim::Bytes& image);

}  // namespace orbix::test
