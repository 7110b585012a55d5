// The demo store on a disk that fails or is interrupted, and without a home directory in the environment.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "SystemCalls.h"
#include "TestStore.h"
#include "ToolkitClient.h"
#include "VCTKError.h"

namespace {

// The home directory in the user database; null: the user is not in it.
const char* s_pszHome = nullptr;
// The user is in the database, without a home directory.
bool s_bHomeless = false;

}  // namespace

extern "C" int getpwuid_r(uid_t user, passwd* pEntry, char* pBuffer, size_t cbBuffer, passwd** ppFound) {
    *ppFound = nullptr;
    if (s_pszHome != nullptr && std::strlen(s_pszHome) < cbBuffer) {
        *pEntry = {};
        pEntry->pw_uid = user;
        pEntry->pw_dir = std::strcpy(pBuffer, s_pszHome);
        *ppFound = pEntry;
    } else if (s_bHomeless) {
        *pEntry = {};
        *ppFound = pEntry;
    }
    return 0;
}

namespace {

class DemoStoreFailureTest : public testing::Test {
protected:
    DemoStoreFailureTest() { setenv("XDG_DATA_HOME", m_home.Path("data").c_str(), 1); }

    // Opens the demo store while a call has these outcomes. Returns the error text, which is empty on success.
    static std::string OpenWith(const char* pszCall, const std::vector<Outcome>& outcomes) {
        SystemCalls calls;
        calls.Script(pszCall, outcomes);
        return ToolkitClient("demo:").IsOpen() ? "" : ErrorMessage(nullptr);
    }

    struct Case {
        const char* pszCall;
        std::vector<Outcome> outcomes;
        int nErrno;  // 0: the store opens nevertheless
    };

    // fnBefore prepares each case.
    template <typename Before>
    void Expect(const std::vector<Case>& cases, Before fnBefore) const {
        for (const Case& c : cases) {
            std::filesystem::remove_all(m_home.Path("data"));
            fnBefore();
            const std::string strError = OpenWith(c.pszCall, c.outcomes);
            const std::string strReason = c.nErrno != 0 ? std::strerror(c.nErrno) : "";
            EXPECT_EQ(strError.empty(), c.nErrno == 0) << c.pszCall << ": " << strError;
            EXPECT_NE(strError.find(strReason), std::string::npos) << c.pszCall << ": " << strError;
            EXPECT_EQ(ToolkitClient("demo:").Records().size(), 2U) << "after " << c.pszCall;
        }
    }

    const TempDirectory m_home;
};

TEST_F(DemoStoreFailureTest, WhileTheStoreIsCreated) {
    Expect(
        {
            {"mkdir", {Fail(EROFS)}, EROFS},
            {"fstat", {Fail(EIO)}, EIO},       // of the directory
            {"fchmod", {Fail(EPERM)}, EPERM},  // a directory that others may enter
            {"flock", {Fail(ENOLCK)}, ENOLCK},
            {"flock", {Fail(EINTR), Fail(EINTR)}, 0},
            {"write", {Fail(ENOSPC)}, ENOSPC},
            {"write", {Short(10), Fail(EINTR), Short(1)}, 0},
            {"write", {Short(10), Fail(EDQUOT)}, EDQUOT},
            {"fsync", {Fail(EIO)}, EIO},
            {"renameat", {Fail(EACCES)}, EACCES},
        },
        [this] {
            std::filesystem::create_directories(m_home.Path("data/vex-client-toolkit"));
            ASSERT_EQ(chmod(m_home.Path("data/vex-client-toolkit").c_str(), 0755), 0);
        });
}

TEST_F(DemoStoreFailureTest, WhileTheStoreIsRead) {
    Expect(
        {
            {"fstat", {kReal, Fail(EIO)}, EIO},  // of the store
            {"pread", {Fail(EIO)}, EIO},
            {"pread", {Short(100), Fail(EINTR), Short(1)}, 0},
            {"pread", {Short(100), kZero}, 0},  // another process cut the file: the store is created again
        },
        [] { ASSERT_TRUE(ToolkitClient("demo:").IsOpen()) << ErrorMessage(nullptr); });
}

TEST_F(DemoStoreFailureTest, WithoutHomeTakesTheDirectoryOfTheUserDatabase) {
    ASSERT_EQ(unsetenv("XDG_DATA_HOME"), 0);
    const std::string strHome = m_home.Path("home");
    for (const char* pszVariable : {static_cast<const char*>(nullptr), "", "relative"}) {
        ASSERT_EQ(pszVariable != nullptr ? setenv("HOME", pszVariable, 1) : unsetenv("HOME"), 0);
        for (const char* pszHome : {static_cast<const char*>(nullptr), "homeless", "", "relative"}) {
            s_bHomeless = pszHome != nullptr && pszHome == std::string_view("homeless");
            s_pszHome = s_bHomeless ? nullptr : pszHome;
            EXPECT_FALSE(ToolkitClient("demo:").IsOpen());
            EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_DEMO_STORE);
            EXPECT_NE(ErrorMessage(nullptr).find("neither XDG_DATA_HOME nor HOME"), std::string::npos);
        }
        s_pszHome = strHome.c_str();
        EXPECT_EQ(ToolkitClient("demo:").Records().size(), 2U) << ErrorMessage(nullptr);
        EXPECT_TRUE(std::filesystem::exists(strHome + "/.local/share/vex-client-toolkit/demo.pem"));
        std::filesystem::remove_all(strHome);
    }
}

}  // namespace
