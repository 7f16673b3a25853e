#include "line_splitter.h"

#include <algorithm>

namespace orbix::station {

namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";  // U+FFFD

/// Length of the UTF-8 sequence that the text begins with; 0 when it is none.
std::size_t sequence_length(std::string_view text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned first = byte(0);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xC2 ? 0
                               : first < 0xE0 ? 2
                               : first < 0xF0 ? 3
                               : first < 0xF5 ? 4
                                              : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0U) != 0x80) {
            return 0;
        }
    }
    // Overlong forms, surrogates, and what is above U+10FFFF.
    const bool refused = (first == 0xE0 && byte(1) < 0xA0) || (first == 0xED && byte(1) > 0x9F) ||
                         (first == 0xF0 && byte(1) < 0x90) || (first == 0xF4 && byte(1) > 0x8F) ||
                         (first == 0xC2 && byte(1) < 0xA0);  // control characters of Latin-1
    return refused ? 0 : length;
}

}  // namespace

void LineSplitter::take(std::string_view bytes,
                        const std::function<void(std::string_view)>& on_line) {
    while (!bytes.empty()) {
        const std::size_t end = bytes.find('\n');
        const std::string_view piece = bytes.substr(0, end);
        pending_.append(piece.substr(0, std::min(piece.size(), longest - pending_.size())));
        if (end == std::string_view::npos) {
            return;
        }
        const std::string line = std::move(pending_);
        pending_.clear();
        on_line(line);
        bytes.remove_prefix(end + 1);
    }
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = sequence_length(text);
        const bool control = length == 1 && (text[0] < ' ' || text[0] == '\x7F');
        if (control && text[0] == '\t') {
            result += ' ';
        } else if (length == 0 || control) {
            result += replacement;
        } else {
            result += text.substr(0, length);
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return result;
}

}  // namespace orbix::station
