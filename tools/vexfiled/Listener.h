// The server's listening socket.
#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include "Options.h"

namespace vexfiled {

// Takes the service manager's socket, otherwise opens the port. Throws std::exception if there is none; the text says
// why and what to do.
asio::ip::tcp::acceptor Listen(asio::io_context& context, const Options& options);

}  // namespace vexfiled
