// The IPC client and its records. RouteMessage.h has the records that cross the socket.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <list>
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

// Handles an incoming request: payload, its length, the reply to fill, the owner's context. The result is ignored.
using PPROCESSMESSAGE = long (*)(PBYTE pbPayload, DWORD dwLength, CSmartBuffer& objReply, void* pContext);

// Is told that the receive thread has ended: state (0), errno, the owner's context.
using PPROCESSSTATE = void (*)(int nState, int nError, void* pContext);

// The client end of the route-message protocol: so far what it holds, and how that begins and ends. It cannot send yet.
//
// Constructing one seeds rand() with the time and makes the process ignore SIGPIPE, so that sending on a connection
// that the peer has closed is an error and not the end of the process.
class CPipeIPC {
public:
    CPipeIPC() {
        pthread_mutex_init(&m_socketServerLock, nullptr);
        pthread_mutex_init(&m_listRecLock, nullptr);
        pthread_mutex_init(&m_ClientInfoLock, nullptr);
        pthread_mutex_init(&ClientLock, nullptr);
        std::srand(static_cast<unsigned int>(std::time(nullptr)));
        std::signal(SIGPIPE, SIG_IGN);
    }

    CPipeIPC(const CPipeIPC&) = delete;
    CPipeIPC& operator=(const CPipeIPC&) = delete;

    // Waits for nobody: closing the sockets makes those who receive on them fail.
    ~CPipeIPC() {
        StopServer();
        DisConnect();
        pthread_mutex_destroy(&ClientLock);
        pthread_mutex_destroy(&m_listRecLock);
        pthread_mutex_destroy(&m_ClientInfoLock);
        pthread_mutex_destroy(&m_socketServerLock);
        m_listRecvReponseMsg.clear();
        m_listClientInfo.clear();
    }

private:
    static constexpr SOCKET NO_SOCKET = -1;

    void StopServer() {
        m_StopServer = TRUE;
        CloseSocket(m_socket);
    }

    void DisConnect() {
        m_bStopRecv = TRUE;
        m_bConnectState = FALSE;
        m_bClientInit = FALSE;
        CloseSocket(m_socketServer);
    }

    static void CloseSocket(SOCKET& socket) {
        if (socket != NO_SOCKET) {
            close(socket);
        }
        socket = NO_SOCKET;
    }

    SOCKET m_socket = NO_SOCKET;  // the server role's own
    BOOL m_StopServer = FALSE;
    std::list<ClientInfo> m_listClientInfo;  // guarded by m_ClientInfoLock
    PPROCESSMESSAGE m_pProcessMessageCallback = nullptr;
    PPROCESSSTATE m_pProcessStateCallback = nullptr;
    void* m_pProcessMessageCallbackParamter = nullptr;
    SOCKET m_socketServer = NO_SOCKET;   // the connection that requests arrive on
    pthread_mutex_t m_socketServerLock;  // one reply at a time on m_socketServer
    RegClient m_OwnerInfo = {};          // who this client is
    BOOL m_bClientInit = FALSE;
    std::list<RouteMessage> m_listRecvReponseMsg;  // guarded by m_listRecLock
    BOOL m_bStopRecv = FALSE;                      // the receive thread runs while it is 0
    BOOL m_bConnectState = FALSE;                  // 1 once a server has accepted the client
    BOOL m_AutoReConnect = TRUE;
    ULONG m_ServerIP = 0;  // in network byte order
    USHORT m_ServerPort = 0;
    HANDLE m_hRecvMsgHandle = nullptr;
    DWORD m_timeout = 10000;  // milliseconds
    pthread_mutex_t m_listRecLock;
    pthread_mutex_t m_ClientInfoLock;
    pthread_mutex_t ClientLock;
    void* m_stateContext = nullptr;  // the state callback's
};
