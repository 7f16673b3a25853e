#include "run/ag33xx_support.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "checksums.h"
#include "wire_words.h"

namespace orbix::test {

void spoil_answer(sim::BootVoice& voice, sim::BootAnswer which, Spoil how, unsigned number) {
    voice.tamper = [=](sim::BootAnswer answer, unsigned count, Bytes& bytes) {
        if (answer != which || count != number) {
            return;
        }
        switch (how) {
            case Spoil::last_byte:
                bytes.back() ^= 0x01;
                break;
            case Spoil::first_byte:
                bytes.front() ^= 0x01;
                break;
            case Spoil::shortened:
                bytes.pop_back();
                break;
            case Spoil::missing:
                bytes.clear();
                break;
        }
    };
}

std::string layout_of(const std::vector<PackageImage>& images) {
    std::string layout = "general:\n  config_version: alpha\nmain_region:\n";
    for (const PackageImage& image : images) {
        std::array<char, 16> address{};
        std::snprintf(address.data(), address.size(), "0x%08X", image.address);
        layout += "  rom:\n    file: " + image.name + "\n    name: " + image.name +
                  "\n    begin_address: " + address.data() + "\n";
    }
    return layout;
}

void write_package(const TempDir& folder, const std::vector<PackageImage>& images) {
    for (const PackageImage& image : images) {
        folder.write(image.name, image.content);
    }
    folder.write("flash_download.cfg", layout_of(images));
}

Bytes flash_with(const std::vector<PackageImage>& images, std::size_t size) {
    Bytes flash(size, 0xFF);
    for (const PackageImage& image : images) {
        std::copy(image.content.begin(), image.content.end(),
                  flash.begin() + (image.address - 0x08000000));
    }
    return flash;
}

void append_hex(Bytes& bytes, const std::string& digits) {
    append(bytes, hex(digits));
}

Bytes checked_frame(const std::string& digits, const Bytes& data) {
    Bytes frame = hex(digits);
    append(frame, data);
    sim::append_little_endian(frame, sim::module_crc32(frame), 4);
    return frame;
}

std::string le32_hex(std::uint32_t value) {
    Bytes bytes;
    sim::append_little_endian(bytes, value, 4);
    return as_hex(bytes);
}

std::string be32_hex(std::uint32_t value) {
    Bytes bytes;
    sim::append_big_endian(bytes, value, 4);
    return as_hex(bytes);
}

std::vector<RegionArgument> regions_in(const TempDir& folder, std::size_t count) {
    std::vector<RegionArgument> regions;
    for (std::size_t index = 0; index < count; ++index) {
        std::array<char, 16> address{};
        std::snprintf(address.data(), address.size(), "0x%08zx", 0x08000000 + index * 0x1000);
        regions.push_back(
            {address.data(), "0x1000", folder.path("part" + std::to_string(index) + ".bin")});
    }
    return regions;
}

std::vector<std::string> region_lists(const std::vector<RegionArgument>& regions,
                                      const std::string& letters) {
    std::vector<std::string> words;
    for (const char letter : letters) {
        words.push_back(std::string("-") + letter);
        for (const RegionArgument& region : regions) {
            words.push_back(letter == 'a'   ? region.address
                            : letter == 't' ? region.size
                                            : region.path);
        }
    }
    return words;
}

}  // namespace orbix::test
