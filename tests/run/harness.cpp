#include "run/harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace orbix::test {

Lines joined(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

bool has_line(const ToolRun& run, const std::string& line) {
    const Lines lines = run.lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string upgrade_failure(int code) {
    return "[FAIL] orbix_flash upgrade fail,ret:[" + std::to_string(code) + "]";
}

std::string readback_failure(int code) {
    return "[FAIL] orbix_flash readback fail,ret:[" + std::to_string(code) + "]";
}

void append(Bytes& bytes, std::span<const std::uint8_t> more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes hex(const std::string& digits) {
    Bytes bytes;
    std::size_t at = 0;
    while (at < digits.size()) {
        if (digits[at] == ' ') {
            ++at;
            continue;
        }
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
        at += 2;
    }
    return bytes;
}

std::string as_hex(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X", byte);
        text += text.empty() ? "" : " ";
        text += digits.data();
    }
    return text;
}

long time_of(const ToolRun& run, const std::string& text) {
    const std::size_t line = run.output.rfind("\n[", run.output.find(text)) + 2;
    return std::strtol(&run.output[line], nullptr, 10) * 1000 +
           std::strtol(&run.output[run.output.find('.', line) + 1], nullptr, 10);
}

std::string speed_line(const ToolRun& run, int done, int total, double kbytes, long begun_ms) {
    const std::string head =
        "[SPEED] " + std::to_string(done) + " Bytes/" + std::to_string(total) + " Bytes    ";
    const long taken_ms = time_of(run, head) - begun_ms;
    std::array<char, 32> rate{};
    std::snprintf(rate.data(), rate.size(), "%.1f KBps",
                  kbytes * 1000 / static_cast<double>(taken_ms));
    return head + rate.data();
}

void expect_speed_of_frames(const ToolRun& run, int total) {
    const auto lines = run.progress_lines();
    const long begun =
        time_of(run, "[SPEED] 0 Bytes/" + std::to_string(total) + " Bytes    0 KBps");
    std::size_t line = 1;
    for (int done = 0; done < total;) {
        done = std::min(done + 5120, total);
        line += 2;
        ASSERT_LT(line, lines.size());
        EXPECT_EQ(lines[line], speed_line(run, done, total, (done + 1024) / 1024.0, begun));
    }
    EXPECT_EQ(lines.size(), line + 1);
}

bool contains(std::span<const std::uint8_t> whole, std::span<const std::uint8_t> part) {
    return std::search(whole.begin(), whole.end(), part.begin(), part.end()) != whole.end();
}

}  // namespace orbix::test
