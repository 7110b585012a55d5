// OpenSSL's errors. It has a queue of them for each thread, which the host's own calls use, too.
#pragma once

#include <openssl/err.h>

#include <new>
#include <string>

namespace vexcrypto {

// Removes from the thread's queue what was added since the mark was set.
class ErrorMark {
public:
    ErrorMark() : m_bWasEmpty(ERR_set_mark() == 0) {}
    ~ErrorMark() {
        if (!m_bWasEmpty) {
            ERR_pop_to_mark();
        } else if (ERR_peek_error() != 0) {
            // An empty queue has no place for a mark. ERR_pop_to_mark would stop at one that a function of OpenSSL has
            // left behind, as the generation of an RSA key does.
            ERR_clear_error();
        }
    }
    ErrorMark(const ErrorMark&) = delete;
    ErrorMark& operator=(const ErrorMark&) = delete;

private:
    const bool m_bWasEmpty;
};

// For functions of OpenSSL that fail only when memory runs out.
inline void RequireMemory(bool bSucceeded) {
    if (!bSucceeded) {
        throw std::bad_alloc();
    }
}
template <typename T>
T* RequireMemory(T* pObject) {
    RequireMemory(pObject != nullptr);
    return pObject;
}

// The reason and details of the newest error of this thread, in one visible line. Throws std::bad_alloc if memory ran
// out: that says nothing about the data.
std::string LastReason();

}  // namespace vexcrypto
