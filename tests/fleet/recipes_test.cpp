// The recipes of docs/fleet.md, word for word as they stand there, with simulated modules in the
// places of real ones.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "campaign/station/records_check.h"
#include "cli/process.h"
#include "temp_dir.h"

namespace orbix::campaign {
namespace {

using test::Finished;
using test::run_program;
using test::SimulatedModule;

constexpr std::uint32_t image_offset = 0x9000;

constexpr const char* refusing = "flip=3@30";
constexpr const char* vanishing = "unplug@9000";

/// The block of commands behind the mark "<!-- recipe: NAME -->".
std::string recipe(const std::string& name) {
    const std::string text = sim::read_text(std::string(ORBIX_SOURCE_DIR) + "/docs/fleet.md");
    const std::size_t mark = text.find("<!-- recipe: " + name + " -->");
    const std::size_t begin = text.find("```\n", mark);
    const std::size_t end = text.find("```\n", begin + 4);
    if (mark == std::string::npos || end == std::string::npos) {
        ADD_FAILURE() << "docs/fleet.md has no recipe " << name;
        return "false";
    }
    return text.substr(begin + 4, end - begin - 4);
}

/// A folder as the recipes expect it, with modules whose ports stand in ports.txt.
class Place {
  public:
    explicit Place(const std::vector<std::string>& faults) : image_(sim::random_image(20'000)) {
        folder_.write("app.bin", image_);
        std::string ports;
        for (const std::string& fault : faults) {
            // A link, for the name of a device that has gone is given to others.
            const std::string number = std::to_string(modules_.size());
            std::vector<std::string> options{"--dump", dump_of(modules_.size()), "--link",
                                             folder_.path("port" + number)};
            if (!fault.empty()) {
                options.insert(options.end(), {"--faults", fault});
            }
            modules_.push_back(std::make_unique<SimulatedModule>("TR52G", options));
            ports += modules_.back()->port() + "\n";
        }
        folder_.write("ports.txt", ports);
    }

    [[nodiscard]] std::string path(const std::string& name = "") const {
        return folder_.path(name);
    }
    void write(const std::string& name, const std::string& text) const {
        folder_.write(name, text);
    }
    [[nodiscard]] std::string port(std::size_t place) const { return modules_.at(place)->port(); }

    /// Runs commands in the folder, with the built programs in the path.
    [[nodiscard]] Finished run(const std::string& commands) const {
        return run_program("/bin/bash",
                           {"-c", "export PATH='" ORBIX_BIN_DIR "':$PATH PARALLEL_HOME='" +
                                      folder_.path("parallel") + "'\n" + commands},
                           folder_.path());
    }

    /// Stops a module. Returns whether its flash holds the image.
    bool stop(std::size_t place) {
        modules_.at(place)->stop();
        return test::dump_holds(dump_of(place), image_offset, image_);
    }

  private:
    [[nodiscard]] std::string dump_of(std::size_t place) const {
        return folder_.path("flash" + std::to_string(place));
    }

    sim::TempDir folder_;
    sim::Bytes image_;
    std::vector<std::unique_ptr<SimulatedModule>> modules_;
};

struct Job {
    std::string host;
    int exit_value;
    int signal;
};

/// The jobs of a log of GNU parallel, by their port. A port's last line counts.
std::map<std::string, Job> read_job_log(const std::string& path, const Place& place,
                                        std::size_t modules) {
    std::map<std::string, Job> jobs;
    std::ifstream log(path);
    std::string line;
    std::getline(log, line);
    EXPECT_EQ(line, "Seq\tHost\tStarttime\tJobRuntime\tSend\tReceive\tExitval\tSignal\tCommand");
    while (std::getline(log, line)) {
        std::istringstream fields(line);
        std::vector<std::string> columns;
        for (std::string field; std::getline(fields, field, '\t');) {
            columns.push_back(field);
        }
        for (std::size_t number = 0; columns.size() == 9 && number < modules; ++number) {
            const std::string port = place.port(number);
            if ((columns[8] + " ").find(" " + port + " ") != std::string::npos) {
                jobs[port] = {columns[1], std::stoi(columns[6]), std::stoi(columns[7])};
            }
        }
    }
    return jobs;
}

/// A server for logging in over ssh, on the loopback address, with keys of its own.
class SshServer {
  public:
    static constexpr const char* program = "/usr/sbin/sshd";

    /// "bench1" and "bench2" stand for it in the configuration.
    explicit SshServer(const Place& place) : place_(place) {
        const std::string port = free_port();
        for (const char* key : {"host_key", "client_key"}) {
            run_program("/usr/bin/ssh-keygen",
                        {"-q", "-t", "ed25519", "-N", "", "-f", place.path(key)});
        }
        place.write("sshd_config", "ListenAddress 127.0.0.1:" + port + "\nHostKey " +
                                       place.path("host_key") + "\nAuthorizedKeysFile " +
                                       place.path("client_key.pub") +
                                       "\nPidFile none\nUsePAM no\nStrictModes no\n"
                                       "PermitRootLogin prohibit-password\nMaxStartups 100\n"
                                       "SetEnv PATH=" ORBIX_BIN_DIR ":/usr/bin:/bin\n");
        place.write("ssh_config",
                    "Host bench1 bench2\n  HostName 127.0.0.1\n  Port " + port +
                        "\n  IdentityFile " + place.path("client_key") +
                        "\n  IdentitiesOnly yes\n  BatchMode yes\n  LogLevel ERROR\n"
                        "  StrictHostKeyChecking no\n  UserKnownHostsFile /dev/null\n");
        const Finished check = run_program(program, {"-t", "-f", place.path("sshd_config")});
        refusal_ = check.status == 0 ? "" : check.errors;
        if (refusal_.empty()) {
            server_ = std::make_unique<test::Background>(
                program, std::vector<std::string>{"-D", "-e", "-f", place.path("sshd_config")});
            wait_for_login();
        }
    }

    /// Why it cannot be used here, or empty.
    [[nodiscard]] const std::string& refusal() const { return refusal_; }

    /// What makes GNU parallel use it.
    [[nodiscard]] std::string environment() const {
        return "export PARALLEL_SSH='ssh -F " + place_.path("ssh_config") + "'\n";
    }

  private:
    static std::string free_port() {
        const int socket_number = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        bind(socket_number, reinterpret_cast<const sockaddr*>(&address), size);
        getsockname(socket_number, reinterpret_cast<sockaddr*>(&address), &size);
        close(socket_number);
        return std::to_string(ntohs(address.sin_port));
    }

    void wait_for_login() {
        Finished login;
        for (int tries = 0; tries < 50; ++tries) {
            login = run_program("/usr/bin/ssh",
                                {"-F", place_.path("ssh_config"), "bench1", "command -v true"});
            if (login.status == 0) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        refusal_ = login.errors;
    }

    const Place& place_;
    std::unique_ptr<test::Background> server_;
    std::string refusal_;
};

std::string all(const Finished& run) {
    return run.output + run.errors;
}

// In real time, about ten seconds: GNU parallel runs the programs as they are.
TEST(GnuParallel, JobLogTellsHowEachOfEightModulesCameOut) {
    Place place({"", "", refusing, "", "", vanishing, "", ""});
    const Finished run = place.run(recipe("one host"));
    EXPECT_EQ(run.status, 2) << "the number of failed jobs; " << all(run);

    const auto jobs = read_job_log(place.path("jobs.log"), place, 8);
    ASSERT_EQ(jobs.size(), 8U) << all(run);
    Findings findings;
    const std::vector<Json> records = read_records(place.path("records.jsonl"), findings);
    EXPECT_TRUE(findings.empty()) << findings.front();
    for (std::size_t number = 0; number < 8; ++number) {
        const std::string port = place.port(number);
        const std::string cause = number == 2 ? "refused" : number == 5 ? "transfer" : "none";
        EXPECT_EQ(jobs.at(port).exit_value, status_of(cause)) << port;
        EXPECT_EQ(jobs.at(port).signal, 0);
        const Json* const result = result_of(records, port);
        ASSERT_NE(result, nullptr) << port;
        EXPECT_EQ((*result)["cause"], cause);
    }

    // What failed is listed by its port, and only that is tried again.
    const Finished failures = place.run(recipe("failures"));
    EXPECT_NE(failures.output.find(place.port(2) + "\trefused\t"), std::string::npos)
        << all(failures);
    EXPECT_NE(failures.output.find(place.port(5) + "\ttransfer\t"), std::string::npos);
    EXPECT_EQ(std::count(failures.output.begin(), failures.output.end(), '\n'), 2);
    EXPECT_EQ(place.run(recipe("count")).output, "{\"none\":6,\"refused\":1,\"transfer\":1}\n");
    const std::string table = place.run(recipe("table")).output;
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 8) << table;
    EXPECT_NE(table.find("\"" + place.port(2) + "\",\"TR52G\",\""), std::string::npos) << table;
    EXPECT_EQ(all(place.run(recipe("doubtful"))), "");
    const Finished again = place.run(recipe("again"));
    EXPECT_EQ(again.status, 1) << all(again);
    const auto jobs_again = read_job_log(place.path("jobs.log"), place, 8);
    EXPECT_EQ(jobs_again.at(place.port(2)).exit_value, 0);
    EXPECT_EQ(jobs_again.at(place.port(5)).exit_value, status_of("port")) << "it has gone";

    for (std::size_t number = 0; number < 8; ++number) {
        EXPECT_EQ(place.stop(number), number != 5) << number;
    }
}

// In real time, about five seconds; it needs a server for ssh, which is not installed for it.
TEST(GnuParallel, EachPortIsFlashedOnTheHostThatHasIt) {
    if (!std::filesystem::exists(SshServer::program)) {
        GTEST_SKIP() << "no sshd on this machine";
    }
    Place place({"", refusing, "", ""});
    const SshServer server(place);
    if (!server.refusal().empty()) {
        GTEST_SKIP() << server.refusal();
    }
    std::string places;
    for (std::size_t number = 0; number < 4; ++number) {
        places += place.port(number) + (number < 2 ? "@bench1\n" : "@bench2\n");
    }
    place.write("places.txt", places);
    std::string commands = recipe("several hosts");
    const std::string folder = "/srv/firmware";
    const std::size_t at = commands.find(folder);
    ASSERT_NE(at, std::string::npos);
    commands.replace(at, folder.size(), place.path());

    const Finished run = place.run(server.environment() + commands);
    EXPECT_EQ(run.status, 1) << all(run);
    const auto jobs = read_job_log(place.path("jobs.log"), place, 4);
    ASSERT_EQ(jobs.size(), 4U) << all(run);
    Findings findings;
    const std::vector<Json> records = read_records(place.path("records.jsonl"), findings);
    EXPECT_TRUE(findings.empty()) << findings.front();
    for (std::size_t number = 0; number < 4; ++number) {
        const Job& job = jobs.at(place.port(number));
        const std::string cause = number == 1 ? "refused" : "none";
        EXPECT_EQ(job.host, number < 2 ? "bench1" : "bench2");
        EXPECT_EQ(job.exit_value, status_of(cause));
        const Json* const result = result_of(records, place.port(number));
        ASSERT_NE(result, nullptr);
        EXPECT_EQ((*result)["cause"], cause);
        EXPECT_TRUE((*result)["log"].get<std::string>().starts_with("logs-" + job.host + "/"));
        EXPECT_EQ(place.stop(number), number != 1);
    }
}

// The lock that keeps a bench for one at a time.
TEST(Benches, SecondStationIsTurnedAwayByTheLock) {
    Place place({""});
    const Finished run = place.run("exec 9>bench.lock; flock 9\n" + recipe("one at a time"));
    EXPECT_EQ(run.status, 75) << all(run);
    const Finished alone = place.run(recipe("one at a time"));
    EXPECT_EQ(alone.status, 0) << all(alone);
    EXPECT_TRUE(place.stop(0));
}

}  // namespace
}  // namespace orbix::campaign
