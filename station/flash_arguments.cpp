#include "flash_arguments.h"

#include <gcrypt.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace orbix::station {

namespace {

/// The letters that take a value, and those that may have one attached.
constexpr std::string_view letters_with_value = "ampdbfsrtlLcgRTo";

[[noreturn]] void refuse(const std::string& why) {
    throw std::invalid_argument(why);
}

/// Calls `found(letter, value)` for each option, as getopt walks over them: "-b 115200" and
/// "-b115200" are the same, "-D" has no value, plain words are stepped over, "--" ends.
template <typename Found>
void walk_options(const std::vector<std::string>& words, Found found) {
    for (std::size_t index = 0; index < words.size(); ++index) {
        const std::string& word = words[index];
        if (word == "--") {
            refuse("\"--\" stands twice: orbix_flash would not see its port");
        }
        if (word.size() < 2 || word[0] != '-') {
            continue;
        }
        for (std::size_t at = 1; at < word.size(); ++at) {
            if (letters_with_value.find(word[at]) == std::string_view::npos) {
                found(word[at], std::string());
                if (word[at] == 'v') {
                    break;
                }
                continue;
            }
            const bool attached = at + 1 < word.size();
            if (!attached && ++index == words.size()) {
                refuse(std::string("-") + word[at] + " lacks its value");
            }
            found(word[at], attached ? word.substr(at + 1) : words[index]);
            break;
        }
    }
}

bool is_package(const FlashArguments& arguments) {
    return !arguments.folder.empty();
}

std::string trimmed(std::string_view text) {
    const auto blank = [](char letter) {
        return letter == ' ' || letter == '\r' || letter == '\t';
    };
    while (!text.empty() && blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && blank(text.back())) {
        text.remove_suffix(1);
    }
    return std::string(text);
}

/// The layout file of a package: the first whose name begins with that one.
std::string layout_of(const std::filesystem::path& folder, const std::string& name) {
    std::error_code failure;
    for (std::filesystem::directory_iterator entry(folder, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        if (entry->path().filename().string().starts_with(name)) {
            return entry->path().string();
        }
    }
    return (folder / name).string();
}

std::vector<std::string> images_of(const std::string& layout) {
    std::vector<std::string> names;
    std::ifstream file(layout);
    for (std::string line; std::getline(file, line);) {
        constexpr std::string_view key = "file:";
        if (const std::size_t at = line.find(key); at != std::string::npos) {
            names.push_back(trimmed(std::string_view(line).substr(at + key.size())));
        }
    }
    return names;
}

std::vector<std::string> package_paths(const FlashArguments& arguments) {
    const std::filesystem::path folder = arguments.folder;
    const std::string layout = layout_of(folder, arguments.layout);
    std::vector<std::string> chosen;
    std::stringstream list(arguments.image);
    for (std::string name; std::getline(list, name, ',');) {
        chosen.push_back(name);
    }
    std::vector<std::string> paths{layout};
    for (const std::string& name : images_of(layout)) {
        if (chosen.empty() || std::find(chosen.begin(), chosen.end(), name) != chosen.end()) {
            paths.push_back((folder / name).string());
        }
    }
    return paths;
}

std::string hexadecimal(const unsigned char* bytes, std::size_t count) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (std::size_t at = 0; at < count; ++at) {
        text += digits[bytes[at] >> 4U];
        text += digits[bytes[at] & 0xFU];
    }
    return text;
}

HashedFile hashed(const std::string& path) {
    static const bool ready = [] {
        gcry_check_version(nullptr);
        gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        return true;
    }();
    static_cast<void>(ready);
    HashedFile result{.path = path, .sha256 = {}, .size = 0};
    std::error_code failure;
    if (!std::filesystem::is_regular_file(path, failure)) {
        return result;  // to open a pipe would be to wait for whoever writes into it
    }
    std::ifstream file(path, std::ios::binary);
    gcry_md_hd_t digest = nullptr;
    if (gcry_md_open(&digest, GCRY_MD_SHA256, 0) != 0) {
        return result;
    }
    const std::unique_ptr<gcry_md_handle, decltype(&gcry_md_close)> owner(digest, gcry_md_close);
    std::array<char, 65536> buffer{};
    while (file.read(buffer.data(), buffer.size()), file.gcount() > 0) {
        gcry_md_write(digest, buffer.data(), static_cast<std::size_t>(file.gcount()));
        result.size += static_cast<std::size_t>(file.gcount());
    }
    if (file.eof()) {
        result.sha256 = hexadecimal(gcry_md_read(digest, GCRY_MD_SHA256),
                                    gcry_md_get_algo_dlen(GCRY_MD_SHA256));
    }
    return result;
}

}  // namespace

FlashArguments read_flash_arguments(const std::vector<std::string>& words) {
    FlashArguments arguments;
    arguments.words = words;
    walk_options(words, [&arguments](char letter, const std::string& value) {
        switch (letter) {
            case 'm':
                arguments.model = value;
                break;
            case 't':
                arguments.mode = value;
                break;
            case 'f':
                arguments.image = value;
                break;
            case 'd':
                arguments.folder = value;
                break;
            case 'g':
                arguments.layout = value;
                break;
            case 's':
                arguments.second = value;
                break;
            case 'L':
                arguments.loader = value;
                break;
            case 'o':
                arguments.readback = true;
                break;
            case 'p':
                refuse("-p is set by the station: name the ports before \"--\"");
            case 'S':
            case 'h':
            case 'v':
                refuse(std::string("-") + letter +
                       " flashes nothing: give it to orbix_flash itself");
            default:
                break;
        }
    });
    if (arguments.model.empty()) {
        refuse("the arguments of orbix_flash lack the model, -m NAME");
    }
    return arguments;
}

std::vector<HashedFile> firmware_files(const FlashArguments& arguments) {
    std::vector<std::string> paths;
    if (is_package(arguments)) {
        paths = package_paths(arguments);
    } else if (!arguments.image.empty()) {
        paths.push_back(arguments.image);
    }
    for (const std::string* path : {&arguments.second, &arguments.loader}) {
        if (!path->empty()) {
            paths.push_back(*path);
        }
    }
    std::vector<HashedFile> files;
    files.reserve(paths.size());
    for (const std::string& path : paths) {
        files.push_back(hashed(path));
    }
    return files;
}

}  // namespace orbix::station
