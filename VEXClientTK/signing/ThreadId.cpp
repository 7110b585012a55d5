#include "signing/ThreadId.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
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

void Forget(void* pThread) {
    const std::lock_guard lock(Living().mutex);
    Living().threads.erase(reinterpret_cast<ThreadId>(pThread));
}

// What tells that a thread ends. No thread_local object: libc ends the process when it has no memory to note that one
// has to be destroyed.
class EndOfThreads {
public:
    EndOfThreads() noexcept : m_fMade(pthread_key_create(&m_key, Forget) == 0) {}
    // The library is unloaded, or the process ends; threads that end later stay in the register.
    ~EndOfThreads() {
        if (m_fMade) {
            pthread_key_delete(m_key);
        }
    }
    EndOfThreads(const EndOfThreads&) = delete;
    EndOfThreads& operator=(const EndOfThreads&) = delete;

    // Without a key, and once they are gone, threads are never forgotten, which costs memory.
    void Watch(ThreadId nThread) const {
        // The number itself is the key's value.
        const void* const pThread = reinterpret_cast<const void*>(nThread);  // NOLINT(performance-no-int-to-ptr)
        if (m_fMade && pthread_setspecific(m_key, pThread) == ENOMEM) {
            throw std::bad_alloc();
        }
    }

private:
    pthread_key_t m_key = 0;
    const bool m_fMade;
};

const EndOfThreads s_endOfThreads;

void Register(ThreadId nThread) {
    {
        const std::lock_guard lock(Living().mutex);
        Living().threads.insert(nThread);
    }
    try {
        s_endOfThreads.Watch(nThread);
    } catch (const std::bad_alloc&) {
        const std::lock_guard lock(Living().mutex);
        Living().threads.erase(nThread);
        throw;
    }
}

}  // namespace

ThreadId CurrentThreadId() {
    thread_local ThreadId t_nThread = 0;
    if (t_nThread == 0) {
        static std::atomic<ThreadId> s_nLast{0};
        const ThreadId nThread = ++s_nLast;
        Register(nThread);
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
