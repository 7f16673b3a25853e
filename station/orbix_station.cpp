// orbix_station: one orbix_flash a port, watched and judged.
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>

#include "board.h"
#include "options.h"
#include "page.h"
#include "station.h"
#include "system.h"

namespace {

using namespace orbix::station;

std::unique_ptr<Page> open_page(const Board& board, const Options& options) {
    if (options.http.empty()) {
        return nullptr;
    }
    const PageAddress address = page_address(options.http);
    auto page = std::make_unique<Page>(board, address);
    const bool bare_ipv6 = address.host.find(':') != std::string::npos;
    const std::string host = bare_ipv6 ? "[" + address.host + "]" : address.host;
    std::fprintf(stderr, "the page is at http://%s:%d/\n", host.c_str(), page->port());
    return page;
}

}  // namespace

int main(int argc, char** argv) {
    int status = 0;
    try {
        const std::optional<Options> options = parse_options(argc, argv, status);
        if (!options) {
            return status;
        }
        system::bind_children();
        Board board;
        const auto page = open_page(board, *options);
        return static_cast<int>(run_station(*options, board));
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "orbix_station: %s\n", error.what());
        return static_cast<int>(Cause::usage);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "orbix_station: %s\n", error.what());
        return static_cast<int>(Cause::internal);
    }
}
