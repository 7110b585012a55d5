// The fixed paths of the log and its switches lead into the directory named by the environment variable
// VEX_TEST_LOG_DIR: tests must not write into the log of whoever runs them, and nothing in the product can set these
// paths. As a library for LD_PRELOAD it serves programs that are not built here, the JVMs above all; test programs have
// it compiled in, together with PrivateLogDirectory.cpp.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

namespace {

constexpr std::string_view kPaths[] = {"/tmp/PILog.txt", "/tmp/pipe.log", "/tmp/testPipe", "/var/log.ini"};

// Where a path leads. Without memory of its own: tests take that away.
class Destination {
public:
    explicit Destination(const char* pszPath) : m_pszPath(pszPath) {
        const char* pszDirectory = std::getenv("VEX_TEST_LOG_DIR");
        if (pszPath == nullptr || pszDirectory == nullptr ||
            std::find(std::begin(kPaths), std::end(kPaths), pszPath) == std::end(kPaths)) {
            return;
        }
        const int cch = std::snprintf(m_szMoved, sizeof m_szMoved, "%s%s", pszDirectory, std::strrchr(pszPath, '/'));
        if (cch < 0 || static_cast<std::size_t>(cch) >= sizeof m_szMoved) {
            std::abort();
        }
        m_pszPath = m_szMoved;
    }
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    const char* Path() const { return m_pszPath; }

private:
    char m_szMoved[PATH_MAX];
    const char* m_pszPath;
};

// The function that would have been called without this library.
template <typename Function>
Function* Next(const char* pszName) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, pszName));
}

mode_t ModeArgument(int nFlags, va_list arguments) {
    const bool fHasMode = (nFlags & O_CREAT) != 0 || (nFlags & O_TMPFILE) == O_TMPFILE;
    return fHasMode ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

extern "C" {

int open(const char* pszPath, int nFlags, ...) {
    static auto* const s_pNext = Next<int(const char*, int, ...)>("open");
    va_list arguments;
    va_start(arguments, nFlags);
    const mode_t nMode = ModeArgument(nFlags, arguments);
    va_end(arguments);
    return s_pNext(Destination(pszPath).Path(), nFlags, nMode);
}

int open64(const char* pszPath, int nFlags, ...) {
    static auto* const s_pNext = Next<int(const char*, int, ...)>("open64");
    va_list arguments;
    va_start(arguments, nFlags);
    const mode_t nMode = ModeArgument(nFlags, arguments);
    va_end(arguments);
    return s_pNext(Destination(pszPath).Path(), nFlags, nMode);
}

// What open becomes in a fortified build when it has no mode.
int __open_2(const char* pszPath, int nFlags) {
    static auto* const s_pNext = Next<int(const char*, int)>("__open_2");
    return s_pNext(Destination(pszPath).Path(), nFlags);
}

int __open64_2(const char* pszPath, int nFlags) {
    static auto* const s_pNext = Next<int(const char*, int)>("__open64_2");
    return s_pNext(Destination(pszPath).Path(), nFlags);
}

// Gives a name to a file that was made without one.
int linkat(int nOldDirectory, const char* pszOld, int nNewDirectory, const char* pszNew, int nFlags) noexcept {
    static auto* const s_pNext = Next<int(int, const char*, int, const char*, int)>("linkat");
    return s_pNext(nOldDirectory, pszOld, nNewDirectory, Destination(pszNew).Path(), nFlags);
}

FILE* fopen(const char* pszPath, const char* pszMode) {
    static auto* const s_pNext = Next<FILE*(const char*, const char*)>("fopen");
    return s_pNext(Destination(pszPath).Path(), pszMode);
}

FILE* fopen64(const char* pszPath, const char* pszMode) {
    static auto* const s_pNext = Next<FILE*(const char*, const char*)>("fopen64");
    return s_pNext(Destination(pszPath).Path(), pszMode);
}

int stat(const char* pszPath, struct stat* pStat) noexcept {
    static auto* const s_pNext = Next<int(const char*, struct stat*)>("stat");
    return s_pNext(Destination(pszPath).Path(), pStat);
}

int stat64(const char* pszPath, struct stat64* pStat) noexcept {
    static auto* const s_pNext = Next<int(const char*, struct stat64*)>("stat64");
    return s_pNext(Destination(pszPath).Path(), pStat);
}

int access(const char* pszPath, int nMode) noexcept {
    static auto* const s_pNext = Next<int(const char*, int)>("access");
    return s_pNext(Destination(pszPath).Path(), nMode);
}

}  // extern "C"
