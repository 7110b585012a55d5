// Whose a file is that was just made: who of all that open it is told to have created it, and so writes what a file
// begins with. That is one of them, also when the process that made it, or was told so, is killed before it has
// written: then it is who opens it next.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

namespace vextk {

// Part of the mode of a file that O_CREAT makes, on which it means nothing else: nobody has claimed the file.
inline constexpr mode_t kUnclaimed = S_ISVTX;

// Whether a claim may succeed. bLocked: nobody else has the file locked.
bool MayBeClaimed(const struct stat& status, bool bLocked);

// Whether whoever has opened the file counts as having created it. Whatever the answer, the file does not bear
// kUnclaimed any more when it was given to the caller. bMade: the caller's O_CREAT made it. bLocked: nobody else has it
// locked.
bool ClaimFile(int nDescriptor, bool bMade, bool bLocked);

// Of a file that was claimed, before it is closed. bWriteFailed: what it begins with may not have got into it, so that
// an empty one is left for whoever opens it next.
void LeaveClaimedFile(int nDescriptor, bool bWriteFailed);

}  // namespace vextk
