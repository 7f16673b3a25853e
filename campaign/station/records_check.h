// What must hold of the station's records, compared with the logs that it kept of its runs and with
// what its page has shown.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orbix::campaign {

using Json = nlohmann::json;

/// What was found wrong, one line each.
using Findings = std::vector<std::string>;

/// The result line of orbix_flash, as its kept output shows it.
struct LastWord {
    bool success = false;
    std::optional<int> code;  ///< of a FAIL line
};

/// The records of a file, line by line. A line that is no record is a finding.
std::vector<Json> read_records(const std::string& path, Findings& findings);

/// The only result record of a port, or null.
const Json* result_of(const std::vector<Json>& records, const std::string& port);

/// What orbix_flash has said as its last line; nothing when it has not said how it went.
std::optional<LastWord> last_word(std::string_view output);

/// The exit status that stands for a cause; nothing for a word that is none.
std::optional<int> status_of(std::string_view cause);

/// One start and one end for each attempt, phases in order, one result for each port, and nothing
/// behind it; the summary counts what the results say, and the exit status is the worst of them.
void check_order(const std::vector<Json>& records, const std::vector<std::string>& ports,
                 int exit_status, Findings& findings);

/// Each end of an attempt says what the kept output of that attempt says, and each piece of
/// progress stands there.
void check_against_logs(const std::vector<Json>& records, Findings& findings);

/// The page's state at this moment; null when the page does not answer.
Json page_state(int port);

/// Follows the page's events until the station ends.
class PageWatcher {
  public:
    /// Connects to the page on the loopback address, and returns when the station ends it.
    void follow(int port);

    /// The page has ended with what the records say.
    void check(const std::vector<Json>& records, const std::vector<std::string>& ports,
               Findings& findings) const;

    [[nodiscard]] std::size_t events() const { return events_; }

  private:
    void take(const std::string& name, const Json& data);

    std::string pending_;
    std::map<std::string, Json> rows_;
    int good_ = 0;
    int bad_ = 0;
    bool ended_ = false;
    std::size_t events_ = 0;
    Findings disorder_;
};

}  // namespace orbix::campaign
