// What a CPipeIPC shares with its threads, and what they therefore find in its place when it has gone: the connection
// that requests arrive on, and the way back to the CPipeIPC.
#pragma once

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include "PipeLog.h"
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

    // As Visit with fnChoose, and then runs fnCall, without the lock: a callback of the CPipeIPC, for which Cut waits.
    template <typename TChoose, typename TCall>
    void Call(TChoose fnChoose, TCall fnCall) {
        {
            const std::lock_guard<std::mutex> lock(m_lock);
            if (m_pOwner == nullptr) {
                return;
            }
            fnChoose(*m_pOwner);
            ++m_cCalls;
            m_lastCall = Clock::now();
        }
        fnCall();
        const std::lock_guard<std::mutex> lock(m_lock);
        --m_cCalls;
        m_called.notify_all();
    }

    // The end of the CPipeIPC. Waits until the calls have returned, or a second after the last of them was let through.
    // Nobody sees when a callback begins; a second is enough unless its thread does not run at all in that time.
    void Cut() {
        std::unique_lock<std::mutex> lock(m_lock);
        m_pOwner = nullptr;
        m_called.wait_until(lock, m_lastCall + std::chrono::seconds(1), [this] { return m_cCalls == 0; });
    }

private:
    using Clock = std::chrono::steady_clock;

    std::mutex m_lock;
    std::condition_variable m_called;

    // Guarded by m_lock.
    CPipeIPC* m_pOwner;
    int m_cCalls = 0;
    Clock::time_point m_lastCall = {};
};

// A connection with a receive thread. That thread is the only one that receives and the only one that closes the
// socket, so that nobody ever uses a descriptor that is closed or somebody else's. It hands the reply that an exchange
// waits for to the exchange. Any thread, unless a comment says otherwise.
class CPipeConnection {
public:
    CPipeConnection(CPipeSocket&& socket, std::shared_ptr<CPipeOwner> pOwner)
        : m_socket(std::move(socket)), m_pOwner(std::move(pOwner)) {}

    CPipeOwner& Owner() const { return *m_pOwner; }

    // One message at a time, whole: FALSE if it is not; what was sent in part ends the connection.
    BOOL Send(const CSmartBuffer& objMessage, DWORD dwTimeout) {
        const std::lock_guard<std::mutex> lock(m_sendLock);
        return SendOne(objMessage, dwTimeout) == static_cast<ssize_t>(objMessage.GetSize());
    }

    // The same for the answer to a request of the server. Its line comes before the next message is sent.
    void SendAnswer(const CSmartBuffer& objMessage, DWORD dwTimeout) {
        const std::lock_guard<std::mutex> lock(m_sendLock);
        const SOCKET nSocket = m_socket.Get();  // -1 after the receive thread has closed it
        const auto nSent = static_cast<int>(SendOne(objMessage, dwTimeout));
        pv_logEx("ProcessRequsetThread::send socket(%d) ret=%d ", nSocket, nSent);
    }

    // ---- The exchange ----

    // Before the request is sent: the message that answers it is for WaitForReply.
    void ExpectReply(const RouteMessageHeader& request) {
        const std::lock_guard<std::mutex> lock(m_replyLock);
        m_request = request;
        m_bExpected = TRUE;
    }

    // Results and message as those of RecvDataFunc. The reply may be a wrong one.
    int WaitForReply(const CPipeReplyTime& time, CSmartBuffer& objMessage) {
        std::unique_lock<std::mutex> lock(m_replyLock);
        m_pTime = &time;
        m_deadline = time.NextReceive();
        const auto fnIsDecided = [this] { return !m_bExpected || m_bEnded; };
        timeval left = {};
        while (!fnIsDecided() && m_deadline.TimeLeft(left)) {
            const auto wait = std::chrono::seconds(left.tv_sec) + std::chrono::microseconds(left.tv_usec);
            if (wait.count() == 0) {
                m_decided.wait(lock, fnIsDecided);
            } else {
                m_decided.wait_for(lock, wait, fnIsDecided);
            }
        }
        m_pTime = nullptr;
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

    // Waits for ever; it is the exchange that does not.
    int Receive(CSmartBuffer& objMessage) {
        const auto fnNextReceive = [this] {
            const std::lock_guard<std::mutex> lock(m_replyLock);
            if (m_pTime != nullptr) {
                m_deadline = m_pTime->NextReceive();
            }
            return CPipeDeadline(0);
        };
        return RecvDataFunc(m_socket, fnNextReceive, objMessage);
    }

    // TRUE: the message is the reply that is waited for, right or wrong, and has been handed over.
    BOOL TakeReply(const CSmartBuffer& objMessage) {
        const std::lock_guard<std::mutex> lock(m_replyLock);
        if (!m_bExpected || !CRouteRules::IsReply(PipeMessageHeader(objMessage), m_request)) {
            return FALSE;
        }
        m_objReply = objMessage;
        m_bExpected = FALSE;
        m_decided.notify_all();
        return TRUE;
    }

    // The end of receiving, with what the failing Receive has returned, else 0.
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
    // As m_socket.Send. With m_sendLock.
    ssize_t SendOne(const CSmartBuffer& objMessage, DWORD dwTimeout) {
        if (m_socket.Get() == CPipeSocket::NO_SOCKET) {
            errno = EBADF;
            return -1;
        }
        const auto nSize = static_cast<ssize_t>(objMessage.GetSize());
        const ssize_t nSent = m_socket.Send(objMessage.GetAddress(), objMessage.GetSize(), CPipeDeadline(dwTimeout));
        if (nSent >= 0 && nSent < nSize) {
            const int nError = errno;
            m_socket.Shutdown();
            errno = nError;
        }
        return nSent;
    }

    std::mutex m_sendLock;  // before m_stopLock
    std::mutex m_stopLock;
    std::mutex m_replyLock;
    CPipeSocket m_socket;  // closed under m_sendLock and m_stopLock
    std::shared_ptr<CPipeOwner> m_pOwner;
    BOOL m_bStopped = FALSE;  // guarded by m_stopLock
    BOOL m_bClosed = FALSE;   // guarded by m_stopLock

    // Guarded by m_replyLock.
    std::condition_variable m_decided;
    const CPipeReplyTime* m_pTime = nullptr;  // of the exchange, while it waits
    CPipeDeadline m_deadline{0};              // of the receive that is going on, for the exchange
    RouteMessageHeader m_request = {};
    BOOL m_bExpected = FALSE;
    CSmartBuffer m_objReply;
    BOOL m_bEnded = FALSE;
    int m_nResult = 0;
};
