// What the tests of the IPC client share: its trace, and exchanges in one line.
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

class IpcTest : public testing::Test {
protected:
    // The trace is empty and switched off.
    IpcTest();
    // Waits for the detached threads that the test has left behind.
    ~IpcTest() override;

    static std::string TracePath();
    static void SwitchTraceOn();
    static void SwitchTraceOff();

    // The texts of the trace's lines so far, without their prefixes.
    static std::vector<std::string> Trace();
    // The same without the lines of other threads.
    static std::vector<std::string> TraceOfThisThread();

    // Waits until the test's threads have ended, detached ones as well.
    void WaitForThreads() const;

    // Waits until the trace has a line of that text.
    static void WaitForTrace(const std::string& strLine);

private:
    const std::size_t m_cThreads;
};

// Set by one thread, waited for by another, with a failure after twenty seconds.
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
        EXPECT_TRUE(bSet) << "waited in vain";
        return bSet;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_bSet = false;
};

// Looks every millisecond. FALSE: it did not come true in time.
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

struct ExchangeResult {
    long lResult = 0;
    std::string strReply;  // what is in the buffer that held "before"
    double dSeconds = 0;
};

// An exchange with an object of session 0.
ExchangeResult DoExchange(CPipeIPC& client, std::uint16_t uObject, std::string strPayload = "request",
                          DWORD dwTimeout = 10000);

inline std::string TextOf(const CSmartBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetBytes()), buffer.GetSize()};
}
