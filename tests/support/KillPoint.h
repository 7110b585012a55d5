// Ends the process with SIGKILL at a chosen one of the file calls that it makes (fstat, flock, lseek, pread, pwrite,
// ftruncate, close): a program with KillPoint.cpp has its own of these in front of libc's. Any thread.
#pragma once

#include <string>

namespace kill_point {

enum class Where {
    kBefore,  // before the call
    kInside,  // in the middle of what pwrite writes if that is more than two bytes; else after the call
};

// What became of the process, for the one that made it. In memory that both share, so that it outlives a kill.
struct Account {
    int nCalls = 0;       // counted calls that were begun
    bool bInCut = false;  // between reading a file and cutting it
    bool bMarkWritten = false;
    std::string strLast;  // the last of the calls
};

// To be called before the fork. Counting begins with Arm, in the child.
void Share();
Account Read();

// nCall: 1 is the first call from now on; 0: count only.
void Arm(int nCall, Where where);

}  // namespace kill_point
