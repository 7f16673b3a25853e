#include "page.h"

#include <httplib.h>

#include <boost/asio/ip/tcp.hpp>
#include <charconv>
#include <csignal>
#include <set>
#include <stdexcept>
#include <thread>

#include "page_files.h"
#include "state_json.h"

#ifndef _WIN32
#include <fcntl.h>
#include <poll.h>
#endif

namespace orbix::station {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

/// How many may watch at once; each has a thread of its own.
constexpr int viewer_limit = 24;
/// Threads besides, for what is answered at once.
constexpr int spare_threads = 8;

/// Between two events of a stream.
constexpr auto event_interval = 200ms;
/// A stream with no news sends a comment this often, so that nothing between takes it for dead.
constexpr auto comment_interval = 10s;
/// How soon a stream with no news sees that its viewer, or the page, has gone.
constexpr auto look_interval = 250ms;
/// How long the page, at its end, leaves to the viewers to take the last event.
constexpr auto farewell_limit = 500ms;

// --- what differs between the systems ------------------------------------------------------------

#ifdef _WIN32

constexpr int send_flags = 0;
constexpr int both_ways = SD_BOTH;

void close_socket(socket_t socket) {
    closesocket(socket);
}

int poll_socket(pollfd& entry, milliseconds at_most) {
    return WSAPoll(&entry, 1, static_cast<int>(at_most.count()));
}

/// Nobody else may have the address at the same time.
void claim_address(socket_t socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&yes),
               sizeof yes);
}

void keep_from_children(socket_t socket) {
    SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
}

void leave_signals_to_other_threads() {}

struct KeptPipeSignal {};

#else

constexpr int send_flags = MSG_NOSIGNAL;
constexpr int both_ways = SHUT_RDWR;

void close_socket(socket_t socket) {
    close(socket);
}

int poll_socket(pollfd& entry, milliseconds at_most) {
    return poll(&entry, 1, static_cast<int>(at_most.count()));
}

/// An address whose last holder has ended may be had at once; one that is in use may not.
void claim_address(socket_t socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

void keep_from_children(socket_t socket) {
    fcntl(socket, F_SETFD, FD_CLOEXEC);
}

void leave_signals_to_other_threads() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

/// httplib has the whole process ignore SIGPIPE, and its children would inherit that. Nothing of
/// the page needs it; this puts things back.
class KeptPipeSignal {
  public:
    KeptPipeSignal() : before_(std::signal(SIGPIPE, SIG_DFL)) {}
    ~KeptPipeSignal() { std::signal(SIGPIPE, before_); }
    KeptPipeSignal(const KeptPipeSignal&) = delete;
    KeptPipeSignal& operator=(const KeptPipeSignal&) = delete;

  private:
    void (*before_)(int);
};

#endif

// --- connections that cannot hold a thread -------------------------------------------------------

/// One connection, for httplib to read a request from and to write the answer to. All reading
/// together and each single writing have their limit; another thread can end both by a shutdown of
/// the socket.
class Connection : public httplib::Stream {
  public:
    Connection(socket_t socket, milliseconds request_limit)
        : socket_(socket), deadline_(Clock::now() + request_limit) {}

    bool is_readable() const override {
        const auto left = std::chrono::ceil<milliseconds>(deadline_ - Clock::now());
        return left > 0ms && is_ready(POLLIN, left);
    }

    /// Whether the viewer is still there: having sent its request, it sends nothing but its end.
    bool is_writable() const override {
        char byte = 0;
        return !is_ready(POLLIN, 0ms) || recv(socket_, &byte, 1, MSG_PEEK) > 0;
    }

    ssize_t read(char* bytes, std::size_t size) override {
        return is_readable() ? recv(socket_, bytes, as_length(size), 0) : -1;
    }

    ssize_t write(const char* bytes, std::size_t size) override {
        const auto sent = send(socket_, bytes, as_length(size), send_flags);
        // The socket has a time limit for sending, so less than all means a viewer that stalls.
        return sent >= 0 && static_cast<std::size_t>(sent) == size ? static_cast<ssize_t>(sent)
                                                                   : -1;
    }

    void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    socket_t socket() const override { return socket_; }

  private:
#ifdef _WIN32
    static int as_length(std::size_t size) {
        return static_cast<int>(size);
    }
#else
    static std::size_t as_length(std::size_t size) {
        return size;
    }
#endif

    bool is_ready(short what, milliseconds at_most) const {
        pollfd entry{};
        entry.fd = socket_;
        entry.events = what;
        return poll_socket(entry, at_most) > 0;
    }

    socket_t socket_;
    Clock::time_point deadline_;
};

/// httplib's server with one request a connection, whose connections can be cut off.
class CuttableServer : public httplib::Server {
  public:
    explicit CuttableServer(milliseconds request_limit) : request_limit_(request_limit) {}

    /// Ends all connections, and each that is yet to be served.
    void cut() {
        const std::scoped_lock lock(mutex_);
        is_cut_ = true;
        for (const socket_t socket : sockets_) {
            shutdown(socket, both_ways);
        }
    }

  private:
    bool process_and_close_socket(socket_t socket) override {
        keep_from_children(socket);
        {
            const std::scoped_lock lock(mutex_);
            sockets_.insert(socket);
            if (is_cut_) {
                shutdown(socket, both_ways);
            }
        }
        Connection connection(socket, request_limit_);
        bool wants_close = false;
        const bool served = process_request(connection, true, wants_close, {});
        const std::scoped_lock lock(mutex_);
        sockets_.erase(socket);
        shutdown(socket, both_ways);
        close_socket(socket);
        return served;
    }

    milliseconds request_limit_;
    std::mutex mutex_;
    std::set<socket_t> sockets_;
    bool is_cut_ = false;
};

std::unique_ptr<CuttableServer> make_server(milliseconds request_limit) {
    [[maybe_unused]] const KeptPipeSignal kept;
    return std::make_unique<CuttableServer>(request_limit);
}

// --- addresses -----------------------------------------------------------------------------------

std::string written(const PageAddress& address) {
    const bool is_ipv6 = address.host.find(':') != std::string::npos;
    return (is_ipv6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

bool is_loopback(const std::string& host) {
    boost::system::error_code no_address;
    const auto address = boost::asio::ip::make_address(host, no_address);
    return no_address ? host == "localhost" : address.is_loopback();
}

/// Whether a request's Host names this machine by what only this machine is called. A foreign page
/// can have its own name resolved to the loopback address, but not its name changed to these.
bool names_loopback(std::string host) {
    const std::size_t colon = host.rfind(':');
    if (colon != std::string::npos && host.find(']', colon) == std::string::npos) {
        host.resize(colon);
    }
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    return is_loopback(host);
}

/// Why an address could not be bound, by trying once more with a library that tells.
std::string reason_against(const PageAddress& address) {
    namespace ip = boost::asio::ip;
    try {
        boost::asio::io_context context;
        const auto found =
            ip::tcp::resolver(context).resolve(address.host, std::to_string(address.port));
        const ip::tcp::acceptor attempt(context, *found.begin());
    } catch (const boost::system::system_error& error) {
        return error.code().message();
    }
    return "it was taken at that moment";
}

}  // namespace

PageAddress page_address(const std::string& text) {
    const auto refuse = [&text] {
        throw std::invalid_argument("\"" + text +
                                    "\" is no address for the page; give ADDRESS:PORT, "
                                    "[IPV6]:PORT, :PORT or PORT");
    };
    PageAddress address{.host = "127.0.0.1", .port = 0};
    const std::size_t colon = text.rfind(':');
    if (colon != std::string::npos && colon > 0) {
        address.host = text.substr(0, colon);
    }
    const std::string digits = text.substr(colon + 1);  // all of it where there is no colon
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), address.port);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size() ||
        address.port < 0 || address.port > 65535) {
        refuse();
    }
    if (address.host.starts_with('[') && address.host.ends_with(']')) {
        address.host = address.host.substr(1, address.host.size() - 2);
        boost::system::error_code no_address;
        boost::asio::ip::make_address_v6(address.host, no_address);
        if (no_address) {
            refuse();
        }
    } else if (address.host.find_first_of(":[] /") != std::string::npos) {
        refuse();
    }
    return address;
}

// --- the page ------------------------------------------------------------------------------------

struct Page::Server {
    Server(const Board& shown, const PageAddress& address, const PageLimits& limits);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// One who watches.
    struct Viewer {
        explicit Viewer(Server& watched) : server(watched) {}
        ~Viewer() { server.viewer_left(); }
        Viewer(const Viewer&) = delete;
        Viewer& operator=(const Viewer&) = delete;

        Server& server;
        bool is_new = true;
        std::uint64_t version = 0;
        Clock::time_point last_sent = Clock::now();
    };

    void answer_stream(httplib::Response& response);
    bool send_news(Viewer& viewer, httplib::DataSink& sink);
    void viewer_left();

    const Board& board;
    std::unique_ptr<CuttableServer> http;
    int port = 0;

    std::mutex mutex;
    std::condition_variable changed;
    bool stopping = false;
    int viewers = 0;

    std::thread listener;
};

namespace {

/// No source but the page itself; nothing is kept, guessed, told to others or shown in a frame.
httplib::Headers headers_of_all() {
    return {{"Content-Security-Policy",
             "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
             "img-src data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
            {"Cross-Origin-Resource-Policy", "same-origin"},
            {"Referrer-Policy", "no-referrer"},
            {"X-Content-Type-Options", "nosniff"},
            {"Cache-Control", "no-store"}};
}

void answer(httplib::Response& response, int status, const std::string& words) {
    response.status = status;
    response.set_content(words + "\n", "text/plain; charset=utf-8");
}

std::string event(const std::string& name, const nlohmann::json& data) {
    return "event: " + name + "\ndata: " + json_line(data) + "\n\n";
}

}  // namespace

Page::Server::Server(const Board& shown, const PageAddress& address, const PageLimits& limits)
    : board(shown), http(make_server(limits.request)) {
    using httplib::Request;
    using httplib::Response;
    using Handled = httplib::Server::HandlerResponse;

    http->new_task_queue = [] { return new httplib::ThreadPool(viewer_limit + spare_threads); };
    http->set_socket_options(claim_address);
    http->set_write_timeout(limits.stall);
    http->set_default_headers(headers_of_all());

    const bool only_loopback = is_loopback(address.host);
    http->set_pre_routing_handler([only_loopback](const Request& request, Response& response) {
        if (only_loopback && !names_loopback(request.get_header_value("Host"))) {
            answer(response, 403, "This page is served to this machine only.");
            return Handled::Handled;
        }
        if (request.method != "GET") {
            response.set_header("Allow", "GET");
            answer(response, 405, "There is nothing here but to look.");
            return Handled::Handled;
        }
        return Handled::Unhandled;
    });
    http->Get("/", [](const Request&, Response& response) {
        response.set_content(page_html, "text/html; charset=utf-8");
    });
    http->Get(R"(/page\.css)", [](const Request&, Response& response) {
        response.set_content(page_css, "text/css; charset=utf-8");
    });
    http->Get(R"(/page\.js)", [](const Request&, Response& response) {
        response.set_content(page_js, "text/javascript; charset=utf-8");
    });
    http->Get("/state", [this](const Request&, Response& response) {
        const auto state = changes_json(board.changes_since(0), Clock::now());
        response.set_content(json_line(state), "application/json");
    });
    http->Get("/events", [this](const Request&, Response& response) { answer_stream(response); });
    http->set_error_handler([](const Request&, Response& response) {
        if (response.body.empty()) {
            answer(response, response.status, "There is nothing here.");
        }
    });

    if (address.port == 0) {
        port = http->bind_to_any_port(address.host);
    } else {
        port = http->bind_to_port(address.host, address.port) ? address.port : -1;
    }
    if (port < 0) {
        throw std::runtime_error("the page cannot be served at " + written(address) + ": " +
                                 reason_against(address));
    }
    listener = std::thread([this] {
        leave_signals_to_other_threads();  // and so do the threads that this one starts
        http->listen_after_bind();
    });
    while (!http->is_running()) {  // else a stop that comes at once would be lost
        std::this_thread::sleep_for(1ms);
    }
}

Page::Server::~Server() {
    {
        std::unique_lock lock(mutex);
        stopping = true;
        changed.notify_all();
        changed.wait_for(lock, farewell_limit, [this] { return viewers == 0; });
    }
    http->cut();
    http->stop();
    listener.join();
}

void Page::Server::answer_stream(httplib::Response& response) {
    {
        const std::scoped_lock lock(mutex);
        if (viewers == viewer_limit) {
            answer(response, 503, "Too many are watching.");
            return;
        }
        ++viewers;
    }
    const auto viewer = std::make_shared<Viewer>(*this);
    response.set_content_provider("text/event-stream",
                                  [this, viewer](std::size_t /*offset*/, httplib::DataSink& sink) {
                                      return send_news(*viewer, sink);
                                  });
}

/// Waits for news and sends them, not too often. Returns false when the viewer has gone.
bool Page::Server::send_news(Viewer& viewer, httplib::DataSink& sink) {
    std::unique_lock lock(mutex);
    const bool stops = stopping;  // asked first: what is fetched behind it is the last there is
    lock.unlock();
    const Changes changes = viewer.is_new || stops
                                ? board.changes_since(viewer.version)
                                : board.wait_for_changes(viewer.version, look_interval);
    if (!sink.is_writable()) {
        return false;
    }
    const Clock::time_point now = Clock::now();
    std::string text;
    if (viewer.is_new) {
        text = "retry: 1000\n" + event("state", changes_json(changes, now));
    } else if (changes.version > viewer.version) {
        text = event("changes", changes_json(changes, now));
    } else if (now - viewer.last_sent >= comment_interval) {
        text = ": nothing new\n\n";
    }
    const bool over = changes.closed || stops;
    if (over) {
        text += event("ended", nlohmann::json::object());
    }
    if (!text.empty()) {
        sink.write(text.data(), text.size());
        viewer.last_sent = now;
    }
    viewer.is_new = false;
    viewer.version = changes.version;
    if (over) {
        sink.done();
    } else if (!text.empty()) {
        lock.lock();
        changed.wait_until(lock, now + event_interval, [this] { return stopping; });
    }
    return true;
}

void Page::Server::viewer_left() {
    const std::scoped_lock lock(mutex);
    --viewers;
    changed.notify_all();
}

Page::Page(const Board& board, const PageAddress& address, const PageLimits& limits)
    : server_(std::make_unique<Server>(board, address, limits)) {}

Page::~Page() = default;

int Page::port() const {
    return server_->port;
}

}  // namespace orbix::station
