// What the tests of the AG33xx families share: agents, packages, and ways to spoil one answer.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "boot_answers.h"
#include "run/harness.h"

namespace orbix::test {

/// The ways in which an answer can go wrong.
enum class Spoil : std::uint8_t { last_byte, first_byte, shortened, missing };

/// Spoils an answer when it is given for the `number`th time (from 0).
void spoil_answer(sim::BootVoice& voice, sim::BootAnswer which, Spoil how, unsigned number = 0);

struct PackageImage {
    std::string name;
    std::uint32_t address;
    Bytes content;
};

/// The layout file of a package.
std::string layout_of(const std::vector<PackageImage>& images);

/// Writes the images and their layout into a folder.
void write_package(const TempDir& folder, const std::vector<PackageImage>& images);

/// The flash of `size` bytes behind 0x08000000 that holds the images and 0xFF elsewhere.
Bytes flash_with(const std::vector<PackageImage>& images, std::size_t size);

/// Appends to what is expected on the wire.
void append_hex(Bytes& bytes, const std::string& digits);

/// A frame of the new agent with its CRC: header and fields as hex digits, then the data.
Bytes checked_frame(const std::string& digits, const Bytes& data = {});

/// A 32-bit number as hex digits, least or most significant byte first.
std::string le32_hex(std::uint32_t value);
std::string be32_hex(std::uint32_t value);

/// A region of a readback, as it stands on the command line.
struct RegionArgument {
    std::string address;
    std::string size;
    std::string path;
};

/// `count` regions of 4096 bytes, one behind the other from 0x08000000, into files of the folder.
std::vector<RegionArgument> regions_in(const TempDir& folder, std::size_t count);

/// The three lists, each behind its letter, in the order of `letters` ("ato").
std::vector<std::string> region_lists(const std::vector<RegionArgument>& regions,
                                      const std::string& letters = "ato");

}  // namespace orbix::test
