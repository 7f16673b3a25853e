// The tool's entry point and what it does before and after the family's own work.
#pragma once

namespace orbix {

/// A whole run: banner, options, one family entry, one result line. Returns the process's exit
/// status, which is 0 whenever a family was looked up: only the last line tells the outcome.
int flash_tool_main(int argc, char** argv);

/// Ends the run once the family's entry has returned: no result line, and `status` as the exit
/// status. For options that only ask something of a family. Returns `status`, to be returned by
/// the entry.
int end_run(int status);

/// Records the DTR and RTS states for the next port that is opened. The port and the rate are
/// accepted and not used. Returns 0.
int change_serail_dtr_rts(const char* port, unsigned baud, unsigned dtr, unsigned rts);

/// Prints the usage text. Returns 0.
int usage(const char* progname);

}  // namespace orbix
