// Files for runs: pseudo-random images and a folder that lives as long as it is needed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace orbix::sim {

using Bytes = std::vector<std::uint8_t>;

/// Pseudo-random bytes, the same for the same seed.
Bytes random_image(std::size_t size, unsigned seed = 1);

/// A folder that is removed, with all that is in it, at the end of its life.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] std::string path(const std::string& name = "") const;

    /// Writes a file and returns its path.
    std::string write(const std::string& name, std::span<const std::uint8_t> content) const;
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::filesystem::path folder_;
};

/// What a file holds; nothing when it cannot be read.
Bytes read_file(const std::string& path);
std::string read_text(const std::string& path);

}  // namespace orbix::sim
