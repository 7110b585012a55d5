// Annotations for clang's thread safety analysis (-Wthread-safety). They expand to nothing with other compilers.
//
//     class CCounter {
//     public:
//         void Add() { const CVEXLock lock(m_lock); ++m_nCount; }
//
//     private:
//         void Reset() VEX_REQUIRES(m_lock) { m_nCount = 0; }  // the caller holds m_lock
//
//         CVEXMutex m_lock;
//         int m_nCount VEX_GUARDED_BY(m_lock) = 0;
//     };
//
// The analysis looks at one function at a time. A lambda counts as a function of its own: one that is called with a
// lock held says so, [this]() VEX_REQUIRES(m_lock) { ... }. Constructors and destructors are not analysed.
#pragma once

#if defined(__clang__)
#define VEX_THREAD_SAFETY(x) __attribute__((x))
#else
#define VEX_THREAD_SAFETY(x)
#endif

// A class whose objects are locks, and a class whose objects hold a lock for their scope.
#define VEX_CAPABILITY(name) VEX_THREAD_SAFETY(capability(name))
#define VEX_SCOPED_CAPABILITY VEX_THREAD_SAFETY(scoped_lockable)

// A field that is used only with the lock held; a pointer whose target is used only with the lock held.
#define VEX_GUARDED_BY(lock) VEX_THREAD_SAFETY(guarded_by(lock))
#define VEX_PT_GUARDED_BY(lock) VEX_THREAD_SAFETY(pt_guarded_by(lock))

// A function that takes the locks, or gives them back. Without an argument: the object itself.
#define VEX_ACQUIRE(...) VEX_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define VEX_RELEASE(...) VEX_THREAD_SAFETY(release_capability(__VA_ARGS__))

// A function whose caller holds the locks.
#define VEX_REQUIRES(...) VEX_THREAD_SAFETY(requires_capability(__VA_ARGS__))

// A function that the analysis cannot follow. A comment beside it says why the function is right.
#define VEX_NO_THREAD_SAFETY_ANALYSIS VEX_THREAD_SAFETY(no_thread_safety_analysis)
