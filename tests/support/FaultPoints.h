// Every call that can fail, made to fail at its nth time. A program with FaultPoints.cpp defines malloc, calloc,
// realloc (under a sanitizer operator new instead), the toolkit's operations and its compatibility functions; unless
// told otherwise they do what they always do. JNI functions take part through FaultyJniEnv.h.
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

// Whether it was one after which OpenSSL is known to leave a block of its own behind.
bool OpenSslLeaks();

// While calls are only counted, the nth element becomes whether the nth call is such an allocation.
void NoteOpenSsl(bool* pbOpenSsl, long nRoom);

// One more call of a function of that name: whether it is to fail. For functions that this file does not know.
bool IsToFail(const char* pszFunction);

// The test's own work on this thread: nothing fails and nothing counts.
class Pause {
public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

// Blocks of memory that have been allocated and not freed, in the whole process; 0 under a sanitizer, which looks for
// leaks itself.
long LiveBlocks();

// The handle that VCTK_Initialize gave last.
void* LastHandle();

}  // namespace fault_points
