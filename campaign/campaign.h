// The fault campaign: a run of any family and mode in virtual time, drawn from a seed, with faults
// on the line, and the checks that must hold whatever happens.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "faults.h"
#include "scenario.h"
#include "tool_run.h"

namespace orbix::campaign {

/// What must hold after every run.
enum class Check : std::uint8_t {
    ends,           ///< the run ends, or stands in a wait that is unlimited on purpose
    holds_image,    ///< SUCCESS only if the flash holds exactly the image
    stays_inside,   ///< nothing is changed outside the region
    names_failure,  ///< FAIL comes with an ERROR line or a stated silent step
    agrees,         ///< one result line, the last; its code is one of the mode's; exit status 0
    well_formed,    ///< each line has its form, stamps do not step back
    undisturbed,    ///< without a fault the run succeeds
};

const char* name_of(Check check);

struct Violation {
    Check check;
    std::string what;
};

struct UnlimitedWait;
struct SilentStep;

/// After this long a run that still goes on is unplugged, and must end.
inline constexpr std::uint64_t patience_ms = 1'200'000;

/// A run with its checks.
struct Record {
    const Scenario* scenario = nullptr;
    std::uint64_t seed = 0;
    std::vector<std::string> arguments;
    std::vector<sim::Fault> faults;  ///< as drawn, without the unplug at the end of patience
    std::string output;
    std::vector<sim::TracedByte> trace;
    std::vector<sim::Strike> strikes;  ///< what the faults did
    std::uint64_t duration_ms = 0;
    bool succeeded = false;
    bool waited = false;                      ///< it stood in a wait until it was unplugged
    const UnlimitedWait* wait = nullptr;      ///< the wait in which it stood, if it is a known one
    const SilentStep* silent_step = nullptr;  ///< what it failed at without an ERROR line
    std::vector<Violation> violations;
    std::vector<Violation> excepted;  ///< found, and covered by the list of exceptions
};

/// What is asked of a run besides its seed.
struct Wishes {
    bool traced = false;                                           ///< keep the line's bytes
    std::optional<std::vector<sim::Fault>> faults = std::nullopt;  ///< instead of the drawn ones
};

/// Draws, runs and checks. The working folder must be one for the campaign alone.
Record run_seed(const Scenario& scenario, std::uint64_t seed, const Wishes& wishes = {});

/// The word for a kind of fault, as `parse_faults` reads it.
const char* name_of(sim::FaultKind kind);

/// The faults as text that `parse_faults` reads again.
std::string describe(const std::vector<sim::Fault>& faults);

/// Both directions of the line with their times, the faults that struck, and the log lines between
/// them.
std::string readable_trace(const Record& record);

/// The working folder of a campaign's process: in memory where the system offers it, entered while
/// the object lives, with standard error going to a file in it.
class Workplace {
  public:
    Workplace();
    ~Workplace();
    Workplace(const Workplace&) = delete;
    Workplace& operator=(const Workplace&) = delete;

    /// Clears up behind a process that died in its working folder. Returns the end of what it had
    /// written to standard error.
    static std::string clear_behind(int process);

  private:
    std::string before_;
    int standard_error_ = -1;
};

}  // namespace orbix::campaign
