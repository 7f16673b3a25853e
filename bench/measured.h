// Programs that run side by side, and what each of them took.
#pragma once

#include <string>
#include <vector>

namespace orbix::bench {

using Command = std::vector<std::string>;  ///< a program's path, and its arguments

struct Measured {
    int status = -1;     ///< exit status, or -1 when a signal ended it
    double seconds = 0;  ///< from its start to its end
    double processor_seconds = 0;
    long peak_kib = 0;   ///< of memory
    std::string output;  ///< standard output and standard error
};

/// Starts all the commands, a hundredth of a second apart, and waits for their ends. Their output
/// goes to files: nothing but the programs themselves takes processor time meanwhile. With a
/// `line`, a descriptor, that is their standard input and output instead. They are killed after
/// five minutes.
std::vector<Measured> run_side_by_side(const std::vector<Command>& commands,
                                       const std::string& folder, int line = -1);

}  // namespace orbix::bench
