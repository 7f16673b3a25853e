// The console log and its clock. Every line carries the time since the program's first line, is
// written to standard output and flushed at once, so that a program that reads the output sees
// each line when it is true.
#pragma once

#include <cstdio>

namespace orbix {

/// Milliseconds since the first call (32 bits, wraps). The first call returns 0.
unsigned flash_tool_msecs();

/// Seconds since this function's own first call, as a float of millisecond resolution.
float flash_tool_secs();

/// Starts the clocks anew and is called once at the start of each run.
void kv_log_reset();

/// Where the log lines go: standard output unless a test has set another stream.
std::FILE* log_stream();
void set_log_stream(std::FILE* stream);

/// Writes the time stamp, "[%03u.%03u]", alone.
void log_stamp();

/// One line with the time stamp and the text as it stands, for lines without a level tag.
[[gnu::format(printf, 1, 2)]] void log_plain(const char* format, ...);

/// One line with the time stamp, the tag "[INFO] " and the text.
[[gnu::format(printf, 1, 2)]] void log_info(const char* format, ...);

/// One line with the time stamp, the tag "[ERROR] " and the text.
[[gnu::format(printf, 1, 2)]] void log_error(const char* format, ...);

/// How a family ends its PROGRESS lines.
enum class LineEnd : unsigned char { lf, crlf };

/// "[PROGRESS] %.2f%%"
void log_progress(float percent, LineEnd end);

/// "[PROGRESS] 100%%\r\n", the closing line of an erase.
void log_progress_complete();

/// "[SPEED] 0 Bytes/%d Bytes    0 KBps\n", the line before the first byte of a transfer.
void log_speed_start(int total);

/// "[SPEED] %d Bytes/%d Bytes    %.1f KBps\n" with the rate `kbytes / seconds`, or "0 KBps" when
/// no time has passed.
void log_speed(int done, int total, float kbytes, float seconds);

/// The kilobytes of most families' SPEED lines: (done + 1024) / 1024.
float rounded_kbytes(int done);

}  // namespace orbix
