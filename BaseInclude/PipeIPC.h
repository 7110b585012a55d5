// The IPC client's records. RouteMessage.h has those that cross the socket.
#pragma once

#include <cstddef>
#include <type_traits>

#include "RouteMessage.h"
#include "SmartBuffer.h"
#include "VEXType.h"

class CPipeIPC;

#pragma pack(push, 1)

// One client of the server role.
struct ClientInfo {
    RegClient RegInfo;
    SOCKET ClientSocket;
    int ClientTimeOut;
};

// Start argument of the receive thread, which frees it.
struct ClientRecvParamter {
    SOCKET RemoteSocket;
    CPipeIPC* pThis;
};

#pragma pack(pop)

// Start argument of a request thread, which frees it.
struct RequestParamter {
    CPipeIPC* pThis;
    CSmartBuffer Buffer;  // the whole message: header, then payload
};

static_assert(std::is_trivially_copyable_v<ClientInfo> && sizeof(ClientInfo) == 13);
static_assert(offsetof(ClientInfo, RegInfo) == 0 && offsetof(ClientInfo, ClientSocket) == 5);
static_assert(offsetof(ClientInfo, ClientTimeOut) == 9);
static_assert(std::is_trivially_copyable_v<ClientRecvParamter> && sizeof(ClientRecvParamter) == 12);
static_assert(offsetof(ClientRecvParamter, RemoteSocket) == 0 && offsetof(ClientRecvParamter, pThis) == 4);
