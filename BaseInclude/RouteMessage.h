// Route messages: the records that cross the IPC client's socket, and the rules for building and checking them.
//
// A connection starts with a 5-byte RegClient, answered by one status byte. Then come messages: a 34-byte
// RouteMessageHeader followed by MessageLen bytes of payload. Integers are in host byte order.
//
// The records are packed: copy a field into a variable, never take its address or a reference.
#pragma once

#include <cstddef>
#include <type_traits>

#include "SmartBuffer.h"
#include "VEXType.h"

#pragma pack(push, 1)

// The address of one endpoint.
struct RegClient {
    USHORT SessionID;
    USHORT ObjID;
    BOOLEAN WithCallBack;  // 0 or 1
};

struct RouteMessageHeader {
    RegClient Source;
    RegClient Destination;
    DWORD SequenceNum;
    DWORD Paramter;  // flag bits
    DWORD MessageLen;
};

#pragma pack(pop)

// A message in memory; the buffer owns the payload.
struct RouteMessage {
    RouteMessageHeader Header;
    CSmartBuffer Buffer;
};

static_assert(std::is_trivially_copyable_v<RegClient> && sizeof(RegClient) == 5 && alignof(RegClient) == 1);
static_assert(offsetof(RegClient, SessionID) == 0 && offsetof(RegClient, ObjID) == 2);
static_assert(offsetof(RegClient, WithCallBack) == 4);
static_assert(std::is_trivially_copyable_v<RouteMessageHeader> && sizeof(RouteMessageHeader) == 34);
static_assert(alignof(RouteMessageHeader) == 1);
static_assert(offsetof(RouteMessageHeader, Source) == 0 && offsetof(RouteMessageHeader, Destination) == 5);
static_assert(offsetof(RouteMessageHeader, SequenceNum) == 10 && offsetof(RouteMessageHeader, Paramter) == 18);
static_assert(offsetof(RouteMessageHeader, MessageLen) == 26);

// Flag of Paramter: the message is a request, and its receiver sends a reply. A reply keeps the other bits.
inline constexpr DWORD MSG_ISREQUESTPACK = 0x4;

// The rules. They use no socket. Any thread.
class CRouteRules {
public:
    // The status byte that accepts a client. A server that closes without a status byte also accepts it.
    static constexpr BYTE REGISTER_ACCEPTED = 0;

    // The TCP port of a destination, as the trace shows it. SocketPort cuts it to 16 bits, for socket addresses.
    static constexpr int ServerPort(USHORT usSessionID, USHORT usObjID) { return 8665 + usSessionID + usObjID; }
    static constexpr USHORT SocketPort(int nPort) { return static_cast<USHORT>(nPort); }

    // Service objects receive requests from the server on the connection of their exchange.
    static constexpr BOOL IsServiceObject(USHORT usObjID) {
        switch (usObjID) {
            case 2003:
            case 2004:
            case 2005:
            case 2006:
            case 4003:
            case 6115:
            case 6116:
            case 22000:
            case 32001:
            case 42002:
                return TRUE;
            default:
                return FALSE;
        }
    }

    // What a client sends right after connecting. A service object sends its own session; other clients send their
    // descriptor as the session.
    static RegClient BuildRegistration(const RegClient& owner, SOCKET socket) {
        RegClient registration = owner;
        if (!IsServiceObject(owner.ObjID)) {
            registration.SessionID = static_cast<USHORT>(socket);
        }
        return registration;
    }

    // dwSequenceNum: the tick count. dwMessageLen: bytes of payload. The source's session is always the descriptor.
    static RouteMessageHeader BuildRequestHeader(const RegClient& owner, SOCKET socket, USHORT usDstSessionID,
                                                 USHORT usDstObjID, DWORD dwSequenceNum, DWORD dwMessageLen) {
        RouteMessageHeader header = {};
        header.Source = owner;
        header.Source.SessionID = static_cast<USHORT>(socket);
        header.Destination.SessionID = usDstSessionID;
        header.Destination.ObjID = usDstObjID;
        header.SequenceNum = dwSequenceNum;
        header.Paramter = MSG_ISREQUESTPACK;
        header.MessageLen = dwMessageLen;
        return header;
    }

    static RouteMessageHeader BuildReplyHeader(const RouteMessageHeader& request, DWORD dwMessageLen) {
        RouteMessageHeader header = {};
        header.Source = request.Destination;
        header.Destination = request.Source;
        header.SequenceNum = request.SequenceNum + 1;
        header.Paramter = request.Paramter & ~MSG_ISREQUESTPACK;
        header.MessageLen = dwMessageLen;
        return header;
    }

    // Whether a reply answers the request. Its destination and the callback bytes are not checked.
    static BOOL checkPipeRspHeader(const RouteMessageHeader& reply, const RouteMessageHeader& request) {
        const DWORD dwExpectedNum = request.SequenceNum + 1;
        return IsUsable(reply) && reply.Source.ObjID == request.Destination.ObjID &&
               reply.Source.SessionID == request.Destination.SessionID && reply.SequenceNum == dwExpectedNum;
    }

    // Whether the client handles an incoming message: it is addressed to a service object, or object 2001 sent it.
    static BOOL checkPipeRequestHeader(const RouteMessageHeader& header) {
        constexpr USHORT usPrivilegedSource = 2001;
        return (IsServiceObject(header.Destination.ObjID) || header.Source.ObjID == usPrivilegedSource) &&
               IsUsable(header);
    }

    // Whether a message on a connection that also carries requests is the reply, right or wrong. One of these holds:
    //  - It answers the request.
    //  - It is addressed to the request's source. Requests are not: they are addressed to the registered session, not
    //    to the descriptor. If the message has the flag of a request, it must also be unusable.
    //  - It comes from the object that was asked, has no flag of a request, and is not for the client to handle.
    static BOOL IsReply(const RouteMessageHeader& message, const RouteMessageHeader& request) {
        const BOOL bToSource = IsSame(message.Destination, request.Source);
        if ((message.Paramter & MSG_ISREQUESTPACK) != 0) {
            return checkPipeRspHeader(message, request) || (bToSource && !IsUsable(message));
        }
        return bToSource || checkPipeRspHeader(message, request) ||
               (IsSame(message.Source, request.Destination) && !checkPipeRequestHeader(message));
    }

private:
    static BOOL IsSame(const RegClient& a, const RegClient& b) {
        return a.SessionID == b.SessionID && a.ObjID == b.ObjID;
    }

    static BOOL IsUsable(const RouteMessageHeader& header) {
        constexpr DWORD dwKnownFlags = 0xF;
        return header.Paramter <= dwKnownFlags && header.MessageLen != 0;
    }
};
