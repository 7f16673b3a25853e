// A firmware image on disk, read piece by piece.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>

namespace orbix {

/// An image file that is open for reading; closed when it goes out of scope.
class FirmwareFile {
  public:
    /// Opens the file and measures it. A folder, a device, a pipe, or a file of 2 GiB or more
    /// counts as one that cannot be opened. Ask `is_open`; `errno` holds the reason of a failure.
    explicit FirmwareFile(const char* path);

    [[nodiscard]] bool is_open() const { return file_ != nullptr; }

    /// The length in bytes when the file was opened.
    [[nodiscard]] int size() const { return size_; }

    /// Reads the next bytes; fewer than asked for only at the end or after an error.
    std::size_t read(std::span<std::uint8_t> buffer);

    /// Whether a read failed.
    [[nodiscard]] bool failed() const;

    void rewind();

  private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Close> file_;
    int size_ = 0;
};

/// Whether a path exists.
bool path_exists(const char* path);

}  // namespace orbix
