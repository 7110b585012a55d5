// Whose clients the file server serves. Clients of other users need root.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "FileServerFixture.h"
#include "Users.h"

namespace {

class FileServerUsers : public FileServerFixture {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "skipped: only root can act as other users";
        }
    }

    // Starts a server of the user.
    void StartAs(uid_t user, const std::vector<std::string>& arguments = {}) {
        const std::string strUser = std::to_string(user);
        ASSERT_EQ(chmod(m_directory.Path().c_str(), 0755), 0);
        ASSERT_EQ(chown(Root().c_str(), user, user), 0);
        Start(arguments,
              "-n 256 && exec setpriv --reuid " + strUser + " --regid " + strUser + " --clear-groups \"$0\" \"$@\"");
    }

    FileServerClient ClientOf(uid_t user) const {
        const AsUser as(user);
        EXPECT_TRUE(as.Done());
        return FileServerClient(m_uPort);
    }

    // The status byte that a client of the user gets.
    int StatusFor(uid_t user) const { return ClientOf(user).Register(); }
};

TEST_F(FileServerUsers, ByDefaultItsOwnUserAndRoot) {
    StartAs(kSomebody);
    EXPECT_TRUE(m_server->WaitForLog("serves user 65534 (its own), root\n"));
    EXPECT_EQ(StatusFor(0), 0);
    EXPECT_EQ(StatusFor(kSomebody), 0);
    FileServerClient other = ClientOf(kSomebodyElse);
    EXPECT_EQ(other.Register(), 1);
    EXPECT_TRUE(other.IsClosedByServer());
    EXPECT_TRUE(
        m_server->WaitForLog("client 3 refused: user 65533 is not served; to serve it, add --allow-user 65533\n"));
    m_server->Signal(SIGTERM);
    EXPECT_EQ(m_server->Wait().nStatus, 0);
    EXPECT_TRUE(m_server->WaitForLog("1 clients refused (1 for their user, 0 for too many connections)"));
}

TEST_F(FileServerUsers, AllowedUsersByNameAndNumber) {
    for (const char* pszUser : {"65534", "nobody"}) {
        Start({"--allow-user", pszUser});
        EXPECT_EQ(StatusFor(kSomebody), 0) << pszUser;
        EXPECT_EQ(StatusFor(0), 0) << pszUser;
        EXPECT_EQ(StatusFor(kSomebodyElse), 1) << pszUser;
    }
    Start({"--allow-user", "65534", "--allow-user", "65533"});
    EXPECT_EQ(StatusFor(kSomebody), 0);
    EXPECT_EQ(StatusFor(kSomebodyElse), 0);
    EXPECT_EQ(StatusFor(kSomebodyElse - 1), 1);
}

TEST_F(FileServerUsers, EverybodyWithAllowAny) {
    Start({"--allow-any"});
    EXPECT_TRUE(m_server->WaitForLog("serves every user of the machine"));
    EXPECT_EQ(StatusFor(kSomebody), 0);
    EXPECT_EQ(StatusFor(kSomebodyElse), 0);
}

// In the namespace the server's own user has the number that stands for all users that the namespace does not have.
TEST_F(FileServerUsers, NobodyIsTakenForTheServersUserInAUserNamespace) {
    const std::string strSeparate =
        "setpriv --reuid 65534 --regid 65534 --clear-groups unshare --user --map-user=65534";
    if (std::system((strSeparate + " true 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "skipped: this machine has no user namespaces for its users";
    }
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0755), 0);
    ASSERT_EQ(chown(Root().c_str(), kSomebody, kSomebody), 0);
    Start({"--allow-user", "65534"}, "-n 256 && exec " + strSeparate + " \"$0\" \"$@\"");
    EXPECT_EQ(StatusFor(kSomebodyElse), 1);
    EXPECT_EQ(StatusFor(0), 1);
    EXPECT_TRUE(m_server->WaitForLog("refused: its user is missing in the server's user namespace; start ", 2))
        << m_server->Log();
}

// Tells what to do if the server's user lacks a right.
TEST_F(FileServerUsers, SaysWhichRightItsUserLacks) {
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0755), 0);
    const std::string strAsSomebody = "-n 256 && exec setpriv --reuid 65534 --regid 65534 --clear-groups \"$0\" \"$@\"";
    const auto run = [&](const std::string& strPort) {
        m_server = std::make_unique<FileServerProcess>(std::vector<std::string>{"--root", Root(), "--port", strPort},
                                                       strAsSomebody);
        EXPECT_EQ(m_server->Wait().nStatus, 1);
        return m_server->Log();
    };
    ASSERT_EQ(chmod(Root().c_str(), 0700), 0);
    const std::string strRoot = run("0");
    EXPECT_NE(strRoot.find("cannot serve: " + Root() + ": Permission denied; give it to user 65534, with mode 0700\n"),
              std::string::npos)
        << strRoot;
    ASSERT_EQ(chown(Root().c_str(), kSomebody, kSomebody), 0);
    // Containers often let everybody listen on every port.
    if (std::stoi(ReadWholeFile("/proc/sys/net/ipv4/ip_unprivileged_port_start")) < 2) {
        return;
    }
    const std::string strPort = run("1");
    EXPECT_NE(strPort.find("cannot serve: port 1 of 127.0.0.1: Permission denied; choose a --port of 1024 or more\n"),
              std::string::npos)
        << strPort;
}

// Once its program has closed it, the kernel shows a socket as one of root.
TEST_F(FileServerUsers, NobodyIsTakenForRootByClosingEarly) {
    Start();
    for (const bool bReset : {false, true}) {
        m_server->Signal(SIGSTOP);
        {
            FileServerClient client = ClientOf(kSomebody);
            client.Send(std::string(5, '\0') + client.Message(OpenRequest("stolen")));
            if (bReset) {
                client.Reset();
            }
        }
        m_server->Signal(SIGCONT);
    }
    EXPECT_TRUE(m_server->WaitForLog("refused: its user is unknown", 2)) << m_server->Log();
    EXPECT_NE(Open("log"), 0U);
    EXPECT_FALSE(std::filesystem::exists(Root() + "/stolen"));
    m_server->Signal(SIGTERM);
    EXPECT_EQ(m_server->Wait().nStatus, 0);
    EXPECT_TRUE(m_server->WaitForLog("2 clients refused (2 for their user, 0 for too many connections)"));
}

// A user who is not served takes none of the connections of those who are.
TEST_F(FileServerUsers, RefusedClientsTakeNoConnection) {
    Start({"--max-connections", "1"});
    std::vector<FileServerClient> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(ClientOf(kSomebody));
    }
    EXPECT_TRUE(m_server->WaitForLog("refused: user 65534 is not served"));
    EXPECT_NE(Open("log"), 0U);
    for (int i = 0; i < 100; ++i) {
        // 64 of them wait for their answer. The next ones are closed without one.
        EXPECT_EQ(clients[i].Register(), i < 64 ? 1 : -1) << i;
    }
    EXPECT_TRUE(m_server->WaitForLog("more lines about clients left out"));
}

}  // namespace
