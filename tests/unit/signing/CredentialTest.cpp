// A PIN file below /run/credentials, as systemd makes it for a service's user.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <fstream>

#include "ChildProcess.h"
#include "OwnMounts.h"
#include "TestStore.h"
#include "ToolkitClient.h"
#include "Users.h"

namespace {

// The extended attribute of an access control list, as in linux/posix_acl_xattr.h. A tool to set it is in no package
// that the tests need otherwise.
struct Acl {
    struct Entry {
        std::uint16_t nTag;
        std::uint16_t nRights;
        std::uint32_t nId;
    };
    std::uint32_t nVersion = 2;
    std::array<Entry, 5> entries;

    // The owner and one more user have these rights (4: read, 1: enter), and nobody else.
    Acl(uid_t user, std::uint16_t nRights)
        : entries{{{0x01, nRights, kNoId},
                   {0x02, nRights, user},
                   {0x04, 0, kNoId},
                   {0x10, nRights, kNoId},
                   {0x20, 0, kNoId}}} {}

    bool Set(const std::string& strPath) const {
        return setxattr(strPath.c_str(), "system.posix_acl_access", this, sizeof *this, 0) == 0;
    }

    static constexpr std::uint32_t kNoId = ~std::uint32_t{0};
};

constexpr const char* kDirectory = "/run/credentials/signer.service";
constexpr const char* kPinFile = "/run/credentials/signer.service/pin";

unsigned int ModeOf(const char* pszPath) {
    struct stat status {};
    EXPECT_EQ(stat(pszPath, &status), 0);
    EXPECT_EQ(status.st_uid, 0U);
    return status.st_mode & 07777U;
}

// Makes the directory and the PIN's file in a file system of this process alone, which nobody can write to.
void MakeCredential() {
    ASSERT_TRUE(HaveOwnMounts());
    ASSERT_TRUE(MountSmall("/run", 0, "size=64k,mode=755"));
    ASSERT_EQ(mkdir("/run/credentials", 0755), 0);
    ASSERT_EQ(chmod("/run/credentials", 0755), 0);  // whatever the umask
    ASSERT_EQ(mkdir(kDirectory, 0500), 0);
    std::ofstream(kPinFile) << kTestPin;
    ASSERT_EQ(chmod(kPinFile, 0400), 0);
    ASSERT_TRUE(Acl(kSomebody, 5).Set(kDirectory));
    ASSERT_TRUE(Acl(kSomebody, 4).Set(kPinFile));
    ASSERT_EQ(mount("none", "/run", nullptr, MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr), 0);
    ASSERT_EQ(ModeOf(kDirectory), 0550U);
    ASSERT_EQ(ModeOf(kPinFile), 0440U);
}

TEST(CredentialTest, OpensTheStoreOfTheServicesUserOnly) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can make files for another user";
    }
    if (!RunChild([] { EXPECT_TRUE(HaveOwnMounts()); }).Passed()) {
        GTEST_SKIP() << "skipped: the system does not allow mounts here";
    }
    const TempDirectory directory;
    MakeIdentity(directory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
    const std::string strUri = "file:" + MakePkcs12Store(directory, "ec") + "?errors=handle&pin-source=" + kPinFile;
    ASSERT_EQ(chmod(directory.Path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(directory.Path("ec.p12").c_str(), 0644), 0);
    for (const uid_t user : {kSomebody, kSomebodyElse}) {
        ExpectChildPasses([&] {
            MakeCredential();
            ASSERT_TRUE(BecomeUser(user));
            const ToolkitClient client(strUri);
            if (user == kSomebody) {
                EXPECT_TRUE(client.SignP1("text")) << client.Message();
            } else {
                EXPECT_EQ(client.LastError(), VCTK_E_PIN_SOURCE);
                EXPECT_EQ(client.Message(),
                          VCTKErrorMessage(VCTK_E_PIN_SOURCE) + (": " + std::string(kPinFile) + ": Permission denied"));
            }
        });
    }
}

}  // namespace
