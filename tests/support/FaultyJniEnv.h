// A FakeJniEnv with pending exceptions. Its functions are fault points.
#pragma once

#include <string>

#include "FakeJniEnv.h"
#include "FaultPoints.h"

// For one thread, which may have one object at a time.
class FaultyJniEnv {
public:
    FaultyJniEnv();
    ~FaultyJniEnv();
    FaultyJniEnv(const FaultyJniEnv&) = delete;
    FaultyJniEnv& operator=(const FaultyJniEnv&) = delete;

    JNIEnv* Get() { return &m_env; }
    jstring MakeString(const char* psz);
    std::string Bytes(jstring text);

    // Like a native's return to Java: clears the pending exception. Returns whether there was one.
    bool TakeException();

    // "A then B" when function B was called while the exception of a failed A was pending, which a JVM forbids. Empty
    // when there was no such call.
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
