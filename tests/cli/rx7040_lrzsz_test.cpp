// An outside witness for the RX7040 download: the XMODEM receiver of lrzsz takes both packages.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cli/process.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

constexpr int patience_ms = 20'000;
constexpr std::size_t block_size = 1029;
constexpr char end_of_transfer = 0x04;
constexpr char acknowledge = 0x06;

/// The name of lrzsz's XMODEM receiver on this system, or an empty text.
std::string lrzsz_receiver() {
    for (const char* const name : {"lrx", "rx"}) {
        const std::string command = std::string(name) + " --version 2>/dev/null";
        std::FILE* output = popen(command.c_str(), "r");  // NOLINT(*-env33-c): a fixed command
        std::array<char, 256> line{};
        const bool said =
            output != nullptr && std::fgets(line.data(), line.size(), output) != nullptr;
        if (output != nullptr) {
            pclose(output);
        }
        if (said && std::string(line.data()).find("lrzsz") != std::string::npos) {
            return name;
        }
    }
    return {};
}

/// Reads what is there, after waiting for it; empty when nothing came or the other end is closed.
std::string take(int descriptor, int timeout_ms = patience_ms) {
    pollfd entry{.fd = descriptor, .events = POLLIN, .revents = 0};
    std::array<char, 65536> buffer{};
    if (poll(&entry, 1, timeout_ms) <= 0) {
        return {};
    }
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    return count > 0 ? std::string(buffer.data(), static_cast<std::size_t>(count)) : "";
}

void put(int descriptor, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = write(descriptor, bytes.data() + done, bytes.size() - done);
        if (count <= 0) {
            FAIL() << "nobody takes what the module says";
        }
        done += static_cast<std::size_t>(count);
    }
}

/// The module's end of a pseudo-terminal. A second descriptor keeps the terminal alive while the
/// tool is not there.
class Terminal {
  public:
    Terminal() : module_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        grantpt(module_);
        unlockpt(module_);
        port_ = ptsname(module_);
        keeper_ = open(port_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios raw{};
        tcgetattr(keeper_, &raw);
        cfmakeraw(&raw);
        tcsetattr(keeper_, TCSANOW, &raw);
    }
    ~Terminal() {
        close(keeper_);
        close(module_);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    [[nodiscard]] const std::string& port() const { return port_; }
    [[nodiscard]] int module_end() const { return module_; }

    /// Waits until the tool has sent these words, and answers them.
    void answer(const std::string& words, const std::string& reply) const {
        std::string heard;
        while (heard.find(words) == std::string::npos) {
            const std::string more = take(module_);
            ASSERT_FALSE(more.empty()) << "the tool never said " << words;
            heard += more;
        }
        put(module_, reply);
    }

  private:
    int module_;
    int keeper_ = -1;
    std::string port_;
};

/// lrzsz's receiver with a socket in place of its terminal.
class Receiver {
  public:
    Receiver(const std::string& program, const std::string& file) {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            return;
        }
        line_ = ends[0];
        pid_ = fork();
        if (pid_ == 0) {
            const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(ends[1], STDIN_FILENO);
            dup2(ends[1], STDOUT_FILENO);
            dup2(nowhere, STDERR_FILENO);
            execlp(program.c_str(), program.c_str(), "-c", file.c_str(), nullptr);
            _exit(127);
        }
        close(ends[1]);
    }
    ~Receiver() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(line_);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Lets it talk to the tool until the transfer is over.
    void serve(const Terminal& terminal) {
        const int tool = terminal.module_end();
        ASSERT_EQ(take(line_), "C") << "its first request";
        // The tool drops what came in before it listens, and each request brings the first block:
        // the request is given again until the block comes.
        std::string from_tool;
        for (int tries = 0; from_tool.empty() && tries < 100; ++tries) {
            put(tool, "C");
            from_tool = take(tool, 200);
        }
        std::size_t carried = 0;
        while (!from_tool.empty()) {
            const bool between_blocks = carried % block_size == 0;
            carried += from_tool.size();
            const bool over = between_blocks && from_tool == std::string(1, end_of_transfer);
            put(line_, from_tool);
            if (over || carried % block_size == 0) {
                const std::string verdict = take(line_);
                put(tool, verdict);
                if (over && verdict == std::string(1, acknowledge)) {
                    break;
                }
            }
            from_tool = take(tool);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid_, &status, 0), pid_);
        pid_ = -1;
        EXPECT_EQ(status, 0) << "the receiver is content";
    }

  private:
    int line_ = -1;
    pid_t pid_ = -1;
};

class Rx7040Lrzsz : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Rx7040Lrzsz, ReceivesBothPackages) {
    const std::string receiver = lrzsz_receiver();
    if (receiver.empty()) {
        GTEST_SKIP() << "lrzsz is not installed";
    }
    const TempDir folder;
    const Bytes loader = random_image(36 + 1500, 1);
    const Bytes firmware = random_image(GetParam(), 2);

    const Terminal terminal;
    Background tool("orbix_flash",
                    {"-m", "MX290B", "-p", terminal.port(), "-L", folder.write("da.pkg", loader),
                     "-f", folder.write("fw.pkg", firmware), "-t", "DL"});
    terminal.answer("DLS", "CCC");
    Receiver(receiver, folder.path("loader.out")).serve(terminal);
    terminal.answer("xmodem pkg\r\n", "Waiting for XMODEM transfer\r\n");
    Receiver(receiver, folder.path("firmware.out")).serve(terminal);
    // A verdict that follows the receiver's last word at once would be read together with it.
    for (int packages = 0; packages < 2;) {
        const std::string line = tool.read_line();
        ASSERT_FALSE(line.empty()) << "the tool has ended early";
        packages += line.ends_with("Download pkg ok") ? 1 : 0;
    }
    put(terminal.module_end(), "Download success\r\n");

    const Finished run = tool.finish();
    EXPECT_TRUE(run.output.ends_with(upgrade_success + "\n")) << run.output;

    Bytes expected_loader(loader.begin() + 36, loader.end());
    expected_loader.resize(2048, 0x1A);
    EXPECT_TRUE(read_file(folder.path("loader.out")) == expected_loader);

    Bytes expected = firmware;
    if (firmware.size() % 1024 == 0) {
        expected.insert(expected.end(), firmware.end() - 1024, firmware.end());
    } else {
        expected.resize((firmware.size() / 1024 + 1) * 1024, 0x1A);
    }
    EXPECT_TRUE(read_file(folder.path("firmware.out")) == expected);
}

INSTANTIATE_TEST_SUITE_P(Packages, Rx7040Lrzsz, ::testing::Values(2048, 30'001));

}  // namespace
}  // namespace orbix::test
