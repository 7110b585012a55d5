// A JNIEnv for tests without a JVM. It offers the functions of JNI that the bridge is allowed to use, on strings of its
// own, and writes down every call; any other function of JNI ends the program with its name.
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
    // fnRecord gets one line for each call of a JNI function: "GetStringUTFLength(input) = 3". References are written
    // as the names of what they refer to, in this class's words: class, constructor, array, encoding, text.
    explicit FakeJniEnv(std::function<void(std::string)> fnRecord);
    FakeJniEnv() : FakeJniEnv([](const std::string&) {}) {}
    ~FakeJniEnv();
    FakeJniEnv(const FakeJniEnv&) = delete;
    FakeJniEnv& operator=(const FakeJniEnv&) = delete;

    // A Java string whose modified UTF-8 form has these bytes, written as strName in the recorded calls.
    jstring MakeString(std::string bytes, std::string strName = "input");

    // Overwrites and drops what MakeString was given: nothing of it is left here, and the string is empty.
    void Forget(jstring text);

    // From now on the JNI function of this name does nothing and returns null.
    void Fail(std::string_view function) { m_failing.emplace(function); }

    // Called first by each NewString, with its arguments, while what they point to is still valid.
    void OnNewString(std::function<void(const void* pUnits, jsize nLength)> function) {
        m_fnNewString = std::move(function);
    }

    // What the bridge made of a text: the units given to NewString, or the bytes given to String(byte[], String).
    std::u16string Units(jstring text);
    std::string Bytes(jstring text);

    // Calls of GetStringUTFChars that no ReleaseStringUTFChars has followed.
    int UnreleasedChars() const { return m_nUnreleasedChars; }

private:
    struct Object {
        std::string strName;
        std::string bytes = {};
        std::u16string units = {};
        std::unique_ptr<char[]> pszChars = {};  // what GetStringUTFChars handed out
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
