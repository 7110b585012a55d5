#include "LogTest.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <thread>

namespace {

constexpr std::string_view kMarkType = "[MARK] ";

// Whether the text stands in the last few thousand bytes of the file.
bool EndContains(const std::string& strPath, const std::string& strText) {
    constexpr std::streamoff kEnd = 0x10000;  // other processes may write as well
    std::ifstream file(strPath, std::ios::binary | std::ios::ate);
    if (!file) {
        return false;
    }
    file.seekg(std::max(std::streamoff{0}, std::streamoff(file.tellg()) - kEnd));
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

void LogTest::InChild(const std::function<void()>& fnBody) {
    EXPECT_TRUE(RunLogChild(fnBody, Exit::kAtOnce).Passed());
}

void Trace(const std::wstring& strMessage) {
    CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"test.cpp", L"Function", 7)(L"%s", strMessage.c_str());
}

void TraceArguments(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszFile, LPCTSTR lpszFunction, DWORD dwLine,
                    LPCTSTR lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    CDebugLogMgr::GetInstance()->OutputArgs(lpszLogType, nLogLevel, lpszFile, lpszFunction, dwLine, lpszFormat, args);
    va_end(args);
}

void WaitUntilWritten(const std::string& strPath) {
    static std::atomic<int> s_nMarks = 0;
    const std::string strMark = "mark " + std::to_string(getpid()) + "." + std::to_string(++s_nMarks) + ".";
    TraceArguments(L"[MARK] ", 1000, L"test.cpp", nullptr, 0, L"%hs", strMark.c_str());
    // In vain is when nothing happens any more. How long it all takes is the machine's affair.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::uintmax_t cbFile = 0;
    while (!EndContains(strPath, strMark + "\r\n")) {
        std::error_code ignored;
        if (const std::uintmax_t cbNow = std::filesystem::file_size(strPath, ignored); cbNow != cbFile) {
            cbFile = cbNow;
            deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        }
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "waited in vain for a record in " << strPath;
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
