// Shared by the tests of the log. Each test has its own log directory, and runs the log in child processes, because a
// process has only one log manager in its life.
#pragma once

#include <gtest/gtest.h>

#include <cstdarg>
#include <functional>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "DebugLogMgr.h"
#include "LogFile.h"
#include "TempDirectory.h"

// Under AddressSanitizer a forked child inherits allocator locks that the parent's other threads held.
#if defined(__SANITIZE_ADDRESS__)
#define SKIP_FORKS_WITH_ASAN() GTEST_SKIP() << "skipped: a forked child may find the sanitizer's own allocator locked"
#else
#define SKIP_FORKS_WITH_ASAN() static_cast<void>(0)
#endif

class LogTest : public testing::Test {
protected:
    LogTest();
    ~LogTest() override;

    // The file of the log's default name in this test.
    std::string LogPath() const { return m_directory.Path("PILog.txt"); }

    // An empty directory, the current one of the child processes.
    std::string WorkingDirectory() const { return m_directory.Path("cwd"); }

    // The names of the files in the working directory, sorted.
    std::vector<std::string> FilesInWorkingDirectory() const;

    // Runs fnBody in a child, which has to pass. A child may call it as well, even while the log's threads run.
    void InChild(const std::function<void()>& fnBody, Exit exit = Exit::kAtOnce);
    // The same; the caller checks how the child ended.
    ChildEnd RunLogChild(const std::function<void()>& fnBody, Exit exit);

    const TempDirectory m_directory;
};

// ---- For child processes ----

// A place that traces: "test.cpp", function "Function", line 7.
inline CDebugLogMgr::MacroHelper Place(int nLevel = 1) {
    return {L"[INFO] ", nLevel, L"test.cpp", L"Function", 7};
}

// Writes a record with that message from Place.
void Trace(const std::wstring& strMessage);

// OutputArgs with arguments.
void TraceArguments(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszFile, LPCTSTR lpszFunction, DWORD dwLine,
                    LPCTSTR lpszFormat, ...);

void SetLogFileName(const std::string& strPath);

// Waits until the writer has written the queue to the file: adds a last record of type "[MARK] " and looks for it. Ends
// the process with a message when the file does not change for twenty seconds.
void WaitUntilWritten(const std::string& strPath);

// ---- The records of a file, without those of WaitUntilWritten ----

std::vector<LogRecord> RecordsOf(const std::string& strPath);
std::vector<std::string> MessagesOf(const std::string& strPath);
