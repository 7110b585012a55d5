// The rules that a client's message header has to keep. Free of sockets; any thread.
#pragma once

#include <string>

#include "RouteMessage.h"

namespace vexfiled {

// What is wrong with the header of a message that came in at the port; empty when it may be served.
std::string FaultOf(const RouteMessageHeader& header, USHORT usPort, DWORD dwMaxMessage);

}  // namespace vexfiled
