// Every failure of an exchange: its result, and the lines of the trace in order.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>

#include "ForkWhile.h"
#include "IpcTest.h"
#include "Row.h"
#include "Scale.h"

namespace {

using Lines = std::vector<std::string>;

Lines operator+(Lines lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

// The trace up to each step.
const Lines kToConnect = {
    "******************SendMessageAndWait send start****************client******",
    "SendMsg::ConnectServer",
};
const Lines kToRegister = kToConnect + Lines{"ConnectServer::send regClient start"};
const Lines kToStatus = kToRegister + Lines{"ConnectServer::send regClient end", "ConnectServer::recv regClient start"};
const Lines kToAcceptance = kToStatus + Lines{"ConnectServer::recv regClient end"};
const Lines kToSend = kToAcceptance + Lines{"************SendMsg::send start"};
const Lines kToReceive = kToSend + Lines{"****************SendMsg::send end**************",
                                         "SendMessageAndWait send end", "SendMessageAndWait recv start"};
const std::string kSendLine = "SendMessageAndWait ::SendMsg  failed ret=-1,result=Unknown error -1";

// A system call that fails.
struct Fault {
    const char* pszCall = "";  // "": none
    int nErrno = 0;
    int nCall = 1;  // the first one, the second one...
};

constexpr std::size_t kSmallPayload = 7;

struct FailureRow : Row {
    ScriptedPeer::Script script;
    Fault fault;
    long lResult = 0;
    // "PORT" stands for the line with the port, "DESCRIPTOR" for the line with the descriptor's error text.
    Lines lines;
    // Not the payload itself: each process of these tests makes and copies all rows.
    std::size_t cbPayload = kSmallPayload;
};

FailureRow Sending(const char* pszName, ScriptedPeer::Script script, const Lines& lines, Fault fault = {},
                   std::size_t cbPayload = kSmallPayload) {
    return {{pszName}, std::move(script), fault, kSendFailed, lines + Lines{kSendLine}, cbPayload};
}

// What the peer does after the request.
using AfterRequest = std::function<void(PeerConnection&, const PeerMessage&)>;

FailureRow Receiving(const std::string& strName, const AfterRequest& fnReply, const Lines& lines, Fault fault = {}) {
    const auto script = [fnReply](PeerConnection& connection) {
        fnReply(connection, connection.AcceptRequest());
        if (connection.Socket() >= 0) {  // not after a reset
            connection.ReceiveToEnd();
        }
    };
    return {{strName}, script, fault, kReceiveFailed, kToReceive + lines + Lines{"DESCRIPTOR"}};
}

std::string Failed(const char* pszWhat, int nErrno) {
    return pszWhat + std::to_string(nErrno) + ",result=" + std::strerror(nErrno);
}

std::vector<FailureRow> Rows() {
    const auto fnNothing = [](PeerConnection& connection) { connection.ReceiveToEnd(); };
    const auto fnRefuse = [](int nStatus) {
        return [nStatus](PeerConnection& connection) {
            connection.Receive(5);
            connection.Send(std::string(1, static_cast<char>(nStatus)));
            EXPECT_EQ(connection.ReceiveToEnd(), "");
        };
    };
    const auto fnCutHeader = [](std::size_t cb) {
        return [cb](PeerConnection& c, const PeerMessage& request) {
            c.Send(PeerConnection::ReplyTo(request, "r").Bytes().substr(0, cb));
            c.ShutdownSending();
        };
    };
    const std::string strNotSent = "************SendMsg::send data error";
    const std::string strNoHeader = "RecvDataFunc::recv header error ret =0 result=Success";
    std::vector<FailureRow> rows = {
        Sending("Socket", fnNothing, kToConnect + Lines{Failed("ConnectServer::socket failed errno=", EMFILE), "PORT"},
                {"socket", EMFILE}),
        Sending("Connect", fnNothing,
                kToConnect + Lines{Failed("ConnectServer::connect  failed errno=", ENETUNREACH), "PORT"},
                {"connect", ENETUNREACH}),
        Sending("RegistrationSend", fnNothing,
                kToRegister + Lines{"ConnectNamedPipe::send failed error=-1,result=Connection reset by peer", "PORT"},
                {"send", ECONNRESET}),
        Sending(
            "RegistrationReceive",
            [](PeerConnection& connection) {
                connection.Receive(5);
                connection.Reset();
            },
            kToStatus + Lines{"ConnectNamedPipe::recv  failed error=-1,result=Connection reset by peer", "PORT"}),
        Sending("RegistrationReceiveTimeOut", fnNothing,
                kToStatus +
                    Lines{"ConnectNamedPipe::recv  failed error=-1,result=Resource temporarily unavailable", "PORT"},
                {"recv", EAGAIN}),
        Sending("RegistrationRefused1", fnRefuse(1), kToAcceptance + Lines{"PORT"}),
        Sending("RegistrationRefused255", fnRefuse(255), kToAcceptance + Lines{"PORT"}),
        Sending("RequestSend", fnRefuse(0), kToSend + Lines{strNotSent}, {"send", EPIPE, 2}),
        Sending(
            "ClosedWhileSending",
            [](PeerConnection& connection) {
                AcceptRegistration(connection);
                connection.Receive(100000);
                connection.Reset();
            },
            kToSend + Lines{strNotSent}, {}, 50'000'000),
        Receiving("NoReplyButTheEnd", [](PeerConnection& c, const PeerMessage&) { c.ShutdownSending(); },
                  {strNoHeader}),
        Receiving("NoReplyButAReset", [](PeerConnection& c, const PeerMessage&) { c.Reset(); },
                  {"RecvDataFunc::recv header error ret =-1 result=Unknown error -1"}),
        Receiving("PartOfAHeader1", fnCutHeader(1), {strNoHeader}),
        Receiving("PartOfAHeader33", fnCutHeader(33), {strNoHeader}),
        Receiving("PartOfAPayload",
                  [](PeerConnection& c, const PeerMessage& request) {
                      PeerMessage reply = PeerConnection::ReplyTo(request, "four");
                      reply.uLength = 5;
                      c.Send(reply.Bytes());
                      c.ShutdownSending();
                  },
                  {"RecvDataFunc::recv data error ret =0"}),
        Receiving("PayloadReset", [](PeerConnection& c, const PeerMessage& request) { c.Reply(request, "r"); },
                  {"RecvDataFunc::recv data error ret =-1"}, {"recv", ECONNRESET, 3}),
        Receiving("NoPayload", [](PeerConnection& c, const PeerMessage& request) { c.Reply(request, ""); },
                  {"RecvDataFunc::msgHeader.MessageLen <= 0"}),
        Receiving("NotTheReply",
                  [](PeerConnection& c, const PeerMessage& request) {
                      PeerMessage reply = PeerConnection::ReplyTo(request, "r");
                      ++reply.uSequence;
                      c.Send(reply.Bytes());
                  },
                  {}),
    };
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
        const auto fnClaim = [uLength = uLength](PeerConnection& c, const PeerMessage& request) {
            PeerMessage reply = PeerConnection::ReplyTo(request, "bytes");
            reply.uLength = uLength;
            c.Send(reply.Bytes());
        };
        rows.push_back(Receiving(std::string("Length") + pszName, fnClaim, {"RecvDataFunc::malloc error"}));
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
        const socket_calls::Failure failure(row.fault.pszCall, row.fault.nErrno, row.fault.nCall);
        result = DoExchange(client, peer.Object(), std::string(row.cbPayload, 'x'));
    }
    EXPECT_EQ(result.lResult, row.lResult);
    EXPECT_EQ(result.strReply, "before");
    Lines expected = row.lines;
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
    const Lines refused = {"ConnectServer::connect  failed errno=111,result=Connection refused",
                           "ConnectServer failed port =" + std::to_string(port.Port()), kSendLine};
    EXPECT_EQ(Trace(), kToConnect + refused);
    // The trace has the port before it is cut to 16 bits.
    std::filesystem::remove(TracePath());
    CSmartBuffer reply;
    const auto uSession = static_cast<USHORT>(65535);
    const auto uObject = static_cast<USHORT>(port.Object() + 1);
    EXPECT_EQ(client.SendMessageAndWait(uSession, uObject, nullptr, 0, reply, 1000), kSendFailed);
    EXPECT_EQ(Trace()[3], "ConnectServer failed port =" + std::to_string(8665 + 65535 + uObject));
}

// The exchange fails, whichever allocation fails.
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

// No memory can hold the payload, so the client does not read it.
TEST_F(IpcTest, ARequestThatIsTooLongFails) {
    ScriptedPeer peer([](PeerConnection& connection) {
        AcceptRegistration(connection);
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

// libc's popen holds a lock while it starts a program. A child that inherits the lock would wait for ever.
TEST_F(IpcTest, AForkedChildExchanges) {
    const SilentPort port(SilentPort::Kind::kRefusing);
    ForkWhile(2, Scaled(60), [&] {
        CPipeIPC client;
        EXPECT_EQ(DoExchange(client, port.Object()).lResult, kSendFailed);
    });
}

// libc's srand holds a lock, which the child's own srand would wait for.
TEST_F(IpcTest, AForkedChildMakesClients) {
    ForkWhile(2, Scaled(60), [] { const CPipeIPC client; });
}

// Descriptor 0 counts as a failure and is closed.
TEST_F(IpcTest, DescriptorZeroIsAFailure) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.AcceptRequest();
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    CPipeIPC client;
    const int nInput = dup(0);
    close(0);
    SwitchTraceOn();
    // popen uses descriptors, too, but closes them before the socket is created.
    EXPECT_EQ(DoExchange(client, peer.Object()).lResult, kSendFailed);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    dup2(nInput, 0);
    close(nInput);
    ASSERT_FALSE(Trace().empty());
    EXPECT_EQ(Trace().back(), "SendMessageAndWait ::SendMsg  failed ret=0,result=Success");
}

}  // namespace
