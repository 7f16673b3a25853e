// Reading the command line: what several family entries do in the same way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orbix {

/// Walks the options of a command line with `getopt`. It works on a copy of the vector, because
/// `getopt` may move plain words to the end: the caller's vector keeps the order as typed.
class OptionScan {
  public:
    /// `letters` is an option string as `getopt` takes it. Each scan starts at the first argument.
    /// There are no long options: of "--m" the second dash is an unknown letter, and -m follows.
    OptionScan(int argc, char** argv, const char* letters);

    /// The next option letter, '?' for one that is not in the string, -1 at the end.
    int next();

    /// The argument of the option that `next` returned last; empty when it takes none.
    [[nodiscard]] const char* value() const;

    /// That argument and all words behind it up to the next one that begins with '-', for options
    /// that take a list. The scan goes on behind them.
    std::vector<const char*> values();

  private:
    std::vector<char*> arguments_;
    const char* letters_;
};

/// `atoi` that is defined for every text: 0 without a number, the nearest int out of range.
int to_int(const char* text);

/// A 32-bit number in hexadecimal, with or without "0x": 0 without a number, 0xFFFFFFFF for a
/// larger one. A negative one wraps.
std::uint32_t to_hex(const char* text);

/// The first `length` characters of a text.
std::string clipped(const char* text, std::size_t length);

/// The device behind a `-p` argument, of which at most 20 characters count: a name that starts
/// with 't' stands in /dev ("ttyS0"), one with 'U' follows /dev/tty ("USB0"), one with '/' or 'C'
/// is taken as it is ("COM6"). Any other is refused with an ERROR line, and the result is empty.
std::string device_of_port(const char* name);

/// The word after the last "-t" (at most 31 characters), or an empty text. It is looked for in the
/// vector itself, before the options are parsed, because it decides who parses them.
std::string mode_word(int argc, char** argv);

/// Whether `text` contains one of two words.
bool contains_either(const std::string& text, const char* first, const char* second);

}  // namespace orbix
