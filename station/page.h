// The station's page: the live table in a browser, fed by server-sent events.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "board.h"

namespace orbix::station {

/// Where the page is served.
struct PageAddress {
    std::string host;  ///< a name or an address; 127.0.0.1 where none was given
    int port = 0;      ///< 0: any free one
};

/// Reads "ADDRESS:PORT", "[IPV6]:PORT", ":PORT" or "PORT". Throws std::invalid_argument with one
/// clear line when it is none of these.
PageAddress page_address(const std::string& text);

/// How long a viewer may take: to send its request, and to take what is sent to it.
struct PageLimits {
    std::chrono::milliseconds request = std::chrono::seconds(3);
    std::chrono::milliseconds stall = std::chrono::seconds(2);
};

/// Serves the page until it is destroyed, from threads of its own.
class Page {
  public:
    /// Binds and starts. Throws std::runtime_error with one clear line when the address cannot be
    /// had. The board must outlive the page.
    Page(const Board& board, const PageAddress& address, const PageLimits& limits = {});
    ~Page();
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;

    /// The port in use, also where any free one was asked for.
    int port() const;

  private:
    struct Server;
    std::unique_ptr<Server> server_;
};

}  // namespace orbix::station
