// Firmware packages: a folder with image files and a flash layout file that says which image goes
// to which flash address.
//
// The layout is text. Three keys count, wherever they stand in a line; all else is ignored:
//
//     rom:                             the next image begins
//         file: bootloader.bin         its file, in the same folder
//         begin_address: 0x08000000    its flash address, in hexadecimal
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orbix::package {

/// How many images a package, and how many names a `-f` list, can have.
inline constexpr std::size_t most_images = 12;

/// What of a package is to be written.
struct Package {
    std::string directory;  ///< ends with '/' once it has been read
    std::string flash_download_name = "flash_download.cfg";
    std::vector<std::string> list;  ///< the images to write; empty: all
};

/// One image of a layout.
struct LayoutEntry {
    std::string file;  ///< at most 255 characters
    std::uint32_t begin_address = 0;
};

struct Layout {
    std::vector<LayoutEntry> entries;
    bool too_many = false;  ///< more than `most_images`; `entries` is empty then
};

/// Splits a comma-separated list and adds each name (at most 63 characters) to `list`, with a log
/// line, until it has `most_images`; the rest is dropped. Returns 0.
int parse_upgrade_list(const char* files, std::vector<std::string>& list);

/// Reads the layout: the first file in the package's directory, which must end with '/', whose name
/// begins with `flash_download_name`. Returns 0, or -1 with an ERROR line (without one when the
/// directory cannot be opened); the layout is then empty.
int auto_find_upgrade_file(const Package& package, Layout& layout);

/// Writes one image. Returns 0, or -1 when the package's write ends there.
using WriteImage = std::function<int(const std::string& path, const LayoutEntry& entry)>;

/// Reads the layout and writes the selected images in the layout's order. A package without a
/// layout file writes nothing, and that is a success; a layout with too many images fails.
/// Returns 0, or -1 at the first image that is missing or cannot be written.
int write_selected_images(Package& package, const WriteImage& write_image);

}  // namespace orbix::package
