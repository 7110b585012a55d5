// A process whose diagnostic log is a file of a real file server.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FileServerProcess.h"
#include "LogTest.h"
#include "SocketCalls.h"

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif

class ServerLogTest : public LogTest {
protected:
    ServerLogTest() { std::filesystem::create_directory(Root()); }

    void SetUp() override {
        if (kAddressSanitizer) {
            // The thread that reads the server's log exists before the test forks the processes that log.
            GTEST_SKIP() << "skipped: a forked child may find the sanitizer's own allocator locked";
        }
    }

    std::string Root() const { return m_directory.Path("root"); }
    // The server keeps the log of the default name here.
    std::string ServedLog() const { return Root() + "/tmp/PILog.txt"; }

    // A second start uses the same port.
    void StartServer(std::vector<std::string> options = {}) {
        options.insert(options.begin(), {"--root", Root(), "--port", std::to_string(m_uPort)});
        m_server.emplace(options);
        m_uPort = m_server->Port();
        ASSERT_NE(m_uPort, 0) << m_server->Log();
        m_clientPort.emplace(m_uPort);
    }

    void KillServer() {
        m_server->Signal(SIGKILL);
        m_server->Wait();
    }

    // Two processes in step: one waits until the other has reached a point.
    void Reach(const std::string& strPoint) const { m_directory.Write(strPoint, ""); }
    void Await(const std::string& strPoint) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!std::filesystem::exists(m_directory.Path(strPoint)) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_TRUE(std::filesystem::exists(m_directory.Path(strPoint))) << strPoint;
    }

    static CDebugLogMgr& UseServer(BOOL bGlobal) {
        CDebugLogMgr& manager = *CDebugLogMgr::GetInstance();
        manager.EnableServerSupport(TRUE);
        manager.EnableGlobalMode(bGlobal);
        return manager;
    }

    static std::vector<std::string> Messages(const std::string& strPath) {
        std::vector<std::string> messages;
        for (const LogRecord& record : RecordsOf(strPath)) {
            messages.push_back(record.strMessage);
        }
        return messages;
    }

    std::optional<FileServerProcess> m_server;
    std::optional<socket_calls::FileServerPort> m_clientPort;
    std::uint16_t m_uPort = 0;
};
