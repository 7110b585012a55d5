// Writes a log like that of the natives, with the log manager, from several processes and threads at once:
//
//   vexlog_sample_log PROCESSES THREADS CALLS LIMIT [PAUSE]
//
// CALLS: of each thread. LIMIT: bytes above which the file is cut by a fifth; 0: never. PAUSE: microseconds that a call
// takes on average. The log is in the directory VEX_TEST_LOG_DIR (tests/support/PrivateLog.cpp). One call of fifty is
// refused. The program ends when all records are written, and prints their number.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "DebugLogMgr.h"
#include "FileCalls.h"
#include "Threads.h"

namespace {

struct Native {
    const char* pszName;
    DWORD dwEnterLine;
    DWORD dwLeaveLine;
    double dRelativeTime;
};

constexpr Native kNatives[] = {
    {"Java_vex_jni_TAVClientJNI_Initialize", 101, 112, 6.0},
    {"Java_vex_jni_TAVClientJNI_SetDigestAlg", 0, 141, 0.1},
    {"Java_vex_jni_TAVClientJNI_AddFilter", 171, 195, 0.2},
    {"Java_vex_jni_TAVClientJNI_P1SignString", 274, 318, 2.0},
    {"Java_vex_jni_TAVClientJNI_P7Sign", 325, 368, 3.0},
    {"Java_vex_jni_TAVClientJNI_GetLastErrorMessage", 512, 545, 0.05},
    {"Java_vex_jni_TAVClientJNI_GetCertList", 552, 585, 1.0},
    {"Java_vex_jni_TAVClientJNI_Finalize", 428, 442, 0.4},
};

void Trace(const Native& native, DWORD dwLine, LPCTSTR lpszFormat) {
    if (dwLine == 0) {
        return;
    }
    const std::wstring strName(native.pszName, native.pszName + std::strlen(native.pszName));
    // The zeroes behind the name end it when it is read as wide text.
    alignas(wchar_t) std::array<char, 64> szNarrow = {};
    std::strncpy(szNarrow.data(), native.pszName, szNarrow.size() - sizeof(wchar_t));
    CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"TAVClientJNI/vex_jni_TAVClientJNI.cpp", strName.c_str(), dwLine)(
        lpszFormat, szNarrow.data());
}

// Returns the number of records written.
int Calls(unsigned uSeed, int nCalls, int nPause) {
    std::minstd_rand random(uSeed);
    std::lognormal_distribution<double> duration(0.0, 0.8);
    int nRecords = 0;
    for (int nCall = 0; nCall < nCalls; ++nCall) {
        const Native& native = kNatives[random() % std::size(kNatives)];
        const bool bRefused = random() % 50 == 0;
        const auto pause = static_cast<int>(duration(random) * native.dRelativeTime * nPause);
        Trace(native, native.dwEnterLine, L"%s Enter.");
        if (nPause > 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(pause));
        }
        if (!bRefused) {
            Trace(native, native.dwLeaveLine, L"%s Leave.");
        }
        nRecords += (native.dwEnterLine != 0 ? 1 : 0) + (bRefused ? 0 : 1);
        if (nPause > 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(nPause));
        }
    }
    return nRecords;
}

[[noreturn]] void RunProcess(unsigned uSeed, int nThreads, int nCalls, DWORD dwLimit, int nPause) {
    alarm(120);
    CDebugLogMgr::GetInstance()->SetTruncate(dwLimit, dwLimit == 0 ? 0 : 20);
    std::atomic<int> nRecords = 0;
    OnThreads(nThreads, [=, &nRecords](int nThread) {
        nRecords += Calls(uSeed * 100 + static_cast<unsigned>(nThread), nCalls, nPause);
    });
    file_calls::WaitFor("CloseHandle", nRecords);
    std::printf("%d\n", nRecords.load());
    std::fflush(stdout);
    _exit(0);
}

// Starts this program again and does not only fork: in a fork a sanitizer keeps the parent's view of the toolkit's
// locks.
pid_t Spawn(const std::string& strSeed, char** argv) {
    std::vector<char*> arguments = {argv[0], argv[1], argv[2], argv[3], argv[4]};
    std::string strPause = argv[5] != nullptr ? argv[5] : "0";
    std::string strOwnSeed = strSeed;
    arguments.push_back(strPause.data());
    arguments.push_back(strOwnSeed.data());
    arguments.push_back(nullptr);
    pid_t nChild = -1;
    return posix_spawn(&nChild, "/proc/self/exe", nullptr, nullptr, arguments.data(), environ) == 0 ? nChild : -1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5 || std::getenv("VEX_TEST_LOG_DIR") == nullptr) {
        std::fputs("usage: VEX_TEST_LOG_DIR=... vexlog_sample_log PROCESSES THREADS CALLS LIMIT [PAUSE]\n", stderr);
        return 2;
    }
    if (argc > 6) {
        RunProcess(static_cast<unsigned>(std::atoi(argv[6])), std::atoi(argv[2]), std::atoi(argv[3]),
                   static_cast<DWORD>(std::atol(argv[4])), std::atoi(argv[5]));
    }
    const int nProcesses = std::atoi(argv[1]);
    int nFailed = 0;
    std::vector<pid_t> children;
    for (int nProcess = 0; nProcess < nProcesses; ++nProcess) {
        children.push_back(Spawn(std::to_string(nProcess + 1), argv));
    }
    for (const pid_t nChild : children) {
        int nStatus = -1;
        nFailed += nChild < 0 || waitpid(nChild, &nStatus, 0) != nChild || nStatus != 0 ? 1 : 0;
    }
    return nFailed == 0 ? 0 : 1;
}
