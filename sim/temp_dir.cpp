#include "temp_dir.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace orbix::sim {

Bytes random_image(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(),
                  [&random] { return static_cast<std::uint8_t>(random()); });
    return bytes;
}

TempDir::TempDir() {
    std::string pattern = std::filesystem::temp_directory_path() / "orbix-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    folder_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::string TempDir::path(const std::string& name) const {
    return name.empty() ? folder_.string() : (folder_ / name).string();
}

std::string TempDir::write(const std::string& name, std::span<const std::uint8_t> content) const {
    std::ofstream file(path(name), std::ios::binary);
    file.write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    return path(name);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(content.data());
    return write(name, std::span(bytes, content.size()));
}

namespace {

template <typename Content>
Content content_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

Bytes read_file(const std::string& path) {
    return content_of<Bytes>(path);
}

std::string read_text(const std::string& path) {
    return content_of<std::string>(path);
}

}  // namespace orbix::sim
