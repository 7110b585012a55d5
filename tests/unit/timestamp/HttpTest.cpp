#include "timestamp/Http.h"

#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <filesystem>

#include "HttpPeer.h"
#include "Row.h"
#include "timestamp/Connection.h"

namespace vextimestamp {
namespace {

using namespace std::chrono_literals;

// Long enough that no test reaches it.
std::chrono::steady_clock::time_point Later() {
    return std::chrono::steady_clock::now() + 60s;
}

std::size_t OpenDescriptors() {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

Bytes ExchangeWith(const std::string& strUrl, std::chrono::steady_clock::time_point deadline = Later()) {
    return Exchange(strUrl, BytesOf(kRequest), deadline);
}

TEST(Http, BringsTheRequestAndTheAnswer) {
    std::string strReceived;
    ScriptedPeer peer([&](PeerConnection& connection) {
        strReceived = ReceiveRequest(connection);
        connection.Send(AnswerOf("answer"));
    });
    EXPECT_EQ(TextOf(ExchangeWith(UrlOf(peer.Port()))), "answer");
    peer.Finish();
    EXPECT_EQ(strReceived, kRequest);
}

TEST(Http, TakesAnAnswerByteByByte) {
    ScriptedPeer peer([](PeerConnection& connection) {
        ReceiveRequest(connection);
        connection.SendByteByByte(AnswerOf("answer"));
    });
    EXPECT_EQ(TextOf(ExchangeWith(UrlOf(peer.Port()))), "answer");
}

TEST(Http, FindsAHostByItsName) {
    ScriptedPeer peer([](PeerConnection& connection) {
        ReceiveRequest(connection);
        connection.Send(AnswerOf("answer"));
    });
    // The peer listens on 127.0.0.1 alone; "localhost" may also be ::1, which refuses.
    EXPECT_EQ(TextOf(ExchangeWith("http://localhost:" + std::to_string(peer.Port()) + "/")), "answer");
}

TEST(Http, SaysThatAHostIsUnknown) {
    // No name server may know a name below "invalid" (RFC 2606).
    // Without a name server the answer may take longer; then the deadline ends the lookup.
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    EXPECT_THAT(FaultOf([&] { ExchangeWith("http://clock.invalid/", deadline); }), testing::HasSubstr("clock.invalid"));
}

TEST(Http, SaysThatNobodyListens) {
    const SilentPort port(SilentPort::Kind::kRefusing);
    EXPECT_THAT(FaultOf([&] { ExchangeWith(UrlOf(port.Port())); }), testing::HasSubstr("Connection refused"));
}

// No connection can be made to a group of hosts. The kernel says so at once, other than for a port.
TEST(Http, SaysThatThereIsNoWay) {
    EXPECT_THAT(FaultOf([] { ExchangeWith("http://224.0.0.1/"); }),
                testing::HasSubstr("there is no connection: Network is unreachable"));
}

TEST(Http, SaysThatThereAreTooManyOpenFiles) {
    const SilentPort port(SilentPort::Kind::kRefusing);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    std::string strFault;
    try {
        ExchangeWith(UrlOf(port.Port()));
    } catch (const Fault& fault) {
        strFault = fault.what();
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_THAT(strFault, testing::HasSubstr("there is no connection: Too many open files"));
}

struct PeerRow : Row {
    void (*script)(PeerConnection&);
    std::string strFault;
};

class SilentAuthority : public testing::TestWithParam<PeerRow> {};

// The peer never finishes; only the deadline ends the call.
TEST_P(SilentAuthority, EndsAtTheDeadline) {
    ScriptedPeer peer(GetParam().script);
    const auto deadline = std::chrono::steady_clock::now() + 300ms;
    EXPECT_THAT(FaultOf([&] { ExchangeWith(UrlOf(peer.Port()), deadline); }), testing::HasSubstr(GetParam().strFault));
    EXPECT_GE(std::chrono::steady_clock::now(), deadline);
    // A busy machine may be late, but not as late as the peer would be.
    EXPECT_LT(std::chrono::steady_clock::now(), deadline + 15s);
}

INSTANTIATE_TEST_SUITE_P(
    Peers, SilentAuthority,
    testing::Values(PeerRow{{"NoAnswer"}, [](PeerConnection& connection) { connection.ReceiveToEnd(); }, "in time"},
                    PeerRow{{"HalfAnAnswer"},
                            [](PeerConnection& connection) {
                                connection.Send(AnswerOf("answer").substr(0, 84));
                                connection.ReceiveToEnd();
                            },
                            "in time"},
                    PeerRow{{"SlowBytes"},
                            [](PeerConnection& connection) {
                                // Each byte comes long before the deadline.
                                for (const char ch : AnswerOf(std::string(2000, 'x'))) {
                                    if (!connection.Send(std::string_view(&ch, 1))) {
                                        return;
                                    }
                                    std::this_thread::sleep_for(10ms);
                                }
                            },
                            "in time"}),
    RowName);

TEST(Http, EndsAtTheDeadlineIfNoConnectionIsAccepted) {
    const SilentPort port(SilentPort::Kind::kFull);
    const auto deadline = std::chrono::steady_clock::now() + 300ms;
    EXPECT_THAT(FaultOf([&] { ExchangeWith(UrlOf(port.Port()), deadline); }), testing::HasSubstr("timed out"));
    EXPECT_LT(std::chrono::steady_clock::now(), deadline + 15s);
}

TEST(Http, DoesNotWaitAfterTheDeadline) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.Send(AnswerOf("answer"));
        connection.ReceiveToEnd();
    });
    EXPECT_THAT(FaultOf([&] { ExchangeWith(UrlOf(peer.Port()), std::chrono::steady_clock::now() - 1s); }),
                testing::HasSubstr("time"));
}

class BrokenAuthority : public testing::TestWithParam<PeerRow> {};

TEST_P(BrokenAuthority, IsAFaultAndLeavesNothingBehind) {
    ScriptedPeer peer(GetParam().script);
    const std::size_t cBefore = OpenDescriptors();
    EXPECT_THAT(FaultOf([&] { ExchangeWith(UrlOf(peer.Port())); }), testing::HasSubstr(GetParam().strFault));
    peer.Finish();  // its listener was open before
    EXPECT_EQ(OpenDescriptors(), cBefore - 1);
}

INSTANTIATE_TEST_SUITE_P(
    Peers, BrokenAuthority,
    testing::Values(PeerRow{{"ClosesAtOnce"},
                            [](PeerConnection& connection) {
                                connection.ShutdownSending();
                                connection.ReceiveToEnd();
                            },
                            "ends within its header"},
                    PeerRow{{"Resets"},
                            [](PeerConnection& connection) {
                                ReceiveRequest(connection);
                                connection.Reset();
                            },
                            "connection is lost"},
                    PeerRow{{"AnnouncesTwoGiB"},
                            [](PeerConnection& connection) {
                                ReceiveRequest(connection);
                                connection.Send(
                                    "HTTP/1.0 200 OK\r\nContent-Type: application/timestamp-reply\r\n"
                                    "Content-Length: 2147483648\r\n\r\n");
                                connection.ReceiveToEnd();
                            },
                            "no time-stamp reply"},
                    PeerRow{{"SendsWithoutEnd"},
                            [](PeerConnection& connection) {
                                ReceiveRequest(connection);
                                connection.Send("HTTP/1.0 200 OK\r\nContent-Type: application/timestamp-reply\r\n\r\n");
                                while (connection.Send(std::string(4096, 'x'))) {
                                }
                            },
                            "larger than 64 KiB"},
                    PeerRow{{"Redirects"},
                            [](PeerConnection& connection) {
                                ReceiveRequest(connection);
                                connection.Send("HTTP/1.1 307 Elsewhere\r\nLocation: http://127.0.0.1:1/\r\n\r\n");
                                connection.ReceiveToEnd();
                            },
                            "a redirect"}),
    RowName);

// More than the buffers between them hold.
constexpr std::size_t kLongRequest = std::size_t{32} << 20U;

TEST(Http, WaitsForAnAuthorityThatReceivesLate) {
    std::size_t cbReceived = 0;
    ScriptedPeer peer([&](PeerConnection& connection) {
        std::this_thread::sleep_for(200ms);
        cbReceived = connection.ReceiveToEnd().size();
    });
    {
        const Connection connection("127.0.0.1", std::to_string(peer.Port()), Later());
        connection.Send(std::string(kLongRequest, 'x'), Later());
    }
    peer.Finish();
    EXPECT_EQ(cbReceived, kLongRequest);
}

TEST(Http, EndsAtTheDeadlineIfTheRequestIsNotReceived) {
    std::atomic<bool> bEnded = false;
    ScriptedPeer peer([&](PeerConnection&) { bEnded.wait(false); });
    const Connection connection("127.0.0.1", std::to_string(peer.Port()), Later());
    const auto deadline = std::chrono::steady_clock::now() + 300ms;
    EXPECT_THAT(FaultOf([&] { connection.Send(std::string(kLongRequest, 'x'), deadline); }),
                testing::HasSubstr("the request is not received in time"));
    EXPECT_GE(std::chrono::steady_clock::now(), deadline);
    bEnded = true;
    bEnded.notify_all();
    peer.Finish();
}

// Signals of broken connections have their usual effect here, the end of the process.
TEST(Http, IsNotEndedByABrokenConnection) {
    std::atomic<bool> bConnected = false;
    ScriptedPeer peer([&](PeerConnection& connection) {
        bConnected.wait(false);
        connection.Reset();
    });
    const Connection connection("127.0.0.1", std::to_string(peer.Port()), Later());
    bConnected = true;
    bConnected.notify_all();
    peer.Finish();
    const std::string strBytes(4096, 'x');
    for (int i = 0; i < 2; ++i) {  // the second time the reset has been reported
        EXPECT_THAT(FaultOf([&] {
                        for (;;) {
                            connection.Send(strBytes, Later());
                        }
                    }),
                    testing::HasSubstr("connection is lost"));
    }
}

TEST(Http, EndsAtTheDeadlineAlthoughBytesAreThere) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.Send("ab");
        connection.ReceiveToEnd();
    });
    const Connection connection("127.0.0.1", std::to_string(peer.Port()), Later());
    char ch = 0;
    EXPECT_EQ(connection.Receive({&ch, 1}, Later()), 1U);
    EXPECT_THAT(FaultOf([&] {
                    connection.Receive({&ch, 1}, std::chrono::steady_clock::now());
                }),
                testing::HasSubstr("not complete in time"));
    EXPECT_EQ(ch, 'a');
}

TEST(Http, ConnectsToAnAddressOfVersion6) {
    // Whether or not this machine has such addresses: it is not taken for a name.
    EXPECT_THAT(FaultOf([] { ExchangeWith("http://[::1]:1/"); }), testing::HasSubstr("there is no connection"));
}

TEST(Http, RefusesAnAddressThatIsNotHttpWithoutAConnection) {
    EXPECT_THAT(FaultOf([] { ExchangeWith("https://127.0.0.1/"); }), testing::HasSubstr("http://"));
}

TEST(Http, IsNotDisturbedBySignals) {
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};  // without SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    const pthread_t caller = pthread_self();
    ScriptedPeer peer([&](PeerConnection& connection) {
        ReceiveRequest(connection);
        for (const char ch : AnswerOf("answer")) {
            pthread_kill(caller, SIGUSR1);
            connection.Send(std::string_view(&ch, 1));
        }
    });
    EXPECT_EQ(TextOf(ExchangeWith(UrlOf(peer.Port()))), "answer");
    peer.Finish();
    sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
}  // namespace vextimestamp
