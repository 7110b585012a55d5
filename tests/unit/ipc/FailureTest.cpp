// Every way in which an exchange fails: its result, and the lines of the trace in their order.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>

#include "IpcTest.h"
#include "Row.h"

namespace {

constexpr long kSendFailed = 0xE0010004;
constexpr long kReceiveFailed = 0xE0010005;

// How far the exchange came, in lines of the trace.
const std::vector<std::string> kToConnect = {
    "******************SendMessageAndWait send start****************client******",
    "SendMsg::ConnectServer",
};
const std::vector<std::string> kToRegistrationSend = {"ConnectServer::send regClient start"};
const std::vector<std::string> kToRegistrationReceive = {"ConnectServer::send regClient end",
                                                         "ConnectServer::recv regClient start"};
const std::vector<std::string> kRegistered = {"ConnectServer::recv regClient end"};
const std::vector<std::string> kToSend = {"************SendMsg::send start"};
const std::vector<std::string> kToReceive = {"****************SendMsg::send end**************",
                                             "SendMessageAndWait send end", "SendMessageAndWait recv start"};
const std::string kSendLine = "SendMessageAndWait ::SendMsg  failed ret=-1,result=Unknown error -1";

std::vector<std::string> operator+(std::vector<std::string> lines, const std::vector<std::string>& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

struct FailureRow : Row {
    ScriptedPeer::Script script;
    const char* pszFailingCall = nullptr;
    int nCall = 1;
    int nErrno = 0;
    long lResult = 0;
    std::vector<std::string> lines;  // "PORT" stands for the line that names the port, "DESCRIPTOR" for the last one
    std::string strPayload = "request";
};

std::string Failed(const char* pszWhat, int nErrno) {
    return pszWhat + std::to_string(nErrno) + ",result=" + std::strerror(nErrno);
}

// What the peer does once it has the request.
ScriptedPeer::Script AfterRequest(std::function<void(PeerConnection&, const PeerMessage&)> fn) {
    return [fn](PeerConnection& connection) {
        fn(connection, connection.AcceptRequest());
        connection.ReceiveToEnd();
    };
}

std::vector<FailureRow> Rows() {
    const auto fnNothing = [](PeerConnection& connection) { connection.ReceiveToEnd(); };
    const auto reached = kToConnect + kToRegistrationSend + kToRegistrationReceive + kRegistered + kToSend;
    const auto waiting = reached + kToReceive;
    std::vector<FailureRow> rows;
    rows.push_back({{"Socket"},
                    fnNothing,
                    "socket",
                    1,
                    EMFILE,
                    kSendFailed,
                    kToConnect + std::vector{Failed("ConnectServer::socket failed errno=", EMFILE), std::string("PORT"),
                                             kSendLine}});
    rows.push_back({{"Connect"},
                    fnNothing,
                    "connect",
                    1,
                    ENETUNREACH,
                    kSendFailed,
                    kToConnect + std::vector{Failed("ConnectServer::connect  failed errno=", ENETUNREACH),
                                             std::string("PORT"), kSendLine}});
    rows.push_back(
        {{"RegistrationSend"},
         fnNothing,
         "send",
         1,
         ECONNRESET,
         kSendFailed,
         kToConnect + kToRegistrationSend +
             std::vector<std::string>{"ConnectNamedPipe::send failed error=-1,result=Connection reset by peer", "PORT",
                                      kSendLine}});
    rows.push_back(
        {{"RegistrationReceive"},
         [](PeerConnection& connection) {
             connection.Receive(5);
             connection.Reset();
         },
         nullptr,
         0,
         0,
         kSendFailed,
         kToConnect + kToRegistrationSend + kToRegistrationReceive +
             std::vector<std::string>{"ConnectNamedPipe::recv  failed error=-1,result=Connection reset by peer", "PORT",
                                      kSendLine}});
    rows.push_back(
        {{"RegistrationReceiveTimeOut"},
         fnNothing,
         "recv",
         1,
         EAGAIN,
         kSendFailed,
         kToConnect + kToRegistrationSend + kToRegistrationReceive +
             std::vector<std::string>{"ConnectNamedPipe::recv  failed error=-1,result=Resource temporarily unavailable",
                                      "PORT", kSendLine}});
    for (const int nStatus : {1, 255}) {
        rows.push_back({{"RegistrationRefused" + std::to_string(nStatus)},
                        [nStatus](PeerConnection& connection) {
                            connection.Receive(5);
                            connection.Send(std::string(1, static_cast<char>(nStatus)));
                            EXPECT_EQ(connection.ReceiveToEnd(), "");
                        },
                        nullptr,
                        0,
                        0,
                        kSendFailed,
                        kToConnect + kToRegistrationSend + kToRegistrationReceive + kRegistered +
                            std::vector<std::string>{"PORT", kSendLine}});
    }
    rows.push_back({{"RequestSend"},
                    [](PeerConnection& connection) {
                        connection.Receive(5);
                        connection.Send(std::string(1, '\0'));
                        EXPECT_EQ(connection.ReceiveToEnd(), "");
                    },
                    "send",
                    2,
                    EPIPE,
                    kSendFailed,
                    reached + std::vector<std::string>{"************SendMsg::send data error", kSendLine}});
    rows.push_back({{"ClosedWhileSending"},
                    [](PeerConnection& connection) {
                        connection.Receive(5);
                        connection.Send(std::string(1, '\0'));
                        connection.Receive(100000);
                        connection.Reset();
                    },
                    nullptr,
                    0,
                    0,
                    kSendFailed,
                    reached + std::vector<std::string>{"************SendMsg::send data error", kSendLine},
                    std::string(50000000, 'x')});
    rows.push_back(
        {{"NoReplyButTheEnd"},
         AfterRequest([](PeerConnection& c, const PeerMessage&) { c.ShutdownSending(); }),
         nullptr,
         0,
         0,
         kReceiveFailed,
         waiting + std::vector<std::string>{"RecvDataFunc::recv header error ret =0 result=Success", "DESCRIPTOR"}});
    rows.push_back({{"NoReplyButAReset"},
                    [](PeerConnection& connection) {
                        connection.AcceptRequest();
                        connection.Reset();
                    },
                    nullptr,
                    0,
                    0,
                    kReceiveFailed,
                    waiting + std::vector<std::string>{
                                  "RecvDataFunc::recv header error ret =-1 result=Unknown error -1", "DESCRIPTOR"}});
    for (const int nHeader : {1, 33}) {
        rows.push_back(
            {{"PartOfAHeader" + std::to_string(nHeader)},
             AfterRequest([nHeader](PeerConnection& c, const PeerMessage& request) {
                 c.Send(PeerConnection::ReplyTo(request, "r").Bytes().substr(0, static_cast<std::size_t>(nHeader)));
                 c.ShutdownSending();
             }),
             nullptr,
             0,
             0,
             kReceiveFailed,
             waiting +
                 std::vector<std::string>{"RecvDataFunc::recv header error ret =0 result=Success", "DESCRIPTOR"}});
    }
    rows.push_back({{"PartOfAPayload"},
                    AfterRequest([](PeerConnection& c, const PeerMessage& request) {
                        PeerMessage reply = PeerConnection::ReplyTo(request, "four");
                        reply.uLength = 5;
                        c.Send(reply.Bytes());
                        c.ShutdownSending();
                    }),
                    nullptr,
                    0,
                    0,
                    kReceiveFailed,
                    waiting + std::vector<std::string>{"RecvDataFunc::recv data error ret =0", "DESCRIPTOR"}});
    rows.push_back({{"PayloadReset"},
                    AfterRequest([](PeerConnection& c, const PeerMessage& request) { c.Reply(request, "r"); }),
                    "recv",
                    3,
                    ECONNRESET,
                    kReceiveFailed,
                    waiting + std::vector<std::string>{"RecvDataFunc::recv data error ret =-1", "DESCRIPTOR"}});
    rows.push_back({{"NoPayload"},
                    AfterRequest([](PeerConnection& c, const PeerMessage& request) { c.Reply(request, ""); }),
                    nullptr,
                    0,
                    0,
                    kReceiveFailed,
                    waiting + std::vector<std::string>{"RecvDataFunc::msgHeader.MessageLen <= 0", "DESCRIPTOR"}});
    rows.push_back({{"NotTheReply"},
                    AfterRequest([](PeerConnection& c, const PeerMessage& request) {
                        PeerMessage reply = PeerConnection::ReplyTo(request, "r");
                        ++reply.uSequence;
                        c.Send(reply.Bytes());
                    }),
                    nullptr,
                    0,
                    0,
                    kReceiveFailed,
                    waiting + std::vector<std::string>{"DESCRIPTOR"}});
    const std::pair<const char*, std::uint64_t> aLengths[] = {
        {"JustTooLong", 0x7FFFFFFF - 33},
        {"IntMax", 0x7FFFFFFF},
        {"AboveIntMax", 0x80000000},
        {"AboveIntMaxAndFive", 0x80000005},
        {"JustBelow32Bits", 0xFFFFFFFF},
        {"32Bits", 0x100000000},
        {"32BitsAndFive", 0x100000005},
        {"Highest", 0x8000000000000000},
        {"HighestAndFive", 0x8000000000000005},
        {"LessThanAHeaderBelowAll", ~std::uint64_t{0} - 33},
        {"MinusOne", ~std::uint64_t{0}},
    };
    for (const auto& [pszName, uLength] : aLengths) {
        rows.push_back({{std::string("Length") + pszName},
                        AfterRequest([uLength = uLength](PeerConnection& c, const PeerMessage& request) {
                            PeerMessage reply = PeerConnection::ReplyTo(request, "bytes");
                            reply.uLength = uLength;
                            c.Send(reply.Bytes());
                        }),
                        nullptr,
                        0,
                        0,
                        kReceiveFailed,
                        waiting + std::vector<std::string>{"RecvDataFunc::malloc error", "DESCRIPTOR"}});
    }
    return rows;
}

class ExchangeFailure : public IpcTest, public testing::WithParamInterface<FailureRow> {};

TEST_P(ExchangeFailure, ResultAndTrace) {
    const FailureRow& row = GetParam();
    ScriptedPeer peer(row.script);
    CPipeIPC client;
    SwitchTraceOn();
    ExchangeResult result;
    {
        const socket_calls::Failure failure(row.pszFailingCall != nullptr ? row.pszFailingCall : "", row.nErrno,
                                            row.nCall);
        result = DoExchange(client, peer.Object(), row.strPayload);
    }
    EXPECT_EQ(result.lResult, row.lResult);
    EXPECT_EQ(result.strReply, "before");
    std::vector<std::string> expected = row.lines;
    for (std::string& strLine : expected) {
        if (strLine == "PORT") {
            strLine = "ConnectServer failed port =" + std::to_string(peer.Port());
        } else if (strLine == "DESCRIPTOR") {
            strLine =
                std::string("SendMessageAndWait ::RecvMsg  failed result=") + std::strerror(socket_calls::LastSocket());
        }
    }
    EXPECT_EQ(Trace(), expected);
}

INSTANTIATE_TEST_SUITE_P(Table, ExchangeFailure, testing::ValuesIn(Rows()), RowName);

TEST_F(IpcTest, NobodyListens) {
    const SilentPort port(SilentPort::Kind::kRefusing);
    CPipeIPC client;
    SwitchTraceOn();
    EXPECT_EQ(DoExchange(client, port.Object()).lResult, kSendFailed);
    const std::vector<std::string> refused = {"ConnectServer::connect  failed errno=111,result=Connection refused",
                                              "ConnectServer failed port =" + std::to_string(port.Port()), kSendLine};
    EXPECT_EQ(Trace(), kToConnect + refused);
    // The port as it is computed, not as it goes into the address.
    std::filesystem::remove(TracePath());
    CSmartBuffer reply;
    const auto uSession = static_cast<USHORT>(65535);
    const auto uObject = static_cast<USHORT>(port.Object() + 1);
    EXPECT_EQ(client.SendMessageAndWait(uSession, uObject, nullptr, 0, reply, 1000), kSendFailed);
    EXPECT_EQ(Trace()[3], "ConnectServer failed port =" + std::to_string(8665 + 65535 + uObject));
}

// Whichever allocation fails, so does the exchange, and nothing else happens.
TEST_F(IpcTest, MemoryRunsOut) {
    ScriptedPeer peer([](PeerConnection& connection) {
        if (const std::optional<PeerMessage> request = connection.AcceptRequestIfAny()) {
            connection.Reply(*request, "reply");
        }
    });
    CPipeIPC client;
    std::string strPayload = "request";
    bool bHappened = true;
    int nCall = 0;
    while (bHappened) {
        CSmartBuffer reply;
        const socket_calls::Failure failure("HeapAlloc", 0, ++nCall);
        const long lResult = client.SendMessageAndWait(0, peer.Object(), reinterpret_cast<PBYTE>(strPayload.data()),
                                                       strPayload.size(), reply, 10000);
        bHappened = socket_calls::Failure::Happened();
        EXPECT_EQ(lResult, !bHappened ? 0 : nCall == 1 ? kSendFailed : kReceiveFailed) << nCall;
        EXPECT_EQ(TextOf(reply), bHappened ? "" : "reply") << nCall;
    }
    EXPECT_EQ(nCall, 4);  // the request, the reply, the reply's payload
}

// No memory can hold it, so that it is not looked at.
TEST_F(IpcTest, ARequestThatIsTooLong) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.Receive(5);
        connection.Send(std::string(1, '\0'));
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    CPipeIPC client;
    SwitchTraceOn();
    for (const DWORD dwLength : {~DWORD{0}, ~DWORD{0} - 33, DWORD{1} << 63}) {
        CSmartBuffer reply("before", 6);
        BYTE bPayload = 'x';
        EXPECT_EQ(client.SendMessageAndWait(0, peer.Object(), &bPayload, dwLength, reply, 1000), kSendFailed);
        EXPECT_EQ(TextOf(reply), "before");
        EXPECT_EQ(Trace().end()[-2], "************SendMsg::send data error");
        EXPECT_EQ(Trace().end()[-1], kSendLine);
    }
}

// Descriptor 0 counts as a failure, and is given back.
TEST_F(IpcTest, DescriptorZero) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.AcceptRequest();
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    CPipeIPC client;
    const int nInput = dup(0);
    close(0);
    SwitchTraceOn();
    // popen takes descriptors of its own, but gives them back before the socket is made.
    EXPECT_EQ(DoExchange(client, peer.Object()).lResult, kSendFailed);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    dup2(nInput, 0);
    close(nInput);
    ASSERT_FALSE(Trace().empty());
    EXPECT_EQ(Trace().back(), "SendMessageAndWait ::SendMsg  failed ret=0,result=Success");
}

}  // namespace
