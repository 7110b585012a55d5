// Shared by the tests of requests from the server: a client that is a service object, with the test's callbacks.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "IpcTest.h"

inline constexpr std::uint16_t kServiceObject = 6116;

// The client's callbacks call these functions of the test. Each callback has a context of its own.
struct Callbacks {
    using Handler = std::function<std::string(const std::string&)>;
    using StateHandler = std::function<void(int nState, int nError)>;

    Handler fnHandle = [](const std::string&) { return std::string(); };
    StateHandler fnState = [](int, int) {};

    void Install(CPipeIPC& client) {
        client.SetProcessMessageCallBack(
            [](PBYTE pbPayload, DWORD dwLength, CSmartBuffer& objReply, void* pContext) -> long {
                const std::string strReply =
                    (*static_cast<Handler*>(pContext))({reinterpret_cast<char*>(pbPayload), dwLength});
                objReply.SetBuffer(strReply.data(), strReply.size());
                return -1;  // ignored
            },
            &fnHandle);
        client.SetPipeStateCallback(
            [](int nState, int nError, void* pContext) { (*static_cast<StateHandler*>(pContext))(nState, nError); },
            &fnState);
    }
};

inline PeerMessage ServerRequest(std::string strPayload, std::uint64_t uParamter = 4) {
    PeerMessage message;
    message.uSourceSession = 3;
    message.uSourceObject = 5;
    message.uSourceCallBack = 1;
    message.uDestinationSession = 900;  // not the client's descriptor, which only replies are addressed to
    message.uDestinationObject = kServiceObject;
    message.uDestinationCallBack = 0;
    message.uSequence = 1000;
    message.uParamter = uParamter;
    message.strPayload = std::move(strPayload);
    return message;
}

class Service : public IpcTest {
protected:
    Service() {
        m_callbacks.fnState = [this](int nState, int nError) {
            m_nState = nState;
            m_nError = nError;
            m_ended.Set();
        };
    }

    // Does an exchange as a service object.
    ExchangeResult ExchangeAsService(CPipeIPC& client, const ScriptedPeer& peer, DWORD dwTimeout = 10000) {
        const socket_calls::Identity identity(kServiceObject);
        m_callbacks.Install(client);
        return DoExchange(client, peer.Object(), "request", dwTimeout);
    }

    // The same with m_client, and waits until its receive thread has ended.
    ExchangeResult DoServiceExchange(const ScriptedPeer& peer, DWORD dwTimeout = 10000) {
        const ExchangeResult result = ExchangeAsService(m_client, peer, dwTimeout);
        m_ended.Wait();
        return result;
    }

    static std::string Line(const PeerMessage& m) {
        return "***********ProxyRecvBufferThread source:session=" + std::to_string(m.uSourceSession) +
               " ,obj=" + std::to_string(m.uSourceObject) + ",dst:session=" + std::to_string(m.uDestinationSession) +
               " ,obj=" + std::to_string(m.uDestinationObject) + "**************";
    }

    // The number of times that the trace has the line.
    static auto Count(const std::string& strLine) {
        const std::vector<std::string> lines = Trace();
        return std::count(lines.begin(), lines.end(), strLine);
    }

    Callbacks m_callbacks;
    Event m_ended;
    int m_nState = -1;
    int m_nError = -1;
    CPipeIPC m_client;
};
