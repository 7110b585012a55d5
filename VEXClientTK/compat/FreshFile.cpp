#include "compat/FreshFile.h"

#include <ctime>

namespace vextk {
namespace {

// The times of a claimed file while nothing is in it. Reading it changes the one, an attempt to write into it the
// other. Even, and after 1980, for file systems that keep no others.
constexpr timespec kClaimedAndEmpty = {0x56455830, 0};

// Whether the file can bear the mark: not every file system keeps it. It does not bear it when this returns.
bool CanBeMarked(int nDescriptor, mode_t mode) {
    struct stat status {};
    const bool bMarked = fchmod(nDescriptor, mode | kUnclaimed) == 0 && fstat(nDescriptor, &status) == 0 &&
                         (status.st_mode & kUnclaimed) != 0;
    return fchmod(nDescriptor, mode) == 0 && bMarked;
}

void SetTimes(int nDescriptor, timespec read, timespec written) {
    const timespec times[2] = {read, written};
    futimens(nDescriptor, times);  // where it fails, a killed process's file stays without its beginning
}

bool IsClaimedAndEmpty(timespec time) {
    return time.tv_sec == kClaimedAndEmpty.tv_sec && time.tv_nsec == kClaimedAndEmpty.tv_nsec;
}

bool BearsTimes(const struct stat& status) {
    return IsClaimedAndEmpty(status.st_atim) || IsClaimedAndEmpty(status.st_mtim);
}

}  // namespace

bool MayBeClaimed(const struct stat& status, bool bLocked) {
    return status.st_size == 0 && ((status.st_mode & kUnclaimed) != 0 || (bLocked && BearsTimes(status)));
}

bool ClaimFile(int nDescriptor, bool bMade, bool bLocked) {
    struct stat status {};
    if (fstat(nDescriptor, &status) != 0) {
        return false;
    }
    // Whoever opens the file by other means than these may have written into it meanwhile.
    const bool bEmpty = status.st_size == 0;
    const mode_t mode = status.st_mode & ~(S_IFMT | kUnclaimed);
    if ((status.st_mode & kUnclaimed) != 0) {
        // The times come first, so that the file is at no moment without them or the mark.
        if (bEmpty) {
            SetTimes(nDescriptor, kClaimedAndEmpty, kClaimedAndEmpty);
        }
        // Somebody else's file that bears the mark for reasons of its own keeps it and counts as an opened one.
        return fchmod(nDescriptor, mode) == 0 && bEmpty;
    }
    if (!bEmpty) {
        return false;
    }
    if (bLocked && BearsTimes(status)) {
        return true;
    }
    const bool bCreated = bMade && !CanBeMarked(nDescriptor, mode);
    if (bCreated) {
        SetTimes(nDescriptor, kClaimedAndEmpty, kClaimedAndEmpty);
    }
    return bCreated;
}

void LeaveClaimedFile(int nDescriptor, bool bWriteFailed) {
    struct stat status {};
    const bool bEmpty = fstat(nDescriptor, &status) == 0 && status.st_size == 0;
    if (bEmpty && bWriteFailed) {
        SetTimes(nDescriptor, kClaimedAndEmpty, kClaimedAndEmpty);
    } else {
        SetTimes(nDescriptor, {0, UTIME_NOW}, {0, bEmpty ? UTIME_NOW : UTIME_OMIT});
    }
}

}  // namespace vextk
