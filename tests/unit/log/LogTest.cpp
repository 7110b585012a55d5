#include "LogTest.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <system_error>
#include <thread>

namespace {

constexpr std::string_view kMarkType = "[MARK] ";

// Whether the text is near the end of the file; other processes may have written behind it.
bool EndContains(const std::string& strPath, const std::string& strText, std::streamoff cbEnd) {
    std::ifstream file(strPath, std::ios::binary | std::ios::ate);
    if (!file) {
        return false;
    }
    file.seekg(std::max(std::streamoff{0}, std::streamoff(file.tellg()) - cbEnd));
    const std::string strEnd{std::istreambuf_iterator<char>(file), {}};
    return strEnd.find(strText) != std::string::npos;
}

}  // namespace

LogTest::LogTest() {
    std::filesystem::create_directory(WorkingDirectory());
    setenv("VEX_TEST_LOG_DIR", m_directory.Path().c_str(), 1);
    setenv("LC_ALL", "C.UTF-8", 1);
}

LogTest::~LogTest() = default;

std::vector<std::string> LogTest::FilesInWorkingDirectory() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(WorkingDirectory())) {
        if (!entry.is_directory()) {
            names.push_back(std::filesystem::relative(entry.path(), WorkingDirectory()).string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

ChildEnd LogTest::RunLogChild(const std::function<void()>& fnBody, Exit exit) {
    return RunChild(
        [&] {
            ASSERT_EQ(chdir(WorkingDirectory().c_str()), 0);
            fnBody();
        },
        exit);
}

void LogTest::InChild(const std::function<void()>& fnBody, Exit exit) {
    EXPECT_TRUE(RunLogChild(fnBody, exit).Passed());
}

void Trace(const std::wstring& strMessage) {
    Place()(L"%s", strMessage.c_str());
}

void TraceArguments(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszFile, LPCTSTR lpszFunction, DWORD dwLine,
                    LPCTSTR lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    CDebugLogMgr::GetInstance()->OutputArgs(lpszLogType, nLogLevel, lpszFile, lpszFunction, dwLine, lpszFormat, args);
    va_end(args);
}

void SetLogFileName(const std::string& strPath) {
    CDebugLogMgr::GetInstance()->SetLogFileName(std::wstring(strPath.begin(), strPath.end()).c_str());
}

void WaitUntilWritten(const std::string& strPath) {
    static std::atomic<int> s_nMarks = 0;
    const std::string strMark = "mark " + std::to_string(getpid()) + "." + std::to_string(++s_nMarks) + ".";
    TraceArguments(L"[MARK] ", 1000, L"test.cpp", nullptr, 0, L"%hs", strMark.c_str());
    // Gives up after 20 s without progress; a slow machine may need longer in total.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::uintmax_t cbFile = 0;
    // The end of the file is quickly read. But other writers may have passed it between two looks, therefore every 32nd
    // look is at the whole file.
    constexpr std::streamoff kEnd = 0x10000;
    for (int nLook = 1;
         !EndContains(strPath, strMark + "\r\n", nLook % 32 == 0 ? std::numeric_limits<std::streamoff>::max() : kEnd);
         ++nLook) {
        std::error_code ignored;
        if (const std::uintmax_t cbNow = std::filesystem::file_size(strPath, ignored); cbNow != cbFile) {
            cbFile = cbNow;
            deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        }
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "a record did not appear in " << strPath;
            EndChildAtOnce();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::vector<LogRecord> RecordsOf(const std::string& strPath) {
    std::vector<LogRecord> records = ReadLogRecords(strPath);
    std::erase_if(records, [](const LogRecord& record) { return record.strType == kMarkType; });
    return records;
}

std::vector<std::string> MessagesOf(const std::string& strPath) {
    std::vector<std::string> messages;
    for (const LogRecord& record : RecordsOf(strPath)) {
        messages.push_back(record.strMessage);
    }
    return messages;
}
