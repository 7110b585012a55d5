#include "ThreadMemory.h"

#include <pthread.h>

#include <cerrno>

thread_local bool t_fNoThreadMemory = false;

extern "C" {

int __real_pthread_setspecific(pthread_key_t key, const void* pValue);

int __wrap_pthread_setspecific(pthread_key_t key, const void* pValue) {
    return t_fNoThreadMemory ? ENOMEM : __real_pthread_setspecific(key, pValue);
}

}  // extern "C"
