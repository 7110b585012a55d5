// Full and read-only file systems: small ones that only the test sees. Where the system does not allow such mounts, the
// tests are skipped; compat_system_call_test covers the same paths with system calls that fail.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "OwnMounts.h"
#include "TempDirectory.h"
#include "VEXCompat.h"

namespace {

constexpr int kCannotMount = 77;

class FullDisk : public testing::Test {
protected:
    // The body runs in a child process with m_directory as the small disk.
    template <typename Body>
    void OnSmallDisk(const char* pszOptions, Body body) {
        const ChildEnd end = RunChild([&] {
            if (!HaveOwnMounts() || !MountSmall(m_directory.Path(), 0, pszOptions)) {
                _exit(kCannotMount);
            }
            body();
        });
        if (end.nStatus == kCannotMount) {
            GTEST_SKIP() << "skipped: this process may not mount file systems of its own";
        }
        EXPECT_TRUE(end.Passed());
    }

    const TempDirectory m_directory;
};

TEST_F(FullDisk, AWriteReportsTheBytesWritten) {
    OnSmallDisk("size=64k", [this] {
        const std::string strName = m_directory.Path("log");
        const HANDLE hFile = VexCreateFile(strName.c_str());
        EXPECT_NE(hFile, INVALID_HANDLE_VALUE);
        const std::string strData(100000, 'd');
        DWORD cb = 0;
        EXPECT_FALSE(WriteFile(hFile, strData.data(), strData.size(), &cb, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
        EXPECT_GT(cb, 0U);
        EXPECT_LT(cb, strData.size());
        LONGLONG cbSize = 0;
        EXPECT_TRUE(GetFileSizeEx(hFile, &cbSize));
        EXPECT_EQ(static_cast<DWORD>(cbSize), cb);
        EXPECT_FALSE(WriteFile(hFile, "more", 4, &cb, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
        EXPECT_EQ(cb, 0U);

        // Cutting the log makes room again.
        EXPECT_TRUE(SetFilePointerEx(hFile, LARGE_INTEGER{}, nullptr, FILE_BEGIN));
        EXPECT_TRUE(SetEndOfFile(hFile));
        EXPECT_TRUE(WriteFile(hFile, "more", 4, &cb, nullptr));
        EXPECT_EQ(cb, 4U);
        EXPECT_TRUE(CloseHandle(hFile));
        EXPECT_EQ(ReadWholeFile(strName), "more");
    });
}

TEST_F(FullDisk, NoRoomForANewNameOrDirectory) {
    OnSmallDisk("nr_inodes=2", [this] {  // the root and one file
        const HANDLE hFile = VexCreateFile(m_directory.Path("first").c_str());
        EXPECT_TRUE(CloseHandle(hFile));
        EXPECT_EQ(VexCreateFile(m_directory.Path("second").c_str()), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
        const std::string strDirectory = m_directory.Path("third");
        EXPECT_EQ(
            SHCreateDirectoryExW(nullptr, std::wstring(strDirectory.begin(), strDirectory.end()).c_str(), nullptr),
            static_cast<int>(ERROR_DISK_FULL));
    });
}

TEST_F(FullDisk, NothingOpensOnAReadOnlyDisk) {
    OnSmallDisk("size=64k", [this] {
        m_directory.Write("log", "x");
        if (mount("none", m_directory.Path().c_str(), "none", MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
            _exit(kCannotMount);
        }
        for (const char* pszName : {"log", "new"}) {
            EXPECT_EQ(VexCreateFile(m_directory.Path(pszName).c_str()), INVALID_HANDLE_VALUE);
            EXPECT_EQ(GetLastError(), ERROR_WRITE_PROTECT);
        }
    });
}

}  // namespace
