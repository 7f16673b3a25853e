// A headless Chromium, driven through chromedriver.
#pragma once

#include <httplib.h>

#include <nlohmann/json.hpp>
#include <string>

#include "cli/process.h"
#include "temp_dir.h"

namespace orbix::test {

/// One browser with one window and an empty profile of its own. It has no way to any other machine.
class Browser {
  public:
    Browser();
    ~Browser();
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

    void open(const std::string& url);
    void reload();

    /// The result of a function's body, run in the page.
    nlohmann::json run(const std::string& script);

    /// Waits until an expression is true in the page; false when that takes more than ten seconds.
    bool comes_true(const std::string& expression);

    /// One command of the browser's own protocol for tools.
    void command(const std::string& name, const nlohmann::json& parameters);

    /// What the browser has written into one of its logs since this was last asked.
    nlohmann::json log(const std::string& name);

  private:
    nlohmann::json post(const std::string& path, const nlohmann::json& body);

    sim::TempDir profile_;
    Background driver_;
    httplib::Client client_;
    std::string session_;
};

}  // namespace orbix::test
