#include "IpcTest.h"

#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <thread>

namespace {

std::string InLogDirectory(const char* pszName) {
    return std::string(std::getenv("VEX_TEST_LOG_DIR")) + "/" + pszName;
}

struct TraceLine {
    int nThread = 0;
    std::string strText;
};

std::vector<TraceLine> TraceLines(const std::string& strPath) {
    static const std::regex s_prefix(
        R"(\[P(\d{4,})\] \[T(-?\d{3,})\] \[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3,6}\]: (.*))");
    std::ifstream file(strPath);
    std::vector<TraceLine> lines;
    for (std::string strLine; std::getline(file, strLine);) {
        std::smatch match;
        if (std::regex_match(strLine, match, s_prefix)) {
            lines.push_back({std::stoi(match[2]), match[3]});
        } else {
            EXPECT_EQ(strLine, "") << "not a line of the trace";
        }
    }
    return lines;
}

std::size_t ThreadsOfTheProcess() {
    // With the first thread, ThreadSanitizer starts one of its own.
    static const bool s_bOneWasStarted = (std::thread([] {}).join(), true);
    static_cast<void>(s_bOneWasStarted);
    const auto entries = std::filesystem::directory_iterator("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

IpcTest::IpcTest() : m_cThreads(ThreadsOfTheProcess()) {
    SwitchTraceOff();
    std::filesystem::remove(TracePath());
}

IpcTest::~IpcTest() {
    WaitForThreads();
    SwitchTraceOff();
}

void IpcTest::WaitForThreads() const {
    EXPECT_TRUE(WaitUntil([this] { return ThreadsOfTheProcess() <= m_cThreads; })) << "threads are still running";
}

std::string IpcTest::TracePath() {
    return InLogDirectory("pipe.log");
}

void IpcTest::SwitchTraceOn() {
    std::ofstream(InLogDirectory("testPipe"));
}

void IpcTest::SwitchTraceOff() {
    std::filesystem::remove(InLogDirectory("testPipe"));
}

std::vector<std::string> IpcTest::Trace() {
    std::vector<std::string> texts;
    for (TraceLine& line : TraceLines(TracePath())) {
        texts.push_back(std::move(line.strText));
    }
    return texts;
}

std::vector<std::string> IpcTest::TraceOfThisThread() {
    std::vector<std::string> texts;
    for (TraceLine& line : TraceLines(TracePath())) {
        if (line.nThread == static_cast<int>(pthread_self())) {
            texts.push_back(std::move(line.strText));
        }
    }
    return texts;
}

void IpcTest::WaitForTrace(const std::string& strLine) {
    EXPECT_TRUE(WaitUntil([&] {
        const std::vector<std::string> lines = Trace();
        return std::find(lines.begin(), lines.end(), strLine) != lines.end();
    })) << "the trace has no line "
        << strLine;
}

ExchangeResult DoExchange(CPipeIPC& client, std::uint16_t uObject, std::string strPayload, DWORD dwTimeout) {
    CSmartBuffer reply("before", 6);
    const auto began = std::chrono::steady_clock::now();
    ExchangeResult result;
    result.lResult = client.SendMessageAndWait(0, uObject, reinterpret_cast<PBYTE>(strPayload.data()),
                                               strPayload.size(), reply, dwTimeout);
    result.dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    result.strReply = TextOf(reply);
    return result;
}
