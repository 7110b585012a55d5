// Hostile peers: they cut messages, send byte by byte, claim false lengths, or wait. The exchange always ends in time
// and leaks nothing.
#include <malloc.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "IpcTest.h"
#include "Scale.h"

namespace {

class HostilePeer : public IpcTest {};

// The size of the process's pages in memory, in bytes.
std::size_t ResidentBytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t cAll = 0;
    std::size_t cResident = 0;
    file >> cAll >> cResident;
    return cResident * 4096;
}

TEST_F(HostilePeer, CutsTheReplyAtEachByte) {
    const std::string strPayload = "payload";
    std::atomic<std::size_t> cbSent = 0;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Send(PeerConnection::ReplyTo(request, strPayload).Bytes().substr(0, cbSent));
        connection.ShutdownSending();
        connection.ReceiveToEnd();
    });
    CPipeIPC client;
    for (cbSent = 0; cbSent <= 34 + strPayload.size(); ++cbSent) {
        const bool bWhole = cbSent == 34 + strPayload.size();
        const ExchangeResult result = DoExchange(client, peer.Object());
        EXPECT_EQ(result.lResult, bWhole ? 0 : kReceiveFailed) << cbSent;
        EXPECT_EQ(result.strReply, bWhole ? strPayload : "before") << cbSent;
    }
}

TEST_F(HostilePeer, FlipsEachBitOfTheHeader) {
    std::atomic<int> nBit = 0;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        std::string strReply = PeerConnection::ReplyTo(request, "payload").Bytes();
        const int nFlipped = nBit;
        char& chByte = strReply[static_cast<std::size_t>(nFlipped / 8)];
        chByte = static_cast<char>(chByte ^ 1 << nFlipped % 8);
        connection.Send(strReply);
        connection.ShutdownSending();
        connection.ReceiveToEnd();
    });
    CPipeIPC client;
    int cAccepted = 0;
    for (nBit = 0; nBit < 34 * 8; ++nBit) {
        const ExchangeResult result = DoExchange(client, peer.Object());
        const int nByte = nBit / 8;
        // Accepted: changes of the callback bytes, the destination and the four flags, and a shorter payload.
        const bool bAccepted =
            (nByte >= 4 && nByte < 10) || (nByte == 18 && nBit % 8 < 4) || (nByte == 26 && nBit % 8 < 3);
        EXPECT_EQ(result.lResult, bAccepted ? 0 : kReceiveFailed) << "bit " << nBit;
        cAccepted += result.lResult == 0 ? 1 : 0;
    }
    EXPECT_EQ(cAccepted, 48 + 4 + 3);
}

TEST_F(HostilePeer, NeverReplies) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.AcceptRequest();
        EXPECT_EQ(connection.ReceiveToEnd(), "");
    });
    CPipeIPC client;
    SwitchTraceOn();
    for (const DWORD dwTimeout : {DWORD{1}, DWORD{50}, DWORD{1100}}) {
        const ExchangeResult result = DoExchange(client, peer.Object(), "request", dwTimeout);
        EXPECT_EQ(result.lResult, kReceiveFailed);
        EXPECT_GE(result.dSeconds, static_cast<double>(dwTimeout) / 1000);
        EXPECT_LT(result.dSeconds, static_cast<double>(dwTimeout) / 1000 + kSlack);
        EXPECT_EQ(Trace().end()[-2], "RecvDataFunc::recv header error ret =-1 result=Unknown error -1");
    }
}

TEST_F(HostilePeer, RepliesTooLate) {
    Event given;
    ScriptedPeer peer([&](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        given.Wait();
        connection.Send(PeerConnection::ReplyTo(request, "late").Bytes());
        connection.ReceiveToEnd();
    });
    CPipeIPC client;
    const ExchangeResult result = DoExchange(client, peer.Object(), "request", 100);
    given.Set();
    EXPECT_EQ(result.lResult, kReceiveFailed);
    EXPECT_EQ(result.strReply, "before");
}

TEST_F(HostilePeer, ATimeOutOfZeroWaits) {
    ScriptedPeer peer([](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        connection.Reply(request, "at last");
    });
    CPipeIPC client;
    const ExchangeResult result = DoExchange(client, peer.Object(), "request", 0);
    EXPECT_EQ(result.lResult, 0);
    EXPECT_EQ(result.strReply, "at last");
    EXPECT_GE(result.dSeconds, 0.3);
    // A time-out too large for the clock means for ever, too.
    EXPECT_EQ(DoExchange(client, peer.Object(), "request", ~DWORD{0}).lResult, 0);
}

// The longest length that is accepted. The process takes no memory for bytes that do not arrive.
TEST_F(HostilePeer, ClaimsTwoGigabytes) {
    ScriptedPeer peer([](PeerConnection& connection) {
        PeerMessage reply = PeerConnection::ReplyTo(connection.AcceptRequest(), "only these bytes");
        reply.uLength = 0x7FFFFFFF - 34;
        connection.Send(reply.Bytes());
        connection.ReceiveToEnd();
    });
    CPipeIPC client;
    SwitchTraceOn();
    std::atomic<bool> bOver = false;
    std::size_t cbMost = 0;
    [[maybe_unused]] const std::size_t cbBefore = ResidentBytes();
    std::thread watcher([&] {
        while (!bOver) {
            cbMost = std::max(cbMost, ResidentBytes());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const ExchangeResult result = DoExchange(client, peer.Object(), "request", 300);
    bOver = true;
    watcher.join();
    EXPECT_EQ(result.lResult, kReceiveFailed);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // their own memory grows with the block
    EXPECT_LT(cbMost, cbBefore + 50'000'000);
#endif
    // A system that refuses the allocation is right, too.
    const std::string strLine = Trace().end()[-2];
    EXPECT_TRUE(strLine == "RecvDataFunc::recv data error ret =-1" || strLine == "RecvDataFunc::malloc error")
        << strLine;
}

// ---- Signals ----

class Interrupted : public HostilePeer {
protected:
    Interrupted() {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++s_cSignals; };  // without SA_RESTART
        sigaction(SIGUSR1, &action, &m_before);
        s_cSignals = 0;
    }
    ~Interrupted() override { sigaction(SIGUSR1, &m_before, nullptr); }

    // Sends a signal to this thread every millisecond, until it is destroyed.
    class Storm {
    public:
        Storm()
            : m_thread([this, target = pthread_self()] {
                  while (!m_bOver) {
                      pthread_kill(target, SIGUSR1);
                      std::this_thread::sleep_for(std::chrono::milliseconds(1));
                  }
              }) {}
        ~Storm() {
            m_bOver = true;
            m_thread.join();
        }
        Storm(const Storm&) = delete;
        Storm& operator=(const Storm&) = delete;

    private:
        std::atomic<bool> m_bOver = false;
        std::thread m_thread;
    };

    inline static std::atomic<int> s_cSignals = 0;
    struct sigaction m_before = {};
};

TEST_F(Interrupted, SignalsDoNotFailAnExchange) {
    const std::string strPayload(20'000'000, 'x');
    ScriptedPeer peer([&](PeerConnection& connection) {
        connection.Receive(5);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        connection.Send(std::string(1, '\0'));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const PeerMessage request = connection.ReceiveMessage();
        EXPECT_TRUE(request.strPayload == strPayload);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const std::string strReply = PeerConnection::ReplyTo(request, "the reply").Bytes();
        connection.Send(strReply.substr(0, 10));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        connection.Send(strReply.substr(10, 30));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        connection.Send(strReply.substr(40));
    });
    CPipeIPC client;
    const Storm storm;
    const ExchangeResult result = DoExchange(client, peer.Object(), strPayload);
    EXPECT_EQ(result.lResult, 0);
    EXPECT_EQ(result.strReply, "the reply");
    EXPECT_GT(s_cSignals, 10);
}

TEST_F(Interrupted, SignalsDoNotLengthenATimeOut) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.AcceptRequest();
        connection.ReceiveToEnd();
    });
    CPipeIPC client;
    const Storm storm;
    const ExchangeResult result = DoExchange(client, peer.Object(), "request", 500);
    EXPECT_EQ(result.lResult, kReceiveFailed);
    EXPECT_GE(result.dSeconds, 0.49);  // the kernel counts in ticks
    EXPECT_LT(result.dSeconds, 0.5 + kSlack);
}

// Connecting, registering and sending have ten seconds each. One test runs them in parallel, to take ten seconds once.
TEST_F(Interrupted, TenSecondsForEachStepBeforeTheReply) {
    const SilentPort notAccepting(SilentPort::Kind::kFull);
    ScriptedPeer notAnswering([](PeerConnection& connection) { connection.ReceiveToEnd(); });
    Event over;
    ScriptedPeer notTaking([&](PeerConnection& connection) {
        AcceptRegistration(connection);
        over.Wait();
    });
    SwitchTraceOn();
    const std::string strTimedOut = "ConnectServer::connect  failed errno=110,result=Connection timed out";
    const struct {
        std::uint16_t uObject;
        bool bSignals;
        std::string strPayload;
        std::string strLine;
    } aCases[] = {
        {notAccepting.Object(), false, "request", strTimedOut},
        {notAccepting.Object(), true, "request", strTimedOut},
        {notAnswering.Object(), false, "request",
         "ConnectNamedPipe::recv  failed error=-1,result=Resource temporarily unavailable"},
        {notTaking.Object(), false, std::string(50'000'000, 'x'), "************SendMsg::send data error"},
    };
    std::vector<std::thread> threads;
    for (const auto& c : aCases) {
        threads.emplace_back([&c] {
            CPipeIPC client;
            const std::optional<Storm> storm = c.bSignals ? std::optional<Storm>(std::in_place) : std::nullopt;
            const ExchangeResult result = DoExchange(client, c.uObject, c.strPayload, 1);
            EXPECT_EQ(result.lResult, kSendFailed);
            EXPECT_GE(result.dSeconds, 10) << c.strLine;
            EXPECT_LT(result.dSeconds, 10 + kSlack) << c.strLine;
            const std::vector<std::string> lines = TraceOfThisThread();
            EXPECT_NE(std::find(lines.begin(), lines.end(), c.strLine), lines.end()) << c.strLine;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    over.Set();
}

// ---- Leaks ----

class Leak : public HostilePeer {
protected:
    static std::size_t OpenDescriptors() {
        std::size_t c = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            ++c;
        }
        return c;
    }

    // Runs the exchange many times and compares descriptors and heap.
    template <typename Run>
    static void ExpectNothingStays(int nTimes, Run run) {
        for (int i = 0; i < 20; ++i) {
            run();  // libc allocates some memory once
        }
        const std::size_t cDescriptors = OpenDescriptors();
        const struct mallinfo2 before = mallinfo2();
        for (int i = 0; i < nTimes; ++i) {
            run();
        }
        // Waits, because the descriptor of the peer's last connection counts, too.
        EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() <= cDescriptors; }));
        const struct mallinfo2 after = mallinfo2();
        EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + 4096);
    }

    // Faster than running "id".
    const socket_calls::UserCommand m_user{nullptr};
};

TEST_F(Leak, ServerIsNotThere) {
    const SilentPort port(SilentPort::Kind::kRefusing);
    CPipeIPC client;
    ExpectNothingStays(Scaled(10000), [&] { EXPECT_EQ(DoExchange(client, port.Object()).lResult, kSendFailed); });
}

TEST_F(Leak, ServerIsNotThereAndTheCommandRuns) {
    const SilentPort port(SilentPort::Kind::kRefusing);
    const socket_calls::UserCommand user("id -u");
    CPipeIPC client;
    ExpectNothingStays(Scaled(1000), [&] { EXPECT_EQ(DoExchange(client, port.Object()).lResult, kSendFailed); });
}

TEST_F(Leak, ServerRefuses) {
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.Receive(5);
        connection.Send("x");
    });
    CPipeIPC client;
    ExpectNothingStays(Scaled(3000), [&] { EXPECT_EQ(DoExchange(client, peer.Object()).lResult, kSendFailed); });
}

TEST_F(Leak, ServerCutsTheReply) {
    ScriptedPeer peer([](PeerConnection& connection) {
        const std::string strReply = PeerConnection::ReplyTo(connection.AcceptRequest(), "payload").Bytes();
        connection.Send(strReply.substr(0, strReply.size() - 1));
    });
    CPipeIPC client;
    ExpectNothingStays(Scaled(3000), [&] { EXPECT_EQ(DoExchange(client, peer.Object()).lResult, kReceiveFailed); });
}

TEST_F(Leak, ServerAnswers) {
    ScriptedPeer peer(Replies("reply"));
    CPipeIPC client;
    ExpectNothingStays(Scaled(3000), [&] { EXPECT_EQ(DoExchange(client, peer.Object()).lResult, 0); });
}

// ---- Several clients at once ----

TEST_F(IpcTest, EightThreadsUseClientsOfTheirOwn) {
    constexpr int kThreads = 8;
    const int nExchanges = Scaled(200);
    ScriptedPeer peer([](PeerConnection& connection) {
        const PeerMessage request = connection.AcceptRequest();
        connection.Reply(request, "reply to " + request.strPayload);
    });
    SwitchTraceOn();
    std::vector<std::thread> threads;
    for (int nThread = 0; nThread < kThreads; ++nThread) {
        threads.emplace_back([&, nThread] {
            for (int i = 0; i < nExchanges; ++i) {
                CPipeIPC client;
                const std::string strRequest = std::to_string(nThread) + "." + std::to_string(i);
                const ExchangeResult result = DoExchange(client, peer.Object(), strRequest);
                ASSERT_EQ(result.lResult, 0);
                ASSERT_EQ(result.strReply, "reply to " + strRequest);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
