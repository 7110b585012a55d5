// What the tests of the log share: a log directory of each test's own, and the log itself in child processes, because a
// process has one log manager in its life.
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

class LogTest : public testing::Test {
protected:
    LogTest();
    ~LogTest() override;

    // Where the default name leads in this test.
    std::string LogPath() const { return m_directory.Path("PILog.txt"); }

    // A fresh directory that is the current one of the child processes.
    std::string WorkingDirectory() const { return m_directory.Path("cwd"); }

    // The names of the files in the working directory, sorted.
    std::vector<std::string> FilesInWorkingDirectory() const;

    // Runs body in a child that ends at once and has to pass.
    void InChild(const std::function<void()>& fnBody);
    // The same with the end of choice.
    ChildEnd RunLogChild(const std::function<void()>& fnBody, Exit exit);

    const TempDirectory m_directory;
};

// ---- For child processes ----

// A record with the given message, from "test.cpp" and function "Function", line 7.
void Trace(const std::wstring& strMessage);

// OutputArgs with arguments.
void TraceArguments(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszFile, LPCTSTR lpszFunction, DWORD dwLine,
                    LPCTSTR lpszFormat, ...);

// Returns when all that was queued before has been written to the file, by adding a last record of type "[MARK] ".
// Ends the process with a message after twenty seconds without it.
void WaitUntilWritten(const std::string& strPath);

// ReadLogRecords without the records of WaitUntilWritten.
std::vector<LogRecord> RecordsOf(const std::string& strPath);
