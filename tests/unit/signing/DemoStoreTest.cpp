// The demo store: its path, its modes, its creation.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <thread>

#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

class DemoStoreTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(setenv("XDG_DATA_HOME", m_home.Path("data").c_str(), 1), 0);
        ASSERT_EQ(setenv("HOME", m_home.Path("home").c_str(), 1), 0);
    }

    std::string Directory() const { return m_home.Path("data/vex-client-toolkit"); }
    std::string Store() const { return Directory() + "/demo.pem"; }

    static mode_t Mode(const std::string& strPath) {
        struct stat status {};
        return lstat(strPath.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }

    static std::string List() {
        return ToolkitClient("demo:").CertificateList().value_or("failed: " + ErrorMessage(nullptr));
    }

    TempDirectory m_home;
};

TEST_F(DemoStoreTest, IsCreatedOnFirstUseAndKept) {
    const mode_t oldMask = umask(0);
    const ToolkitClient client("demo:");
    umask(oldMask);
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    const auto records = client.Records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0][4], "RSA");
    EXPECT_EQ(records[1][4], "EC");
    EXPECT_EQ(Mode(Directory()), 0700U);
    EXPECT_EQ(Mode(Store()), 0600U);
    EXPECT_EQ(Mode(Directory() + "/demo.lock"), 0600U);
    EXPECT_EQ(List(), client.CertificateList());
    const std::string strKeys = RunCommand("openssl storeutl -certs -text -noout " + Store()).strOutput;
    EXPECT_NE(strKeys.find("Public-Key: (2048 bit)"), std::string::npos) << strKeys;
    EXPECT_NE(strKeys.find("ASN1 OID: prime256v1"), std::string::npos) << strKeys;
}

TEST_F(DemoStoreTest, LiesInTheHomeDirectoryWithoutXdgDataHome) {
    for (const char* pszData : {"", "relative/path"}) {
        ASSERT_EQ(setenv("XDG_DATA_HOME", pszData, 1), 0);
        ASSERT_TRUE(ToolkitClient("demo:").IsOpen()) << ErrorMessage(nullptr);
        EXPECT_EQ(Mode(m_home.Path("home/.local/share/vex-client-toolkit/demo.pem")), 0600U);
    }
    ASSERT_EQ(unsetenv("XDG_DATA_HOME"), 0);
    EXPECT_TRUE(ToolkitClient("demo:").IsOpen());
}

TEST_F(DemoStoreTest, WiderModesAreNarrowed) {
    const std::string strList = List();
    ASSERT_EQ(chmod(Directory().c_str(), 0777), 0);
    ASSERT_EQ(chmod(Store().c_str(), 0644), 0);
    EXPECT_EQ(List(), strList);
    EXPECT_EQ(Mode(Directory()), 0700U);
    EXPECT_EQ(Mode(Store()), 0600U);
}

TEST_F(DemoStoreTest, IsCreatedAgainWhenExpired) {
    const std::string strList = List();
    // The same keys with an expired certificate.
    RequireCommand("cd " + Directory() + " && openssl storeutl -keys demo.pem | grep -v -e Total -e : > keys.pem");
    MakeExpiredCertificate(Directory(), "keys.pem", "old");
    RequireCommand("cd " + Directory() +
                   " && openssl storeutl -certs demo.pem | grep -v -e Total -e : > certs.pem"
                   " && cat keys.pem old.crt certs.pem > new.pem && mv new.pem demo.pem");
    const std::string strRemade = List();
    EXPECT_NE(strRemade, strList);
    EXPECT_EQ(strRemade.find("failed"), std::string::npos) << strRemade;
    EXPECT_EQ(ToolkitClient("demo:").Records().size(), 2U);
    EXPECT_EQ(List(), strRemade);
}

TEST_F(DemoStoreTest, IsCreatedAgainWhenOneOfItsIdentitiesIsMissing) {
    ASSERT_TRUE(ToolkitClient("demo:").IsOpen()) << ErrorMessage(nullptr);
    // The other key and certificate are whole.
    RequireCommand("cd " + Directory() +
                   " && openssl pkey -in demo.pem -out key.pem && openssl x509 -in demo.pem -out crt.pem"
                   " && test \"$(openssl pkey -in key.pem -pubout)\" = \"$(openssl x509 -in crt.pem -pubkey -noout)\""
                   " && cat key.pem crt.pem > demo.pem");
    EXPECT_EQ(ToolkitClient("demo:").Records().size(), 2U);
}

TEST_F(DemoStoreTest, IsCreatedAgainWhenDamaged) {
    const std::string strList = List();
    for (const char* pszBytes : {"", "junk", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"}) {
        m_home.Write("data/vex-client-toolkit/demo.pem", pszBytes);
        EXPECT_EQ(ToolkitClient("demo:").Records().size(), 2U);
        EXPECT_NE(List(), strList);
    }
}

TEST_F(DemoStoreTest, DoesNotFollowALink) {
    std::filesystem::create_directories(Directory());
    const std::string strTarget = m_home.Write("target", "precious");
    for (const char* pszName : {"demo.pem", "demo.lock"}) {
        const std::string strLink = Directory() + "/" + pszName;
        ASSERT_EQ(symlink(strTarget.c_str(), strLink.c_str()), 0);
        EXPECT_FALSE(ToolkitClient("demo:").IsOpen());
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_DEMO_STORE);
        EXPECT_EQ(ReadWholeFile(strTarget), "precious");
        ASSERT_EQ(unlink(strLink.c_str()), 0);
    }
    ASSERT_EQ(symlink(strTarget.c_str(), (Directory() + "/demo.pem.new").c_str()), 0);
    EXPECT_TRUE(ToolkitClient("demo:").IsOpen()) << ErrorMessage(nullptr);
    EXPECT_EQ(ReadWholeFile(strTarget), "precious");
}

TEST_F(DemoStoreTest, RefusesAnotherUsersDirectory) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can change a directory's owner";
    }
    std::filesystem::create_directories(Directory());
    ASSERT_EQ(chown(Directory().c_str(), 12345, 12345), 0);
    EXPECT_FALSE(ToolkitClient("demo:").IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_DEMO_STORE);
    EXPECT_NE(ErrorMessage(nullptr).find("another user"), std::string::npos) << ErrorMessage(nullptr);
}

TEST_F(DemoStoreTest, AFileInPlaceOfTheDirectoryIsAClearError) {
    m_home.Write("data", "");
    EXPECT_FALSE(ToolkitClient("demo:").IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_DEMO_STORE);
    EXPECT_NE(ErrorMessage(nullptr).find("Not a directory"), std::string::npos) << ErrorMessage(nullptr);
}

TEST_F(DemoStoreTest, ProcessesThatCreateItAtOnceGetTheSameStore) {
    constexpr int kProcesses = 6;
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
        const pid_t nChild = fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            m_home.Write("list" + std::to_string(i), List());
            _exit(0);
        }
        children.push_back(nChild);
    }
    std::set<std::string> lists;
    for (int i = 0; i < kProcesses; ++i) {
        int nStatus = 0;
        ASSERT_EQ(waitpid(children[static_cast<size_t>(i)], &nStatus, 0), children[static_cast<size_t>(i)]);
        EXPECT_EQ(nStatus, 0);
        lists.insert(ReadWholeFile(m_home.Path("list" + std::to_string(i))));
    }
    ASSERT_EQ(lists.size(), 1U);
    EXPECT_EQ(lists.begin()->find("failed"), std::string::npos) << *lists.begin();
    EXPECT_EQ(*lists.begin(), List());
    EXPECT_FALSE(std::filesystem::exists(Directory() + "/demo.pem.new"));
}

TEST_F(DemoStoreTest, ThreadsThatCreateItAtOnceGetTheSameStore) {
    std::vector<std::string> lists(4);
    {
        std::vector<std::jthread> threads;
        for (std::string& strList : lists) {
            threads.emplace_back([&strList] { strList = List(); });
        }
    }
    for (const std::string& strList : lists) {
        EXPECT_EQ(strList, lists.front());
        EXPECT_EQ(strList.find("failed"), std::string::npos) << strList;
    }
}

}  // namespace
