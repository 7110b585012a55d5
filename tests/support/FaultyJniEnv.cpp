#include "FaultyJniEnv.h"

using fault_points::IsToFail;
using fault_points::Pause;

struct FaultyJniEnv::Hooks {
    static inline thread_local FaultyJniEnv* s_pCurrent = nullptr;

    // A call of a function that throws when it fails.
    template <typename Result, typename Call>
    static Result Throwing(const char* pszFunction, Call call) {
        FaultyJniEnv& env = *s_pCurrent;
        const bool bFails = IsToFail(pszFunction);
        const Pause pause;
        env.NoteCall(pszFunction);
        if (bFails) {
            env.m_pszPending = pszFunction;
            return Result();
        }
        return call(*env.m_pFunctions);
    }

    // The functions for lengths and releases do not throw.
    static jsize JNICALL GetStringUTFLength(JNIEnv* pEnv, jstring text) {
        const bool bFails = IsToFail("GetStringUTFLength");
        const Pause pause;
        return bFails ? 0 : s_pCurrent->m_pFunctions->GetStringUTFLength(pEnv, text);
    }
    static jsize JNICALL GetStringLength(JNIEnv* pEnv, jstring text) {
        const bool bFails = IsToFail("GetStringLength");
        const Pause pause;
        return bFails ? 0 : s_pCurrent->m_pFunctions->GetStringLength(pEnv, text);
    }
    static const char* JNICALL GetStringUTFChars(JNIEnv* pEnv, jstring text, jboolean* pIsCopy) {
        return Throwing<const char*>("GetStringUTFChars",
                                     [=](auto& next) { return next.GetStringUTFChars(pEnv, text, pIsCopy); });
    }
    static void JNICALL ReleaseStringUTFChars(JNIEnv* pEnv, jstring text, const char* pszChars) {
        const Pause pause;
        s_pCurrent->m_pFunctions->ReleaseStringUTFChars(pEnv, text, pszChars);
    }
    static jstring JNICALL NewString(JNIEnv* pEnv, const jchar* pUnits, jsize nLength) {
        return Throwing<jstring>("NewString", [=](auto& next) { return next.NewString(pEnv, pUnits, nLength); });
    }
    static jclass JNICALL FindClass(JNIEnv* pEnv, const char* pszName) {
        return Throwing<jclass>("FindClass", [=](auto& next) { return next.FindClass(pEnv, pszName); });
    }
    static jmethodID JNICALL GetMethodID(JNIEnv* pEnv, jclass type, const char* pszName, const char* pszSignature) {
        return Throwing<jmethodID>("GetMethodID",
                                   [=](auto& next) { return next.GetMethodID(pEnv, type, pszName, pszSignature); });
    }
    static jbyteArray JNICALL NewByteArray(JNIEnv* pEnv, jsize nLength) {
        return Throwing<jbyteArray>("NewByteArray", [=](auto& next) { return next.NewByteArray(pEnv, nLength); });
    }
    static void JNICALL SetByteArrayRegion(JNIEnv* pEnv, jbyteArray array, jsize nStart, jsize nLength,
                                           const jbyte* pBytes) {
        Throwing<bool>("SetByteArrayRegion", [=](auto& next) {
            next.SetByteArrayRegion(pEnv, array, nStart, nLength, pBytes);
            return true;
        });
    }
    static jstring JNICALL NewStringUTF(JNIEnv* pEnv, const char* pszText) {
        return Throwing<jstring>("NewStringUTF", [=](auto& next) { return next.NewStringUTF(pEnv, pszText); });
    }
    static jobject JNICALL NewObjectV(JNIEnv* pEnv, jclass type, jmethodID constructor, va_list arguments) {
        const bool bFails = IsToFail("NewObjectV");
        const Pause pause;
        s_pCurrent->NoteCall("NewObjectV");
        if (bFails) {
            s_pCurrent->m_pszPending = "NewObjectV";
            return nullptr;
        }
        return s_pCurrent->m_pFunctions->NewObjectV(pEnv, type, constructor, arguments);
    }
};

FaultyJniEnv::FaultyJniEnv() : m_pFunctions(m_env.functions), m_table(*m_env.functions) {
    m_table.GetStringUTFLength = Hooks::GetStringUTFLength;
    m_table.GetStringLength = Hooks::GetStringLength;
    m_table.GetStringUTFChars = Hooks::GetStringUTFChars;
    m_table.ReleaseStringUTFChars = Hooks::ReleaseStringUTFChars;
    m_table.NewString = Hooks::NewString;
    m_table.FindClass = Hooks::FindClass;
    m_table.GetMethodID = Hooks::GetMethodID;
    m_table.NewByteArray = Hooks::NewByteArray;
    m_table.SetByteArrayRegion = Hooks::SetByteArrayRegion;
    m_table.NewStringUTF = Hooks::NewStringUTF;
    m_table.NewObjectV = Hooks::NewObjectV;
    m_env.functions = &m_table;
    Hooks::s_pCurrent = this;
}

FaultyJniEnv::~FaultyJniEnv() {
    Hooks::s_pCurrent = nullptr;
}

jstring FaultyJniEnv::MakeString(const char* psz) {
    const Pause pause;
    return m_env.MakeString(psz);
}

std::string FaultyJniEnv::Bytes(jstring text) {
    const Pause pause;
    return text != nullptr ? m_env.Bytes(text) : std::string();
}

bool FaultyJniEnv::TakeException() {
    const bool bPending = m_pszPending != nullptr;
    m_pszPending = nullptr;
    return bPending;
}

void FaultyJniEnv::NoteCall(const char* pszFunction) {
    if (m_pszPending != nullptr && m_strCalledWithException.empty()) {
        m_strCalledWithException = std::string(m_pszPending) + ", then " + pszFunction;
    }
}
