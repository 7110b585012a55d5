// A file system without room: a small one of the test's own, mounted where no other process sees it. Where that is not
// allowed the tests are skipped with a message; compat_system_call_test covers the same paths with a pwrite that fails.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

#include "ChildProcess.h"
#include "TempDirectory.h"
#include "VEXCompat.h"

namespace {

constexpr int kCannotMount = 77;

bool WriteText(const char* pszFile, const std::string& strText) {
    std::ofstream file(pszFile);
    return static_cast<bool>(file << strText << std::flush);
}

// In a child only: mounts of this process from here on are its own. An ordinary user becomes root in a user namespace.
bool SeparateMounts() {
    if (unshare(CLONE_NEWNS) == 0) {
        return true;
    }
    const std::string strUser = std::to_string(geteuid());
    const std::string strGroup = std::to_string(getegid());
    return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && WriteText("/proc/self/setgroups", "deny") &&
           WriteText("/proc/self/uid_map", "0 " + strUser + " 1") &&
           WriteText("/proc/self/gid_map", "0 " + strGroup + " 1");
}

// In a child only: mounts a file system in memory on the directory.
bool MountSmallDisk(const std::string& strDirectory, const char* pszOptions) {
    return SeparateMounts() && mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", strDirectory.c_str(), "tmpfs", 0, pszOptions) == 0;
}

class FullDisk : public testing::Test {
protected:
    // The body runs with m_directory being the small disk; it returns 0 or kCannotMount.
    template <typename Body>
    void OnSmallDisk(const char* pszOptions, Body body) {
        const int nResult =
            RunInChild([&] { return MountSmallDisk(m_directory.Path(), pszOptions) ? body() : kCannotMount; });
        if (nResult == kCannotMount) {
            GTEST_SKIP() << "this process may not mount a file system of its own";
        }
        EXPECT_EQ(nResult, 0);
    }

    const TempDirectory m_directory;
};

TEST_F(FullDisk, AWriteReportsWhatWentIn) {
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
        return 0;
    });
}

TEST_F(FullDisk, NoRoomForANewNameOrDirectory) {
    OnSmallDisk("nr_inodes=2", [this] {  // the root and one more
        const HANDLE hFile = VexCreateFile(m_directory.Path("first").c_str());
        EXPECT_TRUE(CloseHandle(hFile));
        EXPECT_EQ(VexCreateFile(m_directory.Path("second").c_str()), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
        const std::string strDirectory = m_directory.Path("third");
        EXPECT_EQ(
            SHCreateDirectoryExW(nullptr, std::wstring(strDirectory.begin(), strDirectory.end()).c_str(), nullptr),
            static_cast<int>(ERROR_DISK_FULL));
        return 0;
    });
}

TEST_F(FullDisk, AReadOnlyOne) {
    OnSmallDisk("size=64k", [this] {
        m_directory.Write("log", "x");
        if (mount("none", m_directory.Path().c_str(), "none", MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
            return kCannotMount;
        }
        for (const char* pszName : {"log", "new"}) {
            EXPECT_EQ(VexCreateFile(m_directory.Path(pszName).c_str()), INVALID_HANDLE_VALUE);
            EXPECT_EQ(GetLastError(), ERROR_WRITE_PROTECT);
        }
        return 0;
    });
}

}  // namespace
