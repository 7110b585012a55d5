// What the tests of requests from the server share: a client that is a service object, with callbacks of the test.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "IpcTest.h"

inline constexpr std::uint16_t kServiceObject = 6116;

// Has the client's callbacks call functions of the test, each its own by its own context.
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
                return -1;  // of no account
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
    message.uDestinationSession = 900;  // no descriptor: that would be a reply's
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

    // An exchange as service object, and the end of its receive thread.
    ExchangeResult DoServiceExchange(const ScriptedPeer& peer, DWORD dwTimeout = 10000) {
        const socket_calls::Identity identity(kServiceObject);
        m_callbacks.Install(m_client);
        const ExchangeResult result = DoExchange(m_client, peer.Object(), "request", dwTimeout);
        m_ended.Wait();
        return result;
    }

    static std::string Line(const PeerMessage& m) {
        return "***********ProxyRecvBufferThread source:session=" + std::to_string(m.uSourceSession) +
               " ,obj=" + std::to_string(m.uSourceObject) + ",dst:session=" + std::to_string(m.uDestinationSession) +
               " ,obj=" + std::to_string(m.uDestinationObject) + "**************";
    }

    // How often the trace has the line.
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
