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

#include "faults.h"
#include "line.h"
#include "model.h"
#include "virtual_port.h"

namespace orbix::test {

using Bytes = std::vector<std::uint8_t>;

/// Pseudo-random bytes, the same for the same seed.
Bytes random_image(std::size_t size, unsigned seed = 1);

/// A folder that is removed, with all that is in it, at the end of the test.
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

Bytes read_file(const std::string& path);

/// What a run meets besides the module.
struct Conditions {
    std::vector<sim::Fault> faults;
    std::uint64_t seed = 1;
    sim::VirtualPort::Settings port;
};

/// Ends an unlimited wait: the device vanishes at that time of the run.
Conditions unplugged_after_ms(std::uint64_t time);

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

/// One run of the tool, from its arguments (without the program's name) to its end.
class ToolRun {
  public:
    ToolRun(sim::Model& module, const std::vector<std::string>& arguments,
            Conditions conditions = {});

    int status = 0;
    std::string output;  ///< standard output, as it was written
    Bytes sent;          ///< what the module's end of the line received, as it was sent
    Bytes received;      ///< what arrived at the tool
    std::vector<sim::TracedByte> trace;
    std::uint64_t duration_ms = 0;
    bool hit_time_limit = false;  ///< the run was cut off, it would not have ended

    /// What the tool did with the port.
    int opens = 0;
    int closes = 0;
    int discards = 0;  ///< of what was received and not read
    bool left_open = false;
    std::vector<sim::VirtualPort::ModemEvent> modem_events;
    std::vector<unsigned> rates;  ///< each rate that was set, in order; repeats left out

    /// The lines of the output without their time stamps and line feeds (a "\r" stays).
    [[nodiscard]] std::vector<std::string> lines() const;

    /// `lines` from the one behind the last "new_argv" line to the one before the result line:
    /// what the family said. PROGRESS and SPEED lines are left out unless asked for.
    [[nodiscard]] std::vector<std::string> family_lines(bool with_progress = false) const;

    /// The PROGRESS and SPEED lines alone.
    [[nodiscard]] std::vector<std::string> progress_lines() const;

    /// The last line: the result.
    [[nodiscard]] std::string result() const;

    /// The silences of more than 1 ms between the bytes that the tool sent, in order.
    [[nodiscard]] std::vector<sim::Micros> pauses() const;

    /// How often `text` stands in the output.
    [[nodiscard]] std::size_t count(const std::string& text) const;
};

inline const std::string upgrade_success = "[SUCCESS] orbix_flash upgrade success";
inline const std::string readback_success = "[SUCCESS] orbix_flash readback success";
std::string upgrade_failure(int code);
std::string readback_failure(int code);

/// Splits bytes given as hex digits with blanks, "AA 02 03".
Bytes hex(const std::string& digits);

/// The range as text of hex digits with blanks, for readable failures.
std::string as_hex(std::span<const std::uint8_t> bytes);

/// Whether `part` stands somewhere in `whole`.
bool contains(std::span<const std::uint8_t> whole, std::span<const std::uint8_t> part);

}  // namespace orbix::test
