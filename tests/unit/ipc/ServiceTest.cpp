// Requests from the server: the receive thread and the request threads.
#include "ServiceTest.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "IpcTest.h"
#include "Row.h"
#include "Scale.h"

namespace {

// Access to m_bStopRecv, which ends the receive threads: an explicit instantiation may name a private member.
BOOL& StopRecv(CPipeIPC& client);
template <BOOL CPipeIPC::*pMember>
struct StopRecvAccess {
    friend BOOL& StopRecv(CPipeIPC& client) { return client.*pMember; }
};
template struct StopRecvAccess<&CPipeIPC::m_bStopRecv>;

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

TEST_F(Service, AnEmptyAnswerIsAHeaderAlone) {
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
        return "not sent";
    };
    SwitchTraceOn();
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0);
    handled.Wait();
    EXPECT_EQ(strHandled, "notification");
}

TEST_F(Service, MessagesForOthersAreDroppedWithoutALine) {
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

// A notification from the object that was asked goes to the handler, and the exchange keeps waiting.
TEST_F(Service, ANotificationIsNotTheReply) {
    Event handled;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        PeerMessage notification = ServerRequest("notification", 0);
        notification.uSourceSession = 0;
        notification.uSourceObject = request.uDestinationObject;
        connection.Send(notification.Bytes());
        handled.Wait();
        connection.Reply(request, "reply");
        connection.ReceiveToEnd();
    });
    m_callbacks.fnHandle = [&](const std::string& strPayload) {
        EXPECT_EQ(strPayload, "notification");
        handled.Set();
        return "";
    };
    EXPECT_EQ(DoServiceExchange(peer).strReply, "reply");
}

struct WrongReply : Row {
    std::function<void(PeerMessage&)> fnSpoil;
};

class ServiceReply : public Service, public testing::WithParamInterface<WrongReply> {};

TEST_P(ServiceReply, AWrongReplyFailsTheExchangeAtOnce) {
    ScriptedPeer peer([](PeerConnection& connection) {
        PeerMessage reply = PeerConnection::ReplyTo(connection.AcceptRequest(), "wrong");
        GetParam().fnSpoil(reply);
        connection.Send(reply.Bytes());
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    m_callbacks.fnHandle = [](const std::string& strPayload) {
        ADD_FAILURE() << "handled: " << strPayload;
        return "";
    };
    SwitchTraceOn();
    const ExchangeResult result = DoServiceExchange(peer, 60000);
    EXPECT_EQ(result.lResult, kReceiveFailed);
    EXPECT_EQ(result.strReply, "before");
    EXPECT_LT(result.dSeconds, 15);
    const std::vector<std::string> lines = TraceOfThisThread();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines.end()[-2], "SendMessageAndWait recv start");
    EXPECT_EQ(lines.end()[-1].find("SendMessageAndWait ::RecvMsg  failed result="), 0U);
}

INSTANTIATE_TEST_SUITE_P(, ServiceReply,
                         testing::Values(WrongReply{{"Number"}, [](PeerMessage& m) { ++m.uSequence; }},
                                         WrongReply{{"SourceSession"}, [](PeerMessage& m) { ++m.uSourceSession; }},
                                         WrongReply{{"SourceObject"}, [](PeerMessage& m) { ++m.uSourceObject; }},
                                         WrongReply{{"Flags"}, [](PeerMessage& m) { m.uParamter = 16; }},
                                         WrongReply{{"FlagsOfARequest"}, [](PeerMessage& m) { m.uParamter = 20; }},
                                         WrongReply{{"NoPayload"}, [](PeerMessage& m) { m.strPayload = ""; }},
                                         WrongReply{{"RequestWithoutPayload"},
                                                    [](PeerMessage& m) {
                                                        m.uParamter = 4;
                                                        m.strPayload = "";
                                                    }},
                                         WrongReply{{"NumberAndDestination"},
                                                    [](PeerMessage& m) {
                                                        ++m.uSequence;
                                                        m.uDestinationObject = 7000;
                                                    }}),
                         RowName);

TEST_F(Service, TheEndOfTheConnectionEndsTheThread) {
    ScriptedPeer peer([](PeerConnection& connection) { connection.AcceptRequest(); });
    SwitchTraceOn();
    const ExchangeResult result = DoServiceExchange(peer);
    EXPECT_EQ(result.lResult, kReceiveFailed);
    EXPECT_EQ(result.strReply, "before");
    EXPECT_EQ(m_nState, 0);
    EXPECT_EQ(m_nError, 0);
    EXPECT_EQ(Count("ProxyRecvBufferThread:: RecvDataFunc data error =0"), 1);
    // The exchange and the receive thread both write this line.
    EXPECT_EQ(Count("RecvDataFunc::recv header error ret =0 result=Success"), 2);
    const std::vector<std::string> lines = TraceOfThisThread();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines.end()[-2], "RecvDataFunc::recv header error ret =0 result=Success");
    EXPECT_EQ(lines.end()[-1].find("SendMessageAndWait ::RecvMsg  failed result="), 0U);
}

TEST_F(Service, AnOrderlyEndHasNoErrorNumber) {
    ScriptedPeer peer([](PeerConnection& connection) { connection.AcceptRequest(); });
    const socket_calls::AtEndOfConnection end([] {});
    EXPECT_EQ(DoServiceExchange(peer).lResult, kReceiveFailed);
    EXPECT_EQ(m_nState, 0);
    EXPECT_EQ(m_nError, 0);
}

TEST_F(Service, AResetHasItsErrorNumber) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.AcceptRequest();
        connection.Reset();
    });
    EXPECT_EQ(DoServiceExchange(peer).lResult, kReceiveFailed);
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
    EXPECT_EQ(DoServiceExchange(peer).lResult, kReceiveFailed);
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
    EXPECT_EQ(result.lResult, kReceiveFailed);
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
        EXPECT_EQ(connection.ReceiveToEnd(), "");  // the reply ends the wait, not the end of the connection
    });
    EXPECT_EQ(DoServiceExchange(peer, 0).strReply, "at last");
}

TEST_F(Service, NoReceiveThreadWithoutAHandler) {
    ScriptedPeer peer(Replies("reply"));
    const socket_calls::Identity identity(kServiceObject);
    // Starting a thread would fail.
    const socket_calls::Failure failure("pthread_create", EAGAIN);
    CPipeIPC client;
    EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
    m_callbacks.Install(client);
    client.SetProcessMessageCallBack(nullptr, nullptr);
    EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
}

TEST_F(Service, NoReceiveThreadForOtherIdentities) {
    ScriptedPeer peer(Replies("reply"));
    const socket_calls::Identity identity(7000);
    const socket_calls::Failure failure("pthread_create", EAGAIN);
    m_callbacks.Install(m_client);
    EXPECT_EQ(DoExchange(m_client, peer.Object()).lResult, 0);
}

TEST_F(Service, FailsWhenTheReceiveThreadCannotStart) {
    ScriptedPeer peer([](PeerConnection& connection) {
        AcceptRegistration(connection);
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    const socket_calls::Identity identity(kServiceObject);
    const socket_calls::Failure failure("pthread_create", EAGAIN);
    m_callbacks.Install(m_client);
    SwitchTraceOn();
    EXPECT_EQ(DoExchange(m_client, peer.Object()).lResult, kSendFailed);
    const std::vector<std::string> lines = Trace();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines.end()[-3], "ConnectServer::recv regClient end");
    EXPECT_EQ(lines.end()[-2], "ConnectServer failed port =" + std::to_string(peer.Port()));
    EXPECT_EQ(lines.end()[-1], "SendMessageAndWait ::SendMsg  failed ret=-1,result=Unknown error -1");
}

// Several request threads answer at once; each answer arrives whole.
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

// The line of an answer is written before the next answer is sent.
TEST_F(Service, LinesComeInTheOrderOfTheAnswers) {
    const int nRequests = Scaled(400);
    std::vector<std::string> expected;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        for (int i = 0; i < nRequests; ++i) {
            connection.Send(ServerRequest("?").Bytes());
        }
        const std::string strLine = "ProcessRequsetThread::send socket(" + std::to_string(request.uSourceSession);
        for (int i = 0; i < nRequests; ++i) {
            expected.push_back(strLine + ") ret=" + std::to_string(connection.ReceiveMessage().Bytes().size()) + " ");
        }
        WaitForTrace(expected.back());
        connection.Reply(request, "reply");
    });
    std::atomic<std::size_t> cAnswers = 0;
    m_callbacks.fnHandle = [&](const std::string&) { return std::string(++cAnswers, 'x'); };
    SwitchTraceOn();
    EXPECT_EQ(DoServiceExchange(peer).lResult, 0);
    std::vector<std::string> lines = Trace();
    std::erase_if(lines,
                  [](const std::string& strLine) { return strLine.find("ProcessRequsetThread::send socket(") != 0; });
    EXPECT_EQ(lines, expected);
}

TEST_F(Service, AnAnswerThatCannotBeSentIsOnlyLogged) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(ServerRequest("cannot be answered").Bytes());
        WaitForTrace("ProcessRequsetThread::send socket(" + std::to_string(request.uSourceSession) + ") ret=-1 ");
        connection.Send(ServerRequest("can be answered").Bytes());
        EXPECT_EQ(connection.ReceiveMessage().strPayload, "answer");
        connection.Reply(request, "reply");
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    std::optional<socket_calls::Failure> failure;
    m_callbacks.fnHandle = [&](const std::string& strPayload) {
        if (strPayload == "cannot be answered") {
            failure.emplace("send", ENOBUFS);  // for the calling thread, which also sends the answer
        }
        return "answer";
    };
    SwitchTraceOn();
    const ExchangeResult result = DoServiceExchange(peer);
    EXPECT_EQ(result.lResult, 0);
    EXPECT_EQ(result.strReply, "reply");
}

TEST_F(Service, StopRecvEndsTheThread) {
    Event stopped;
    ScriptedPeer peer([&](PeerConnection& connection) {
        connection.AcceptRequest();
        connection.Send(ServerRequest("stop", 0).Bytes());
        stopped.Wait();
        connection.Send(ServerRequest("for a thread that waits", 0).Bytes());
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    m_callbacks.fnHandle = [&](const std::string&) {
        __atomic_store_n(&StopRecv(m_client), TRUE, __ATOMIC_RELAXED);
        stopped.Set();
        return "";
    };
    SwitchTraceOn();
    const ExchangeResult result = DoServiceExchange(peer, 60000);
    EXPECT_EQ(result.lResult, kReceiveFailed);
    EXPECT_LT(result.dSeconds, 15);
    EXPECT_EQ(m_nState, 0);
    EXPECT_EQ(m_nError, 0);
    EXPECT_EQ(TraceOfThisThread().end()[-2], "RecvDataFunc::recv header error ret =0 result=Success");
    // The flag ends with the exchange in which it was set.
    peer.Finish();
    WaitForThreads();
    ScriptedPeer next(Replies("reply"));
    EXPECT_EQ(DoServiceExchange(next).strReply, "reply");
}

// Each exchange has a receive thread of its own.
TEST_F(Service, OneOwnerDoesManyExchanges) {
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
