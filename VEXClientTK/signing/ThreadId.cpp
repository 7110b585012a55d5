#include "signing/ThreadId.h"

#include <atomic>
#include <mutex>
#include <unordered_set>

namespace vextk {
namespace {

struct LivingThreads {
    std::mutex mutex;
    std::unordered_set<ThreadId> threads;  // guarded by mutex
};

// Never destroyed: threads may still end while the process's exit handlers run.
LivingThreads& Living() {
    static LivingThreads& s_living = *new LivingThreads;
    return s_living;
}

class Registration {
public:
    explicit Registration(ThreadId nThread) : m_nThread(nThread) {
        const std::lock_guard lock(Living().mutex);
        Living().threads.insert(nThread);
    }
    ~Registration() {
        const std::lock_guard lock(Living().mutex);
        Living().threads.erase(m_nThread);
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

private:
    ThreadId m_nThread;
};

}  // namespace

ThreadId CurrentThreadId() {
    // Apart from the registration, so that the number is still there when thread-local destructors have run.
    thread_local ThreadId t_nThread = 0;
    if (t_nThread == 0) {
        static std::atomic<ThreadId> s_nLast{0};
        const ThreadId nThread = ++s_nLast;
        thread_local const Registration t_registration(nThread);
        t_nThread = nThread;
    }
    return t_nThread;
}

bool IsThreadAlive(ThreadId nThread) {
    const std::lock_guard lock(Living().mutex);
    return Living().threads.contains(nThread);
}

void LockThreadIdsForFork() {
    Living().mutex.lock();
}

void UnlockThreadIdsAfterFork() {
    Living().mutex.unlock();
}

}  // namespace vextk
