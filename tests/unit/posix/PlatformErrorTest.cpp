#include <gtest/gtest.h>

#include <cerrno>

#include "posix/ErrnoText.h"
#include "posix/PlatformError.h"

namespace {

// The numbers on the right are the platform's. They are written out because callers compare with numbers.
TEST(ErrorFromErrno, GivesThePlatformsNumbers) {
    struct Row {
        int nErrno;
        DWORD dwError;
    };
    const Row rows[] = {
        {0, 0},         {ENOENT, 2},   {ENOTDIR, 3},        {EMFILE, 4},  {ENFILE, 4},
        {EACCES, 5},    {EPERM, 5},    {EISDIR, 5},         {ELOOP, 5},   {ENXIO, 5},
        {ENODEV, 5},    {EBADF, 6},    {ENOMEM, 8},         {EROFS, 19},  {EAGAIN, 32},
        {EBUSY, 32},    {ETXTBSY, 32}, {EINVAL, 87},        {EFAULT, 87}, {ENOSPC, 112},
        {EDQUOT, 112},  {EEXIST, 183}, {ENAMETOOLONG, 206}, {EFBIG, 223}, {EOVERFLOW, 223},
        {EILSEQ, 1113}, {EIO, 1117},   {ECHILD, 31},        {-1, 31},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(vexposix::ErrorFromErrno(row.nErrno), row.dwError) << row.nErrno;
    }
}

TEST(ErrnoText, IsEnglish) {
    EXPECT_EQ(vexposix::ErrnoText(ENOENT), "No such file or directory");
    EXPECT_EQ(vexposix::ErrnoText(99999), "error 99999");
}

}  // namespace
