// The station's tables against the sources of the tool: no ERROR line that the tool can write may
// be unknown to the station, and no entry may outlive the line that it is for.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "flash_lines.h"
#include "temp_dir.h"

namespace orbix::station {
namespace {

/// A string literal of the sources: pieces that stand side by side are one.
struct Literal {
    std::string file;
    std::string before;  ///< the code in front of it, without blanks at its end
    std::string text;    ///< with each conversion filled in
};

std::string without_comments(const std::string& code) {
    std::string result;
    bool in_text = false;
    for (std::size_t at = 0; at < code.size(); ++at) {
        if (in_text && code[at] == '\\') {
            result += code.substr(at++, 2);
            continue;
        }
        in_text = in_text != (code[at] == '"');
        if (!in_text && code.compare(at, 2, "//") == 0) {
            at = code.find('\n', at);
        }
        result += code[at];
    }
    return result;
}

/// "%d", "%04x", "%s" and their like become "7", "%%" becomes "%".
std::string filled_in(const std::string& format) {
    std::string text;
    for (std::size_t at = 0; at < format.size(); ++at) {
        if (format[at] != '%') {
            text += format[at];
            continue;
        }
        at = format.find_first_not_of("0123456789.-+# l", at + 1);
        text += format[at] == '%' ? '%' : '7';
    }
    return text;
}

std::vector<Literal> literals_of(const std::filesystem::path& path) {
    const std::string code = without_comments(sim::read_text(path));
    std::vector<Literal> literals;
    std::size_t end_of_last = 0;
    for (std::size_t at = code.find('"'); at != std::string::npos; at = code.find('"', at)) {
        std::string text;
        const std::size_t begin = at++;
        for (; code[at] != '"'; ++at) {
            if (code[at] == '\\') {
                ++at;
                text += code[at] == 'n' ? '\n' : code[at] == 'r' ? '\r' : code[at];
            } else {
                text += code[at];
            }
        }
        ++at;
        const std::string between = code.substr(end_of_last, begin - end_of_last);
        end_of_last = at;
        if (!literals.empty() && between.find_first_not_of(" \n") == std::string::npos) {
            literals.back().text += text;
            continue;
        }
        std::string before = code.substr(0, begin);
        before.erase(before.find_last_not_of(" \n") + 1);
        literals.push_back({path.filename().string(), before, text});
    }
    for (Literal& literal : literals) {
        literal.text = filled_in(literal.text);
    }
    return literals;
}

/// All texts of the tool that end a line, or would.
std::vector<Literal> tool_texts() {
    std::vector<Literal> texts;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(ORBIX_SOURCE_DIR "/src")) {
        const std::string extension = entry.path().extension().string();
        if (extension != ".cpp" && extension != ".h") {
            continue;
        }
        for (Literal& literal : literals_of(entry.path())) {
            texts.push_back(std::move(literal));
        }
    }
    return texts;
}

bool is_argument_of(const Literal& literal, std::string_view function) {
    return literal.before.ends_with(std::string(function) + "(");
}

/// The first line of a text, as it stands behind the tag.
std::string first_line(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    while (line.ends_with('\r')) {
        line.pop_back();
    }
    return line;
}

/// Texts with a line end that are no ERROR lines although no call shows it.
bool is_no_error(const Literal& literal) {
    static const std::set<std::string> elsewhere{
        // Put together from parts, or handed to log_info through a table.
        "Please power up the module within 10s.",
        "Please power up the module within 15s.",
        // Sent to a module.
        "$PSTMFWUPGRADE*5B",
        "$PAIR023*3B",
        "xmodem pkg",
    };
    for (const char* function : {"log_info", "log_plain", "give", "hints::give", "fputs", "fprintf",
                                 "log_speed_start", "std::fputs"}) {
        if (is_argument_of(literal, function)) {
            return true;
        }
    }
    for (const char* stream : {"fprintf(stderr,", "fprintf(log_stream(),"}) {
        if (literal.before.ends_with(stream)) {
            return true;
        }
    }
    const std::string line = first_line(literal.text);
    return elsewhere.contains(line) || literal.file == "kv_log.cpp" || line.empty();
}

const ErrorText* known_error(const std::string& line) {
    for (const ErrorText& known : error_texts()) {
        if (fits(line, known.pattern)) {
            return &known;
        }
    }
    return nullptr;
}

std::vector<std::string> error_lines() {
    std::vector<std::string> lines;
    for (const Literal& literal : tool_texts()) {
        const bool ends_line = literal.text.find('\n') != std::string::npos;
        const bool open_ended = is_argument_of(literal, "log_error");
        if (!(ends_line || open_ended) || is_no_error(literal) || literal.text == "7") {
            continue;
        }
        lines.push_back(first_line(literal.text));
    }
    return lines;
}

TEST(Audit, FindsTheLinesOfTheSources) {
    const auto lines = error_lines();
    EXPECT_GT(lines.size(), 150U);
    for (const char* sample :
         {"Sync failed!", "7 serial_read 0xAF fail", "CRC32 checksum error.",
          "format:7 --- value2:7", "slave msg Tail error 7", "Firmware 7 open failed."}) {
        EXPECT_NE(std::find(lines.begin(), lines.end(), sample), lines.end()) << sample;
    }
}

TEST(Audit, EveryErrorLineOfTheToolIsKnown) {
    for (const std::string& line : error_lines()) {
        EXPECT_NE(known_error(line), nullptr) << line;
    }
}

TEST(Audit, EveryErrorPatternStandsForALineOfTheTool) {
    // Those that tell apart what the tool puts in for a conversion.
    const std::set<std::string_view> filled{
        "*failed,err: 0x103",
        "* serial_read 0x2104 fail ff*",
        "*update fail, receive: 15",
        "*update fail, receive: 18",
        "Download failed,err: 0x108",
        "*failed,err: 0xFFFFFF33",
        "*failed,err: 0x107",
        "Send bin failed,err: 0x107",
        "Send firmware failed,err: 0x108",
    };
    const auto lines = error_lines();
    for (const ErrorText& known : error_texts()) {
        const bool used = std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return known_error(line) == &known;
        });
        EXPECT_TRUE(used || filled.contains(known.pattern)) << known.pattern;
    }
}

TEST(Audit, EveryStepPatternStandsForALineOfTheTool) {
    std::vector<std::string> lines;
    for (const Literal& literal : tool_texts()) {
        lines.push_back(first_line(literal.text));
    }
    const auto stands_for_a_line = [&lines](std::string_view pattern) {
        return std::any_of(lines.begin(), lines.end(),
                           [pattern](const std::string& line) { return fits(line, pattern); });
    };
    for (const StepText& step : step_texts()) {
        EXPECT_TRUE(stands_for_a_line(step.pattern)) << step.pattern;
    }
    // "Mode: %s" is one line with several words.
    for (const ContextText& kind : context_texts()) {
        EXPECT_TRUE(stands_for_a_line(kind.pattern) || kind.pattern == "Mode: boot")
            << kind.pattern;
    }
}

TEST(Audit, EveryStepOfTheToolIsKnown) {
    // Lines of log_info that end in dots announce a step.
    int steps = 0;
    for (const Literal& literal : tool_texts()) {
        const std::string line = first_line(literal.text);
        if (!is_argument_of(literal, "log_info") || !line.ends_with("...")) {
            continue;
        }
        ++steps;
        const bool known =
            std::any_of(step_texts().begin(), step_texts().end(),
                        [&line](const StepText& step) { return fits(line, step.pattern); });
        EXPECT_TRUE(known || line.starts_with("Ready to upgrade the ")) << line;
    }
    EXPECT_GT(steps, 40);
}

TEST(Audit, ContextsOfStepsExist) {
    for (const StepText& step : step_texts()) {
        const bool known =
            std::any_of(context_texts().begin(), context_texts().end(),
                        [&step](const ContextText& kind) { return kind.context == step.only_in; });
        EXPECT_TRUE(step.only_in.empty() || known) << step.only_in;
    }
}

TEST(Fits, StarStandsForAnything) {
    EXPECT_TRUE(fits("abc", "abc"));
    EXPECT_FALSE(fits("abcd", "abc"));
    EXPECT_TRUE(fits("abcd", "abc*"));
    EXPECT_TRUE(fits("abc", "abc*"));
    EXPECT_TRUE(fits("xxabc", "*abc"));
    EXPECT_TRUE(fits("a1b2c", "a*b*c"));
    EXPECT_FALSE(fits("a1c2b", "a*b*c"));
    EXPECT_FALSE(fits("", "a*"));
    EXPECT_TRUE(fits("", "*"));
    EXPECT_FALSE(fits("aba", "ab*ba"));
}

}  // namespace
}  // namespace orbix::station
