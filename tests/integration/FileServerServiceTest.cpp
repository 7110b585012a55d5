// The file server as a service: a listening socket that is passed to it, and messages to the service manager.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "FileServerFixture.h"

namespace {

class FileServerService : public FileServerFixture {
protected:
    FileServerService() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t cb = sizeof address;
        EXPECT_EQ(bind(m_listener.Get(), reinterpret_cast<sockaddr*>(&address), cb), 0);
        EXPECT_EQ(listen(m_listener.Get(), 10), 0);
        EXPECT_EQ(getsockname(m_listener.Get(), reinterpret_cast<sockaddr*>(&address), &cb), 0);
        m_uListening = ntohs(address.sin_port);
    }

    void StartWithSocket(std::vector<std::string> arguments = {}, int cSockets = 1) {
        arguments.insert(arguments.begin(), {"--root", Root()});
        m_server = std::make_unique<FileServerProcess>(
            arguments, "-n 256 && export LISTEN_PID=$$ LISTEN_FDS=" + std::to_string(cSockets), m_listener.Get());
    }

    const vexposix::FileDescriptor m_listener;
    std::uint16_t m_uListening = 0;
};

TEST_F(FileServerService, ServesOnThePassedSocket) {
    FileServerClient early(m_uListening);  // before the server has started
    StartWithSocket();
    m_uPort = m_server->Port();
    EXPECT_EQ(m_uPort, m_uListening) << m_server->Log();
    EXPECT_EQ(early.Register(), 0);
    EXPECT_NE(Open("log"), 0U);
}

TEST_F(FileServerService, KeepsThePortWhileItRestarts) {
    for (int i = 0; i < 2; ++i) {
        StartWithSocket();
        m_uPort = m_server->Port();
        ASSERT_EQ(m_uPort, m_uListening) << m_server->Log();
        EXPECT_NE(Open("log"), 0U);
        m_server->Signal(SIGTERM);
        EXPECT_EQ(m_server->Wait().nStatus, 0);
        FileServerProcess other({"--root", Root(), "--port", std::to_string(m_uListening)});
        EXPECT_EQ(other.Wait().nStatus, 1);
        EXPECT_TRUE(other.WaitForLog("Address already in use"));
    }
}

TEST_F(FileServerService, RefusesAnotherPortThanThatOfTheSocket) {
    StartWithSocket({"--port", "1"});
    EXPECT_EQ(m_server->Wait().nStatus, 1);
    EXPECT_TRUE(m_server->WaitForLog("cannot serve: the service manager's socket has port " +
                                     std::to_string(m_uListening) + ", but --port says 1; remove --port"));
}

TEST_F(FileServerService, RefusesSeveralSockets) {
    StartWithSocket({}, 2);
    EXPECT_EQ(m_server->Wait().nStatus, 1);
    EXPECT_TRUE(m_server->WaitForLog("cannot serve: the service manager has passed 2 sockets"));
}

// What the server opens would get the numbers of closed standard descriptors, and then its log.
TEST_F(FileServerService, LogsIntoNoFileIfStandardDescriptorsAreClosed) {
    m_server = std::make_unique<FileServerProcess>(std::vector<std::string>{"--root", Root()},
                                                   "-n 256 && export LISTEN_PID=$$ LISTEN_FDS=1 && exec <&- >&- 2>&-",
                                                   m_listener.Get());
    m_uPort = m_uListening;
    EXPECT_EQ(Ask(WriteRequest(Open("log"), "text")), WriteReply(true, 4));
    for (const char* pszNumber : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(m_server->Process()) + "/fd/" + pszNumber),
                  "/dev/null");
    }
    EXPECT_EQ(Content("log"), "text");
    m_server->Signal(SIGTERM);
    EXPECT_EQ(m_server->Wait().nStatus, 0);
}

TEST_F(FileServerService, SaysWhenItIsReadyAndWhenItStops) {
    const vexposix::FileDescriptor manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const timeval timeout{60, 0};
    ASSERT_EQ(setsockopt(manager.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout), 0);
    const std::string strPath = m_directory.Path("notify");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(strPath.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, strPath.data(), strPath.size());
    ASSERT_EQ(bind(manager.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto receive = [&manager] {
        char buffer[100];
        const ssize_t cb = recv(manager.Get(), buffer, sizeof buffer, 0);
        return std::string(buffer, cb < 0 ? 0 : static_cast<std::size_t>(cb));
    };

    Start({}, "-n 256 && export NOTIFY_SOCKET='" + strPath + "'");
    EXPECT_EQ(receive(), "READY=1");
    EXPECT_NE(Open("log"), 0U);
    m_server->Signal(SIGTERM);
    EXPECT_EQ(receive(), "STOPPING=1");
    EXPECT_EQ(m_server->Wait().nStatus, 0);
}

TEST_F(FileServerService, ServesAlthoughTheServiceManagerDoesNotListen) {
    Start({}, "-n 256 && export NOTIFY_SOCKET='" + m_directory.Path("missing") + "'");
    EXPECT_TRUE(m_server->WaitForLog("cannot tell the service manager READY=1: No such file or directory"));
    EXPECT_NE(Open("log"), 0U);
}

}  // namespace
