// What the campaign knows of the families beyond the checks: where a run may stand for ever, where
// it may fail without an ERROR line, and which checks a protocol cannot keep.
#pragma once

#include <string_view>
#include <vector>

#include "campaign.h"

namespace orbix::campaign {

/// A family's or mode's name in these tables; "*" stands for any.
bool concerns(std::string_view pattern, std::string_view name);

/// A wait without a limit of its own. It is known by the last line before it.
struct UnlimitedWait {
    const char* family;
    const char* mode;
    const char* last_line;  ///< how the line begins, without its stamp
    const char* reason;
};
extern const std::vector<UnlimitedWait> unlimited_waits;

/// A step that fails without an ERROR line of its own. It is known by the last line before the
/// result.
struct SilentStep {
    const char* family;
    const char* mode;
    const char* last_line;
    const char* reason;
};
extern const std::vector<SilentStep> silent_steps;

/// What an exception is judged by: the run's facts, those that the tool cannot see included.
struct Evidence {
    const Record& record;
    const Rig& rig;
};

/// A check that cannot be kept, because the behaviour itself brings it.
struct Exception {
    const char* family;
    const char* mode;
    Check check;
    bool (*applies)(const Evidence& evidence);  ///< whether this run met the reason
    const char* reason;
    const char* test;  ///< "Suite.Test", which shows it
};
extern const std::vector<Exception> exceptions;

}  // namespace orbix::campaign
