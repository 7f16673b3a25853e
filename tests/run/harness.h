// Whole runs of the tool in virtual time, against a simulated module.
//
//     AppLoader module;
//     ToolRun run(module, {"-m", "TR52G", "-p", "COM6", "-b", "115200", "-f", path, "-t", "UPG"});
//     EXPECT_EQ(run.lines(), ...);
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "model.h"
#include "temp_dir.h"
#include "tool_run.h"

namespace orbix::test {

using sim::Bytes;
using sim::Conditions;
using sim::random_image;
using sim::read_file;
using sim::TempDir;
using sim::ToolRun;
using sim::unplugged_after_ms;

/// A module that says nothing.
class SilentModule : public sim::Model {
  public:
    void power_on(sim::Micros /*now*/, sim::Wire& /*wire*/) override {}
    void receive(std::uint8_t byte, sim::Micros /*now*/, sim::Wire& /*wire*/) override {
        heard.push_back(byte);
    }
    [[nodiscard]] sim::Flash& flash() override { return flash_; }
    Bytes heard;

  private:
    sim::Flash flash_{0, 0};
};

using Lines = std::vector<std::string>;

Lines joined(Lines first, const Lines& second);

/// Whether one of a run's lines is this.
bool has_line(const ToolRun& run, const std::string& line);

inline const std::string upgrade_success = "[SUCCESS] orbix_flash upgrade success";
inline const std::string readback_success = "[SUCCESS] orbix_flash readback success";
std::string upgrade_failure(int code);
std::string readback_failure(int code);

void append(Bytes& bytes, std::span<const std::uint8_t> more);

/// Splits bytes given as hex digits with blanks, "AA 02 03".
Bytes hex(const std::string& digits);

/// The range as text of hex digits with blanks, for readable failures.
std::string as_hex(std::span<const std::uint8_t> bytes);

/// The time stamp of the first line that contains `text`, in ms.
long time_of(const ToolRun& run, const std::string& text);

/// The SPEED line of `done` bytes out of `total` as it must read: `kbytes` in the time from
/// `begun_ms` to that line's own stamp.
std::string speed_line(const ToolRun& run, int done, int total, double kbytes, long begun_ms);

/// Expects the SPEED lines of an image that goes in frames of 5120 bytes: what is done counts one
/// kibibyte high, and the time from the line before the first frame.
void expect_speed_of_frames(const ToolRun& run, int total);

/// Whether `part` stands somewhere in `whole`.
bool contains(std::span<const std::uint8_t> whole, std::span<const std::uint8_t> part);

}  // namespace orbix::test
