// What another user can put at a name that the libraries use.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Row.h"
#include "SocketFile.h"
#include "Users.h"

inline constexpr const char* kVictim = "another's text";

// Puts an obstacle at strPath; strOther is the name of its target. Returns a descriptor that the test must keep open,
// or -1.
struct Obstacle : Row {
    std::function<int(const std::string& strPath, const std::string& strOther)> fnMake;
    bool bNeedsRoot = false;
};

inline int MakeFile(const std::string& strPath, mode_t mode) {
    const int nFile = open(strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    const std::string_view text(kVictim);
    EXPECT_EQ(write(nFile, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(fchmod(nFile, mode), 0);
    close(nFile);
    return -1;
}

inline std::vector<Obstacle> Obstacles() {
    return {
        {{"SymbolicLink"},
         [](const std::string& strPath, const std::string& strOther) {
             MakeFile(strOther, 0666);
             std::filesystem::create_symlink(strOther, strPath);
             return -1;
         }},
        {{"LinkToNothing"},
         [](const std::string& strPath, const std::string& strOther) {
             std::filesystem::create_symlink(strOther, strPath);
             return -1;
         }},
        {{"HardLink"},
         [](const std::string& strPath, const std::string& strOther) {
             MakeFile(strOther, 0666);
             std::filesystem::create_hard_link(strOther, strPath);
             return -1;
         }},
        {{"Pipe"},
         [](const std::string& strPath, const std::string&) {
             EXPECT_EQ(mkfifo(strPath.c_str(), 0666), 0);
             return -1;
         }},
        {{"PipeWithReader"},
         [](const std::string& strPath, const std::string&) {
             EXPECT_EQ(mkfifo(strPath.c_str(), 0666), 0);
             EXPECT_EQ(chmod(strPath.c_str(), 0666), 0);
             return open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
         }},
        {{"Directory"},
         [](const std::string& strPath, const std::string&) {
             std::filesystem::create_directory(strPath);
             std::filesystem::permissions(strPath, std::filesystem::perms(0777));
             return -1;
         }},
        {{"Socket"},
         [](const std::string& strPath, const std::string&) {
             const int nSocket = MakeSocket(strPath);
             std::filesystem::permissions(strPath, std::filesystem::perms(0777));
             return nSocket;
         }},
        {{"SomebodyElses"},
         [](const std::string& strPath, const std::string&) { return MakeFile(strPath, 0600); },
         true},
        {{"SomebodyElsesForAll"},
         [](const std::string& strPath, const std::string&) {
             MakeFile(strPath, 0666);
             EXPECT_EQ(lchown(strPath.c_str(), kSomebodyElse, kSomebodyElse), 0);
             return -1;
         },
         true},
        {{"ForNobody"}, [](const std::string& strPath, const std::string&) { return MakeFile(strPath, 0); }},
    };
}

// Checks that nothing was sent to the obstacle's descriptor.
inline void ExpectNothingReceived(int nDescriptor) {
    if (nDescriptor < 0) {
        return;
    }
    struct stat status {};
    char ch = 0;
    if (fstat(nDescriptor, &status) == 0 && S_ISSOCK(status.st_mode)) {
        EXPECT_LT(accept4(nDescriptor, nullptr, nullptr, SOCK_CLOEXEC), 0);
    } else {
        EXPECT_LE(read(nDescriptor, &ch, 1), 0);
    }
}
