// Checks the header of a client's message. Uses no sockets; any thread.
#pragma once

#include <string>

#include "RouteMessage.h"

namespace vexfiled {

// What is wrong with the header of a message that arrived at the port; empty if it is valid.
std::string FaultOf(const RouteMessageHeader& header, USHORT usPort, DWORD dwMaxMessage);

}  // namespace vexfiled
