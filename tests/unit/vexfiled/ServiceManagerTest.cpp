// Sockets from the service manager, and messages to it. Each test has its own process, because descriptor 3 and the
// environment belong to the process.
#include "ServiceManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "ChildProcess.h"
#include "Row.h"
#include "TempDirectory.h"
#include "posix/FileDescriptor.h"

namespace {

using vexfiled::TakePassedSocket;
using vexfiled::TellServiceManager;
using vexposix::FileDescriptor;

// A socket as descriptor 3.
void PutSocket(int nFamily, int nType, std::uint32_t uAddress, bool bListens) {
    const int nSocket = socket(nFamily, nType, 0);
    ASSERT_EQ(dup2(nSocket, 3), 3);
    if (nFamily == AF_INET) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(uAddress);
        ASSERT_EQ(bind(3, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    if (bListens) {
        ASSERT_EQ(listen(3, 1), 0);
    }
}

void SetVariables(pid_t process, const char* pszCount) {
    setenv("LISTEN_PID", std::to_string(process).c_str(), 1);
    setenv("LISTEN_FDS", pszCount, 1);
    setenv("LISTEN_FDNAMES", "vexfiled.socket", 1);
}

TEST(PassedSocket, IsTakenOnce) {
    ExpectChildPasses([] {
        PutSocket(AF_INET, SOCK_STREAM, INADDR_LOOPBACK, true);
        SetVariables(getpid(), "1");
        const auto passed = TakePassedSocket();
        ASSERT_TRUE(passed);
        EXPECT_EQ(passed->descriptor.Get(), 3);
        sockaddr_in address{};
        socklen_t cb = sizeof address;
        ASSERT_EQ(getsockname(3, reinterpret_cast<sockaddr*>(&address), &cb), 0);
        EXPECT_EQ(passed->uPort, ntohs(address.sin_port));
        EXPECT_EQ(fcntl(3, F_GETFD), FD_CLOEXEC);
        for (const char* pszVariable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
            EXPECT_EQ(std::getenv(pszVariable), nullptr) << pszVariable;
        }
        EXPECT_FALSE(TakePassedSocket());
    });
}

TEST(PassedSocket, NoneWithoutVariablesForThisProcess) {
    ExpectChildPasses([] {
        PutSocket(AF_INET, SOCK_STREAM, INADDR_LOOPBACK, true);
        EXPECT_FALSE(TakePassedSocket());
        SetVariables(getppid(), "1");
        EXPECT_FALSE(TakePassedSocket());
        SetVariables(getpid(), "0");
        EXPECT_FALSE(TakePassedSocket());
        SetVariables(getpid(), "many");
        EXPECT_FALSE(TakePassedSocket());
    });
}

struct Unfit : Row {
    int nFamily;
    int nType;
    std::uint32_t uAddress;
    bool bListens;
    const char* pszCount;
};

class UnfitSocket : public testing::TestWithParam<Unfit> {};

TEST_P(UnfitSocket, IsRefused) {
    ExpectChildPasses([] {
        const Unfit& row = GetParam();
        PutSocket(row.nFamily, row.nType, row.uAddress, row.bListens);
        SetVariables(getpid(), row.pszCount);
        EXPECT_THROW(TakePassedSocket(), std::runtime_error);
    });
}

INSTANTIATE_TEST_SUITE_P(All, UnfitSocket,
                         testing::Values(Unfit{{"Two"}, AF_INET, SOCK_STREAM, INADDR_LOOPBACK, true, "2"},
                                         Unfit{{"AllAddresses"}, AF_INET, SOCK_STREAM, INADDR_ANY, true, "1"},
                                         Unfit{{"NotListening"}, AF_INET, SOCK_STREAM, INADDR_LOOPBACK, false, "1"},
                                         Unfit{{"Datagrams"}, AF_INET, SOCK_DGRAM, INADDR_LOOPBACK, false, "1"},
                                         Unfit{{"Ipv6"}, AF_INET6, SOCK_STREAM, 0, true, "1"},
                                         Unfit{{"Local"}, AF_UNIX, SOCK_STREAM, 0, false, "1"}),
                         RowName);

// ---- Messages ----

// Listens under this name, where '@' stands for the zero byte of an abstract name.
FileDescriptor ListenAt(std::string strName) {
    FileDescriptor descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, strName.data(), strName.size());
    if (strName[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const auto cb = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strName.size());
    EXPECT_EQ(bind(descriptor.Get(), reinterpret_cast<const sockaddr*>(&address), cb), 0);
    return descriptor;
}

TEST(Messages, ArriveUnderBothKindsOfNames) {
    const TempDirectory directory;
    for (const std::string& strName : {directory.Path("notify"), "@vextest." + std::to_string(getpid())}) {
        ExpectChildPasses([&strName] {
            const FileDescriptor manager = ListenAt(strName);
            setenv("NOTIFY_SOCKET", strName.c_str(), 1);
            EXPECT_EQ(TellServiceManager("READY=1"), 0);
            char buffer[20];
            ASSERT_EQ(recv(manager.Get(), buffer, sizeof buffer, 0), 7);
            EXPECT_EQ(std::string(buffer, 7), "READY=1");
        });
    }
}

TEST(Messages, FailWithAReason) {
    const TempDirectory directory;
    ExpectChildPasses([&directory] {
        unsetenv("NOTIFY_SOCKET");
        EXPECT_EQ(TellServiceManager("READY=1"), 0);  // there is no service manager
        setenv("NOTIFY_SOCKET", directory.Path("missing").c_str(), 1);
        EXPECT_EQ(TellServiceManager("READY=1"), ENOENT);
        for (const std::string& strWrong :
             {std::string(), std::string("/"), std::string("relative"), "/" + std::string(107, 'x')}) {
            setenv("NOTIFY_SOCKET", strWrong.c_str(), 1);
            EXPECT_EQ(TellServiceManager("READY=1"), EINVAL) << strWrong;
        }
    });
}

}  // namespace
