// What a CPipeIPC shares with its threads: the connection that requests arrive on, and the way back to the CPipeIPC.
// The threads may outlive the CPipeIPC, so they hold these objects instead of it.
#pragma once

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <utility>

#include "PipeLog.h"
#include "PipeSocket.h"
#include "RouteMessage.h"
#include "SmartBuffer.h"
#include "VEXMutex.h"
#include "VEXThreadSafety.h"
#include "VEXType.h"

class CPipeIPC;

// The way back to a CPipeIPC, as long as that exists. Any thread.
class CPipeOwner {
public:
    explicit CPipeOwner(CPipeIPC* pOwner) : m_pOwner(pOwner) {}

    // Calls function with the CPipeIPC, which cannot be destroyed during the call. Does nothing when it is gone.
    template <typename TFunction>
    void Visit(TFunction function) {
        const CVEXLock lock(m_lock);
        if (m_pOwner != nullptr) {
            function(*m_pOwner);
        }
    }

    // Visits with fnChoose, then runs fnCall without the lock. fnCall is a callback of the CPipeIPC; Cut waits for it.
    template <typename TChoose, typename TCall>
    void Call(TChoose fnChoose, TCall fnCall) {
        {
            const CVEXLock lock(m_lock);
            if (m_pOwner == nullptr) {
                return;
            }
            fnChoose(*m_pOwner);
            ++m_cCalls;
            m_lastCall = Clock::now();
        }
        fnCall();
        const CVEXLock lock(m_lock);
        --m_cCalls;
        m_called.notify_all();
    }

    // Ends the way back. Waits until all calls have returned, but at most a second from the start of the last one.
    // A callback that Call has chosen begins within that second, unless its thread gets no processor time.
    void Cut() {
        CVEXWaitLock lock(m_lock);
        m_pOwner = nullptr;
        const auto fnReturned = [this]() VEX_REQUIRES(m_lock) { return m_cCalls == 0; };
        m_called.wait_until(lock.ForWait(), m_lastCall + std::chrono::seconds(1), fnReturned);
    }

private:
    using Clock = std::chrono::steady_clock;

    CVEXMutex m_lock;
    std::condition_variable m_called;
    CPipeIPC* m_pOwner VEX_GUARDED_BY(m_lock);
    int m_cCalls VEX_GUARDED_BY(m_lock) = 0;
    Clock::time_point m_lastCall VEX_GUARDED_BY(m_lock) = {};
};

// A connection with a receive thread. Only that thread receives and closes the socket, so that no thread uses a
// descriptor that is closed or already reused. It passes the reply to the exchange that waits for it. Any thread,
// unless a comment says otherwise.
class CPipeConnection {
public:
    CPipeConnection(CPipeSocket&& socket, std::shared_ptr<CPipeOwner> pOwner)
        : m_socket(std::move(socket)), m_pOwner(std::move(pOwner)) {}

    CPipeOwner& Owner() const { return *m_pOwner; }

    // Sends one message at a time. dwTimeout: milliseconds, 0 for ever. TRUE: all of it was sent. A message that was
    // sent in part ends the connection.
    BOOL Send(const CSmartBuffer& objMessage, DWORD dwTimeout) {
        const CVEXLock lock(m_sendLock);
        return SendOne(objMessage, dwTimeout) == static_cast<ssize_t>(objMessage.GetSize());
    }

    // The same for the answer to a request from the server. Writes its trace line before the next message is sent.
    void SendAnswer(const CSmartBuffer& objMessage, DWORD dwTimeout) {
        const CVEXLock lock(m_sendLock);
        const SOCKET nSocket = m_socket.Get();  // -1 after the receive thread has closed it
        const auto nSent = static_cast<int>(SendOne(objMessage, dwTimeout));
        pv_logEx("ProcessRequsetThread::send socket(%d) ret=%d ", nSocket, nSent);
    }

    // ---- The exchange ----

    // To be called before the request is sent. From then on the reply goes to WaitForReply.
    void ExpectReply(const RouteMessageHeader& request) {
        const CVEXLock lock(m_replyLock);
        m_request = request;
        m_bExpected = TRUE;
    }

    // Result and message as those of RecvDataFunc. The caller checks whether the reply is right.
    int WaitForReply(const CPipeReplyTime& time, CSmartBuffer& objMessage) {
        CVEXWaitLock lock(m_replyLock);
        m_pTime = &time;
        m_deadline = time.NextReceive();
        const auto fnIsDecided = [this]() VEX_REQUIRES(m_replyLock) { return !m_bExpected || m_bEnded; };
        timeval left = {};
        while (!fnIsDecided() && m_deadline.TimeLeft(left)) {
            const auto wait = std::chrono::seconds(left.tv_sec) + std::chrono::microseconds(left.tv_usec);
            if (wait.count() == 0) {
                m_decided.wait(lock.ForWait(), fnIsDecided);
            } else {
                m_decided.wait_for(lock.ForWait(), wait, fnIsDecided);
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

    // Makes the receive thread end. Does not wait for it.
    void Stop() {
        const CVEXLock lock(m_stopLock);
        m_bStopped = TRUE;
        if (!m_bClosed) {
            m_socket.Shutdown();
        }
    }

    // ---- The receive thread ----

    BOOL IsStopped() {
        const CVEXLock lock(m_stopLock);
        return m_bStopped;
    }

    // Has no time-out: the exchange has one, and stops this connection.
    int Receive(CSmartBuffer& objMessage) {
        const auto fnNextReceive = [this] {
            const CVEXLock lock(m_replyLock);
            if (m_pTime != nullptr) {
                m_deadline = m_pTime->NextReceive();
            }
            return CPipeDeadline(0);
        };
        return RecvDataFunc(m_socket, fnNextReceive, objMessage);
    }

    // TRUE: the message is the expected reply, right or wrong, and went to the exchange.
    BOOL TakeReply(const CSmartBuffer& objMessage) {
        const CVEXLock lock(m_replyLock);
        if (!m_bExpected || !CRouteRules::IsReply(PipeMessageHeader(objMessage), m_request)) {
            return FALSE;
        }
        m_objReply = objMessage;
        m_bExpected = FALSE;
        m_decided.notify_all();
        return TRUE;
    }

    // Ends receiving. nResult: what the failed Receive returned, otherwise 0.
    void Close(int nResult) {
        m_socket.Shutdown();  // first, so that an answer in progress fails and releases its lock
        {
            const CVEXLock send(m_sendLock);
            const CVEXLock stop(m_stopLock);
            m_bClosed = TRUE;
            m_socket.Close();
        }
        const CVEXLock lock(m_replyLock);
        m_bEnded = TRUE;
        m_nResult = nResult;
        m_decided.notify_all();
    }

private:
    // As m_socket.Send.
    ssize_t SendOne(const CSmartBuffer& objMessage, DWORD dwTimeout) VEX_REQUIRES(m_sendLock) {
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

    CVEXMutex m_sendLock;  // taken before m_stopLock
    CVEXMutex m_stopLock;
    CVEXMutex m_replyLock;
    CPipeSocket m_socket;  // closed under m_sendLock and m_stopLock
    std::shared_ptr<CPipeOwner> m_pOwner;
    BOOL m_bStopped VEX_GUARDED_BY(m_stopLock) = FALSE;
    BOOL m_bClosed VEX_GUARDED_BY(m_stopLock) = FALSE;

    std::condition_variable m_decided;
    const CPipeReplyTime* m_pTime VEX_GUARDED_BY(m_replyLock) = nullptr;  // of the exchange, while it waits
    CPipeDeadline m_deadline VEX_GUARDED_BY(m_replyLock){0};              // of the current receive, for the exchange
    RouteMessageHeader m_request VEX_GUARDED_BY(m_replyLock) = {};
    BOOL m_bExpected VEX_GUARDED_BY(m_replyLock) = FALSE;
    CSmartBuffer m_objReply VEX_GUARDED_BY(m_replyLock);
    BOOL m_bEnded VEX_GUARDED_BY(m_replyLock) = FALSE;
    int m_nResult VEX_GUARDED_BY(m_replyLock) = 0;
};
