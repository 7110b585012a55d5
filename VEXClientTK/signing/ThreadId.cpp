#include "signing/ThreadId.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <new>

namespace vextk {
namespace {

thread_local ThreadId t_nThread = kNoThread;

std::atomic<ForgetThreadFunction> s_pfnForget{nullptr};

void End(void* pThread) {
    // Destructors that run later on this thread may use the toolkit again. The thread then gets a new number, and this
    // function is called again.
    t_nThread = kNoThread;
    if (const auto pfnForget = s_pfnForget.load()) {
        pfnForget(reinterpret_cast<ThreadId>(pThread));
    }
}

// Notices when a thread ends. This is not a thread_local object with a destructor: libc needs memory to register one,
// and ends the process when there is none.
class EndOfThreads {
public:
    EndOfThreads() noexcept : m_bMade(pthread_key_create(&m_key, End) == 0) {}
    // The library is unloaded, or the process ends. What later threads leave is not freed.
    ~EndOfThreads() {
        if (m_bMade) {
            pthread_key_delete(m_key);
        }
    }
    EndOfThreads(const EndOfThreads&) = delete;
    EndOfThreads& operator=(const EndOfThreads&) = delete;

    // Without the key, the end of a thread is not noticed, and what it leaves is not freed.
    void Watch(ThreadId nThread) const {
        // The number itself is the key's value.
        const void* const pThread = reinterpret_cast<const void*>(nThread);  // NOLINT(performance-no-int-to-ptr)
        if (m_bMade && pthread_setspecific(m_key, pThread) == ENOMEM) {
            throw std::bad_alloc();
        }
    }

private:
    pthread_key_t m_key = 0;
    const bool m_bMade;
};

EndOfThreads s_endOfThreads;

}  // namespace

ThreadId CurrentThreadId() {
    if (t_nThread == kNoThread) {
        static std::atomic<ThreadId> s_nLast{kNoThread};
        const ThreadId nThread = ++s_nLast;
        s_endOfThreads.Watch(nThread);
        t_nThread = nThread;
    }
    return t_nThread;
}

ThreadId CurrentThreadIdIfAny() noexcept {
    return t_nThread;
}

ForgetThreadFunction OnThreadEnd(ForgetThreadFunction pfnForget) noexcept {
    return s_pfnForget.exchange(pfnForget);
}

}  // namespace vextk
