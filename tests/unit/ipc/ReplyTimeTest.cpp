// How long an exchange waits for its reply: the time-out for each receive, and ten times as long for the whole reply.
// Exchanges with and without a receive thread run at the same time.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "IpcTest.h"
#include "ServiceTest.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr DWORD kTimeout = 2000;
constexpr Milliseconds kPause(1400);
constexpr Milliseconds kLongestPause(1800);

class ReplyTime : public IpcTest {
protected:
    // Sends a reply in pieces, each after a pause. cbPayload: bytes of its payload. longest: the pause that must not be
    // exceeded; bInTime becomes false if it is.
    class SlowReply {
    public:
        SlowReply(PeerConnection& connection, std::size_t cbPayload, Milliseconds longest, std::atomic<bool>& bInTime)
            : m_connection(connection),
              m_strBytes(PeerConnection::ReplyTo(connection.AcceptRequest(), std::string(cbPayload, 'x')).Bytes()),
              m_longest(longest),
              m_bInTime(bInTime) {}

        // FALSE: the client has ended the connection.
        bool Send(Milliseconds pause, std::size_t cb) {
            std::this_thread::sleep_for(pause);
            const bool bSent = m_connection.Send(m_strBytes.substr(m_cbSent, cb));
            m_cbSent += cb;
            const Clock::time_point now = Clock::now();
            m_bInTime = m_bInTime && now - m_last < m_longest;
            m_last = now;
            return bSent;
        }
        bool IsWhole() const { return m_cbSent >= m_strBytes.size(); }

    private:
        PeerConnection& m_connection;
        const std::string m_strBytes;
        const Milliseconds m_longest;
        std::atomic<bool>& m_bInTime;
        std::size_t m_cbSent = 0;
        Clock::time_point m_last = Clock::now();
    };

    // Runs the exchange, and repeats it when a busy machine delayed the peer too long for a result.
    template <typename Script>
    static ExchangeResult Run(bool bService, DWORD dwTimeout, std::size_t cbPayload, Milliseconds longest,
                              Script script) {
        for (int nAttempt = 0; nAttempt < 20; ++nAttempt) {
            std::atomic<bool> bInTime = true;
            ScriptedPeer peer([&](PeerConnection& connection) {
                SlowReply reply(connection, cbPayload, longest, bInTime);
                script(reply);
                connection.ReceiveToEnd();
            });
            Callbacks callbacks;
            CPipeIPC client;
            callbacks.Install(client);
            const socket_calls::Identity identity(bService ? kServiceObject : 7000);
            const ExchangeResult result = DoExchange(client, peer.Object(), "request", dwTimeout);
            peer.Finish();
            if (bInTime) {
                return result;
            }
        }
        ADD_FAILURE() << "the machine is too busy";
        return {};
    }
};

TEST_F(ReplyTime, EachReceiveHasTheTimeOut) {
    std::vector<std::jthread> threads;
    for (const bool bService : {false, true}) {
        threads.emplace_back([bService] {
            const ExchangeResult result = Run(bService, kTimeout, 5, kLongestPause, [&](auto& reply) {
                reply.Send(kPause, 34);
                reply.Send(kPause, 5);
            });
            EXPECT_EQ(result.lResult, 0) << bService;
            EXPECT_EQ(result.strReply, "xxxxx");
            EXPECT_GE(result.dSeconds, 2.8);
        });
        // Header and payload in pieces.
        threads.emplace_back([bService] {
            const ExchangeResult result = Run(bService, kTimeout, 5, kLongestPause, [&](auto& reply) {
                reply.Send(kPause, 20);
                reply.Send(kPause, 16);
                reply.Send(kPause, 3);
            });
            EXPECT_EQ(result.lResult, 0) << bService;
            EXPECT_EQ(result.strReply, "xxxxx");
            EXPECT_GE(result.dSeconds, 4.2);
        });
    }
}

TEST_F(ReplyTime, SilenceAfterTheHeaderFails) {
    std::vector<std::jthread> threads;
    for (const bool bService : {false, true}) {
        threads.emplace_back([bService] {
            const ExchangeResult result =
                Run(bService, 1000, 5, Milliseconds(900), [&](auto& reply) { reply.Send(Milliseconds(500), 36); });
            EXPECT_EQ(result.lResult, kReceiveFailed) << bService;
            EXPECT_EQ(result.strReply, "before");
            EXPECT_GE(result.dSeconds, 1.5);
            EXPECT_LT(result.dSeconds, 1.5 + kSlack);
        });
    }
}

// Each byte arrives within the time-out, but the exchange ends after ten times the time-out.
TEST_F(ReplyTime, AReplyByteByByteFails) {
    std::vector<std::jthread> threads;
    for (const bool bService : {false, true}) {
        for (const std::size_t cbAtOnce : {1U, 34U}) {
            threads.emplace_back([bService, cbAtOnce] {
                const ExchangeResult result = Run(bService, 600, 100000, Milliseconds(400), [&](auto& reply) {
                    const Milliseconds pause(cbAtOnce == 1 ? 100 : 20);  // the header alone takes more than six seconds
                    reply.Send(Milliseconds(0), cbAtOnce);
                    while (!reply.IsWhole() && reply.Send(pause, 1)) {
                    }
                });
                EXPECT_EQ(result.lResult, kReceiveFailed) << bService;
                EXPECT_EQ(result.strReply, "before");
                EXPECT_GE(result.dSeconds, 6);
                EXPECT_LT(result.dSeconds, 6 + kSlack);
            });
        }
    }
}

}  // namespace
