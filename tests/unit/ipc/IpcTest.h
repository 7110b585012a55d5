// Shared by the tests of the IPC client: its trace, simple peers, and exchanges in one line.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "PipeIPC.h"
#include "ScriptedPeer.h"
#include "SocketCalls.h"

inline constexpr std::chrono::seconds kPatience{20};
inline constexpr double kSlack = 5.0;  // seconds that a busy machine may add

// Results of SendMessageAndWait.
inline constexpr long kSendFailed = 0xE0010004;
inline constexpr long kReceiveFailed = 0xE0010005;

class IpcTest : public testing::Test {
protected:
    // Empties the trace and switches it off.
    IpcTest();
    // Waits for the detached threads of the test.
    ~IpcTest() override;

    static std::string TracePath();
    static void SwitchTraceOn();
    static void SwitchTraceOff();

    // The texts of the trace's lines so far, without their prefixes.
    static std::vector<std::string> Trace();
    // The same for the lines of this thread only.
    static std::vector<std::string> TraceOfThisThread();

    // Waits until the test's threads have ended, detached threads included.
    void WaitForThreads() const;

    // Waits until the trace has a line of that text.
    static void WaitForTrace(const std::string& strLine);

private:
    const std::size_t m_cThreads;
};

// One thread sets it, another waits for it. The wait fails after twenty seconds.
class Event {
public:
    void Set() {
        const std::lock_guard lock(m_mutex);
        m_bSet = true;
        m_changed.notify_all();
    }
    bool Wait() {
        std::unique_lock lock(m_mutex);
        const bool bSet = m_changed.wait_for(lock, kPatience, [this] { return m_bSet; });
        EXPECT_TRUE(bSet) << "nobody set the event";
        return bSet;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_bSet = false;
};

// Checks every millisecond. FALSE: the condition did not become true in time.
template <typename Condition>
bool WaitUntil(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Receives the registration, accepts the client and returns the registration.
inline std::string AcceptRegistration(PeerConnection& connection) {
    std::string strRegistration = connection.Receive(5);
    connection.Send(std::string(1, '\0'));
    return strRegistration;
}

// Script of a peer that accepts a request and replies to it.
inline ScriptedPeer::Script Replies(const std::string& strPayload) {
    return [strPayload](PeerConnection& connection) { connection.Reply(connection.AcceptRequest(), strPayload); };
}

struct ExchangeResult {
    long lResult = 0;
    std::string strReply;  // the reply's buffer, which contains "before" before the exchange
    double dSeconds = 0;
};

// Does an exchange with an object of session 0.
ExchangeResult DoExchange(CPipeIPC& client, std::uint16_t uObject, std::string strPayload = "request",
                          DWORD dwTimeout = 10000);

inline std::string TextOf(const CSmartBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetBytes()), buffer.GetSize()};
}
