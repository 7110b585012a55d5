// Requests from the server: the receive thread, the request threads, and what remains of them without their owner.
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <thread>

#include "IpcTest.h"
#include "Scale.h"

namespace {

constexpr std::uint16_t kServiceObject = 6116;

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

PeerMessage ServerRequest(std::string strPayload, std::uint64_t uParamter = 4) {
    PeerMessage message;
    message.uSourceSession = 3;
    message.uSourceObject = 5;
    message.uSourceCallBack = 1;
    message.uDestinationSession = 9;
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

TEST_F(Service, RequestsAreHandledAndAnsweredDuringAnExchange) {
    std::string strAnswer;
    PeerMessage question = ServerRequest("question", 4 | 8 | 2);
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(question.Bytes());
        strAnswer = connection.ReceiveMessage().Bytes();
        connection.Reply(request, "reply");
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    std::string strQuestion;
    m_callbacks.fnHandle = [&](const std::string& strPayload) {
        strQuestion = strPayload;
        return "answer";
    };
    SwitchTraceOn();
    const ExchangeResult result = DoServiceExchange(peer);
    EXPECT_EQ(result.lResult, 0);
    EXPECT_EQ(result.strReply, "reply");
    EXPECT_EQ(strQuestion, "question");

    PeerMessage expected = PeerConnection::ReplyTo(question, "answer");
    EXPECT_EQ(expected.uParamter, 8U | 2U);
    EXPECT_EQ(expected.uSequence, 1001U);
    EXPECT_EQ(strAnswer, expected.Bytes());

    EXPECT_EQ(Count("ProxyRecvBufferThread:: RecvDataFunc data success"), 2);
    EXPECT_EQ(Count(Line(question)), 1);
    EXPECT_EQ(Count("pthread_create ProcessRequsetThread "), 1);
    EXPECT_EQ(Count("******m_pProcessMessageCallback start***************"), 1);
    EXPECT_EQ(Count("******m_pProcessMessageCallback start**end*************"), 1);
}

TEST_F(Service, TraceOfARequestThread) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(ServerRequest("question").Bytes());
        EXPECT_EQ(connection.ReceiveMessage().strPayload, "");
        WaitForTrace("ProcessRequsetThread::send socket(" + std::to_string(request.uSourceSession) + ") ret=34 ");
        connection.Reply(request, "reply");
    });
    SwitchTraceOn();
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0);
}

TEST_F(Service, AnEmptyAnswerIsAHeader) {
    PeerMessage answer;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(ServerRequest("question").Bytes());
        answer = connection.ReceiveMessage();
        connection.Reply(request, "reply");
    });
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0);
    EXPECT_EQ(answer.uLength, 0U);
    EXPECT_EQ(answer.uSequence, 1001U);
}

TEST_F(Service, NotificationsGetNoAnswer) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(ServerRequest("notification", 0xB).Bytes());
        WaitForTrace("ProcessRequsetThread::msg.Paramter & MSG_ISREQUESTPACK");
        connection.Reply(request, "reply");
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    std::string strHandled;
    Event handled;
    m_callbacks.fnHandle = [&](const std::string& strPayload) {
        strHandled = strPayload;
        handled.Set();
        return "nobody wants to know";
    };
    SwitchTraceOn();
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0);
    handled.Wait();
    EXPECT_EQ(strHandled, "notification");
}

TEST_F(Service, OtherMessagesAreDroppedWithoutALine) {
    std::vector<PeerMessage> dropped(4, ServerRequest("dropped"));
    dropped[0].uDestinationObject = 7000;
    dropped[1].uParamter = 16;
    dropped[2].strPayload = "";
    dropped[3].uDestinationObject = 2001;
    PeerMessage privileged = ServerRequest("from 2001");
    privileged.uSourceObject = 2001;
    privileged.uDestinationObject = 7000;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        for (const PeerMessage& message : dropped) {
            connection.Send(message.Bytes());
        }
        connection.Send(privileged.Bytes());
        EXPECT_EQ(connection.ReceiveMessage().strPayload, "answer");
        connection.Reply(request, "reply");
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    std::vector<std::string> handled;
    m_callbacks.fnHandle = [&](const std::string& strPayload) {
        handled.push_back(strPayload);
        return "answer";
    };
    SwitchTraceOn();
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0);
    EXPECT_EQ(handled, std::vector<std::string>{"from 2001"});
    EXPECT_EQ(Count("ProxyRecvBufferThread:: RecvDataFunc data success"), 6);
    EXPECT_EQ(Count("pthread_create ProcessRequsetThread "), 1);
    EXPECT_EQ(Count("RecvDataFunc::msgHeader.MessageLen <= 0"), 1);
    EXPECT_EQ(Count(Line(privileged)), 1);
}

// What does not answer the exchange does not end it either.
TEST_F(Service, AWrongReplyIsNotForTheExchange) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        PeerMessage wrong = PeerConnection::ReplyTo(request, "wrong");
        ++wrong.uSequence;
        wrong.uDestinationObject = 7000;
        connection.Send(wrong.Bytes());
        connection.Reply(request, "right");
        connection.ReceiveToEnd();
    });
    EXPECT_EQ(DoServiceExchange(peer).strReply, "right");
}

TEST_F(Service, ThePeersEndEndsTheThread) {
    ScriptedPeer peer([](PeerConnection& connection) { connection.AcceptRequest(); });
    SwitchTraceOn();
    const ExchangeResult result = DoServiceExchange(peer);
    EXPECT_EQ(result.lResult, 0xE0010005);
    EXPECT_EQ(result.strReply, "before");
    EXPECT_EQ(m_nState, 0);
    EXPECT_EQ(m_nError, 0);
    EXPECT_EQ(Count("ProxyRecvBufferThread:: RecvDataFunc data error =0"), 1);
    // Both of them note it, the exchange and the receive thread.
    EXPECT_EQ(Count("RecvDataFunc::recv header error ret =0 result=Success"), 2);
    const std::vector<std::string> lines = TraceOfThisThread();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines.end()[-2], "RecvDataFunc::recv header error ret =0 result=Success");
    EXPECT_EQ(lines.end()[-1].find("SendMessageAndWait ::RecvMsg  failed result="), 0U);
}

TEST_F(Service, AnEndHasNoErrorNumberWhateverThereWasBefore) {
    ScriptedPeer peer([](PeerConnection& connection) { connection.AcceptRequest(); });
    const socket_calls::AtEndOfConnection end([] {});
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0xE0010005);
    EXPECT_EQ(m_nState, 0);
    EXPECT_EQ(m_nError, 0);
}

TEST_F(Service, AResetHasItsErrorNumber) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.AcceptRequest();
        connection.Reset();
    });
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0xE0010005);
    EXPECT_EQ(m_nState, 0);
    EXPECT_EQ(m_nError, ECONNRESET);
}

TEST_F(Service, AHostileLengthEndsTheThread) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.AcceptRequest();
        PeerMessage message = ServerRequest("bytes");
        message.uLength = std::uint64_t{1} << 63;
        connection.Send(message.Bytes());
        connection.ReceiveToEnd();
    });
    SwitchTraceOn();
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0xE0010005);
    EXPECT_EQ(Count("RecvDataFunc::malloc error"), 1);
    EXPECT_EQ(Count("ProxyRecvBufferThread:: RecvDataFunc data error =-1"), 1);
}

TEST_F(Service, TheExchangesTimeOutEndsTheThread) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.AcceptRequest();
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    SwitchTraceOn();
    const ExchangeResult result = DoServiceExchange(peer, 200);
    EXPECT_EQ(result.lResult, 0xE0010005);
    EXPECT_GE(result.dSeconds, 0.2);
    EXPECT_LT(result.dSeconds, 5);
    const std::vector<std::string> lines = TraceOfThisThread();
    EXPECT_EQ(lines.end()[-2], "RecvDataFunc::recv header error ret =-1 result=Unknown error -1");
}

TEST_F(Service, WithoutATimeOutTheExchangeWaits) {
    ScriptedPeer peer([](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        connection.Reply(request, "at last");
        EXPECT_EQ(connection.ReceiveToEnd(), "");  // it is the reply that ends the wait, and not the connection's end
    });
    EXPECT_EQ(DoServiceExchange(peer, 0).strReply, "at last");
}

TEST_F(Service, NoReceiveThreadWithoutAHandler) {
    ScriptedPeer peer([](PeerConnection& connection) { connection.Reply(connection.AcceptRequest(), "reply"); });
    const socket_calls::Identity identity(kServiceObject);
    // Would fail if it were called.
    const socket_calls::Failure failure("pthread_create", EAGAIN);
    CPipeIPC client;
    EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
    m_callbacks.Install(client);
    client.SetProcessMessageCallBack(nullptr, nullptr);
    EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
}

TEST_F(Service, NoReceiveThreadForOtherIdentities) {
    ScriptedPeer peer([](PeerConnection& connection) { connection.Reply(connection.AcceptRequest(), "reply"); });
    const socket_calls::Identity identity(7000);
    const socket_calls::Failure failure("pthread_create", EAGAIN);
    m_callbacks.Install(m_client);
    EXPECT_EQ(DoExchange(m_client, peer.Object()).lResult, 0);
}

TEST_F(Service, TheReceiveThreadCannotBeStarted) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.Receive(5);
        connection.Send(std::string(1, '\0'));
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    const socket_calls::Identity identity(kServiceObject);
    const socket_calls::Failure failure("pthread_create", EAGAIN);
    m_callbacks.Install(m_client);
    SwitchTraceOn();
    EXPECT_EQ(DoExchange(m_client, peer.Object()).lResult, 0xE0010004);
    const std::vector<std::string> lines = Trace();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines.end()[-3], "ConnectServer::recv regClient end");
    EXPECT_EQ(lines.end()[-2], "ConnectServer failed port =" + std::to_string(peer.Port()));
    EXPECT_EQ(lines.end()[-1], "SendMessageAndWait ::SendMsg  failed ret=-1,result=Unknown error -1");
}

// Answers of any length from several request threads at once, and each of them whole.
TEST_F(Service, AnswersDoNotMix) {
    const int nRequests = Scaled(200);
    constexpr std::size_t cbAnswer = 200000;
    int cAnswers = 0;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        for (int i = 0; i < nRequests; ++i) {
            PeerMessage question = ServerRequest("?");
            question.uSequence = static_cast<std::uint64_t>(i);
            connection.Send(question.Bytes());
        }
        std::vector<bool> answered(static_cast<std::size_t>(nRequests));
        for (int i = 0; i < nRequests; ++i) {
            const PeerMessage answer = connection.ReceiveMessage();
            if (answer.strPayload.size() != cbAnswer || answer.uSequence == 0 ||
                answer.uSequence > static_cast<std::uint64_t>(nRequests) ||
                answer.strPayload.find_first_not_of(answer.strPayload[0]) != std::string::npos) {
                ADD_FAILURE() << "answer " << i << " is not whole";
                return;
            }
            EXPECT_FALSE(answered[answer.uSequence - 1]);
            answered[answer.uSequence - 1] = true;
            ++cAnswers;
        }
        connection.Reply(request, "reply");
    });
    std::atomic<char> chNext = 0;
    m_callbacks.fnHandle = [&](const std::string&) { return std::string(cbAnswer, ++chNext); };
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0);
    EXPECT_EQ(cAnswers, nRequests);
}

// The exchange is over, its owner gone, and a handler still at work.
TEST_F(Service, AHandlerOutlivesItsOwner) {
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
    {
        const socket_calls::Identity identity(kServiceObject);
        m_callbacks.Install(*pClient);
        EXPECT_EQ(DoExchange(*pClient, peer.Object()).lResult, 0);
    }
    m_ended.Wait();
    pClient.reset();
    goOn.Set();
    handled.Wait();
    WaitForTrace("ProcessRequsetThread::send socket(-1) ret=-1 ");
}

// The receive thread learns of the connection's end when the owner has gone. It does not when it has seen before it
// receives again that the exchange is over; then there is another attempt.
TEST_F(Service, NoCallbackBeginsAfterTheOwnersEnd) {
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
        ScriptedPeer peer([](PeerConnection& connection) { connection.Reply(connection.AcceptRequest(), "reply"); });
        std::atomic<int> cCalls = 0;
        m_callbacks.fnState = [&](int, int) { ++cCalls; };
        auto pClient = std::make_unique<CPipeIPC>();
        {
            const socket_calls::Identity identity(kServiceObject);
            m_callbacks.Install(*pClient);
            EXPECT_EQ(DoExchange(*pClient, peer.Object()).lResult, 0);
        }
        EXPECT_TRUE(WaitUntil([&] { return bEnding || cCalls > 0; }));
        const int cBefore = cCalls;
        pClient.reset();
        gone.Set();
        peer.Finish();
        WaitForThreads();
        EXPECT_TRUE(WaitUntil([&] { return cWaiting == 0; }));  // what they wait for goes out of scope
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

// Owners that are destroyed while their receive threads come to an end, with requests under way.
TEST_F(Service, OwnersComeAndGo) {
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

// One owner, one exchange after the other; each has a receive thread of its own.
TEST_F(Service, OneOwnerManyExchanges) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(ServerRequest("question").Bytes());
        EXPECT_EQ(connection.ReceiveMessage().strPayload, "answer");
        connection.Reply(request, "reply");
    });
    m_callbacks.fnHandle = [](const std::string&) { return "answer"; };
    for (int i = 0; i < Scaled(300); ++i) {
        EXPECT_EQ(DoServiceExchange(peer).lResult, 0);
    }
}

}  // namespace
