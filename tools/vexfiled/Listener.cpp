#include "Listener.h"

#include <asio/error.hpp>
#include <asio/ip/address_v4.hpp>
#include <stdexcept>
#include <string>
#include <system_error>

#include "ServiceManager.h"
#include "SocketOwners.h"
#include "SocketUsers.h"
#include "Text.h"

namespace vexfiled {

using asio::ip::tcp;

namespace {

std::string ListenerText(std::uint16_t uPort) {
    try {
        if (const auto owner = SocketOwners().OfListener(uPort)) {
            return " by " + HolderText(*owner);
        }
    } catch (const std::exception&) {  // then the message goes without
    }
    return "";
}

}  // namespace

tcp::acceptor Listen(asio::io_context& context, const Options& options) {
    if (auto passed = TakePassedSocket()) {
        if (options.bPortGiven && options.uPort != passed->uPort) {
            throw std::runtime_error(Text("the service manager's socket has port ", passed->uPort, ", but --port says ",
                                          options.uPort, "; remove --port and set ListenStream= in the socket unit"));
        }
        tcp::acceptor acceptor(context);
        acceptor.assign(tcp::v4(), passed->descriptor.Get());
        passed->descriptor.Release();
        return acceptor;
    }
    try {
        // Reuses the port of a server that has just ended. Fails if another server listens on it.
        return tcp::acceptor(context, tcp::endpoint(asio::ip::address_v4::loopback(), options.uPort));
    } catch (const std::system_error& error) {
        std::string strText = Text("port ", options.uPort, " of 127.0.0.1: ", error.code().message());
        if (error.code() == asio::error::address_in_use) {
            strText += Text(ListenerText(options.uPort), "; end it (as root, \"ss -ltnp sport = :", options.uPort,
                            "\" shows it) or choose another --port");
        } else if (error.code() == asio::error::access_denied) {
            strText += "; choose a --port of 1024 or more";
        }
        throw std::runtime_error(strText);
    }
}

}  // namespace vexfiled
