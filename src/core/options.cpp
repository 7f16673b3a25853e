#include "core/options.h"

#include <getopt.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "core/hints.h"
#include "core/kv_log.h"
#include "platform/platform.h"

namespace orbix {

OptionScan::OptionScan(int argc, char** argv, const char* letters)
    : arguments_(argv, argv + argc), letters_(letters) {
    arguments_.push_back(nullptr);
    // 0, not 1: the parser then also forgets a cluster of letters that it was in the middle of.
    optind = 0;
}

int OptionScan::next() {
    // The long form without a table of long options: letters alone count, as with plain getopt,
    // but plain words are stepped over with every C library.
    const int argc = static_cast<int>(arguments_.size()) - 1;
    return getopt_long(argc, arguments_.data(), letters_, nullptr, nullptr);
}

const char* OptionScan::value() const {
    return optarg != nullptr ? optarg : "";
}

std::vector<const char*> OptionScan::values() {
    std::vector<const char*> words{value()};
    const int argc = static_cast<int>(arguments_.size()) - 1;
    for (; optind < argc; ++optind) {
        const char* word = arguments_[static_cast<std::size_t>(optind)];
        if (word[0] == '-') {
            break;
        }
        words.push_back(word);
    }
    return words;
}

int to_int(const char* text) {
    const long value = std::strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

std::uint32_t to_hex(const char* text) {
    const long long value = std::strtoll(text, nullptr, 16);
    return static_cast<std::uint32_t>(std::clamp<long long>(value, INT_MIN, UINT32_MAX));
}

std::string clipped(const char* text, std::size_t length) {
    const void* end = std::memchr(text, '\0', length);
    return end != nullptr ? std::string(text) : std::string(text, length);
}

std::string device_of_port(const char* name) {
    std::string used = clipped(name, 20);
    switch (name[0]) {
        case 't':
            return "/dev/" + used;
        case 'U':
            return "/dev/tty" + used;
        case '/':
        case 'C':
            return used;
        default:
            log_error("unknow dev %s\n", name);
            hints::give("ports are named like %s, ttyUSB0, USB0 or COM6\n",
                        platform::example_port());
            return {};
    }
}

std::string mode_word(int argc, char** argv) {
    std::string mode;
    for (int index = 1; index + 1 < argc; ++index) {
        if (std::strcmp(argv[index], "-t") == 0) {
            mode = clipped(argv[index + 1], 31);
        }
    }
    return mode;
}

bool contains_either(const std::string& text, const char* first, const char* second) {
    return text.find(first) != std::string::npos || text.find(second) != std::string::npos;
}

}  // namespace orbix
