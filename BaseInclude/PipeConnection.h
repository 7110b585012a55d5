// What a CPipeIPC shares with its threads, and what they therefore find in its place when it has gone: the connection
// that requests arrive on, and the way back to the CPipeIPC.
#pragma once

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include "PipeSocket.h"
#include "RouteMessage.h"
#include "SmartBuffer.h"
#include "VEXType.h"

class CPipeIPC;

// The way back, which ends with the CPipeIPC. Any thread.
class CPipeOwner {
public:
    explicit CPipeOwner(CPipeIPC* pOwner) : m_pOwner(pOwner) {}

    // Calls back with the CPipeIPC, which is not destroyed meanwhile; not at all when it has been.
    template <typename TFunction>
    void Visit(TFunction function) {
        const std::lock_guard<std::mutex> lock(m_lock);
        if (m_pOwner != nullptr) {
            function(*m_pOwner);
        }
    }

    void Cut() {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_pOwner = nullptr;
    }

private:
    std::mutex m_lock;
    CPipeIPC* m_pOwner;  // guarded by m_lock
};

// A connection with a receive thread. That thread is the only one that receives and the only one that closes the
// socket, so that nobody ever uses a descriptor that is closed or somebody else's. It hands the reply that an exchange
// waits for to the exchange. Any thread, unless a comment says otherwise.
class CPipeConnection {
public:
    CPipeConnection(CPipeSocket&& socket, std::shared_ptr<CPipeOwner> pOwner)
        : m_socket(std::move(socket)), m_pOwner(std::move(pOwner)) {}

    CPipeOwner& Owner() const { return *m_pOwner; }

    // One message at a time, whole; what was sent in part ends the connection. The bytes sent, or -1. nSocket: what it
    // was sent on, -1 after the receive thread has closed it.
    ssize_t Send(const CSmartBuffer& objMessage, DWORD dwTimeout, SOCKET& nSocket) {
        const std::lock_guard<std::mutex> lock(m_sendLock);
        nSocket = m_socket.Get();
        if (nSocket == CPipeSocket::NO_SOCKET) {
            errno = EBADF;
            return -1;
        }
        const ssize_t nSent = m_socket.Send(objMessage.GetAddress(), objMessage.GetSize(), CPipeDeadline(dwTimeout));
        if (nSent < 0) {
            const int nError = errno;
            m_socket.Shutdown();
            errno = nError;
        }
        return nSent;
    }

    // ---- The exchange ----

    // Before the request is sent: the message that answers it is for WaitForReply.
    void ExpectReply(const RouteMessageHeader& request) {
        const std::lock_guard<std::mutex> lock(m_replyLock);
        m_request = request;
        m_bExpected = TRUE;
    }

    // Results and message as those of RecvDataFunc.
    int WaitForReply(const CPipeDeadline& deadline, CSmartBuffer& objMessage) {
        std::unique_lock<std::mutex> lock(m_replyLock);
        const auto fnIsDecided = [this] { return !m_bExpected || m_bEnded; };
        timeval left = {};
        while (!fnIsDecided() && deadline.TimeLeft(left)) {
            const auto time = std::chrono::seconds(left.tv_sec) + std::chrono::microseconds(left.tv_usec);
            if (time.count() == 0) {
                m_decided.wait(lock, fnIsDecided);
            } else {
                m_decided.wait_for(lock, time, fnIsDecided);
            }
        }
        if (!m_bExpected) {
            objMessage = m_objReply;
            return static_cast<int>(objMessage.GetSize());
        }
        m_bExpected = FALSE;
        return m_bEnded ? m_nResult : -1;
    }

    // Makes the receive thread end. Waits for nobody.
    void Stop() {
        const std::lock_guard<std::mutex> lock(m_stopLock);
        m_bStopped = TRUE;
        if (!m_bClosed) {
            m_socket.Shutdown();
        }
    }

    // ---- The receive thread ----

    BOOL IsStopped() {
        const std::lock_guard<std::mutex> lock(m_stopLock);
        return m_bStopped;
    }

    int Receive(CSmartBuffer& objMessage) { return RecvDataFunc(m_socket, CPipeDeadline(0), objMessage); }

    // TRUE: the message is the reply that is waited for, and has been handed over.
    BOOL TakeReply(const CSmartBuffer& objMessage) {
        const std::lock_guard<std::mutex> lock(m_replyLock);
        if (!m_bExpected || !CRouteRules::checkPipeRspHeader(PipeMessageHeader(objMessage), m_request)) {
            return FALSE;
        }
        m_objReply = objMessage;
        m_bExpected = FALSE;
        m_decided.notify_all();
        return TRUE;
    }

    // The end of receiving, with what Receive has returned.
    void Close(int nResult) {
        m_socket.Shutdown();  // a reply that is being sent does not hold this up
        {
            const std::lock_guard<std::mutex> send(m_sendLock);
            const std::lock_guard<std::mutex> stop(m_stopLock);
            m_bClosed = TRUE;
            m_socket.Close();
        }
        const std::lock_guard<std::mutex> lock(m_replyLock);
        m_bEnded = TRUE;
        m_nResult = nResult;
        m_decided.notify_all();
    }

private:
    std::mutex m_sendLock;  // before m_stopLock
    std::mutex m_stopLock;
    std::mutex m_replyLock;
    CPipeSocket m_socket;  // closed under m_sendLock and m_stopLock
    std::shared_ptr<CPipeOwner> m_pOwner;
    BOOL m_bStopped = FALSE;  // guarded by m_stopLock
    BOOL m_bClosed = FALSE;   // guarded by m_stopLock

    // Guarded by m_replyLock.
    std::condition_variable m_decided;
    RouteMessageHeader m_request = {};
    BOOL m_bExpected = FALSE;
    CSmartBuffer m_objReply;
    BOOL m_bEnded = FALSE;
    int m_nResult = 0;
};
