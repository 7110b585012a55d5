// Writes signatures in a thread of its own: the next one is made while a file is created and brought to the disk.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "Signing.h"

namespace vexsign {

struct QueuedOutput {
    std::string strName;
    Signature signature;
    std::size_t nInput;  // for the report of a failure
};

// One thread calls the members.
class OutputQueue {
public:
    using Failed = std::function<void(std::size_t nInput, const std::string& strReason)>;

    // fnFailed is called for each output that could not be written or put into place, in the queue's thread. Signals
    // that end the process must not be blocked here: that thread has to receive them (Batch.cpp).
    explicit OutputQueue(Failed fnFailed);
    // Without Finish, outputs that are not in place yet are lost.
    ~OutputQueue();
    OutputQueue(const OutputQueue&) = delete;
    OutputQueue& operator=(const OutputQueue&) = delete;

    // Waits while much is queued.
    void Add(QueuedOutput output);
    // Returns when every output is in place or has failed.
    void Finish();

private:
    enum class End { kNo, kWhenEmpty, kNow };

    void Run();
    // False: there are no more.
    bool Take(QueuedOutput& output);
    void Stop(End end);

    const Failed m_fnFailed;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<QueuedOutput> m_outputs;  // guarded by m_lock
    std::uint64_t m_cbQueued = 0;        // guarded by m_lock
    End m_end = End::kNo;                // guarded by m_lock
    std::thread m_thread;                // the last member: it uses the others
};

}  // namespace vexsign
