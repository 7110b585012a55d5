#include "RequestHeader.h"

#include "Text.h"
#include "VEXCltpmCommProtocolDef.h"

namespace vexfiled {

std::string FaultOf(const RouteMessageHeader& header, USHORT usPort, DWORD dwMaxMessage) {
    constexpr DWORD kLastParameter = 15;
    // Copies, because references to the fields of a packed record are not allowed.
    const DWORD dwParameter = header.Paramter;
    const DWORD dwMessageLen = header.MessageLen;
    const USHORT usSession = header.Destination.SessionID;
    const USHORT usObject = header.Destination.ObjID;
    if (dwParameter > kLastParameter) {
        return Text("unknown flags ", dwParameter);
    }
    if ((dwParameter & MSG_ISREQUESTPACK) == 0) {
        return "a message that is not a request";
    }
    // Clients compute the port from session and object, so every address that gives this port means this server. The
    // file server's own address is valid on any port, for clients that find the port in another way.
    const bool bOwnAddress = usSession == VEX_FILE_SERVER_SESSION && usObject == VEX_FILE_SERVER_OBJECT;
    if (!bOwnAddress && CRouteRules::SocketPort(CRouteRules::ServerPort(usSession, usObject)) != usPort) {
        return Text("a message for another server: session ", usSession, ", object ", usObject);
    }
    if (dwMessageLen == 0) {
        return "an empty message";
    }
    if (dwMessageLen > dwMaxMessage) {
        return Text("a message of ", dwMessageLen, " bytes; --max-message is ", dwMaxMessage);
    }
    return {};
}

}  // namespace vexfiled
