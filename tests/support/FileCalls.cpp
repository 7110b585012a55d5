#include "FileCalls.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "FileFunctions.h"

namespace {

struct State {
    std::mutex mutex;
    std::condition_variable changed;
#define VEX_COUNT(Result, Name, Failure, Parameters, Arguments) {#Name, 0},
    std::map<std::string_view, int> counts{VEX_FILE_FUNCTIONS(VEX_COUNT){"WriteFile", 0}};
#undef VEX_COUNT
    std::shared_ptr<const std::function<void(const file_calls::Call&)>> pBefore;

    auto Before() {
        const std::lock_guard lock(mutex);
        return pBefore;
    }

    int& CountOf(std::string_view function) {
        const auto found = counts.find(function);
        if (found == counts.end()) {
            std::abort();
        }
        return found->second;
    }
};

// Never destroyed: the log outlives main.
State& TheState() {
    static State& s_state = *new State;
    return s_state;
}

template <typename Real>
auto Pass(const file_calls::Call& call, Real real) {
    State& state = TheState();
    if (const auto pBefore = state.Before()) {
        (*pBefore)(call);
    }
    const auto result = real();
    {
        const std::lock_guard lock(state.mutex);
        ++state.CountOf(call.function);
    }
    state.changed.notify_all();
    return result;
}

}  // namespace

namespace file_calls {

void Watch(std::function<void(const Call&)> fnBefore) {
    State& state = TheState();
    const std::lock_guard lock(state.mutex);
    state.pBefore = fnBefore ? std::make_shared<const std::function<void(const Call&)>>(std::move(fnBefore)) : nullptr;
}

int Count(std::string_view function) {
    State& state = TheState();
    const std::lock_guard lock(state.mutex);
    return state.CountOf(function);
}

void WaitFor(std::string_view function, int nCount) {
    State& state = TheState();
    std::unique_lock lock(state.mutex);
    // Gives up after twenty seconds without a call. A slow machine may take longer for all of them.
    while (state.CountOf(function) < nCount) {
        if (state.changed.wait_for(lock, std::chrono::seconds(20)) == std::cv_status::timeout &&
            state.CountOf(function) < nCount) {
            std::fprintf(stderr, "20 s without a call: waited for %d calls of %.*s, there were %d\n", nCount,
                         static_cast<int>(function.size()), function.data(), state.CountOf(function));
            std::abort();
        }
    }
}

}  // namespace file_calls

#define VEX_PASS(Result, Name, Failure, Parameters, Arguments)     \
    Result Name Parameters {                                       \
        static VEX_NEXT(Name);                                     \
        return Pass({#Name}, [&] { return s_p##Name Arguments; }); \
    }
VEX_FILE_FUNCTIONS(VEX_PASS)
#undef VEX_PASS

BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD cb, DWORD* pcbWritten, LPVOID lpOverlapped) {
    static VEX_NEXT(WriteFile);
    return Pass({"WriteFile", {static_cast<const char*>(lpBuffer), cb}},
                [&] { return s_pWriteFile(hFile, lpBuffer, cb, pcbWritten, lpOverlapped); });
}
