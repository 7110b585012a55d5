// A FakeJniEnv whose functions take part in the fault points, and which knows of pending exceptions.
#pragma once

#include <string>

#include "FakeJniEnv.h"
#include "FaultPoints.h"

// For one thread, and one object on it at a time.
class FaultyJniEnv {
public:
    FaultyJniEnv();
    ~FaultyJniEnv();
    FaultyJniEnv(const FaultyJniEnv&) = delete;
    FaultyJniEnv& operator=(const FaultyJniEnv&) = delete;

    JNIEnv* Get() { return &m_env; }
    jstring MakeString(const char* psz);
    std::string Bytes(jstring text);

    // Like the return of a native to Java: clears the pending exception, and tells whether there was one.
    bool TakeException();

    // "A then B" for a function B that was called while the exception of a failed A was pending, which a JVM does not
    // allow; empty when there was none.
    const std::string& CalledWithException() const { return m_strCalledWithException; }

private:
    struct Hooks;

    void NoteCall(const char* pszFunction);

    FakeJniEnv m_env;
    const JNINativeInterface_* m_pFunctions;
    JNINativeInterface_ m_table;
    const char* m_pszPending = nullptr;
    std::string m_strCalledWithException;
};
