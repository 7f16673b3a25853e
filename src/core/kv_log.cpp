#include "core/kv_log.h"

#include <cstdarg>
#include <cstdint>

#include "platform/platform.h"

namespace orbix {

namespace {

std::uint32_t msecs_base = 0;
float secs_base = 0.0F;
std::FILE* stream = nullptr;

void log_tagged(const char* tag, const char* format, std::va_list arguments) {
    log_stamp();
    std::fputs(tag, log_stream());
    std::vfprintf(log_stream(), format, arguments);
    std::fflush(log_stream());
}

}  // namespace

unsigned flash_tool_msecs() {
    const auto reading = static_cast<std::uint32_t>(platform::current().now_ms());
    if (msecs_base == 0) {
        msecs_base = reading;
    }
    return reading - msecs_base;
}

float flash_tool_secs() {
    const unsigned reading = flash_tool_msecs();
    const unsigned whole_seconds = reading / 1000;
    const float value =
        static_cast<float>(reading % 1000) / 1000.0F + static_cast<float>(whole_seconds);
    if (secs_base == 0.0F) {
        secs_base = value;
    }
    return value - secs_base;
}

void kv_log_reset() {
    msecs_base = 0;
    secs_base = 0.0F;
}

std::FILE* log_stream() {
    return stream != nullptr ? stream : stdout;
}

void set_log_stream(std::FILE* other) {
    stream = other;
}

void log_stamp() {
    const unsigned now = flash_tool_msecs();
    std::fprintf(log_stream(), "[%03u.%03u]", now / 1000, now % 1000);
}

void log_plain(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    log_tagged("", format, arguments);
    va_end(arguments);
}

void log_info(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    log_tagged("[INFO] ", format, arguments);
    va_end(arguments);
}

void log_error(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    log_tagged("[ERROR] ", format, arguments);
    va_end(arguments);
}

void log_progress(float percent, LineEnd end) {
    log_plain("[PROGRESS] %.2f%%%s", static_cast<double>(percent),
              end == LineEnd::crlf ? "\r\n" : "\n");
}

void log_progress_complete() {
    log_plain("[PROGRESS] 100%%\r\n");
}

void log_speed_start(int total) {
    log_plain("[SPEED] %d Bytes/%d Bytes    0 KBps\n", 0, total);
}

void log_speed(int done, int total, float kbytes, float seconds) {
    if (seconds <= 0.0F) {
        log_plain("[SPEED] %d Bytes/%d Bytes    0 KBps\n", done, total);
        return;
    }
    log_plain("[SPEED] %d Bytes/%d Bytes    %.1f KBps\n", done, total,
              static_cast<double>(kbytes / seconds));
}

float rounded_kbytes(int done) {
    return static_cast<float>(done + 1024) / 1024.0F;
}

}  // namespace orbix
