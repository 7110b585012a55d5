// Ends the process with SIGKILL at the nth of its calls of fstat, flock, lseek, pread, pwrite, ftruncate and close,
// which FileSystemCalls.cpp intercepts. Any thread.
#pragma once

#include <string>

namespace kill_point {

enum class Where {
    kBefore,  // before the call
    kInside,  // after half of what pwrite writes, if that is more than two bytes; else after the call
};

// Shows the parent what the child process has done. It is in shared memory, so that it stays when the child ends.
struct Account {
    int nCalls = 0;       // calls that have begun
    bool bInCut = false;  // between reading a file and cutting it
    bool bMarkWritten = false;
    std::string strLast;  // the last of the calls
};

// Call before the fork. The child starts counting with Arm.
void Share();
Account Read();

// nCall: 1 is the next call; 0 only counts.
void Arm(int nCall, Where where);

}  // namespace kill_point
