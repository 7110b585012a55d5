// Records, callback types and results of the IPC client, CPipeIPC. RouteMessage.h has the records that cross the
// socket.
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

// Handles a request from the server: its payload, the payload's length in bytes, the reply to fill, the context given
// to SetProcessMessageCallBack. The result is ignored. Each call has its own thread; several calls may run at once.
using PPROCESSMESSAGE = long (*)(PBYTE pbPayload, DWORD dwLength, CSmartBuffer& objReply, void* pContext);

// Called when a receive thread ends, on that thread. nState: 0. nError: the errno of the failed receive; 0 when the
// connection ended without an error. pContext: as given to SetPipeStateCallback.
using PPROCESSSTATE = void (*)(int nState, int nError, void* pContext);

// Results of a failed exchange; success is 0.
inline constexpr long PIPE_ERROR_SEND = 0xE0010004;     // connecting, registering or sending failed
inline constexpr long PIPE_ERROR_RECEIVE = 0xE0010005;  // no reply in time, or not the reply to this request
