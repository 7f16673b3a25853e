// Options that take a list, and numbers in hexadecimal.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/options.h"

namespace orbix::test {
namespace {

/// What a scan finds: each letter with its list, as "a:1,2".
std::vector<std::string> scan_lists(std::vector<std::string> words, const char* letters) {
    words.insert(words.begin(), "orbix_flash");
    std::vector<char*> argv(words.size());
    std::transform(words.begin(), words.end(), argv.begin(),
                   [](std::string& word) { return word.data(); });
    std::vector<std::string> found;
    OptionScan scan(static_cast<int>(argv.size()), argv.data(), letters);
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        std::string text(1, static_cast<char>(letter));
        for (const char* word : scan.values()) {
            text += std::string(text.size() == 1 ? ":" : ",") + word;
        }
        found.push_back(text);
    }
    return found;
}

using Lists = std::vector<std::string>;

TEST(OptionLists, EndAtTheNextOption) {
    EXPECT_EQ(scan_lists({"-a", "1", "2", "3", "-o", "x", "-t", "7", "8"}, "a:o:t:"),
              (Lists{"a:1,2,3", "o:x", "t:7,8"}));
}

TEST(OptionLists, FirstWordMayBeJoined) {
    EXPECT_EQ(scan_lists({"-a1", "2", "-o", "x"}, "a:o:"), (Lists{"a:1,2", "o:x"}));
}

TEST(OptionLists, FirstWordIsTheOptionsOwnWhateverItIs) {
    EXPECT_EQ(scan_lists({"-a", "-1", "2", "-o", "x"}, "a:o:"), (Lists{"a:-1,2", "o:x"}));
}

TEST(OptionLists, WordsThatBelongToNoListAreSteppedOver) {
    EXPECT_EQ(scan_lists({"plain", "-a", "1", "2", "-o", "x", "y"}, "a:o:"),
              (Lists{"a:1,2", "o:x,y"}));
}

TEST(OptionLists, HexadecimalNumbers) {
    EXPECT_EQ(to_hex("0x08000000"), 0x08000000U);
    EXPECT_EQ(to_hex("8000000"), 0x08000000U);
    EXPECT_EQ(to_hex("FfFfFfFf"), 0xFFFFFFFFU);
    EXPECT_EQ(to_hex("100000000"), 0xFFFFFFFFU);
    EXPECT_EQ(to_hex("0xFFFFFFFFFFFFFFFFFFFFFFFF"), 0xFFFFFFFFU);
    EXPECT_EQ(to_hex("-1"), 0xFFFFFFFFU);
    EXPECT_EQ(to_hex("1000 bytes"), 0x1000U);
    EXPECT_EQ(to_hex("nonsense"), 0U);
    EXPECT_EQ(to_hex(""), 0U);
}

}  // namespace
}  // namespace orbix::test
