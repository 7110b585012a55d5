// A client's threads after their owner is destroyed: no callback begins.
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "IpcTest.h"
#include "Scale.h"
#include "ServiceTest.h"

namespace {

using Owner = Service;

// A handler still runs after the exchange has ended and its owner is destroyed.
TEST_F(Owner, AHandlerOutlivesItsOwner) {
    Event handling;
    Event goOn;
    Event handled;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(ServerRequest("question").Bytes());
        handling.Wait();
        connection.Reply(request, "reply");
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    m_callbacks.fnHandle = [&](const std::string& strPayload) {
        handling.Set();
        goOn.Wait();
        handled.Set();
        return strPayload;
    };
    SwitchTraceOn();
    auto pClient = std::make_unique<CPipeIPC>();
    EXPECT_EQ(ExchangeAsService(*pClient, peer).lResult, 0);
    m_ended.Wait();
    pClient.reset();
    goOn.Set();
    handled.Wait();
    WaitForTrace("ProcessRequsetThread::send socket(-1) ret=-1 ");
}

// The receive thread sees the end of the connection after the owner is destroyed. If it sees the end of the exchange
// first, before it receives again, the test makes another attempt.
TEST_F(Owner, NoCallbackBeginsAfterTheOwnersEnd) {
    SwitchTraceOn();
    const auto endsInReceiving = [this] {
        std::atomic<bool> bEnding = false;
        std::atomic<int> cWaiting = 0;
        Event gone;
        const socket_calls::AtEndOfConnection end([&] {
            ++cWaiting;
            bEnding = true;
            gone.Wait();
            --cWaiting;
        });
        ScriptedPeer peer(Replies("reply"));
        std::atomic<int> cCalls = 0;
        m_callbacks.fnState = [&](int, int) { ++cCalls; };
        auto pClient = std::make_unique<CPipeIPC>();
        EXPECT_EQ(ExchangeAsService(*pClient, peer).lResult, 0);
        EXPECT_TRUE(WaitUntil([&] { return bEnding || cCalls > 0; }));
        const int cBefore = cCalls;
        pClient.reset();
        gone.Set();
        peer.Finish();
        WaitForThreads();
        EXPECT_TRUE(WaitUntil([&] { return cWaiting == 0; }));  // they wait for a local variable
        EXPECT_EQ(cCalls, cBefore);
        return cBefore == 0;
    };
    int nAttempts = 1;
    while (!endsInReceiving() && nAttempts < 100) {
        ++nAttempts;
    }
    EXPECT_LT(nAttempts, 100);
    EXPECT_EQ(Count("ProxyRecvBufferThread:: RecvDataFunc data error =0"), 1);
}

TEST_F(Owner, TheDestructorWaitsForAShortCallback) {
    Event handling;
    std::atomic<bool> bHandled = false;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(ServerRequest("question").Bytes());
        handling.Wait();
        connection.Reply(request, "reply");
    });
    m_callbacks.fnHandle = [&](const std::string& strPayload) {
        handling.Set();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        bHandled = true;
        return strPayload;
    };
    auto pClient = std::make_unique<CPipeIPC>();
    EXPECT_EQ(ExchangeAsService(*pClient, peer).lResult, 0);
    pClient.reset();
    EXPECT_TRUE(bHandled);
    peer.Finish();
    WaitForThreads();
}

// Requests keep arriving while the owner is destroyed. No callback begins after that.
TEST_F(Owner, NoCallbackBeginsWhileRequestsKeepArriving) {
    struct Context {
        std::atomic<bool> bGone = false;
    };
    static std::atomic<int> s_cCalls;
    static std::atomic<int> s_cLate;
    s_cCalls = s_cLate = 0;
    const auto note = [](void* pContext) {
        s_cLate += static_cast<Context*>(pContext)->bGone ? 1 : 0;
        ++s_cCalls;
    };
    static const auto s_note = note;
    ScriptedPeer peer([](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        const std::string strRequests = ServerRequest("notification", 0).Bytes() + ServerRequest("question").Bytes();
        connection.Send(strRequests);
        connection.Reply(request, "reply");
        while (connection.Send(strRequests)) {
        }
    });
    const socket_calls::Identity identity(kServiceObject);
    const socket_calls::UserCommand user(nullptr);  // saves a process for each exchange
    const int nClients = Scaled(1000);
    const int nMostClients = 20 * nClients;  // on a busy machine, few get a callback in time
    const auto contexts = std::make_unique<Context[]>(static_cast<std::size_t>(nMostClients));
    for (int i = 0; i < nClients || (i < nMostClients && s_cCalls <= nClients / 4); ++i) {
        auto pClient = std::make_unique<CPipeIPC>();
        pClient->SetProcessMessageCallBack(
            [](PBYTE, DWORD, CSmartBuffer&, void* pContext) -> long {
                s_note(pContext);
                return 0;
            },
            &contexts[i]);
        pClient->SetPipeStateCallback([](int, int, void* pContext) { s_note(pContext); }, &contexts[i]);
        EXPECT_EQ(DoExchange(*pClient, peer.Object()).lResult, 0);
        pClient.reset();
        contexts[i].bGone = true;
    }
    peer.Finish();
    WaitForThreads();
    EXPECT_EQ(s_cLate, 0) << "of " << s_cCalls;
    EXPECT_GT(s_cCalls, nClients / 4);
}

// Owners are destroyed while their receive threads end and requests arrive.
TEST_F(Owner, OwnersAreDestroyedWhileTheirThreadsEnd) {
    static std::atomic<int> s_cCalls;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        for (int i = 0; i < 3; ++i) {
            connection.Send(ServerRequest("question").Bytes());
        }
        connection.Reply(request, "reply");
        connection.Send(ServerRequest("too late").Bytes());
    });
    const socket_calls::Identity identity(kServiceObject);
    for (int i = 0; i < Scaled(500); ++i) {
        CPipeIPC client;
        client.SetProcessMessageCallBack(
            [](PBYTE, DWORD, CSmartBuffer& objReply, void*) -> long {
                ++s_cCalls;
                objReply.SetBuffer("answer", 6);
                return 0;
            },
            nullptr);
        client.SetPipeStateCallback([](int, int, void*) { ++s_cCalls; }, nullptr);
        EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
        client.SetPipeStateCallback(nullptr, nullptr);
    }
    EXPECT_GT(s_cCalls, 0);
}

}  // namespace
