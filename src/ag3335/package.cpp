#include "ag3335/package.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "ag3335/byte_functions.h"
#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_log.h"
#include "core/options.h"

namespace orbix::package {

namespace {

constexpr std::size_t longest_list_name = 63;
constexpr std::size_t longest_file_name = 255;
constexpr std::size_t longest_line = 2047;

/// Hands out the lines of a text, with their line ends; longer ones come in pieces.
class Lines {
  public:
    explicit Lines(std::string_view text) : rest_(text) {}

    bool next(std::string_view& line) {
        const std::size_t end = rest_.find('\n');
        const std::size_t length = end == std::string_view::npos ? rest_.size() : end + 1;
        line = rest_.substr(0, std::min(length, longest_line));
        rest_.remove_prefix(line.size());
        return !line.empty();
    }

  private:
    std::string_view rest_;
};

/// What stands in a line `distance` characters after the start of a key; false without the key.
bool value_of(std::string_view line, std::string_view key, std::size_t distance,
              std::string_view& value) {
    const std::size_t at = line.find(key);
    if (at == std::string_view::npos) {
        return false;
    }
    value = line.substr(std::min(at + distance, line.size()));
    return true;
}

std::string_view without_line_end(std::string_view text) {
    for (int cut = 0; cut < 2 && (text.ends_with('\r') || text.ends_with('\n')); ++cut) {
        text.remove_suffix(1);
    }
    return text;
}

std::string content_of(FirmwareFile& file) {
    std::string text(static_cast<std::size_t>(file.size()), '\0');
    auto* const bytes = reinterpret_cast<std::uint8_t*>(text.data());
    text.resize(file.read({bytes, text.size()}));
    return text;
}

/// A text without a number leaves the address as it is.
void take_address(const std::string& text, std::uint32_t& address) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 16);
    if (end != text.c_str()) {
        address = static_cast<std::uint32_t>(value);
    }
}

Layout parse_layout(std::string_view text) {
    Layout layout;
    Lines lines(text);
    std::string_view line;
    while (lines.next(line)) {
        std::string_view value;
        if (value_of(line, "rom:", 0, value)) {
            layout.entries.emplace_back();
        }
        if (layout.entries.empty()) {
            continue;  // nothing to attach the line to
        }
        LayoutEntry& entry = layout.entries.back();
        if (value_of(line, "file:", 6, value)) {
            entry.file = without_line_end(value).substr(0, longest_file_name);
        }
        if (value_of(line, "begin_address:", 17, value)) {
            take_address(std::string(value), entry.begin_address);
        }
    }
    if (layout.entries.size() > most_images) {
        layout = {.entries = {}, .too_many = true};
    }
    return layout;
}

/// The names in a folder, in the folder's own order, in the letters in which all other files are
/// opened: std::filesystem takes a path on Windows for another code page than the C library does.
class Names {
  public:
    explicit Names(const std::string& path) : folder_(opendir(path.c_str())) {}

    [[nodiscard]] bool is_open() const { return folder_ != nullptr; }

    bool next(std::string& name) {
        const dirent* const entry = readdir(folder_.get());
        if (entry != nullptr) {
            name = entry->d_name;
        }
        return entry != nullptr;
    }

  private:
    struct Close {
        void operator()(DIR* folder) const { closedir(folder); }
    };
    std::unique_ptr<DIR, Close> folder_;
};

/// Looks for the first name that begins with `prefix`; false when there is none.
bool find_name(Names& names, const std::string& prefix, std::string& name) {
    while (names.next(name)) {
        if (ag3335::strStartsWith(name.c_str(), prefix.c_str()) != 0) {
            return true;
        }
    }
    return false;
}

bool is_selected(const Package& package, const LayoutEntry& entry) {
    return package.list.empty() ||
           std::ranges::find(package.list, entry.file) != package.list.end();
}

}  // namespace

int parse_upgrade_list(const char* files, std::vector<std::string>& list) {
    std::string_view rest = files;
    while (!rest.empty() && list.size() < most_images) {
        const std::size_t end = std::min(rest.find(','), rest.size());
        if (end != 0) {
            list.emplace_back(rest.substr(0, std::min(end, longest_list_name)));
            log_plain(" upgrade file:[%s]\n", list.back().c_str());
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return 0;
}

int auto_find_upgrade_file(const Package& package, Layout& layout) {
    layout = {};
    Names names(package.directory);
    if (!names.is_open()) {
        return -1;
    }
    std::string name;
    const bool found = find_name(names, package.flash_download_name, name);
    const std::string path = package.directory + (found ? name : package.flash_download_name);
    if (found) {
        log_plain(" send fw file according to %s\n", path.c_str());
    }
    if (!found || !path_exists(path.c_str())) {
        log_error("%s non-existent\n", path.c_str());
        return -1;
    }
    FirmwareFile file(path.c_str());
    if (!file.is_open()) {
        const int reason = errno;
        log_error("%s fail to fopen(%s), errno: %d (%s)\n", "auto_find_upgrade_file", path.c_str(),
                  reason, std::strerror(reason));
        return -1;
    }
    layout = parse_layout(content_of(file));
    if (layout.too_many) {
        log_error("%s lists more than %d images\n", path.c_str(), static_cast<int>(most_images));
        return -1;
    }
    return 0;
}

int write_selected_images(Package& package, const WriteImage& write_image) {
    if (!package.directory.ends_with('/')) {
        package.directory += '/';
    }
    Layout layout;
    auto_find_upgrade_file(package, layout);  // without a layout there is nothing to write
    if (layout.too_many) {
        return -1;
    }
    if (std::ranges::none_of(layout.entries, [&package](const LayoutEntry& entry) {
            return is_selected(package, entry);
        })) {
        hints::give("the package has no image to write: the module is erased, and stays empty\n");
    }
    for (const LayoutEntry& entry : layout.entries) {
        if (!is_selected(package, entry)) {
            continue;
        }
        const std::string path = package.directory + entry.file;
        log_info("will send %s to module\n", entry.file.c_str());
        if (!path_exists(path.c_str())) {
            log_error("%s non-existent\n", path.c_str());
            return -1;
        }
        if (write_image(path, entry) != 0) {
            return -1;
        }
    }
    return 0;
}

}  // namespace orbix::package
