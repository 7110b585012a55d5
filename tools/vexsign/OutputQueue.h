// Writes signatures in a thread of its own: the next ones are made while files are created and brought to the disk. The
// thread takes many at a time, because each change between threads costs more than the creation of a file.
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
#include "common/OutputGroup.h"

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
    void Write(const QueuedOutput& output, tools::OutputGroup& group);
    // Waits until much is queued, or until the end. Empty: there are no more.
    std::deque<QueuedOutput> TakeAll();
    // Whether it is worth waking the thread. Needs the lock.
    bool IsMuch() const;
    void Stop(End end);

    const Failed m_fnFailed;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<QueuedOutput> m_outputs;  // guarded by m_lock
    std::uint64_t m_cbQueued = 0;        // guarded by m_lock
    bool m_bFull = false;                // the next output does not fit; guarded by m_lock
    End m_end = End::kNo;                // guarded by m_lock
    std::thread m_thread;                // the last member: it uses the others
};

}  // namespace vexsign
