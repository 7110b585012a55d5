// The IPC client and its records. RouteMessage.h has the records that cross the socket, docs/wire-protocol.md draws
// them.
#pragma once

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#include "PipeConnection.h"
#include "PipeLog.h"
#include "PipeSocket.h"
#include "RouteMessage.h"
#include "SmartBuffer.h"
#include "VEXAtomicField.h"
#include "VEXCompat.h"
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
// Runs on a thread of its own, several of them at once.
using PPROCESSMESSAGE = long (*)(PBYTE pbPayload, DWORD dwLength, CSmartBuffer& objReply, void* pContext);

// Is told, on the receive thread, that this thread has ended: state (0), the errno of the receive that failed or 0 when
// the connection was ended, the owner's context.
using PPROCESSSTATE = void (*)(int nState, int nError, void* pContext);

// Results of an exchange other than 0.
inline constexpr long PIPE_ERROR_SEND = 0xE0010004;     // connecting, registering or sending failed
inline constexpr long PIPE_ERROR_RECEIVE = 0xE0010005;  // there was no reply in time, or not to this request

// The client end of the route-message protocol. Each exchange has a connection of its own, which ends with it.
//
// Constructing one seeds rand() with the time and makes the process ignore SIGPIPE, unless it takes the place of one
// that was constructed before the process was forked: the child's program decides about both by then.
//
// Requests from the server: the identity of an exchange is drawn by lot. Where it comes out as a service object, and
// there is a request handler, a receive thread reads the connection as long as the exchange lasts, and each request
// that arrives meanwhile is handled on a thread of its own. Without a handler there is no receive thread.
//
// Nobody waits for those threads, but the destructor waits for callbacks, up to a second from the beginning of the last
// one. After it has returned no callback begins, unless the callback's thread did not run at all for that second. One
// that takes longer may still run, and so may, for a moment, the receive thread. Whatever a callback uses has to
// outlive that. The reply of a handler that is late is dropped. A callback may use the context and its arguments, and
// any CPipeIPC but the one that it serves.
//
// Memory: running out of it is a failed exchange, or std::bad_alloc where a receive thread is to be started.
class CPipeIPC {
public:
    struct ForForkedChild {};

    CPipeIPC() : CPipeIPC(ForForkedChild{}) {
        std::srand(static_cast<unsigned int>(std::time(nullptr)));  // NOLINT(cert-msc32-c,cert-msc51-cpp)
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    }
    explicit CPipeIPC(ForForkedChild /*tag*/) {
        pthread_mutex_init(&m_socketServerLock, nullptr);
        pthread_mutex_init(&m_listRecLock, nullptr);
        pthread_mutex_init(&m_ClientInfoLock, nullptr);
        pthread_mutex_init(&ClientLock, nullptr);
    }

    CPipeIPC(const CPipeIPC&) = delete;
    CPipeIPC& operator=(const CPipeIPC&) = delete;

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

    // Sends a request to the object of the session, both on this machine, and waits for the reply. One exchange at a
    // time. Trace: PipeLog.h.
    //
    // pbPayload: null or a length of 0 for an empty request. dwTimeout: milliseconds for each receive of the reply; the
    // whole reply has ten times as long. 0: for ever. Connecting, registering and sending have ten seconds each.
    // 0: objReply holds the reply's payload and nothing else. PIPE_ERROR_SEND or PIPE_ERROR_RECEIVE: it is as it was,
    // unless there was no memory for the payload.
    long SendMessageAndWait(USHORT usDstSessionID, USHORT usDstObjID, PBYTE pbPayload, DWORD dwLength,
                            CSmartBuffer& objReply, DWORD dwTimeout);

    // Null: none. They hold for exchanges and callbacks that begin afterwards. Not during an exchange.
    void SetProcessMessageCallBack(PPROCESSMESSAGE pCallback, void* pContext) {
        Guarded([&] {
            m_pProcessMessageCallback = pCallback;
            m_pProcessMessageCallbackParamter = pContext;
        });
    }
    void SetPipeStateCallback(PPROCESSSTATE pCallback, void* pContext) {
        Guarded([&] {
            m_pProcessStateCallback = pCallback;
            m_stateContext = pContext;
        });
    }

private:
    static constexpr SOCKET NO_SOCKET = CPipeSocket::NO_SOCKET;
    static constexpr DWORD SEND_TIMEOUT = 10000;  // milliseconds, as is the next
    static constexpr DWORD REGISTER_TIMEOUT = 10000;

    // The connection of one exchange: a socket, which passes to a CPipeConnection when a receive thread is started.
    // Either way it has ended, for the peer, when this has.
    class Exchange {
    public:
        Exchange() = default;
        Exchange(const Exchange&) = delete;
        Exchange& operator=(const Exchange&) = delete;
        ~Exchange() { End(); }

        CPipeSocket& Socket() { return m_socket; }  // until a receive thread has it
        void HandOver(std::shared_ptr<CPipeConnection> pConnection) { m_pConnection = std::move(pConnection); }

        // The whole request.
        BOOL Send(const RouteMessageHeader& request, const CSmartBuffer& objMessage) {
            if (m_pConnection == nullptr) {
                const auto nSize = static_cast<ssize_t>(objMessage.GetSize());
                return m_socket.Send(objMessage.GetAddress(), objMessage.GetSize(), CPipeDeadline(SEND_TIMEOUT)) ==
                       nSize;
            }
            m_pConnection->ExpectReply(request);
            return m_pConnection->Send(objMessage, SEND_TIMEOUT);
        }

        // As RecvDataFunc, the trace included.
        int Receive(const CPipeReplyTime& time, CSmartBuffer& objMessage) {
            if (m_pConnection == nullptr) {
                return RecvDataFunc(
                    m_socket, [&time] { return time.NextReceive(); }, objMessage);
            }
            const int nResult = m_pConnection->WaitForReply(time, objMessage);
            if (nResult <= 0) {
                pv_logEx("RecvDataFunc::recv header error ret =%d result=%s", nResult, std::strerror(nResult));
            }
            return nResult;
        }

        void End() {
            m_socket.Close();
            if (m_pConnection != nullptr) {
                m_pConnection->Stop();
            }
        }

    private:
        CPipeSocket m_socket;
        std::shared_ptr<CPipeConnection> m_pConnection;
    };

    // Start arguments as the threads get them. The CPipeIPC of the records is not to be used: it may be gone.
    struct RecvStart {
        ClientRecvParamter paramter;
        std::shared_ptr<CPipeConnection> pConnection;
    };
    struct RequestStart {
        RequestParamter paramter;
        std::shared_ptr<CPipeConnection> pConnection;
    };

    void SetOwnerID();
    static USHORT GetAccountId();
    int SendMsg(Exchange& exchange, RouteMessageHeader& request, const BYTE* pbPayload);
    SOCKET ConnectServer(Exchange& exchange, int nPort);
    BOOL Register(const CPipeSocket& socket);
    BOOL StartReceiving(Exchange& exchange);
    static int RecvMsg(Exchange& exchange, const RouteMessageHeader& request, DWORD dwTimeout,
                       CSmartBuffer& objMessage);

    static void* ProxyRecvBufferThread(void* pParamter);
    static void* ProcessRequsetThread(void* pParamter);
    static void StartRequestThread(CPipeIPC* pThis, const CSmartBuffer& objMessage,
                                   const std::shared_ptr<CPipeConnection>& pConnection);
    static void PipeStateNotify(CPipeConnection& connection, int nError);
    static BOOL IsToReceive(CPipeConnection& connection);
    static BOOL StartDetached(void* (*pThread)(void*), void* pParamter);

    void StopServer() {
        m_StopServer = TRUE;
        if (m_socket != NO_SOCKET) {
            close(m_socket);
        }
        m_socket = NO_SOCKET;
    }

    void DisConnect() {
        VEXStoreField(m_bStopRecv, TRUE);
        m_bConnectState = FALSE;
        m_bClientInit = FALSE;
        if (m_pOwner != nullptr) {
            m_pOwner->Cut();
        }
        m_socketServer = NO_SOCKET;  // the receive thread closes it
    }

    // Runs function while no thread of this object looks at the fields that they share.
    template <typename TFunction>
    void Guarded(TFunction function) {
        if (m_pOwner != nullptr) {
            m_pOwner->Visit([&](CPipeIPC&) { function(); });
        } else {
            function();
        }
    }

    SOCKET m_socket = NO_SOCKET;  // the server role's own
    BOOL m_StopServer = FALSE;
    std::list<ClientInfo> m_listClientInfo;               // guarded by m_ClientInfoLock
    PPROCESSMESSAGE m_pProcessMessageCallback = nullptr;  // guarded by m_pOwner, as the next three
    PPROCESSSTATE m_pProcessStateCallback = nullptr;
    void* m_pProcessMessageCallbackParamter = nullptr;
    SOCKET m_socketServer = NO_SOCKET;   // the connection that requests arrive on, which its receive thread closes
    pthread_mutex_t m_socketServerLock;  // unused: replies, which may outlive this object, wait in CPipeConnection
    RegClient m_OwnerInfo = {};          // who this client is
    BOOL m_bClientInit = FALSE;
    std::list<RouteMessage> m_listRecvReponseMsg;  // guarded by m_listRecLock
    BOOL m_bStopRecv = FALSE;                      // receive threads run while it is 0; atomic access
    BOOL m_bConnectState = FALSE;                  // 1 once a server has accepted the client
    [[maybe_unused]] BOOL m_AutoReConnect = TRUE;
    ULONG m_ServerIP = 0;  // in network byte order
    [[maybe_unused]] USHORT m_ServerPort = 0;
    [[maybe_unused]] HANDLE m_hRecvMsgHandle = nullptr;
    [[maybe_unused]] DWORD m_timeout = 10000;  // milliseconds
    pthread_mutex_t m_listRecLock;
    pthread_mutex_t m_ClientInfoLock;
    pthread_mutex_t ClientLock;
    void* m_stateContext = nullptr;        // the state callback's, guarded by m_pOwner
    std::shared_ptr<CPipeOwner> m_pOwner;  // made for the first receive thread
};

// ---- The exchange ----

inline long CPipeIPC::SendMessageAndWait(USHORT usDstSessionID, USHORT usDstObjID, PBYTE pbPayload, DWORD dwLength,
                                         CSmartBuffer& objReply, DWORD dwTimeout) {
    SetOwnerID();
    RouteMessageHeader request = CRouteRules::BuildRequestHeader(m_OwnerInfo, NO_SOCKET, usDstSessionID, usDstObjID,
                                                                 GetTickCount(), pbPayload != nullptr ? dwLength : 0);
    pv_logEx("******************SendMessageAndWait send start****************client******");
    Exchange exchange;
    const int nSent = SendMsg(exchange, request, pbPayload);
    if (nSent <= 0) {  // a descriptor of 0 as well
        pv_logEx("SendMessageAndWait ::SendMsg  failed ret=%d,result=%s", nSent, std::strerror(nSent));
        return PIPE_ERROR_SEND;
    }
    pv_logEx("SendMessageAndWait send end");
    pv_logEx("SendMessageAndWait recv start");
    CSmartBuffer objMessage;
    if (RecvMsg(exchange, request, dwTimeout, objMessage) <= 0) {
        pv_logEx("SendMessageAndWait ::RecvMsg  failed result=%s", std::strerror(nSent));  // of the descriptor
        return PIPE_ERROR_RECEIVE;
    }
    pv_logEx("*************SendMessageAndWait recv end********* client******");
    const DWORD dwReply = objMessage.GetSize() - sizeof request;
    return objReply.SetBuffer(objMessage.GetBytes() + sizeof request, dwReply) != nullptr ? 0 : PIPE_ERROR_RECEIVE;
}

// A new one for every exchange.
inline void CPipeIPC::SetOwnerID() {
    timeval time = {};
    gettimeofday(&time, nullptr);
    const int nRandom = std::rand();  // NOLINT(cert-msc30-c,cert-msc50-cpp): tells clients apart
    m_OwnerInfo.ObjID = static_cast<USHORT>(nRandom % 65535 + time.tv_usec);
    m_OwnerInfo.SessionID = GetAccountId();
}

// The number of the user, as the command has it; 0 when it cannot be run.
inline USHORT CPipeIPC::GetAccountId() {
    constexpr std::size_t nMost = 32;
    char szOutput[nMost + 1] = {};
    std::size_t nLength = 0;
    if (std::FILE* const pPipe = popen("id -u", "re")) {  // NOLINT(cert-env33-c): a constant command
        for (ssize_t nRead = 1; nRead != 0 && nLength < nMost;) {
            nRead = read(fileno(pPipe), szOutput + nLength, nMost - nLength);
            if (nRead < 0 && errno != EINTR) {
                break;
            }
            nLength += nRead < 0 ? 0 : static_cast<std::size_t>(nRead);
        }
        pclose(pPipe);
    }
    if (nLength > 0 && szOutput[nLength - 1] == '\n') {
        szOutput[nLength - 1] = 0;
    }
    return static_cast<USHORT>(std::strtol(szOutput, nullptr, 10));
}

// Connects and sends. The descriptor, else -1. request: its source's session becomes the descriptor.
inline int CPipeIPC::SendMsg(Exchange& exchange, RouteMessageHeader& request, const BYTE* pbPayload) {
    const int nPort = CRouteRules::ServerPort(request.Destination.SessionID, request.Destination.ObjID);
    pv_logEx("SendMsg::ConnectServer");
    const SOCKET nSocket = ConnectServer(exchange, nPort);
    if (nSocket == NO_SOCKET) {
        pv_logEx("ConnectServer failed port =%d", nPort);
        return -1;
    }
    request.Source.SessionID = static_cast<USHORT>(nSocket);
    CSmartBuffer objMessage;
    PipeBuildMessage(request, pbPayload, objMessage);
    pv_logEx("************SendMsg::send start");
    if (objMessage.GetSize() == 0 || !exchange.Send(request, objMessage)) {
        pv_logEx("************SendMsg::send data error");
        return -1;
    }
    pv_logEx("****************SendMsg::send end**************");
    return nSocket;
}

// Connects and registers. The descriptor, else NO_SOCKET.
inline SOCKET CPipeIPC::ConnectServer(Exchange& exchange, int nPort) {
    m_ServerIP = htonl(INADDR_LOOPBACK);
    VEXStoreField(m_bStopRecv, FALSE);  // the receive thread of an earlier exchange may look at it
    CPipeSocket& socket = exchange.Socket();
    if (!socket.Create()) {
        const int nError = errno;
        pv_logEx("ConnectServer::socket failed errno=%d,result=%s", nError, std::strerror(nError));
        return NO_SOCKET;
    }
    if (!socket.Connect(m_ServerIP, CRouteRules::SocketPort(nPort), CPipeDeadline(SEND_TIMEOUT))) {
        const int nError = errno;
        pv_logEx("ConnectServer::connect  failed errno=%d,result=%s", nError, std::strerror(nError));
        return NO_SOCKET;
    }
    const SOCKET nSocket = socket.Get();
    if (!Register(socket)) {
        return NO_SOCKET;
    }
    // The handler is this thread's to set: nobody changes it now.
    if (CRouteRules::IsServiceObject(m_OwnerInfo.ObjID) && m_pProcessMessageCallback != nullptr &&
        !StartReceiving(exchange)) {
        return NO_SOCKET;
    }
    m_bConnectState = TRUE;
    return nSocket;
}

// A server that ends the connection in place of an answer has accepted.
inline BOOL CPipeIPC::Register(const CPipeSocket& socket) {
    const RegClient regClient = CRouteRules::BuildRegistration(m_OwnerInfo, socket.Get());
    pv_logEx("ConnectServer::send regClient start");
    const auto nSent = static_cast<int>(socket.Send(&regClient, sizeof regClient, CPipeDeadline(SEND_TIMEOUT)));
    if (nSent != static_cast<int>(sizeof regClient)) {
        pv_logEx("ConnectNamedPipe::send failed error=%d,result=%s", nSent, std::strerror(errno));
        return FALSE;
    }
    pv_logEx("ConnectServer::send regClient end");
    pv_logEx("ConnectServer::recv regClient start");
    BYTE bStatus = CRouteRules::REGISTER_ACCEPTED;
    const auto nReceived = static_cast<int>(socket.Receive(&bStatus, sizeof bStatus, CPipeDeadline(REGISTER_TIMEOUT)));
    if (nReceived == -1) {
        pv_logEx("ConnectNamedPipe::recv  failed error=%d,result=%s", nReceived, std::strerror(errno));
        return FALSE;
    }
    pv_logEx("ConnectServer::recv regClient end");
    return bStatus == CRouteRules::REGISTER_ACCEPTED;
}

// The whole reply, with its header, once it has been found to answer the request. Results as those of RecvDataFunc.
inline int CPipeIPC::RecvMsg(Exchange& exchange, const RouteMessageHeader& request, DWORD dwTimeout,
                             CSmartBuffer& objMessage) {
    int nResult = exchange.Receive(CPipeReplyTime(dwTimeout), objMessage);
    if (nResult > 0 && !CRouteRules::checkPipeRspHeader(PipeMessageHeader(objMessage), request)) {
        nResult = -1;
    }
    exchange.End();
    return nResult;
}

// ---- The threads ----

inline BOOL CPipeIPC::StartDetached(void* (*pThread)(void*), void* pParamter) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread = {};
    const int nError = pthread_create(&thread, &attributes, pThread, pParamter);
    pthread_attr_destroy(&attributes);
    return nError == 0;
}

inline BOOL CPipeIPC::StartReceiving(Exchange& exchange) {
    if (m_pOwner == nullptr) {
        m_pOwner = std::make_shared<CPipeOwner>(this);
    }
    const SOCKET nSocket = exchange.Socket().Get();
    const auto pConnection = std::make_shared<CPipeConnection>(std::move(exchange.Socket()), m_pOwner);
    auto pStart = std::make_unique<RecvStart>(RecvStart{{nSocket, this}, pConnection});
    Guarded([&] { m_socketServer = nSocket; });
    if (!StartDetached(ProxyRecvBufferThread, pStart.get())) {
        Guarded([&] { m_socketServer = NO_SOCKET; });
        return FALSE;  // the connection closes the socket
    }
    static_cast<void>(pStart.release());
    exchange.HandOver(pConnection);
    return TRUE;
}

inline BOOL CPipeIPC::IsToReceive(CPipeConnection& connection) {
    BOOL bStopRecv = TRUE;  // without an owner
    connection.Owner().Visit([&](CPipeIPC& owner) { bStopRecv = VEXLoadField(owner.m_bStopRecv); });
    return !bStopRecv && !connection.IsStopped();
}

inline void* CPipeIPC::ProxyRecvBufferThread(void* pParamter) {
    std::unique_ptr<RecvStart> pStart(static_cast<RecvStart*>(pParamter));
    const std::shared_ptr<CPipeConnection> pConnection = pStart->pConnection;
    int nResult = 0;
    int nError = 0;
    while (IsToReceive(*pConnection)) {
        CSmartBuffer objMessage;
        nResult = pConnection->Receive(objMessage);
        if (nResult <= 0) {
            nError = nResult < 0 ? errno : 0;
            pv_logEx("ProxyRecvBufferThread:: RecvDataFunc data error =%d", nResult);
            break;
        }
        pv_logEx("ProxyRecvBufferThread:: RecvDataFunc data success");
        const RouteMessageHeader header = PipeMessageHeader(objMessage);
        if (pConnection->TakeReply(objMessage) || !CRouteRules::checkPipeRequestHeader(header)) {
            continue;
        }
        pv_logEx("***********ProxyRecvBufferThread source:session=%d ,obj=%d,dst:session=%d ,obj=%d**************",
                 USHORT{header.Source.SessionID}, USHORT{header.Source.ObjID}, USHORT{header.Destination.SessionID},
                 USHORT{header.Destination.ObjID});
        StartRequestThread(pStart->paramter.pThis, objMessage, pConnection);
    }
    const SOCKET nSocket = pStart->paramter.RemoteSocket;
    pStart.reset();
    // Before the descriptor is closed, and its number perhaps that of the next exchange's connection.
    pConnection->Owner().Visit([nSocket](CPipeIPC& owner) {
        if (owner.m_socketServer == nSocket) {
            owner.m_socketServer = NO_SOCKET;
        }
    });
    pConnection->Close(nResult < 0 ? nResult : 0);
    PipeStateNotify(*pConnection, nError);
    return nullptr;
}

inline void CPipeIPC::PipeStateNotify(CPipeConnection& connection, int nError) {
    PPROCESSSTATE pCallback = nullptr;
    void* pContext = nullptr;
    connection.Owner().Call(
        [&](CPipeIPC& owner) {
            pCallback = owner.m_pProcessStateCallback;
            pContext = owner.m_stateContext;
        },
        [&] {
            if (pCallback != nullptr) {
                pCallback(0, nError, pContext);
            }
        });
}

// Without memory or a thread the message is lost.
inline void CPipeIPC::StartRequestThread(CPipeIPC* pThis, const CSmartBuffer& objMessage,
                                         const std::shared_ptr<CPipeConnection>& pConnection) {
    std::unique_ptr<RequestStart> pStart(new (std::nothrow) RequestStart{{pThis, objMessage}, pConnection});
    pv_logEx("pthread_create ProcessRequsetThread ");
    const BOOL bCopied = pStart != nullptr && pStart->paramter.Buffer.GetSize() == objMessage.GetSize();
    if (bCopied && StartDetached(ProcessRequsetThread, pStart.get())) {
        static_cast<void>(pStart.release());
    } else {
        pv_logEx("pthread_create ProcessRequsetThread error ");
    }
}

inline void* CPipeIPC::ProcessRequsetThread(void* pParamter) {
    const std::unique_ptr<RequestStart> pStart(static_cast<RequestStart*>(pParamter));
    const CSmartBuffer& objMessage = pStart->paramter.Buffer;
    CPipeConnection& connection = *pStart->pConnection;
    const RouteMessageHeader request = PipeMessageHeader(objMessage);
    PPROCESSMESSAGE pCallback = nullptr;
    void* pContext = nullptr;
    CSmartBuffer objReply;
    pv_logEx("******m_pProcessMessageCallback start***************\n");
    connection.Owner().Call(
        [&](CPipeIPC& owner) {
            pCallback = owner.m_pProcessMessageCallback;
            pContext = owner.m_pProcessMessageCallbackParamter;
        },
        [&] {
            if (pCallback != nullptr) {
                pCallback(objMessage.GetBytes() + sizeof request, request.MessageLen, objReply, pContext);
            }
        });
    pv_logEx("******m_pProcessMessageCallback start**end*************\n");
    if ((request.Paramter & MSG_ISREQUESTPACK) == 0) {
        pv_logEx("ProcessRequsetThread::msg.Paramter & MSG_ISREQUESTPACK");
        return nullptr;
    }
    CSmartBuffer objSend;
    PipeBuildMessage(CRouteRules::BuildReplyHeader(request, objReply.GetSize()), objReply.GetAddress(), objSend);
    connection.SendAnswer(objSend, SEND_TIMEOUT);
    return nullptr;
}
