// Counts the calls that can fail (fault points), and lets the nth of them fail. FaultPoints.cpp intercepts malloc,
// calloc and realloc (under a sanitizer operator new instead), the toolkit's operations and its compatibility
// functions. JNI functions take part through FaultyJniEnv.h.
//
// Calls are counted per thread: those of the thread that arms, or those of all other threads together.
#pragma once

#include <cstddef>
#include <string_view>

namespace fault_points {

enum class Where {
    kHere,       // on the calling thread
    kElsewhere,  // on any other thread: the log's writer
};

enum class How {
    kOnce,         // the nth call fails
    kFromThereOn,  // and all allocations after it on that thread
};

// Starts counting. The call nPoint fails, counted from 1; with 0 none fails.
void Arm(Where where, long nPoint, How how = How::kOnce);

// Stops counting. Returns the number of calls that could fail.
long Disarm();

// The function that failed at the nth call since Arm; null when there was none.
const char* Failed();

// Whether the function of that name allocates memory.
bool IsAllocation(std::string_view function);

// Whether that call was an allocation by OpenSSL.
bool FailedInOpenSsl();

// Whether OpenSSL is known to leak a block when that allocation fails.
bool OpenSslLeaks();

// While calls are only counted, the nth element becomes true when the nth call is an allocation for OpenSSL.
void NoteOpenSsl(bool* pbOpenSsl, long nRoom);

// While calls are only counted, the nth element becomes a number for the way to the nth call: the same for calls that
// the same lines of the toolkit lead to.
void NoteWays(std::size_t* pnWays, long nRoom);

// Counts a call of a function that FaultPoints.cpp does not intercept. Returns whether the call must fail.
bool IsToFail(const char* pszFunction);

// While it exists, calls of this thread do not fail and are not counted.
class Pause {
public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

// The number of allocated blocks in the whole process; 0 under a sanitizer, which searches for leaks itself.
long LiveBlocks();

// The handle that VCTK_Initialize returned last.
void* LastHandle();

}  // namespace fault_points
