// Successful exchanges, with every byte sent and every line traced, and the identity of the client.
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "IpcTest.h"
#include "VEXCompat.h"

namespace {

class Exchange : public IpcTest {};

TEST_F(Exchange, BytesOnTheWire) {
    std::string strRegistration;
    PeerMessage request;
    std::string strRest;
    ScriptedPeer peer([&](PeerConnection& connection) {
        strRegistration = AcceptRegistration(connection);
        request = connection.ReceiveMessage();
        connection.Reply(request, "the reply");
        strRest = connection.ReceiveToEnd();
    });
    const socket_calls::Identity identity(4711);
    const socket_calls::UserCommand user("echo 65546");  // 10 in 16 bits
    const DWORD dwBefore = GetTickCount();
    CPipeIPC client;
    const ExchangeResult result = DoExchange(client, peer.Object(), "payload");
    EXPECT_EQ(result.lResult, 0);
    EXPECT_EQ(result.strReply, "the reply");
    peer.Finish();

    const auto uSocket = static_cast<std::uint16_t>(socket_calls::LastSocket());
    EXPECT_EQ(strRegistration, Bytes16(uSocket) + Bytes16(4711) + std::string(1, '\0'));
    EXPECT_GE(request.uSequence, dwBefore);
    EXPECT_LE(request.uSequence, GetTickCount());
    PeerMessage expected;
    expected.uSourceSession = uSocket;
    expected.uSourceObject = 4711;
    expected.uDestinationSession = 0;
    expected.uDestinationObject = peer.Object();
    expected.uSequence = request.uSequence;
    expected.uParamter = 4;
    expected.strPayload = "payload";
    EXPECT_EQ(request.Bytes(), expected.Bytes());
    EXPECT_EQ(request.strPayload, "payload");
    EXPECT_EQ(strRest, "");
}

TEST_F(Exchange, ServiceObjectsRegisterTheUser) {
    std::string strRegistration;
    PeerMessage request;
    ScriptedPeer peer([&](PeerConnection& connection) {
        strRegistration = AcceptRegistration(connection);
        request = connection.ReceiveMessage();
        connection.Reply(request, "r");
    });
    CPipeIPC client;
    for (const int nObject : {2003, 2004, 2005, 2006, 4003, 6115, 6116, 22000, 32001, 42002}) {
        const auto uObject = static_cast<std::uint16_t>(nObject);
        const socket_calls::Identity identity(uObject);
        const socket_calls::UserCommand user("echo 1234");
        EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
        EXPECT_EQ(strRegistration, Bytes16(1234) + Bytes16(uObject) + std::string(1, '\0'));
        EXPECT_NE(request.uSourceSession, 1234);  // the descriptor, for every object
        EXPECT_EQ(request.uSourceObject, uObject);
    }
}

TEST_F(Exchange, TheUsersNumberComesFromTheCommand) {
    const struct {
        const char* pszCommand;
        std::uint16_t uSession;
    } aCases[] = {
        {"id -u", static_cast<std::uint16_t>(getuid())},
        {"printf 77", 77},         // no line feed
        {"printf '  8x\\n'", 8},   // up to the first character that is not a digit
        {"printf '%0100d' 5", 0},  // only the first 32 bytes
        {"printf '%032d9' 5", 5},
        {"printf 99999999999999999999", 0xFFFF},
        {"printf '%s' -- -1", 0},
        {"printf '\\n'", 0},
        {"exit 1", 0},
        {"sleep 0.05; printf 1; sleep 0.05; echo 2", 12},  // in pieces
        {nullptr, 0},
    };
    std::string strRegistration;
    ScriptedPeer peer([&](PeerConnection& connection) {
        strRegistration = AcceptRegistration(connection);
        connection.Reply(connection.ReceiveMessage(), "r");
    });
    CPipeIPC client;
    const socket_calls::Identity identity(2003);
    for (const auto& c : aCases) {
        const socket_calls::UserCommand user(c.pszCommand);
        EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
        EXPECT_EQ(NumberAt(strRegistration, 0, 2), c.uSession) << (c.pszCommand != nullptr ? c.pszCommand : "none");
    }
}

TEST_F(Exchange, EachExchangeHasItsOwnIdentity) {
    std::vector<std::uint16_t> objects;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        objects.push_back(request.uSourceObject);
        connection.Reply(request, "r");
    });
    CPipeIPC client;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
    }
    std::sort(objects.begin(), objects.end());
    EXPECT_GT(std::unique(objects.begin(), objects.end()) - objects.begin(), 1);
}

TEST_F(Exchange, NoPayload) {
    std::vector<std::string> requests;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        requests.push_back(request.Bytes());
        connection.Reply(request, "r");
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    CPipeIPC client;
    CSmartBuffer reply;
    BYTE bPayload = 'x';
    EXPECT_EQ(client.SendMessageAndWait(0, peer.Object(), nullptr, 0, reply, 10000), 0);
    EXPECT_EQ(client.SendMessageAndWait(0, peer.Object(), nullptr, 5, reply, 10000), 0);
    EXPECT_EQ(client.SendMessageAndWait(0, peer.Object(), &bPayload, 0, reply, 10000), 0);
    ASSERT_EQ(requests.size(), 3U);
    for (const std::string& strRequest : requests) {
        ASSERT_EQ(strRequest.size(), 34U);
        EXPECT_EQ(NumberAt(strRequest, 26, 8), 0U);
    }
}

// The port depends on session and object, modulo 65536.
TEST_F(Exchange, TheSessionCountsForThePort) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Reply(request, std::to_string(request.uDestinationSession));
    });
    const int nNumber = peer.Port() - 8665;
    const std::pair<int, int> aAddresses[] = {{7, nNumber - 7}, {nNumber, 0}, {0xFFFF, (nNumber + 1) & 0xFFFF}};
    CPipeIPC client;
    for (const auto& [nSession, nObject] : aAddresses) {
        CSmartBuffer reply;
        EXPECT_EQ(client.SendMessageAndWait(static_cast<USHORT>(nSession), static_cast<USHORT>(nObject), nullptr, 0,
                                            reply, 10000),
                  0);
        EXPECT_EQ(TextOf(reply), std::to_string(nSession));
    }
}

TEST_F(Exchange, TheReplyReplacesTheBuffersContent) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Reply(request, request.strPayload);
    });
    CPipeIPC client;
    for (const std::size_t cb : {1U, 5U, 7U, 100000U, 3000000U}) {
        std::string strPayload(cb, '\0');
        for (std::size_t i = 0; i < cb; ++i) {
            strPayload[i] = static_cast<char>(i * 7 + i / 251);
        }
        const ExchangeResult result = DoExchange(client, peer.Object(), strPayload);
        EXPECT_EQ(result.lResult, 0);
        EXPECT_TRUE(result.strReply == strPayload) << cb;
    }
}

TEST_F(Exchange, AReplyMayArriveByteByByte) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.SendByteByByte(PeerConnection::ReplyTo(request, "one byte at a time").Bytes());
    });
    CPipeIPC client;
    EXPECT_EQ(DoExchange(client, peer.Object()).strReply, "one byte at a time");
}

TEST_F(Exchange, BytesAfterTheReplyAreNotRead) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(PeerConnection::ReplyTo(request, "reply").Bytes() + "and more");
    });
    CPipeIPC client;
    for (int i = 0; i < 3; ++i) {
        const ExchangeResult result = DoExchange(client, peer.Object());
        EXPECT_EQ(result.lResult, 0);
        EXPECT_EQ(result.strReply, "reply");
    }
}

// A server that ends its side without a status byte accepts the client.
TEST_F(Exchange, AMissingStatusByteAcceptsTheClient) {
    ScriptedPeer peer([&](PeerConnection& connection) {
        connection.Receive(5);
        connection.ShutdownSending();
        EXPECT_EQ(connection.ReceiveMessage().strPayload, "request");
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    CPipeIPC client;
    EXPECT_EQ(DoExchange(client, peer.Object()).lResult, kReceiveFailed);
}

TEST_F(Exchange, ChecksTheReplysHeader) {
    struct Case {
        const char* pszName;
        void (*pfnChange)(PeerMessage& reply);
        bool bAccepted;
    };
    const Case aCases[] = {
        {"right", [](PeerMessage&) {}, true},
        {"paramter 15", [](PeerMessage& m) { m.uParamter = 15; }, true},
        {"paramter 16", [](PeerMessage& m) { m.uParamter = 16; }, false},
        {"paramter all ones", [](PeerMessage& m) { m.uParamter = ~std::uint64_t{0}; }, false},
        {"no payload", [](PeerMessage& m) { m.strPayload.clear(); }, false},
        {"number of the request", [](PeerMessage& m) { --m.uSequence; }, false},
        {"next number", [](PeerMessage& m) { ++m.uSequence; }, false},
        {"another session", [](PeerMessage& m) { m.uSourceSession = 0xFFFF; }, false},
        {"another object", [](PeerMessage& m) { ++m.uSourceObject; }, false},
        {"another destination",
         [](PeerMessage& m) {
             m.uDestinationSession = 0xFFFF;
             m.uDestinationObject = 0xFFFF;
         },
         true},
        {"callback bytes",
         [](PeerMessage& m) {
             m.uSourceCallBack = 0xFF;
             m.uDestinationCallBack = 0xFF;
         },
         true},
    };
    const Case* pCase = nullptr;
    ScriptedPeer peer([&](PeerConnection& connection) {
        PeerMessage reply = PeerConnection::ReplyTo(connection.AcceptRequest(), "r");
        pCase->pfnChange(reply);
        connection.Send(reply.Bytes());
        connection.ReceiveToEnd();
    });
    CPipeIPC client;
    for (const Case& c : aCases) {
        pCase = &c;
        const ExchangeResult result = DoExchange(client, peer.Object());
        EXPECT_EQ(result.lResult, c.bAccepted ? 0 : kReceiveFailed) << c.pszName;
        EXPECT_EQ(result.strReply, c.bAccepted ? "r" : "before") << c.pszName;
    }
}

TEST_F(Exchange, TraceOfASuccess) {
    ScriptedPeer peer(Replies("r"));
    CPipeIPC client;
    SwitchTraceOn();
    EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
    EXPECT_EQ(Trace(), (std::vector<std::string>{
                           "******************SendMessageAndWait send start****************client******",
                           "SendMsg::ConnectServer",
                           "ConnectServer::send regClient start",
                           "ConnectServer::send regClient end",
                           "ConnectServer::recv regClient start",
                           "ConnectServer::recv regClient end",
                           "************SendMsg::send start",
                           "****************SendMsg::send end**************",
                           "SendMessageAndWait send end",
                           "SendMessageAndWait recv start",
                           "*************SendMessageAndWait recv end********* client******",
                       }));
}

TEST_F(Exchange, TheProcessIgnoresSigpipe) {
    std::signal(SIGPIPE, SIG_DFL);
    CPipeIPC client;
    EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_IGN);
    // The client also works when the program undoes that. The peer ends orderly, so that sending is a broken pipe.
    ScriptedPeer peer([](PeerConnection& connection) {
        AcceptRegistration(connection);
        connection.Close();
    });
    EXPECT_EQ(DoExchange(client, peer.Object(), std::string(50'000'000, 'x')).lResult, kSendFailed);
    std::signal(SIGPIPE, SIG_IGN);
}

// A program started during an exchange would keep the connection open.
TEST_F(Exchange, ProgramsDoNotInheritTheConnection) {
    ScriptedPeer peer([](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        EXPECT_EQ(std::system("for fd in /proc/self/fd/*; do readlink $fd; done | grep -q socket:"), 256);
        connection.Reply(request, "r");
    });
    CPipeIPC client;
    EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0);
}

}  // namespace
