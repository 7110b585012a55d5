// What the server has done since its start.
#pragma once

#include <cstdint>
#include <string>

#include "Text.h"

namespace vexfiled {

struct Totals {
    std::uint64_t uClients = 0;         // let in
    std::uint64_t uRefusedUsers = 0;    // clients of users who are not served
    std::uint64_t uRefusedClients = 0;  // clients beyond the limit of connections
    std::uint64_t uRequests = 0;
    std::uint64_t uFailedRequests = 0;
    std::uint64_t uBytesReceived = 0;  // headers and payloads of requests
    std::uint64_t uBytesSent = 0;      // headers and payloads of replies

    std::string AsText() const {
        return Text("totals: ", uClients, " clients, ", uRequests, " requests (", uFailedRequests, " failed), ",
                    uBytesReceived, " bytes received, ", uBytesSent, " bytes sent, ", uRefusedUsers + uRefusedClients,
                    " clients refused (", uRefusedUsers, " for their user, ", uRefusedClients,
                    " for too many connections)");
    }
};

}  // namespace vexfiled
