// The station's page in a real browser: what a person at the bench sees.
#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "page.h"
#include "station/browser.h"

namespace orbix::station {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using test::Browser;

/// A row of the page, by its port's name: `row('A')` in the page is its element.
const std::string row_function =
    "window.row = (port) => [...document.querySelectorAll('tbody')]"
    ".find((row) => row.querySelector('.port').textContent.trim() === port);";

class PageInBrowser : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { browser_.emplace(); }
    static void TearDownTestSuite() { browser_.reset(); }

    void SetUp() override {
        browser_->log("performance");  // what was before is not this test's
        browser_->log("browser");
    }

    void TearDown() override {
        browser_->command("Emulation.clearDeviceMetricsOverride", json::object());
        browser_->command("Emulation.setEmulatedMedia", {{"features", json::array()}});
        expect_only_requests_to_the_page();
        for (const json& entry : browser_->log("browser")) {
            EXPECT_NE(entry["level"], "SEVERE") << entry;
        }
        page_.reset();
    }

    void serve() {
        page_ = std::make_unique<Page>(board_, PageAddress{.host = "127.0.0.1", .port = 0});
        url_ = "http://127.0.0.1:" + std::to_string(page_->port()) + "/";
        open();
    }

    void open() {
        browser_->open(url_);
        browser_->run(row_function);
        EXPECT_TRUE(sees("document.querySelector('#connection').textContent === 'live'"));
    }

    static bool sees(const std::string& expression) { return browser_->comes_true(expression); }

    /// Whether a cell of a port's row comes to hold just this text.
    static bool sees_text(const std::string& port, const std::string& cell,
                          const std::string& text) {
        return sees("row(" + json(port).dump() + ")?.querySelector('" + cell +
                    "').textContent.trim() === " + json(text).dump());
    }

    static std::string text_of(const std::string& selector) {
        return browser_->run("return document.querySelector('" + selector + "').textContent");
    }

    void write(const std::string& port, Phase phase, double percent = 0) {
        board_.write(port, [&](Row& row) {
            row.model = "TR52G";
            row.phase = phase;
            row.attempt = 1;
            row.percent = percent;
            row.bytes_total = 400'000;
            row.started = Clock::now();
        });
    }

    void fail(const std::string& port, Cause cause, const std::string& message) {
        board_.write(port, [&](Row& row) {
            row.phase = Phase::done;
            row.cause = cause;
            row.message = message;
        });
        board_.count(false);
    }

    static void show_on_phone(int width) {
        browser_->command(
            "Emulation.setDeviceMetricsOverride",
            {{"width", width}, {"height", 844}, {"deviceScaleFactor", 2}, {"mobile", true}});
        EXPECT_TRUE(sees("innerWidth === " + std::to_string(width)));
    }

    static void expect_no_horizontal_scrolling() {
        const json widths = browser_->run(
            "return [document.documentElement.scrollWidth, document.documentElement.clientWidth]");
        EXPECT_LE(widths[0], widths[1]);
    }

    static inline std::optional<Browser> browser_;
    Board board_;
    std::unique_ptr<Page> page_;
    std::string url_;

  private:
    void expect_only_requests_to_the_page() {
        int requests = 0;
        for (const json& entry : browser_->log("performance")) {
            const json message = json::parse(entry["message"].get<std::string>())["message"];
            if (message["method"] == "Network.requestWillBeSent") {
                const std::string target = message["params"]["request"]["url"];
                EXPECT_TRUE(target.starts_with(url_) || target == "data:,") << target;
                ++requests;
            }
        }
        EXPECT_GE(requests, 4) << "the page, its two files and the events";
    }
};

TEST_F(PageInBrowser, RowsAppearAndTheirBarsMove) {
    serve();
    EXPECT_EQ(text_of("#empty"), "No port yet.");
    write("ttyUSB1", Phase::connect);
    write("ttyUSB0", Phase::write, 10);
    EXPECT_TRUE(sees_text("ttyUSB1", ".phase", "connect"));
    EXPECT_TRUE(sees_text("ttyUSB0", ".model", "TR52G"));
    EXPECT_TRUE(sees_text("ttyUSB0", ".percent", "10"));
    EXPECT_EQ(browser_->run("return [...document.querySelectorAll('.port button')]"
                            ".map((port) => port.textContent)"),
              json({"ttyUSB0", "ttyUSB1"}))
        << "in the table's order, not in the order they came";
    const std::string bar = "row('ttyUSB0').querySelector('[role=progressbar]')";
    const std::string share = bar + ".firstElementChild.offsetWidth / " + bar + ".offsetWidth";
    EXPECT_TRUE(sees("Math.abs(" + share + " - 0.10) < 0.02"));
    write("ttyUSB0", Phase::write, 75);
    EXPECT_TRUE(sees("Math.abs(" + share + " - 0.75) < 0.02"));
    EXPECT_EQ(browser_->run("return " + bar + ".getAttribute('aria-valuenow')"), "75");
    EXPECT_TRUE(sees_text("ttyUSB0", ".percent", "75"));
    board_.write("ttyUSB0", [](Row& row) { row.kbytes_per_second = 10.54; });
    EXPECT_TRUE(sees_text("ttyUSB0", ".rate", "10.5"));
}

TEST_F(PageInBrowser, TheTimeRunsByItself) {
    serve();
    board_.write("A", [](Row& row) {
        row.phase = Phase::connect;
        row.started = Clock::now() - 3598s;
    });
    EXPECT_TRUE(sees_text("A", ".time", "59:59"));
    EXPECT_TRUE(sees_text("A", ".time", "1:00:00")) << "with no news from the station";
    board_.write("A", [](Row& row) {
        row.phase = Phase::done;
        row.seconds = 61.9;
    });
    EXPECT_TRUE(sees_text("A", ".time", "1:01"));
}

TEST_F(PageInBrowser, WhatAPersonHasToDoIsShown) {
    serve();
    board_.write("A", [](Row& row) {
        row.phase = Phase::connect;
        row.waiting_for = "press reset";
    });
    EXPECT_TRUE(sees_text("A", ".note", "Waiting: press reset"));
    EXPECT_TRUE(sees_text("A", ".result", "◷ waiting"));
    board_.write("A", [](Row& row) { row.waiting_for.clear(); });
    EXPECT_TRUE(sees("row('A').querySelector('.more').offsetHeight === 0"));
}

TEST_F(PageInBrowser, AFailureTurnsRedWithItsCause) {
    serve();
    write("A", Phase::sync);
    write("B", Phase::done);
    board_.count(true);
    EXPECT_TRUE(sees_text("B", ".result", "✓ flashed"));
    const std::string is_red =
        "(([red, green, blue]) => red > 1.5 * green && red > 1.5 * blue)"
        "(getComputedStyle(row('A').querySelector('.result')).color.match(/\\d+/g))";
    EXPECT_FALSE(browser_->run("return " + is_red));
    fail("A", Cause::no_sync, "[ERROR] no answer to the handshake");
    EXPECT_TRUE(sees(is_red));
    EXPECT_TRUE(sees_text("A", ".result", "✗ failed")) << "not by the colour alone";
    EXPECT_TRUE(
        sees_text("A", ".note", "the module did not answer: [ERROR] no answer to the handshake"));
    EXPECT_TRUE(sees("document.title === '1 good, 1 bad, 0 running – orbix_station'"));
    EXPECT_EQ(text_of("#good") + text_of("#bad") + text_of("#running"), "110");
}

TEST_F(PageInBrowser, WhatIsToldBesideASuccessIsShown) {
    serve();
    write("A", Phase::done);
    EXPECT_TRUE(sees_text("A", ".result", "✓ flashed"));
    EXPECT_TRUE(sees("row('A').querySelector('.more').offsetHeight === 0"));
    board_.write("A", [](Row& row) { row.message = "nothing to write"; });
    EXPECT_TRUE(sees_text("A", ".note", "But: nothing to write"));
    EXPECT_TRUE(sees_text("A", ".result", "✓ flashed"));
}

TEST_F(PageInBrowser, AReloadInMidRunShowsTheCurrentState) {
    serve();
    write("A", Phase::write, 20);
    write("B", Phase::write, 30);
    EXPECT_TRUE(sees_text("A", ".percent", "20"));
    fail("B", Cause::transfer, "line lost");
    write("A", Phase::write, 60);
    browser_->reload();
    browser_->run(row_function);
    EXPECT_TRUE(sees_text("A", ".percent", "60"));
    EXPECT_TRUE(sees_text("B", ".note", "the transfer broke off: line lost"));
    EXPECT_EQ(text_of("#bad"), "1");
    write("A", Phase::verify, 100);
    EXPECT_TRUE(sees_text("A", ".phase", "verify")) << "and goes on from there";
}

TEST_F(PageInBrowser, ARowGoesWithItsPort) {
    serve();
    write("A", Phase::write);
    write("B", Phase::write);
    EXPECT_TRUE(sees("document.querySelectorAll('tbody').length === 2"));
    board_.remove("A");
    EXPECT_TRUE(sees("!row('A') && row('B')"));
    board_.remove("B");
    EXPECT_TRUE(sees("document.querySelector('#empty').offsetHeight > 0"));
}

TEST_F(PageInBrowser, TheLastLinesUnfold) {
    serve();
    board_.write("A", [](Row& row) { row.last_lines = {"first", "second"}; });
    EXPECT_TRUE(sees("row('A')?.querySelector('.log').offsetHeight === 0"));
    browser_->run("row('A').querySelector('button').click()");
    EXPECT_TRUE(sees("row('A').querySelector('.log').offsetHeight > 0"));
    EXPECT_EQ(browser_->run("return row('A').querySelector('button').ariaExpanded"), "true");
    EXPECT_TRUE(sees_text("A", ".log", "first\nsecond"));
    board_.write("A", [](Row& row) { row.last_lines.emplace_back("third"); });
    EXPECT_TRUE(sees_text("A", ".log", "first\nsecond\nthird")) << "and stay open";
    EXPECT_TRUE(sees("row('A').querySelector('.log').offsetHeight > 0"));
}

TEST_F(PageInBrowser, TextOfAModuleStaysText) {
    const std::string text = "<img src=x onerror='window.hacked = 1'><b>\xFF";
    const std::string shown = "<img src=x onerror='window.hacked = 1'><b>\xEF\xBF\xBD";
    serve();
    board_.write(text, [&](Row& row) {
        row.model = text;
        row.waiting_for = text;
        row.phase = Phase::connect;
        row.last_lines = {text};
    });
    EXPECT_TRUE(sees_text(shown, ".model", shown));
    EXPECT_TRUE(sees_text(shown, ".note", "Waiting: " + shown));
    EXPECT_TRUE(sees_text(shown, ".log", shown));
    fail(text, Cause::refused, text);
    EXPECT_TRUE(sees_text(shown, ".note", "the module refused: " + shown));
    EXPECT_EQ(browser_->run("return [document.images.length, window.hacked ?? 'unharmed']"),
              json({0, "unharmed"}));
}

TEST_F(PageInBrowser, FitsAPhoneAndWhatIsLittleWider) {
    serve();
    show_on_phone(390);
    const std::string long_word(200, 'x');
    write("/dev/serial/by-id/usb-FTDI_FT232R_USB_UART_A10KZP4X-if00-port0", Phase::write, 50);
    fail("B", Cause::transfer, "a message with " + long_word);
    board_.write("C", [&](Row& row) {
        row.model = "A" + long_word;
        row.phase = Phase::connect;
        row.waiting_for = "power up";
        row.last_lines = {long_word};
    });
    EXPECT_TRUE(sees_text("C", ".note", "Waiting: power up"));
    browser_->run("document.querySelectorAll('button').forEach((button) => button.click())");
    for (const int width : {390, 320, 780}) {
        show_on_phone(width);
        expect_no_horizontal_scrolling();
        EXPECT_TRUE(
            sees("[...document.querySelectorAll('tbody *')].every((element) =>"
                 " element.getBoundingClientRect().right <= innerWidth)"))
            << width;
    }
}

TEST_F(PageInBrowser, DarkAndLightFollowTheSystem) {
    serve();
    const std::string ground =
        "Number(getComputedStyle(document.body).backgroundColor.match(/\\d+/)[0])";
    const auto prefer = [](const std::string& scheme) {
        browser_->command("Emulation.setEmulatedMedia",
                          {{"features", {{{"name", "prefers-color-scheme"}, {"value", scheme}}}}});
    };
    prefer("dark");
    EXPECT_TRUE(sees(ground + " < 64"));
    prefer("light");
    EXPECT_TRUE(sees(ground + " > 192"));
}

TEST_F(PageInBrowser, AtTheEndTheLastStateStays) {
    serve();
    write("A", Phase::write, 40);
    write("B", Phase::done);
    EXPECT_TRUE(sees_text("B", ".result", "✓ flashed"));
    board_.close();
    EXPECT_TRUE(sees("document.querySelector('#connection').textContent === 'ended'"));
    page_.reset();
    // Longer than the browser would take to ask again.
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(text_of("#connection"), "ended");
    EXPECT_TRUE(sees_text("A", ".percent", "40"));
    EXPECT_TRUE(sees_text("B", ".result", "✓ flashed"));
}

}  // namespace
}  // namespace orbix::station
