#include "signing/ModuleTrust.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "Row.h"
#include "TempDirectory.h"
#include "signing/Failure.h"

namespace vextk {
namespace {

// The modes of top/middle/module.so.
struct Modes : Row {
    mode_t nTop;
    mode_t nMiddle;
    mode_t nModule;
    const char* pszAtFault;  // the path that the refusal names; null: not refused
};

class ModuleTrustTest : public testing::Test {
protected:
    ModuleTrustTest() {
        std::filesystem::create_directories(Middle());
        m_directory.Write("top/middle/module.so", "");
        SetModes(0755, 0755, 0644);
    }

    std::string Top() const { return m_directory.Path("top"); }
    std::string Middle() const { return m_directory.Path("top/middle"); }
    std::string Module() const { return m_directory.Path("top/middle/module.so"); }

    void SetModes(mode_t nTop, mode_t nMiddle, mode_t nModule) const {
        ASSERT_EQ(chmod(Top().c_str(), nTop), 0);
        ASSERT_EQ(chmod(Middle().c_str(), nMiddle), 0);
        ASSERT_EQ(chmod(Module().c_str(), nModule), 0);
    }

    // The detail of the refusal; empty when the module is trusted.
    static std::string Refusal(const std::string& strPath) {
        try {
            RequireTrustedModule(strPath);
            return {};
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.Number(), VCTK_E_TOKEN_MODULE);
            return failure.Detail();
        }
    }

    const TempDirectory m_directory;
};

class ModuleTrustModes : public ModuleTrustTest, public testing::WithParamInterface<Modes> {};

TEST_P(ModuleTrustModes, DecideWhetherItIsLoaded) {
    const Modes& modes = GetParam();
    SetModes(modes.nTop, modes.nMiddle, modes.nModule);
    const std::string strRefusal = Refusal(Module());
    const std::string strRelative = modes.pszAtFault != nullptr ? modes.pszAtFault : "";
    EXPECT_EQ(strRefusal.substr(0, strRefusal.find(": ")),
              modes.pszAtFault != nullptr ? m_directory.Path(strRelative) : std::string());
}

INSTANTIATE_TEST_SUITE_P(, ModuleTrustModes,
                         testing::Values(Modes{"OnesOwn", 0755, 0755, 0644, nullptr},
                                         Modes{"OnesOwnAlone", 0700, 0700, 0600, nullptr},
                                         Modes{"FileOfAll", 0755, 0755, 0666, "top/middle/module.so"},
                                         Modes{"FileOfAGroup", 0755, 0755, 0664, "top/middle/module.so"},
                                         Modes{"DirectoryOfAll", 0755, 0777, 0644, "top/middle"},
                                         Modes{"DirectoryOfAGroup", 0755, 0775, 0644, "top/middle"},
                                         Modes{"DirectoryOfAllThatIsSticky", 0755, 01777, 0644, "top/middle"},
                                         Modes{"DirectoryAboveOfAll", 0777, 0755, 0644, "top"},
                                         Modes{"DirectoryAboveOfAGroup", 0775, 0755, 0644, "top"},
                                         Modes{"DirectoryAboveThatIsSticky", 01777, 0755, 0644, nullptr}),
                         RowName);

// The target of a link counts, not the link.
TEST_F(ModuleTrustTest, ALinkIsLoadedByTheNameOfItsTarget) {
    const std::string strOpen = m_directory.Path("open");
    std::filesystem::create_directory(strOpen);
    std::filesystem::create_symlink(Module(), strOpen + "/link.so");
    ASSERT_EQ(chmod(strOpen.c_str(), 0777), 0);
    EXPECT_EQ(RequireTrustedModule(strOpen + "/link.so"), std::filesystem::canonical(Module()).string());

    std::filesystem::create_directory_symlink(strOpen, m_directory.Path("alias"));
    m_directory.Write("open/module.so", "");
    EXPECT_NE(Refusal(m_directory.Path("alias/module.so")), "");
    EXPECT_NE(Refusal(Middle() + "/../../open/module.so"), "");
}

TEST_F(ModuleTrustTest, RefusesAMissingModule) {
    EXPECT_EQ(Refusal(m_directory.Path("none.so")), m_directory.Path("none.so") + ": No such file or directory");
}

// The dynamic linker would wait for somebody to write to the pipe.
TEST_F(ModuleTrustTest, RefusesWhatIsNotARegularFile) {
    const std::string strPipe = m_directory.Path("pipe.so");
    ASSERT_EQ(mkfifo(strPipe.c_str(), 0600), 0);
    std::filesystem::create_symlink(strPipe, m_directory.Path("link.so"));
    for (const std::string& strPath : {strPipe, m_directory.Path("link.so")}) {
        EXPECT_EQ(Refusal(strPath),
                  std::filesystem::canonical(strPipe).string() + ": not loaded, because it is not a regular file");
    }
    EXPECT_EQ(Refusal(Middle()),
              std::filesystem::canonical(Middle()).string() + ": not loaded, because it is not a regular file");
}

// Only root can make another user's files.
TEST_F(ModuleTrustTest, RefusesFilesOfAnotherUser) {
    constexpr uid_t kSomebody = 12345;
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can give a file to another user";
    }
    for (const std::string& strPath : {Module(), Middle(), Top()}) {
        ASSERT_EQ(chown(strPath.c_str(), kSomebody, static_cast<gid_t>(-1)), 0);
        EXPECT_EQ(Refusal(Module()).substr(0, strPath.size() + 2), strPath + ": ");
        ASSERT_EQ(chown(strPath.c_str(), 0, static_cast<gid_t>(-1)), 0);
        EXPECT_EQ(Refusal(Module()), "");
    }
    // Another user trusts root's files like its own.
    ASSERT_EQ(chmod(m_directory.Path().c_str(), 0755), 0);
    ASSERT_EQ(chown(Module().c_str(), kSomebody, static_cast<gid_t>(-1)), 0);
    ASSERT_EQ(seteuid(kSomebody), 0);
    const std::string strOwn = Refusal(Module());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(strOwn, "");
}

}  // namespace
}  // namespace vextk
