// Makes the nth of all calls that can fail, fail. FaultPoints.cpp intercepts malloc, calloc, realloc (under a sanitizer
// operator new instead), the toolkit's operations and its compatibility functions. JNI functions take part through
// FaultyJniEnv.h.
//
// Calls are counted per thread: those of the thread that arms, or those of all other threads together.
#pragma once

namespace fault_points {

enum class Where {
    kHere,       // on the calling thread
    kElsewhere,  // on any other: the log's writer
};

enum class How {
    kOnce,         // the nth call fails
    kFromThereOn,  // and all allocations after it on that thread
};

// From now on. nPoint: from 1; 0 only counts.
void Arm(Where where, long nPoint, How how = How::kOnce);

// Ends it. Returns how many calls there were that could fail.
long Disarm();

// The function that failed at the nth call since Arm; null when there was none.
const char* Failed();

// Whether that was an allocation that OpenSSL asked for.
bool FailedInOpenSsl();

// Whether OpenSSL is known to leak a block when that allocation fails.
bool OpenSslLeaks();

// While calls are only counted, the nth element becomes true when the nth call is an allocation for OpenSSL.
void NoteOpenSsl(bool* pbOpenSsl, long nRoom);

// Counts a call of a function that FaultPoints.cpp does not intercept, and tells whether it is to fail.
bool IsToFail(const char* pszFunction);

// While it exists, calls of this thread do not fail and do not count.
class Pause {
public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

// The number of allocated blocks in the whole process; 0 under a sanitizer, which looks for leaks itself.
long LiveBlocks();

// The handle that VCTK_Initialize gave last.
void* LastHandle();

}  // namespace fault_points
