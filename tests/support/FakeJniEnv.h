// A JNIEnv for tests without a JVM. It implements the JNI functions that the bridge may use, on its own strings, and
// records every call. Any other JNI function prints its name and ends the program.
//
// For one thread, like any JNIEnv.
#pragma once

#include <jni.h>

#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>

class FakeJniEnv : public JNIEnv {
public:
    // fnRecord gets one line for each call of a JNI function: "GetStringUTFLength(input) = 3". A reference is shown as
    // the name of its object: class, constructor, array, encoding, text.
    explicit FakeJniEnv(std::function<void(std::string)> fnRecord);
    FakeJniEnv() : FakeJniEnv([](const std::string&) {}) {}
    ~FakeJniEnv();
    FakeJniEnv(const FakeJniEnv&) = delete;
    FakeJniEnv& operator=(const FakeJniEnv&) = delete;

    // Creates a Java string from its modified UTF-8 form. Recorded calls show it as strName.
    jstring MakeString(std::string bytes, std::string strName = "input");

    // Overwrites and frees the text that MakeString got. No copy stays here, and the string is empty.
    void Forget(jstring text);

    // From now on the JNI function of this name does nothing and returns null.
    void Fail(std::string_view function) { m_failing.emplace(function); }

    // Sets a function that each NewString calls first, with its arguments, while their memory is still valid.
    void OnNewString(std::function<void(const void* pUnits, jsize nLength)> function) {
        m_fnNewString = std::move(function);
    }

    // The text as the bridge converted it: the units given to NewString, or the bytes given to String(byte[], String).
    std::u16string Units(jstring text);
    std::string Bytes(jstring text);

    // The number of GetStringUTFChars calls without a ReleaseStringUTFChars.
    int UnreleasedChars() const { return m_nUnreleasedChars; }

private:
    struct Object {
        std::string strName;
        std::string bytes = {};
        std::u16string units = {};
        std::unique_ptr<char[]> pszChars = {};  // the copy that GetStringUTFChars returned
    };
    struct Hooks;
    static const JNINativeInterface_ s_functions;

    Object* Make(const char* pszFunction, Object object);
    void Record(const std::string& strCall, const void* pResult);
    std::string Name(const void* reference);
    Object& Get(const void* reference);

    std::function<void(std::string)> m_fnRecord;
    std::function<void(const void*, jsize)> m_fnNewString = [](const void*, jsize) {};
    std::set<std::string, std::less<>> m_failing;
    std::deque<Object> m_objects;  // a reference is the address of its object
    int m_nUnreleasedChars = 0;
};
