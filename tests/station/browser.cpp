#include "station/browser.h"

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

namespace orbix::test {

using nlohmann::json;

namespace {

constexpr const char* driver_program = "/usr/bin/chromedriver";

/// chromedriver takes any free port and tells which.
std::string address_of(Background& driver) {
    const std::string before_port = "started successfully on port ";
    for (;;) {
        const std::string line = driver.read_line();
        if (line.empty()) {
            throw std::runtime_error("chromedriver did not start");
        }
        const std::size_t found = line.find(before_port);
        if (found != std::string::npos) {
            return "http://127.0.0.1:" +
                   std::to_string(std::stoi(line.substr(found + before_port.size())));
        }
    }
}

json capabilities(const std::string& profile) {
    const json arguments = {"--headless",
                            "--no-sandbox",
                            "--disable-gpu",
                            "--disable-quic",
                            "--disable-dev-shm-usage",
                            "--no-first-run",
                            "--disable-background-networking",
                            "--disable-component-update",
                            "--disable-sync",
                            "--host-resolver-rules=MAP * ~NOTFOUND , EXCLUDE 127.0.0.1",
                            "--window-size=1200,800",
                            "--user-data-dir=" + profile};
    return {{"capabilities",
             {{"alwaysMatch",
               {{"browserName", "chrome"},
                {"goog:chromeOptions", {{"args", arguments}}},
                {"goog:loggingPrefs", {{"performance", "ALL"}, {"browser", "ALL"}}}}}}}};
}

}  // namespace

Browser::Browser() : driver_(driver_program, {"--port=0"}), client_(address_of(driver_)) {
    client_.set_read_timeout(std::chrono::minutes(1));
    session_ = "/session";
    session_ += "/" + post("", capabilities(profile_.path("")))["sessionId"].get<std::string>();
    open("about:blank");  // instead of the browser's own first page and what that asks for
}

Browser::~Browser() {
    client_.Delete(session_);  // ends the browser
    driver_.send_signal(SIGTERM);
    driver_.finish();
}

json Browser::post(const std::string& path, const json& body) {
    const auto answer = client_.Post(session_ + path, body.dump(), "application/json");
    if (!answer) {
        throw std::runtime_error("chromedriver is gone");
    }
    json value = json::parse(answer->body)["value"];
    if (answer->status != 200) {
        throw std::runtime_error(value["message"].get<std::string>());
    }
    return value;
}

void Browser::open(const std::string& url) {
    post("/url", {{"url", url}});
}

void Browser::reload() {
    post("/refresh", json::object());
}

json Browser::run(const std::string& script) {
    return post("/execute/sync", {{"script", script}, {"args", json::array()}});
}

bool Browser::comes_true(const std::string& expression) {
    for (int attempt = 0; attempt < 400; ++attempt) {
        if (run("return Boolean(" + expression + ")")) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return false;
}

void Browser::command(const std::string& name, const json& parameters) {
    post("/goog/cdp/execute", {{"cmd", name}, {"params", parameters}});
}

json Browser::log(const std::string& name) {
    return post("/se/log", {{"type", name}});
}

}  // namespace orbix::test
