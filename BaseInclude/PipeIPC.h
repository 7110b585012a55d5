// The IPC client. docs/wire-protocol.md draws the bytes that cross the socket.
#pragma once

#include <netinet/in.h>
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
#include <new>
#include <utility>

#include "PipeConnection.h"
#include "PipeExchange.h"
#include "PipeLog.h"
#include "PipeRecords.h"
#include "PipeSocket.h"
#include "RouteMessage.h"
#include "SmartBuffer.h"
#include "VEXAtomicField.h"
#include "VEXCompat.h"
#include "VEXForkPause.h"
#include "VEXType.h"

// The client end of the route-message protocol. Each exchange opens a connection of its own and closes it at its end.
//
// The default constructor seeds rand() with the time and makes the process ignore SIGPIPE. The ForForkedChild
// constructor does neither. A forked child uses it to replace its parent's object, when the child's program may already
// have made its own choices about both.
//
// Requests from the server: each exchange has a random identity. When that is a service object and a request handler
// is set, a receive thread reads the connection until the exchange ends. Each request that arrives meanwhile is handled
// on a thread of its own. Without a handler there is no receive thread.
//
// Nobody joins these threads. The destructor waits for running callbacks, but at most one second from the time when the
// last one was started. After the destructor no callback begins, unless its thread got no processor time for that whole
// second. A longer callback may still run, and so may the receive thread for a moment: what the callbacks use must
// outlive them. The reply of a late handler is dropped. A callback may use its context, its arguments, and any CPipeIPC
// except the one that it serves.
//
// Out of memory: the exchange fails, or throws std::bad_alloc when it cannot start a receive thread.
class CPipeIPC {
public:
    struct ForForkedChild {};

    CPipeIPC() : CPipeIPC(ForForkedChild{}) {
        {
            const CVEXForkPause pause;
            std::srand(static_cast<unsigned int>(std::time(nullptr)));  // NOLINT(cert-msc32-c,cert-msc51-cpp)
        }
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

    // Sends a request to an object of a session on this machine and waits for the reply. One exchange at a time.
    // Trace: PipeLog.h.
    //
    // pbPayload, dwLength: null or 0 bytes for an empty request. dwTimeout: milliseconds for each receive of the reply,
    // 0 for ever; the whole reply has ten times as long. Connecting, registering and sending have ten seconds each.
    // 0: objReply holds the reply's payload and nothing else. PIPE_ERROR_SEND or PIPE_ERROR_RECEIVE: objReply is
    // unchanged, or empty when memory for the payload ran out.
    long SendMessageAndWait(USHORT usDstSessionID, USHORT usDstObjID, PBYTE pbPayload, DWORD dwLength,
                            CSmartBuffer& objReply, DWORD dwTimeout);

    // Null: no callback. Do not call these during an exchange. Later exchanges and callbacks use the new values.
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

    // What the threads receive. They must not use the CPipeIPC of the records: it may be gone.
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
    int SendMsg(CPipeExchange& exchange, RouteMessageHeader& request, const BYTE* pbPayload);
    SOCKET ConnectServer(CPipeExchange& exchange, int nPort);
    BOOL StartReceiving(CPipeExchange& exchange);
    static int RecvMsg(CPipeExchange& exchange, const RouteMessageHeader& request, DWORD dwTimeout,
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

    // Changes what receive threads read: the callbacks and their contexts. No receive thread runs before m_pOwner
    // exists.
    template <typename TFunction>
    void Guarded(TFunction function) {
        if (m_pOwner != nullptr) {
            m_pOwner->Visit([&](CPipeIPC&) { function(); });
        } else {
            function();
        }
    }

    SOCKET m_socket = NO_SOCKET;  // of the server role
    BOOL m_StopServer = FALSE;
    std::list<ClientInfo> m_listClientInfo;               // unused
    PPROCESSMESSAGE m_pProcessMessageCallback = nullptr;  // the callbacks and contexts: changed in Guarded
    PPROCESSSTATE m_pProcessStateCallback = nullptr;
    void* m_pProcessMessageCallbackParamter = nullptr;
    SOCKET m_socketServer = NO_SOCKET;   // the connection of the receive thread, which closes it
    pthread_mutex_t m_socketServerLock;  // unused: answers may outlive this object, CPipeConnection locks them
    RegClient m_OwnerInfo = {};          // this client's identity
    BOOL m_bClientInit = FALSE;
    std::list<RouteMessage> m_listRecvReponseMsg;  // unused
    BOOL m_bStopRecv = FALSE;                      // atomic access; a receive thread runs while it is FALSE
    BOOL m_bConnectState = FALSE;                  // TRUE after a server has accepted the client
    [[maybe_unused]] BOOL m_AutoReConnect = TRUE;
    ULONG m_ServerIP = 0;  // in network byte order
    [[maybe_unused]] USHORT m_ServerPort = 0;
    [[maybe_unused]] HANDLE m_hRecvMsgHandle = nullptr;
    [[maybe_unused]] DWORD m_timeout = 10000;  // milliseconds
    pthread_mutex_t m_listRecLock;
    pthread_mutex_t m_ClientInfoLock;
    pthread_mutex_t ClientLock;
    void* m_stateContext = nullptr;        // the state callback's
    std::shared_ptr<CPipeOwner> m_pOwner;  // created with the first receive thread
};

// ---- The exchange ----

inline long CPipeIPC::SendMessageAndWait(USHORT usDstSessionID, USHORT usDstObjID, PBYTE pbPayload, DWORD dwLength,
                                         CSmartBuffer& objReply, DWORD dwTimeout) {
    SetOwnerID();
    RouteMessageHeader request = CRouteRules::BuildRequestHeader(m_OwnerInfo, NO_SOCKET, usDstSessionID, usDstObjID,
                                                                 GetTickCount(), pbPayload != nullptr ? dwLength : 0);
    pv_logEx("******************SendMessageAndWait send start****************client******");
    CPipeExchange exchange;
    const int nSent = SendMsg(exchange, request, pbPayload);
    if (nSent <= 0) {  // descriptor 0 counts as a failure, too
        pv_logEx("SendMessageAndWait ::SendMsg  failed ret=%d,result=%s", nSent, std::strerror(nSent));
        return PIPE_ERROR_SEND;
    }
    pv_logEx("SendMessageAndWait send end");
    pv_logEx("SendMessageAndWait recv start");
    CSmartBuffer objMessage;
    if (RecvMsg(exchange, request, dwTimeout, objMessage) <= 0) {
        pv_logEx("SendMessageAndWait ::RecvMsg  failed result=%s",
                 std::strerror(nSent));  // nSent is a descriptor, not an error, but the line keeps its form
        return PIPE_ERROR_RECEIVE;
    }
    pv_logEx("*************SendMessageAndWait recv end********* client******");
    const DWORD dwReply = objMessage.GetSize() - sizeof request;
    return objReply.SetBuffer(objMessage.GetBytes() + sizeof request, dwReply) != nullptr ? 0 : PIPE_ERROR_RECEIVE;
}

// A new identity for every exchange.
inline void CPipeIPC::SetOwnerID() {
    timeval time = {};
    gettimeofday(&time, nullptr);
    int nRandom = 0;
    {
        const CVEXForkPause pause;
        nRandom = std::rand();  // NOLINT(cert-msc30-c,cert-msc50-cpp): tells clients apart
    }
    m_OwnerInfo.ObjID = static_cast<USHORT>(nRandom % 65535 + time.tv_usec);
    m_OwnerInfo.SessionID = GetAccountId();
}

// The user's number from the command "id -u"; 0 when the command cannot run.
inline USHORT CPipeIPC::GetAccountId() {
    constexpr std::size_t nMost = 32;
    char szOutput[nMost + 1] = {};
    std::size_t nLength = 0;
    std::FILE* pPipe = nullptr;
    {
        const CVEXForkPause pause;
        pPipe = popen("id -u", "re");  // NOLINT(cert-env33-c): a constant command
    }
    if (pPipe != nullptr) {
        for (ssize_t nRead = 1; nRead != 0 && nLength < nMost;) {
            nRead = read(fileno(pPipe), szOutput + nLength, nMost - nLength);
            if (nRead < 0 && errno != EINTR) {
                break;
            }
            nLength += nRead < 0 ? 0 : static_cast<std::size_t>(nRead);
        }
        const CVEXForkPause pause;
        pclose(pPipe);
    }
    if (nLength > 0 && szOutput[nLength - 1] == '\n') {
        szOutput[nLength - 1] = 0;
    }
    return static_cast<USHORT>(std::strtol(szOutput, nullptr, 10));
}

// Connects and sends. Returns the descriptor, or -1 on failure. Stores the descriptor as the session of the request's
// source.
inline int CPipeIPC::SendMsg(CPipeExchange& exchange, RouteMessageHeader& request, const BYTE* pbPayload) {
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

// Connects and registers. Returns the descriptor, or NO_SOCKET on failure.
inline SOCKET CPipeIPC::ConnectServer(CPipeExchange& exchange, int nPort) {
    m_ServerIP = htonl(INADDR_LOOPBACK);
    VEXStoreField(m_bStopRecv, FALSE);  // the receive thread of an earlier exchange may still read it
    if (!exchange.Connect(m_ServerIP, nPort)) {
        return NO_SOCKET;
    }
    const SOCKET nSocket = exchange.Socket().Get();
    if (!exchange.Register(m_OwnerInfo)) {
        return NO_SOCKET;
    }
    // Reads the handler without a lock: only this thread sets it.
    if (CRouteRules::IsServiceObject(m_OwnerInfo.ObjID) && m_pProcessMessageCallback != nullptr &&
        !StartReceiving(exchange)) {
        return NO_SOCKET;
    }
    m_bConnectState = TRUE;
    return nSocket;
}

// Receives the reply, header included, and ends the exchange. Results as those of RecvDataFunc; -1 also when the reply
// does not answer the request.
inline int CPipeIPC::RecvMsg(CPipeExchange& exchange, const RouteMessageHeader& request, DWORD dwTimeout,
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

inline BOOL CPipeIPC::StartReceiving(CPipeExchange& exchange) {
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
    BOOL bStopRecv = TRUE;  // if the owner is gone
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
    // Before Close: once the descriptor is closed, the next exchange may get its number.
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

// The message is lost when memory runs out or no thread can be started.
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
    connection.SendAnswer(objSend, CPipeExchange::STEP_TIMEOUT);
    return nullptr;
}
