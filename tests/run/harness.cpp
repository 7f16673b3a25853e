#include "run/harness.h"

#include <algorithm>
#include <array>
#include <cstdio>

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

bool contains(std::span<const std::uint8_t> whole, std::span<const std::uint8_t> part) {
    return std::search(whole.begin(), whole.end(), part.begin(), part.end()) != whole.end();
}

}  // namespace orbix::test
