// The connection of one exchange with a server.
#pragma once

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "PipeConnection.h"
#include "PipeLog.h"
#include "PipeSocket.h"
#include "RouteMessage.h"
#include "SmartBuffer.h"
#include "VEXType.h"

// A socket, which passes to a CPipeConnection when a receive thread starts. The destructor ends the connection in both
// cases. Each step writes its lines to the trace.
class CPipeExchange {
public:
    // Milliseconds for each of connecting, registering and sending.
    static constexpr DWORD STEP_TIMEOUT = 10000;

    CPipeExchange() = default;
    CPipeExchange(const CPipeExchange&) = delete;
    CPipeExchange& operator=(const CPipeExchange&) = delete;
    ~CPipeExchange() { End(); }

    CPipeSocket& Socket() { return m_socket; }  // empty after HandOver
    void HandOver(std::shared_ptr<CPipeConnection> pConnection) { m_pConnection = std::move(pConnection); }

    // ulIP: in network byte order.
    BOOL Connect(ULONG ulIP, int nPort) {
        if (!m_socket.Create()) {
            const int nError = errno;
            pv_logEx("ConnectServer::socket failed errno=%d,result=%s", nError, std::strerror(nError));
            return FALSE;
        }
        if (!m_socket.Connect(ulIP, CRouteRules::SocketPort(nPort), CPipeDeadline(STEP_TIMEOUT))) {
            const int nError = errno;
            pv_logEx("ConnectServer::connect  failed errno=%d,result=%s", nError, std::strerror(nError));
            return FALSE;
        }
        return TRUE;
    }

    // A server that closes the connection instead of answering accepts the client.
    BOOL Register(const RegClient& owner) const {
        const RegClient regClient = CRouteRules::BuildRegistration(owner, m_socket.Get());
        pv_logEx("ConnectServer::send regClient start");
        const auto nSent = static_cast<int>(m_socket.Send(&regClient, sizeof regClient, CPipeDeadline(STEP_TIMEOUT)));
        if (nSent != static_cast<int>(sizeof regClient)) {
            pv_logEx("ConnectNamedPipe::send failed error=%d,result=%s", nSent, std::strerror(errno));
            return FALSE;
        }
        pv_logEx("ConnectServer::send regClient end");
        pv_logEx("ConnectServer::recv regClient start");
        BYTE bStatus = CRouteRules::REGISTER_ACCEPTED;
        const auto nReceived =
            static_cast<int>(m_socket.Receive(&bStatus, sizeof bStatus, CPipeDeadline(STEP_TIMEOUT)));
        if (nReceived == -1) {
            pv_logEx("ConnectNamedPipe::recv  failed error=%d,result=%s", nReceived, std::strerror(errno));
            return FALSE;
        }
        pv_logEx("ConnectServer::recv regClient end");
        return bStatus == CRouteRules::REGISTER_ACCEPTED;
    }

    // TRUE: the whole request was sent.
    BOOL Send(const RouteMessageHeader& request, const CSmartBuffer& objMessage) {
        if (m_pConnection == nullptr) {
            const auto nSize = static_cast<ssize_t>(objMessage.GetSize());
            return m_socket.Send(objMessage.GetAddress(), objMessage.GetSize(), CPipeDeadline(STEP_TIMEOUT)) == nSize;
        }
        m_pConnection->ExpectReply(request);
        return m_pConnection->Send(objMessage, STEP_TIMEOUT);
    }

    // Result, message and trace as those of RecvDataFunc.
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
