// Windows programs under Wine, and their COM ports.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace orbix::test {

inline std::string find_wine() {
    for (const char* path : {"/usr/bin/wine", "/usr/lib/wine/wine64"}) {
        if (access(path, X_OK) == 0) {
            return path;
        }
    }
    return "/usr/bin/wine";
}

/// Wine's arguments that run one of the programs built for Windows.
inline std::vector<std::string> on_wine(const std::string& program,
                                        std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), std::string(ORBIX_WINDOWS_DIR) + "/" + program + ".exe");
    return arguments;
}

/// A COM port of the Windows side, connected to a simulated module.
class ComPort {
  public:
    ComPort(const std::string& name, const std::string& device)
        : link_(std::filesystem::path(std::getenv("WINEPREFIX")) / "dosdevices" / name) {
        std::filesystem::remove(link_);
        std::filesystem::create_symlink(device, link_);
    }
    ~ComPort() {
        std::error_code ignored;
        std::filesystem::remove(link_, ignored);
    }
    ComPort(const ComPort&) = delete;
    ComPort& operator=(const ComPort&) = delete;

  private:
    std::filesystem::path link_;
};

}  // namespace orbix::test
