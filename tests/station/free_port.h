// A place for a page.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace orbix::test {

/// A port of this machine that nobody uses at this moment.
inline int free_port() {
    using boost::asio::ip::tcp;
    boost::asio::io_context context;
    const tcp::acceptor any(context, {boost::asio::ip::address_v4::loopback(), 0});
    return any.local_endpoint().port();
}

}  // namespace orbix::test
