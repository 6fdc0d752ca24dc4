#include "kernel/server/RpcSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

namespace {

using KeepIdle = asio::detail::socket_option::integer<IPPROTO_TCP, TCP_KEEPIDLE>;
using KeepInterval = asio::detail::socket_option::integer<IPPROTO_TCP, TCP_KEEPINTVL>;
using KeepCount = asio::detail::socket_option::integer<IPPROTO_TCP, TCP_KEEPCNT>;

} // namespace

void RpcSocket::tune() {
    // A socket whose peer has left already refuses its options; reading from it then tells.
    asio::error_code ignored;
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
    socket.set_option(KeepIdle(30), ignored);     // [s]
    socket.set_option(KeepInterval(10), ignored); // [s]
    socket.set_option(KeepCount(3), ignored);
    socket.non_blocking(true, ignored);
}
