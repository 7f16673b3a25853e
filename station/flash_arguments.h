// The arguments that are passed on to orbix_flash, as far as the station has to know them.
#pragma once

#include <string>
#include <vector>

namespace orbix::station {

struct FlashArguments {
    std::vector<std::string> words;  ///< as they were given
    std::string model;               ///< -m
    std::string mode;                ///< -t
    std::string image;               ///< -f: a file, or the files of a package
    std::string folder;              ///< -d
    std::string layout =
        "flash_download.cfg";  ///< -g: with what the name of a package's layout begins
    std::string second;        ///< -s: a download agent, or a second package
    std::string loader;        ///< -L
    bool readback = false;     ///< -o
};

/// Reads them as orbix_flash does. Throws std::invalid_argument with one clear line when the
/// station cannot run with them.
FlashArguments read_flash_arguments(const std::vector<std::string>& words);

/// A file that goes into a module.
struct HashedFile {
    std::string path;
    std::string sha256;  ///< in hexadecimal; empty when the file cannot be read
    std::size_t size = 0;
};

/// The files that a run reads: image, agent, loader, and for a package its layout and the images
/// that it names.
std::vector<HashedFile> firmware_files(const FlashArguments& arguments);

}  // namespace orbix::station
