#include "FileCalls.h"

#include <dlfcn.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "VEXCompat.h"

namespace {

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::array<std::pair<std::string_view, int>, 10> counts = {{{"VexCreateFile", 0},
                                                                {"CloseHandle", 0},
                                                                {"ReadFile", 0},
                                                                {"WriteFile", 0},
                                                                {"SetFilePointerEx", 0},
                                                                {"GetFileSizeEx", 0},
                                                                {"FlushFileBuffers", 0},
                                                                {"SetEndOfFile", 0},
                                                                {"PathIsDirectoryW", 0},
                                                                {"SHCreateDirectoryExW", 0}}};
    std::shared_ptr<const std::function<void(const file_calls::Call&)>> pBefore;

    auto Before() {
        const std::lock_guard lock(mutex);
        return pBefore;
    }

    int& CountOf(std::string_view function) {
        for (auto& [name, nCount] : counts) {
            if (name == function) {
                return nCount;
            }
        }
        std::abort();
    }
};

// Never destroyed: the log outlives main.
State& TheState() {
    static State& s_state = *new State;
    return s_state;
}

template <typename Function, typename... Arguments>
auto Pass(Function* pNext, const file_calls::Call& call, Arguments... arguments) {
    State& state = TheState();
    if (const auto pBefore = state.Before()) {
        (*pBefore)(call);
    }
    const auto result = pNext(arguments...);
    {
        const std::lock_guard lock(state.mutex);
        ++state.CountOf(call.function);
    }
    state.changed.notify_all();
    return result;
}

template <typename Function>
Function* Next(Function*, const char* pszName) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, pszName));
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
    // In vain is when nothing is called any more. How long it all takes is the machine's affair.
    while (state.CountOf(function) < nCount) {
        if (state.changed.wait_for(lock, std::chrono::seconds(20)) == std::cv_status::timeout &&
            state.CountOf(function) < nCount) {
            std::fprintf(stderr, "Waited in vain for %d calls of %.*s; there were %d\n", nCount,
                         static_cast<int>(function.size()), function.data(), state.CountOf(function));
            std::abort();
        }
    }
}

}  // namespace file_calls

HANDLE VexCreateFile(LPCSTR lpFileName) {
    static auto* const s_pNext = Next(VexCreateFile, "VexCreateFile");
    return Pass(s_pNext, {"VexCreateFile"}, lpFileName);
}

BOOL CloseHandle(HANDLE hObject) {
    static auto* const s_pNext = Next(CloseHandle, "CloseHandle");
    return Pass(s_pNext, {"CloseHandle"}, hObject);
}

BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD cb, DWORD* pcbRead, LPVOID lpOverlapped) {
    static auto* const s_pNext = Next(ReadFile, "ReadFile");
    return Pass(s_pNext, {"ReadFile"}, hFile, lpBuffer, cb, pcbRead, lpOverlapped);
}

BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD cb, DWORD* pcbWritten, LPVOID lpOverlapped) {
    static auto* const s_pNext = Next(WriteFile, "WriteFile");
    return Pass(s_pNext, {"WriteFile", {static_cast<const char*>(lpBuffer), cb}}, hFile, lpBuffer, cb, pcbWritten,
                lpOverlapped);
}

BOOL SetFilePointerEx(HANDLE hFile, LARGE_INTEGER liDistance, LONGLONG* pPosition, DWORD dwMoveMethod) {
    static auto* const s_pNext = Next(SetFilePointerEx, "SetFilePointerEx");
    return Pass(s_pNext, {"SetFilePointerEx"}, hFile, liDistance, pPosition, dwMoveMethod);
}

BOOL GetFileSizeEx(HANDLE hFile, LONGLONG* lpFileSize) {
    static auto* const s_pNext = Next(GetFileSizeEx, "GetFileSizeEx");
    return Pass(s_pNext, {"GetFileSizeEx"}, hFile, lpFileSize);
}

BOOL FlushFileBuffers(HANDLE hFile) {
    static auto* const s_pNext = Next(FlushFileBuffers, "FlushFileBuffers");
    return Pass(s_pNext, {"FlushFileBuffers"}, hFile);
}

BOOL SetEndOfFile(HANDLE hFile) {
    static auto* const s_pNext = Next(SetEndOfFile, "SetEndOfFile");
    return Pass(s_pNext, {"SetEndOfFile"}, hFile);
}

BOOL PathIsDirectoryW(LPCWSTR pszPath) {
    static auto* const s_pNext = Next(PathIsDirectoryW, "PathIsDirectoryW");
    return Pass(s_pNext, {"PathIsDirectoryW"}, pszPath);
}

int SHCreateDirectoryExW(HANDLE hwnd, LPCWSTR pszPath, LPCVOID psa) {
    static auto* const s_pNext = Next(SHCreateDirectoryExW, "SHCreateDirectoryExW");
    return Pass(s_pNext, {"SHCreateDirectoryExW"}, hwnd, pszPath, psa);
}
