// Moves the fixed paths of the log and its switches into the directory that the environment variable VEX_TEST_LOG_DIR
// names. Tests must not write into the real log, and no setting of the product changes these paths. Also a library for
// LD_PRELOAD, for JVMs and other programs that are not built here; test programs are linked with this file and
// PrivateLogDirectory.cpp. The calls take part in SystemCalls.h.

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

#include "SystemCalls.h"

using system_calls::Next;
using system_calls::Perform;

namespace {

constexpr std::string_view kPaths[] = {"/tmp/PILog.txt", "/tmp/pipe.log", "/tmp/testPipe", "/var/log.ini"};

// Redirects a path. Allocates nothing, because in some tests memory runs out.
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

mode_t ModeArgument(int nFlags, va_list arguments) {
    const bool bHasMode = (nFlags & O_CREAT) != 0 || (nFlags & O_TMPFILE) == O_TMPFILE;
    return bHasMode ? va_arg(arguments, mode_t) : 0;
}

// The name that a fault has for this use of open.
const char* NameOfOpen(int nFlags) {
    return (nFlags & O_TMPFILE) == O_TMPFILE ? "open without a name"
           : (nFlags & O_CREAT) != 0         ? "open to create"
                                             : "open";
}

}  // namespace

extern "C" {

int open(const char* pszPath, int nFlags, ...) {
    static auto* const s_pNext = Next(open, "open");
    va_list arguments;
    va_start(arguments, nFlags);
    const mode_t nMode = ModeArgument(nFlags, arguments);
    va_end(arguments);
    const Destination path(pszPath);
    return Perform({NameOfOpen(nFlags)}, [&](std::size_t) { return s_pNext(path.Path(), nFlags, nMode); });
}

int open64(const char* pszPath, int nFlags, ...) {
    static auto* const s_pNext = Next(open64, "open64");
    va_list arguments;
    va_start(arguments, nFlags);
    const mode_t nMode = ModeArgument(nFlags, arguments);
    va_end(arguments);
    return s_pNext(Destination(pszPath).Path(), nFlags, nMode);
}

// A fortified build calls this for open without a mode.
int __open_2(const char* pszPath, int nFlags) {
    static auto* const s_pNext = Next(__open_2, "__open_2");
    return s_pNext(Destination(pszPath).Path(), nFlags);
}

int __open64_2(const char* pszPath, int nFlags) {
    static auto* const s_pNext = Next(__open64_2, "__open64_2");
    return s_pNext(Destination(pszPath).Path(), nFlags);
}

int openat(int nDirectory, const char* pszPath, int nFlags, ...) {
    static auto* const s_pNext = Next(openat, "openat");
    va_list arguments;
    va_start(arguments, nFlags);
    const mode_t nMode = ModeArgument(nFlags, arguments);
    va_end(arguments);
    const Destination path(pszPath);
    return Perform({NameOfOpen(nFlags)}, [&](std::size_t) { return s_pNext(nDirectory, path.Path(), nFlags, nMode); });
}

int __openat_2(int nDirectory, const char* pszPath, int nFlags) {
    static auto* const s_pNext = Next(__openat_2, "__openat_2");
    const Destination path(pszPath);
    return Perform({NameOfOpen(nFlags)}, [&](std::size_t) { return s_pNext(nDirectory, path.Path(), nFlags); });
}

// Gives a name to a file that was created without one.
int linkat(int nOldDirectory, const char* pszOld, int nNewDirectory, const char* pszNew, int nFlags) noexcept {
    static auto* const s_pNext = Next(linkat, "linkat");
    const Destination path(pszNew);
    return Perform({"linkat"},
                   [&](std::size_t) { return s_pNext(nOldDirectory, pszOld, nNewDirectory, path.Path(), nFlags); });
}

FILE* fopen(const char* pszPath, const char* pszMode) {
    static auto* const s_pNext = Next(fopen, "fopen");
    return s_pNext(Destination(pszPath).Path(), pszMode);
}

FILE* fopen64(const char* pszPath, const char* pszMode) {
    static auto* const s_pNext = Next(fopen64, "fopen64");
    return s_pNext(Destination(pszPath).Path(), pszMode);
}

int stat(const char* pszPath, struct stat* pStat) noexcept {
    static auto* const s_pNext = Next(stat, "stat");
    const Destination path(pszPath);
    return Perform({"stat"}, [&](std::size_t) { return s_pNext(path.Path(), pStat); });
}

int stat64(const char* pszPath, struct stat64* pStat) noexcept {
    static auto* const s_pNext = Next(stat64, "stat64");
    return s_pNext(Destination(pszPath).Path(), pStat);
}

int access(const char* pszPath, int nMode) noexcept {
    static auto* const s_pNext = Next(access, "access");
    const Destination path(pszPath);
    return Perform({"access"}, [&](std::size_t) { return s_pNext(path.Path(), nMode); });
}

}  // extern "C"
