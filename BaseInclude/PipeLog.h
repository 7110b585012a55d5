// The trace of the IPC client, to look at exchanges on a deployed machine. It is on while the file /tmp/testPipe exists
// and goes to /tmp/pipe.log, which grows without limit. Every line opens and closes the file. A file that
// VEXOpenToAppend refuses gets no lines.
#pragma once

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "VEXAppendFile.h"
#include "VEXForkPause.h"

// One line of printf text, cut to 1023 bytes:
//   [P<process>] [T<thread, low 32 bits>] [<local date and time>:<microseconds>]: <text>
// The microseconds are padded to three digits. Any thread: each line is written whole, so lines of several threads do
// not mix. Failures are not reported; errno does not change.
__attribute__((__format__(__printf__, 1, 2))) inline void pv_logEx(const char* pszFormat, ...) {
    const int nError = errno;
    std::FILE* const pFile = access("/tmp/testPipe", F_OK) == 0 ? VEXOpenToAppend("/tmp/pipe.log") : nullptr;
    if (pFile == nullptr) {
        errno = nError;
        return;
    }
    timeval time = {};
    std::tm local = {};
    char szPrefix[256 + 5] = {};
    if (gettimeofday(&time, nullptr) == 0 && CVEXForkPause().LocalTime(time.tv_sec, local)) {
        static_cast<void>(
            std::snprintf(szPrefix, sizeof szPrefix, "[P%04d] [T%04d] [%04d-%02d-%02d %02d:%02d:%02d:%03d]: ", getpid(),
                          static_cast<int>(pthread_self()), local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                          local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(time.tv_usec)));
    }
    char szMessage[1024] = {};
    va_list args;
    va_start(args, pszFormat);
    errno = nError;  // for %m
    static_cast<void>(std::vsnprintf(szMessage, sizeof szMessage, pszFormat, args));
    va_end(args);
    static_cast<void>(std::fprintf(pFile, "%s%s\n", szPrefix, szMessage));
    static_cast<void>(std::fclose(pFile));
    errno = nError;
}
