#include "RequestHeader.h"

#include "Text.h"
#include "VEXCltpmCommProtocolDef.h"

namespace vexfiled {

std::string FaultOf(const RouteMessageHeader& header, USHORT usPort, DWORD dwMaxMessage) {
    constexpr DWORD kLastParameter = 15;
    // Copies: the fields of a packed record may not be referred to.
    const DWORD dwParameter = header.Paramter;
    const DWORD dwMessageLen = header.MessageLen;
    const USHORT usSession = header.Destination.SessionID;
    const USHORT usObject = header.Destination.ObjID;
    if (dwParameter > kLastParameter) {
        return Text("flags ", dwParameter);
    }
    if ((dwParameter & MSG_ISREQUESTPACK) == 0) {
        return "a message that is no request";
    }
    // Clients find the port by this sum, so that whoever it leads here means this server. The file server's own address
    // is this server's on any port, for clients that are led to it by other means.
    const bool bOwnAddress = usSession == VEX_FILE_SERVER_SESSION && usObject == VEX_FILE_SERVER_OBJECT;
    if (!bOwnAddress && CRouteRules::SocketPort(CRouteRules::ServerPort(usSession, usObject)) != usPort) {
        return Text("a message for somebody else: session ", usSession, ", object ", usObject);
    }
    if (dwMessageLen == 0) {
        return "an empty message";
    }
    if (dwMessageLen > dwMaxMessage) {
        return Text("a message of ", dwMessageLen, " bytes");
    }
    return {};
}

}  // namespace vexfiled
