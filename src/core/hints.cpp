#include "core/hints.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>

#include "core/support_table.h"
#include "platform/platform.h"

namespace orbix::hints {

namespace {

/// How much of what arrived is looked at, the latest of it, and how much is shown.
constexpr std::size_t sample_size = 256;
constexpr std::size_t bytes_shown = 8;
constexpr std::size_t letters_shown = 32;

/// Fewer bytes than these tell nothing about their kind.
constexpr unsigned least_telling = 4;

/// What came instead of an answer; a later kind says more than an earlier one.
enum class Kind : std::uint8_t { nothing, other_rate, no_answer, text };

/// What arrived while the first answer was awaited.
struct Arrivals {
    unsigned baud = 0;
    unsigned count = 0;
    std::array<std::uint8_t, bytes_shown> first{};
    std::deque<std::uint8_t> sample;
};

/// What is known of the run.
struct Observed {
    bool hint_given = false;
    bool module_called = false;
    bool answer_awaited = false;
    bool port_vanished = false;
    unsigned refused_baud = 0;  ///< a rate that the port cannot do
    Arrivals now;
    Arrivals before;  ///< the most telling of those of earlier attempts
};

Observed observed;

bool is_text(std::uint8_t byte) {
    return (byte >= 0x20 && byte < 0x7F) || byte == '\r' || byte == '\n';
}

/// Two UARTs that disagree about the rate make long runs of equal bits of each other's bytes, and
/// bytes with the top bit set, which commands and sentences hardly have.
bool is_rate_garbage(std::uint8_t byte) {
    return byte == 0x00 || byte >= 0x80;
}

Kind kind_of(const Arrivals& arrivals) {
    const auto& sample = arrivals.sample;
    if (sample.empty()) {
        return Kind::nothing;
    }
    const auto share = [&sample](bool (*is_of_kind)(std::uint8_t)) {
        return std::count_if(sample.begin(), sample.end(), is_of_kind) * 100 /
               static_cast<std::ptrdiff_t>(sample.size());
    };
    if (arrivals.count < least_telling) {
        return Kind::no_answer;
    }
    if (share(is_text) >= 90) {
        return Kind::text;
    }
    return share(is_rate_garbage) >= 30 ? Kind::other_rate : Kind::no_answer;
}

/// The first sentence in the sample, or line of text where there is none, or as much of it as is
/// shown.
std::string first_line(const std::deque<std::uint8_t>& sample) {
    const auto is_end = [](std::uint8_t byte) { return byte < 0x20 || byte >= 0x7F; };
    auto begin = std::find(sample.begin(), sample.end(), '$');
    if (begin == sample.end()) {
        begin = std::find_if_not(sample.begin(), sample.end(), is_end);
    }
    const auto end = std::find_if(begin, sample.end(), is_end);
    std::string line(begin, end);
    if (line.size() > letters_shown) {
        line = line.substr(0, letters_shown) + "...";
    }
    return line;
}

/// "1 byte arrived (7F)", "12 bytes arrived (01 02 03 04 05 06 07 08 ...)"
std::string count_and_bytes(const Arrivals& arrivals) {
    std::string text = std::to_string(arrivals.count);
    text += arrivals.count == 1 ? " byte arrived (" : " bytes arrived (";
    for (std::size_t index = 0; index < std::min<std::size_t>(arrivals.count, bytes_shown);
         ++index) {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X", arrivals.first[index]);
        text += index == 0 ? "" : " ";
        text += digits.data();
    }
    return text + (arrivals.count > bytes_shown ? " ...)" : ")");
}

void tell_what_arrived() {
    const Arrivals& told =
        kind_of(observed.before) >= kind_of(observed.now) ? observed.before : observed.now;
    switch (kind_of(told)) {
        case Kind::nothing:
            give("nothing arrived; is the module powered, wired (TX to RX), and was it reset?\n");
            break;
        case Kind::no_answer:
            give("%s, no answer; is the model right, and the mode?\n",
                 count_and_bytes(told).c_str());
            break;
        case Kind::other_rate:
            give("%s as if at another rate than %u; reset the module, or try another -b\n",
                 count_and_bytes(told).c_str(), told.baud);
            break;
        case Kind::text:
            give(
                "the module sends text (\"%s\"): its firmware runs; reset it, or try another "
                "mode\n",
                first_line(told.sample).c_str());
            break;
    }
}

/// Begins anew, and keeps what tells most of before.
void start_over(unsigned baud) {
    if (kind_of(observed.now) > kind_of(observed.before)) {
        observed.before = observed.now;
    }
    observed.now = {.baud = baud, .count = 0, .first = {}, .sample = {}};
}

bool is_same_but_for_case(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(), [](char a, char b) {
        return std::toupper(static_cast<unsigned char>(a)) ==
               std::toupper(static_cast<unsigned char>(b));
    });
}

/// The first model that `matches`, or null.
template <typename Predicate>
const char* find_name(Predicate matches) {
    for (const SupportRow& row : support_table) {
        for (const ModelName& name : row.names) {
            if (name[0] != '\0' && matches(std::string_view(name))) {
                return name;
            }
        }
    }
    return nullptr;
}

/// A model that may have been meant: typed in other letters, or begun alike.
const char* similar_model(std::string_view typed) {
    const char* same =
        find_name([typed](std::string_view name) { return is_same_but_for_case(typed, name); });
    if (same != nullptr || typed.size() < 3) {
        return same;
    }
    return find_name([typed](std::string_view name) {
        return is_same_but_for_case(typed, name.substr(0, typed.size())) ||
               is_same_but_for_case(name, typed.substr(0, name.size()));
    });
}

}  // namespace

void give(const char* format, ...) {
    observed.hint_given = true;
    std::va_list arguments;
    va_start(arguments, format);
    std::fputs("hint: ", stderr);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}

void image_changed() {
    give("the image has changed its length during the run, or cannot be read to its end\n");
}

void reset() {
    observed = {};
}

void port_not_opened(const char* name, int error) {
    if (name[0] == '\0') {
        give("no port was given; -p names it, such as -p %s\n", platform::example_port());
        return;
    }
    const char* remedy = platform::port_remedy(error);
    if (remedy != nullptr) {
        give("%s: %s\n", name, remedy);
    } else {
        give("%s: the port could not be opened: %s\n", name, std::strerror(error));
    }
}

void rate_set(unsigned baud, bool taken) {
    if (!taken) {
        observed.refused_baud = baud;
    }
    if (baud != observed.now.baud) {
        start_over(baud);
    }
}

void answer_awaited() {
    observed.answer_awaited = true;
    start_over(observed.now.baud);
}

void called() {
    observed.module_called = true;
}

void received(std::span<const std::uint8_t> bytes) {
    if (!observed.answer_awaited) {
        return;
    }
    Arrivals& arrivals = observed.now;
    for (const std::uint8_t byte : bytes) {
        if (arrivals.count < arrivals.first.size()) {
            arrivals.first[arrivals.count] = byte;
        }
        ++arrivals.count;
    }
    arrivals.sample.insert(arrivals.sample.end(), bytes.begin(), bytes.end());
    while (arrivals.sample.size() > sample_size) {
        arrivals.sample.pop_front();
    }
}

void synchronised() {
    observed.answer_awaited = false;
    observed.now = {.baud = observed.now.baud, .count = 0, .first = {}, .sample = {}};
    observed.before = {};
}

void port_vanished() {
    observed.port_vanished = true;
}

void show_the_way() {
    give(
        "for example: orbix_flash -m TR52G -p %s -b 115200 -f app.bin -t UPG; "
        "-S lists the models, %s tells the rest\n",
        platform::example_port(), platform::manual());
}

void model_unknown(std::string_view name) {
    const char* similar = similar_model(name);
    const int length = static_cast<int>(name.size());
    if (similar != nullptr) {
        give("there is no model \"%.*s\"; is it %s? -S lists them all\n", length, name.data(),
             similar);
    } else {
        give("there is no model \"%.*s\"; -S lists them all\n", length, name.data());
    }
}

void readback_unknown(std::string_view model) {
    give("the flash of %.*s cannot be read back: leave -o out\n", static_cast<int>(model.size()),
         model.data());
}

void explain_failure(std::string_view model, const SupportRow& family, bool readback) {
    if (observed.port_vanished) {
        give("the port vanished during the run; was the adapter unplugged?\n");
        return;
    }
    if (observed.module_called) {
        if (observed.refused_baud != 0) {
            give("the port cannot do %u baud; choose another rate\n", observed.refused_baud);
        } else if (observed.answer_awaited && observed.now.baud == 0) {
            give("no rate was given; -b names it, such as -b 115200\n");
        } else if (observed.answer_awaited) {
            tell_what_arrived();
        }
        return;
    }
    if (observed.hint_given) {
        return;
    }
    const int length = static_cast<int>(model.size());
    if (readback) {
        give("how %.*s is read back is told in docs/%s.md\n", length, model.data(), family.page);
    } else {
        give("for example: orbix_flash -m %.*s -p %s %s; docs/%s.md tells more\n", length,
             model.data(), platform::example_port(), family.typical_options, family.page);
    }
}

void explain_success() {
    if (!observed.module_called && !observed.hint_given) {
        give("nothing was sent to the module: it is as it was before\n");
    }
}

}  // namespace orbix::hints
