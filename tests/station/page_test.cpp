// The station's page as a browser gets it: over a real socket, read with a client of another make.
#include "page.h"

#include <gtest/gtest.h>

#include <boost/asio.hpp>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "state_json.h"

namespace orbix::station {
namespace {

using namespace std::chrono_literals;
using boost::asio::ip::tcp;
using nlohmann::json;

/// Far above what any of these needs, far below what a test may hang.
constexpr auto patience = 5s;

const PageAddress any_port{.host = "127.0.0.1", .port = 0};

/// A connection of a viewer, with a limit on all waiting.
class Client {
  public:
    explicit Client(int port) {
        socket_.open(tcp::v4());
        // Small, so that a viewer that reads nothing is soon full.
        socket_.set_option(tcp::socket::receive_buffer_size(16384));
        socket_.connect(
            {boost::asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(port)});
    }

    void send(const std::string& text) { boost::asio::write(socket_, boost::asio::buffer(text)); }

    void get(const std::string& path) {
        send("GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    }

    /// What comes up to and with `end`, or all up to the end of the stream.
    std::string read_until(const std::string& end) {
        std::optional<boost::system::error_code> done;
        std::size_t size = 0;
        boost::asio::async_read_until(socket_, boost::asio::dynamic_buffer(pending_), end,
                                      [&](const auto& error, std::size_t count) {
                                          done = error;
                                          size = count;
                                      });
        context_.restart();
        context_.run_for(patience);
        if (!done) {
            socket_.close();
            context_.run();
            ADD_FAILURE() << "nothing came that ends in " << end;
        }
        if (*done) {
            size = pending_.size();
        }
        std::string text = pending_.substr(0, size);
        pending_.erase(0, size);
        return text;
    }

    std::string read_all() { return read_until("\x01 never sent \x01"); }

    /// The next event of a stream: its name and its data. Comments are passed over.
    std::pair<std::string, json> next_event() {
        for (;;) {
            const std::string block = read_until("\n\n");
            const std::size_t name = block.find("event: ");
            if (block.empty()) {
                return {"end of stream", {}};
            }
            if (name == std::string::npos) {
                continue;
            }
            const std::size_t data = block.find("\ndata: ", name);
            return {block.substr(name + 7, data - name - 7), json::parse(block.substr(data + 7))};
        }
    }

    /// Asks for the events and reads the answer's head.
    std::string watch() {
        get("/events");
        return read_until("\r\n\r\n");
    }

  private:
    boost::asio::io_context context_;
    tcp::socket socket_{context_};
    std::string pending_;
};

std::string ask(int port, const std::string& request) {
    Client client(port);
    client.send(request);
    return client.read_all();
}

std::string get(int port, const std::string& path, const std::string& host = "localhost") {
    return ask(port, "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n");
}

json state_of(int port) {
    const std::string answer = get(port, "/state");
    return json::parse(answer.substr(answer.find("\r\n\r\n") + 4));
}

void start_writing(Board& board, const std::string& name, double percent) {
    board.write(name, [percent](Row& row) {
        row.model = "TR52G";
        row.phase = Phase::write;
        row.attempt = 1;
        row.percent = percent;
        row.started = Clock::now() - 3s;
    });
}

double elapsed_seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// --- the address ---------------------------------------------------------------------------------

TEST(PageAddressText, IsReadInAllItsForms) {
    struct Form {
        std::string text;
        std::string host;
        int port;
    };
    for (const Form& form : std::vector<Form>{{"8080", "127.0.0.1", 8080},
                                              {":8080", "127.0.0.1", 8080},
                                              {"0", "127.0.0.1", 0},
                                              {"0.0.0.0:80", "0.0.0.0", 80},
                                              {"bench-pc:65535", "bench-pc", 65535},
                                              {"localhost:1", "localhost", 1},
                                              {"[::1]:8080", "::1", 8080}}) {
        const PageAddress address = page_address(form.text);
        EXPECT_EQ(address.host, form.host) << form.text;
        EXPECT_EQ(address.port, form.port) << form.text;
    }
}

TEST(PageAddressText, OtherFormsAreRefusedInOneLine) {
    for (const std::string text :
         {"", ":", "localhost", "localhost:", "65536", "-1", "80x", " 80", "::1:80", "[::1]",
          "[]:80", "[nonsense]:80", "http://localhost:80", "a b:80", "127.0.0.1:99999999999"}) {
        try {
            page_address(text);
            ADD_FAILURE() << text << " was taken";
        } catch (const std::invalid_argument& error) {
            const std::string words = error.what();
            EXPECT_EQ(words.find("\"" + text + "\" is no address for the page; give "), 0U)
                << words;
            EXPECT_EQ(words.find('\n'), std::string::npos);
        }
    }
}

// --- JSON ----------------------------------------------------------------------------------------

TEST(StateJson, HoldsAllOfARow) {
    const Clock::time_point now = Clock::now();
    Row row;
    row.port = "/dev/ttyUSB0";
    row.model = "TR52G";
    row.phase = Phase::write;
    row.waiting_for = "press reset";
    row.percent = 42.5;
    row.bytes_done = 425;
    row.bytes_total = 1000;
    row.kbytes_per_second = 10.5;
    row.attempt = 2;
    row.started = now - 1500ms;
    row.last_lines = {"one", "two"};
    const json expected = {{"port", "/dev/ttyUSB0"},
                           {"model", "TR52G"},
                           {"phase", "write"},
                           {"waiting_for", "press reset"},
                           {"percent", 42.5},
                           {"bytes_done", 425},
                           {"bytes_total", 1000},
                           {"kbytes_per_second", 10.5},
                           {"attempt", 2},
                           {"seconds", 1.5},
                           {"cause", "none"},
                           {"cause_words", "flashed"},
                           {"code", 0},
                           {"message", ""},
                           {"last_lines", {"one", "two"}}};
    EXPECT_EQ(row_json(row, now), expected);

    row.phase = Phase::done;
    row.seconds = 7.25;
    row.cause = Cause::no_sync;
    row.code = -3;
    row.message = "no answer";
    const json done = row_json(row, now);
    EXPECT_EQ(done["phase"], "done");
    EXPECT_EQ(done["seconds"], 7.25) << "the time of a run that is over stands still";
    EXPECT_EQ(done["cause"], "no_sync");
    EXPECT_EQ(done["cause_words"], "the module did not answer");
    EXPECT_EQ(done["code"], -3);
    EXPECT_EQ(done["message"], "no answer");
}

TEST(StateJson, ReplacesBytesThatAreNoUtf8) {
    Row row;
    row.last_lines = {"ok \xC3\xA9", "broken \xFF\xC3 \x01"};
    const json back = json::parse(json_line(row_json(row, Clock::now())));
    EXPECT_EQ(back["last_lines"][0], "ok \xC3\xA9");
    EXPECT_EQ(back["last_lines"][1], "broken \xEF\xBF\xBD\xEF\xBF\xBD \x01");
}

// --- what is served ------------------------------------------------------------------------------

TEST(Page, ServesItsFilesAndNothingElse) {
    const Board board;
    const Page page(board, any_port);
    EXPECT_NE(page.port(), 0);
    EXPECT_NE(get(page.port(), "/").find("<title>orbix_station</title>"), std::string::npos);
    EXPECT_NE(get(page.port(), "/page.css").find("\r\nContent-Type: text/css"), std::string::npos);
    EXPECT_NE(get(page.port(), "/page.js").find("new EventSource("), std::string::npos);
    for (const std::string path : {"/index.html", "/pageXjs", "/../etc/passwd", "//", "/state/"}) {
        EXPECT_TRUE(get(page.port(), path).starts_with("HTTP/1.1 404 ")) << path;
    }
}

TEST(Page, AllAnswersForbidForeignSourcesAndKeeping) {
    const Board board;
    const Page page(board, any_port);
    Client viewer(page.port());
    for (const std::string& answer : {get(page.port(), "/"), get(page.port(), "/state"),
                                      get(page.port(), "/none"), viewer.watch()}) {
        EXPECT_NE(answer.find("\r\nContent-Security-Policy: default-src 'none'; "),
                  std::string::npos);
        EXPECT_NE(answer.find("\r\nCache-Control: no-store\r\n"), std::string::npos);
        EXPECT_NE(answer.find("\r\nX-Content-Type-Options: nosniff\r\n"), std::string::npos);
        EXPECT_EQ(answer.find("Access-Control-Allow-Origin"), std::string::npos);
    }
}

TEST(Page, OnlyGetIsTaken) {
    const Board board;
    const Page page(board, any_port);
    for (const std::string method : {"POST", "PUT", "DELETE", "HEAD", "OPTIONS"}) {
        const std::string answer =
            ask(page.port(), method + " /state HTTP/1.1\r\nHost: localhost\r\n\r\n");
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 405 ")) << method << ": " << answer;
        EXPECT_NE(answer.find("\r\nAllow: GET\r\n"), std::string::npos);
    }
}

TEST(Page, OnLoopbackAForeignHostNameIsRefused) {
    const Board board;
    const Page page(board, any_port);
    for (const std::string host :
         {"localhost", "127.0.0.1", "127.0.0.1:9000", "[::1]:80", "[::1]"}) {
        EXPECT_TRUE(get(page.port(), "/state", host).starts_with("HTTP/1.1 200 ")) << host;
    }
    for (const std::string host : {"evil.example", "127.0.0.1.evil.example:80",
                                   "localhost.evil.example", "192.168.1.1", ""}) {
        EXPECT_TRUE(get(page.port(), "/state", host).starts_with("HTTP/1.1 403 ")) << host;
    }
    EXPECT_TRUE(ask(page.port(), "GET /events HTTP/1.0\r\n\r\n").starts_with("HTTP/1.1 403 "));
}

TEST(Page, AnAddressInUseIsOneClearError) {
    const Board board;
    const Page page(board, any_port);
    try {
        const Page second(board, {.host = "127.0.0.1", .port = page.port()});
        FAIL() << "two pages have the same address";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), "the page cannot be served at 127.0.0.1:" +
                                    std::to_string(page.port()) + ": Address already in use");
    }
}

TEST(Page, AnAddressOfAnotherMachineIsOneClearError) {
    const Board board;
    try {
        const Page page(board, {.host = "192.0.2.1", .port = 8080});
        FAIL() << "a page at an address that this machine has not";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(
            error.what(),
            "the page cannot be served at 192.0.2.1:8080: Cannot assign requested address");
    }
}

TEST(Page, LeavesTheSignalOfClosedPipesAsItWas) {
    const auto before = std::signal(SIGPIPE, SIG_DFL);
    const Board board;
    const Page page(board, any_port);
    EXPECT_EQ(std::signal(SIGPIPE, before), SIG_DFL) << "children would inherit it";
}

// --- the state and the events --------------------------------------------------------------------

TEST(Page, StateIsAllThatTheBoardHolds) {
    Board board;
    const Page page(board, any_port);
    EXPECT_EQ(state_of(page.port()), json({{"schema", 1},
                                           {"good", 0},
                                           {"bad", 0},
                                           {"ended", false},
                                           {"ports", json::array()},
                                           {"rows", json::array()}}));
    start_writing(board, "B", 10);
    start_writing(board, "A", 20);
    board.count(true);
    board.count(false);
    board.count(false);
    const json state = state_of(page.port());
    EXPECT_EQ(state["ports"], json({"A", "B"}));
    EXPECT_EQ(state["rows"][0]["percent"], 20);
    EXPECT_EQ(state["rows"][1]["percent"], 10);
    EXPECT_EQ(state["good"], 1);
    EXPECT_EQ(state["bad"], 2);
}

TEST(PageEvents, FirstAllThenWhatChanges) {
    Board board;
    start_writing(board, "A", 10);
    start_writing(board, "B", 20);
    const Page page(board, any_port);
    Client viewer(page.port());
    const std::string head = viewer.watch();
    EXPECT_TRUE(head.starts_with("HTTP/1.1 200 "));
    EXPECT_NE(head.find("\r\nContent-Type: text/event-stream\r\n"), std::string::npos);
    auto [name, data] = viewer.next_event();
    EXPECT_EQ(name, "state");
    EXPECT_EQ(data["rows"].size(), 2U);

    start_writing(board, "B", 30);
    std::tie(name, data) = viewer.next_event();
    EXPECT_EQ(name, "changes");
    ASSERT_EQ(data["rows"].size(), 1U) << "only the row that changed";
    EXPECT_EQ(data["rows"][0]["port"], "B");
    EXPECT_EQ(data["rows"][0]["percent"], 30);
    EXPECT_NEAR(data["rows"][0]["seconds"].get<double>(), 3, 1);

    board.remove("A");
    std::tie(name, data) = viewer.next_event();
    EXPECT_EQ(data["ports"], json({"B"}));
    EXPECT_TRUE(data["rows"].empty());

    board.count(true);
    std::tie(name, data) = viewer.next_event();
    EXPECT_EQ(data["good"], 1);
}

TEST(PageEvents, ComeAtMostFiveTimesASecondAndTheLastOneIsNotLost) {
    Board board;
    start_writing(board, "A", 0);
    const Page page(board, any_port);
    Client viewer(page.port());
    viewer.watch();
    viewer.next_event();
    // A second of real time, since it is the rate on the clock that is stated.
    for (int step = 1; step <= 100; ++step) {
        start_writing(board, "A", step);
        std::this_thread::sleep_for(10ms);
    }
    int events = 0;
    double percent = 0;
    while (percent < 100) {
        const auto [name, data] = viewer.next_event();
        ASSERT_EQ(name, "changes");
        percent = data["rows"][0]["percent"];
        ++events;
    }
    EXPECT_GE(events, 3);
    EXPECT_LE(events, 8);
}

TEST(PageEvents, AViewerThatComesBackGetsTheStateOfThatMoment) {
    Board board;
    start_writing(board, "A", 10);
    const Page page(board, any_port);
    {
        Client viewer(page.port());
        viewer.watch();
        EXPECT_EQ(viewer.next_event().second["rows"][0]["percent"], 10);
    }
    start_writing(board, "A", 60);
    Client again(page.port());
    again.watch();
    const auto [name, data] = again.next_event();
    EXPECT_EQ(name, "state");
    EXPECT_EQ(data["rows"][0]["percent"], 60);
}

TEST(PageEvents, TheStationsEndIsTheLastEvent) {
    Board board;
    start_writing(board, "A", 10);
    const Page page(board, any_port);
    Client viewer(page.port());
    viewer.watch();
    viewer.next_event();
    board.write("A", [](Row& row) { row.phase = Phase::done; });
    board.close();
    auto [name, data] = viewer.next_event();
    EXPECT_EQ(name, "changes");
    EXPECT_EQ(data["rows"][0]["phase"], "done");
    while (name == "changes") {
        std::tie(name, data) = viewer.next_event();
    }
    EXPECT_EQ(name, "ended");
    EXPECT_EQ(viewer.read_all(), "");
    EXPECT_EQ(state_of(page.port())["ended"], true);
}

TEST(PageEvents, SixteenViewersAllSeeEverythingAndThePageStillAnswers) {
    Board board;
    start_writing(board, "A", 0);
    const Page page(board, any_port);
    std::vector<std::unique_ptr<Client>> viewers;
    for (int count = 0; count < 16; ++count) {
        viewers.push_back(std::make_unique<Client>(page.port()));
        viewers.back()->watch();
        EXPECT_EQ(viewers.back()->next_event().first, "state");
    }
    for (const double percent : {25, 50, 75}) {
        start_writing(board, "A", percent);
        const auto began = Clock::now();
        for (const auto& viewer : viewers) {
            EXPECT_EQ(viewer->next_event().second["rows"][0]["percent"], percent);
        }
        EXPECT_LT(elapsed_seconds(began), 1);
    }
    EXPECT_EQ(state_of(page.port())["rows"][0]["percent"], 75);
}

TEST(PageEvents, MoreViewersThanThereIsRoomForAreToldSoUntilOneLeaves) {
    Board board;
    const Page page(board, any_port);
    std::vector<std::unique_ptr<Client>> viewers;
    std::string head;
    while (viewers.size() < 100) {
        viewers.push_back(std::make_unique<Client>(page.port()));
        head = viewers.back()->watch();
        if (!head.starts_with("HTTP/1.1 200 ")) {
            break;
        }
    }
    EXPECT_TRUE(head.starts_with("HTTP/1.1 503 ")) << head;
    EXPECT_EQ(viewers.size(), 25U);
    EXPECT_TRUE(get(page.port(), "/").starts_with("HTTP/1.1 200 "));
    viewers.clear();
    const auto began = Clock::now();
    do {
        head = Client(page.port()).watch();
    } while (!head.starts_with("HTTP/1.1 200 ") && elapsed_seconds(began) < 5);
    EXPECT_TRUE(head.starts_with("HTTP/1.1 200 ")) << "who has left is noticed without any news";
}

// --- the end -------------------------------------------------------------------------------------

/// Viewers that may take so long that a page which waits for one shows, on any machine.
constexpr PageLimits patient{.request = 60s, .stall = 60s};
constexpr double soon = 10;

/// How long a page takes to end.
double seconds_to_end(std::unique_ptr<Page>& page) {
    const auto began = Clock::now();
    page.reset();
    return elapsed_seconds(began);
}

TEST(PageEnd, ViewersAreToldAndDoNotHoldIt) {
    Board board;
    auto page = std::make_unique<Page>(board, any_port, patient);
    Client viewer(page->port());
    viewer.watch();
    viewer.next_event();
    EXPECT_LT(seconds_to_end(page), soon);
    EXPECT_EQ(viewer.next_event().first, "ended");
}

TEST(PageEnd, TheLastNewsComesBeforeIt) {
    // Long lines keep the page busy with the first news while the last come, and the end.
    const std::string long_line(200'000, 'x');
    for (int milliseconds = 0; milliseconds < 12; milliseconds += 2) {
        Board board;
        auto page = std::make_unique<Page>(board, any_port, patient);
        Client viewer(page->port());
        viewer.watch();
        viewer.next_event();
        std::this_thread::sleep_for(300ms);  // news are sent no more often than that
        board.write("A", [&long_line](Row& row) { row.last_lines.assign(5, long_line); });
        std::thread end([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
            board.write("A", [](Row& row) { row.message = "the last"; });
            page.reset();
        });
        std::string last;
        for (auto event = viewer.next_event(); event.first == "changes";
             event = viewer.next_event()) {
            last = event.second.dump();
        }
        end.join();
        EXPECT_NE(last.find("the last"), std::string::npos) << milliseconds << " ms";
    }
}

TEST(PageEnd, AViewerThatStallsDoesNotHoldIt) {
    Board board;
    const std::string long_line(1'000'000, 'x');
    board.write("A", [&long_line](Row& row) { row.last_lines.assign(5, long_line); });
    auto page = std::make_unique<Page>(board, any_port, patient);
    Client viewer(page->port());
    viewer.watch();  // and takes nothing more of the 5 megabytes that follow
    Client asks_for_state(page->port());
    asks_for_state.get("/state");
    std::this_thread::sleep_for(100ms);  // until the buffers of both are full
    EXPECT_LT(seconds_to_end(page), soon);
}

TEST(PageEnd, ARequestThatIsNotFinishedDoesNotHoldIt) {
    const Board board;
    auto page = std::make_unique<Page>(board, any_port, patient);
    Client silent(page->port());
    Client halfway(page->port());
    halfway.send("GET /sta");
    std::this_thread::sleep_for(50ms);  // until both are being served
    EXPECT_LT(seconds_to_end(page), soon);
}

TEST(Page, AViewerThatStallsIsLetGo) {
    Board board;
    const std::string long_line(1'000'000, 'x');
    board.write("A", [&long_line](Row& row) { row.last_lines.assign(5, long_line); });
    const Page page(board, any_port, {.stall = 300ms});
    Client viewer(page.port());
    viewer.watch();
    std::this_thread::sleep_for(3s);
    EXPECT_LT(viewer.read_all().size(), 5'000'000U) << "it was cut off in the middle";
}

TEST(PageEnd, ComesAtOnceAfterTheBegin) {
    const Board board;
    for (int count = 0; count < 20; ++count) {
        auto page = std::make_unique<Page>(board, any_port, patient);
        EXPECT_LT(seconds_to_end(page), soon);
    }
}

}  // namespace
}  // namespace orbix::station
