// The natives of the Java class vex.jni.TAVClientJNI and the three functions that carry values across the Java border.
//
// A native converts its arguments, calls the toolkit and converts the result back. It keeps nothing between calls,
// takes no lock and throws no Java exception of its own; running out of memory leaves it as std::bad_alloc. The texts,
// codes and call orders at the Java edge are kept exactly as callers know them, including where they look odd.
//
// It logs when it begins and when it has come to its end. A call that is refused, and a signature or a text that the
// toolkit does not give, has no record of the end.
#include "vex_jni_TAVClientJNI.h"

#include <string.h>

#include <array>
#include <climits>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

#include "DebugLogMgr.h"
#include "VCTK.h"
#include "VEXCompat.h"
#include "VEXCstring.h"

namespace {

// Overwrites an object's memory when it goes out of scope, in a way that the compiler keeps. For copies of a text that
// may hold a PIN: freed memory keeps its bytes.
class CWiper {
public:
    CWiper(void* pMemory, std::size_t cb) : m_pMemory(pMemory), m_cb(cb) {}
    explicit CWiper(std::wstring& wstrText) : CWiper(wstrText.data(), wstrText.size() * sizeof(wchar_t)) {}
    explicit CWiper(CStringA& strText)
        : CWiper(strText.IsEmpty() ? nullptr : strText.GetBuffer(), static_cast<std::size_t>(strText.GetLength())) {}
    CWiper(const CWiper&) = delete;
    CWiper& operator=(const CWiper&) = delete;
    ~CWiper() {
        if (m_pMemory != nullptr) {
            explicit_bzero(m_pMemory, m_cb);
        }
    }

private:
    void* m_pMemory;
    std::size_t m_cb;
};

}  // namespace

// A Java string from UTF-8; pat must not be null. Every step runs whether or not the one before succeeded; a failure
// shows as a pending Java exception.
jstring stoJstring(JNIEnv* env, const char* pat) {
    // As a signature would name it; JVMs take that for "java/lang/String".
    jclass strClass = env->FindClass("Ljava/lang/String;");
    jmethodID ctorID = env->GetMethodID(strClass, "<init>", "([BLjava/lang/String;)V");
    const auto nLength = static_cast<jsize>(std::strlen(pat));
    jbyteArray bytes = env->NewByteArray(nLength);
    env->SetByteArrayRegion(bytes, 0, nLength, reinterpret_cast<const jbyte*>(pat));
    jstring encoding = env->NewStringUTF("utf-8");
    return static_cast<jstring>(env->NewObject(strClass, ctorID, bytes, encoding));
}

// The text of a Java string, decoded from its modified UTF-8 form as if that were UTF-8, up to the first zero
// character. Empty for null and for whatever cannot be converted, for want of memory as well.
std::wstring JstringToWindows(JNIEnv* jenv, jstring jstr) {
    std::wstring strResult;
    if (jstr == nullptr) {
        return strResult;
    }
    const jsize lengthUTF8 = jenv->GetStringUTFLength(jstr);
    jenv->GetStringLength(jstr);  // its result serves nothing; the calls made to the JVM are kept as they are known
    jboolean jbIsCopy = JNI_FALSE;
    const char* const pszUTF8 = jenv->GetStringUTFChars(jstr, &jbIsCopy);

    // From here on the characters are released on success alone.
    const int size = MultiByteToWideChar(CP_UTF8, 0, pszUTF8, lengthUTF8, nullptr, 0);
    constexpr int nMaxSize = (INT_MAX - 4) / 4;  // beyond it iLen is no int, and no memory either
    if (size < 1 || size > nMaxSize) {
        return strResult;
    }
    // Room for four times the text, of which the text and the character behind it are cleared: iLen bytes.
    const int iLen = size * 4 + 4;
    try {
        const auto pwszRetStr = std::make_unique_for_overwrite<wchar_t[]>(static_cast<size_t>(iLen));
        const CWiper wiper(pwszRetStr.get(), static_cast<size_t>(iLen));
        std::memset(pwszRetStr.get(), 0, static_cast<size_t>(iLen));
        if (MultiByteToWideChar(CP_UTF8, 0, pszUTF8, lengthUTF8, pwszRetStr.get(), iLen) > 0) {
            jenv->ReleaseStringUTFChars(jstr, pszUTF8);
            strResult = pwszRetStr.get();
        }
    } catch (const std::bad_alloc&) {
        strResult.clear();
    }
    return strResult;
}

// A Java string of as many UTF-16 units as str has characters, read from the bytes of these 4-byte characters: "ab"
// becomes 'a' and U+0000. Null for an empty str. The JVM reads the wide text's own storage; nothing here reads it as
// units.
jstring WindowsToJstring(JNIEnv* jenv, const std::wstring& str) {
    if (str.empty()) {
        return nullptr;
    }
    return jenv->NewString(reinterpret_cast<const jchar*>(str.data()), static_cast<jsize>(str.size()));
}

namespace {

// A function's name for a record, as wide text and as the message's argument. That one is narrow, but the log's %s
// takes it for wide text and reads whole characters from it: it is therefore kept in wide characters, four bytes in
// each, with a zero one behind.
class CRecordName {
public:
    template <std::size_t N>
    constexpr explicit CRecordName(const char (&szName)[N]) {
        static_assert(N - 1 <= (kUnits - 1) * sizeof(wchar_t), "no room for a zero character");
        for (std::size_t i = 0; i + 1 < N; ++i) {
            m_wide[i] = static_cast<wchar_t>(szName[i]);
            m_units[i / sizeof(wchar_t)] |= m_wide[i] << (i % sizeof(wchar_t) * CHAR_BIT);
        }
    }

    LPCTSTR Wide() const { return m_wide.data(); }
    const char* Narrow() const { return reinterpret_cast<const char*>(m_units.data()); }

private:
    static constexpr std::size_t kUnits = 16;

    std::array<wchar_t, kUnits * sizeof(wchar_t)> m_wide{};
    std::array<wchar_t, kUnits> m_units{};
};

// What a native's records say. The line numbers are part of the log's format: people find a call by them, so that they
// stay what they are wherever the calls stand.
struct Native {
    CRecordName name;
    DWORD dwEnterLine;
    DWORD dwLeaveLine;
};

constexpr DWORD kNoRecord = 0;

constexpr Native kInitialize{CRecordName("Java_vex_jni_TAVClientJNI_Initialize"), 101, 112};
constexpr Native kSetDigestAlg{CRecordName("Java_vex_jni_TAVClientJNI_SetDigestAlg"), kNoRecord, 141};
constexpr Native kSetChooseSingleCert{CRecordName("Java_vex_jni_TAVClientJNI_SetChooseSingleCert"), 149, 164};
constexpr Native kAddFilter{CRecordName("Java_vex_jni_TAVClientJNI_AddFilter"), 171, 195};
constexpr Native kClearFilter{CRecordName("Java_vex_jni_TAVClientJNI_ClearFilter"), 202, 216};
constexpr Native kP1Sign{CRecordName("Java_vex_jni_TAVClientJNI_P1Sign"), 223, 267};
constexpr Native kP1SignString{CRecordName("Java_vex_jni_TAVClientJNI_P1SignString"), 274, 318};
constexpr Native kP7Sign{CRecordName("Java_vex_jni_TAVClientJNI_P7Sign"), 325, 368};
constexpr Native kP7SignString{CRecordName("Java_vex_jni_TAVClientJNI_P7SignString"), 377, 420};
constexpr Native kFinalize{CRecordName("Java_vex_jni_TAVClientJNI_Finalize"), 428, 442};
constexpr Native kGetSignVersion{CRecordName("Java_vex_jni_TAVClientJNI_GetSignVersion"), 449, 454};
constexpr Native kGetSignCert{CRecordName("Java_vex_jni_TAVClientJNI_GetSignCert"), 462, 494};
constexpr Native kGetLastError{CRecordName("Java_vex_jni_TAVClientJNI_GetLastError"), 501, 505};
constexpr Native kGetLastErrorMessage{CRecordName("Java_vex_jni_TAVClientJNI_GetLastErrorMessage"), 512, 545};
constexpr Native kGetCertList{CRecordName("Java_vex_jni_TAVClientJNI_GetCertList"), 552, 585};

// From the root of the project, so that records do not depend on where it was built.
constexpr wchar_t kSourceFile[] = L"TAVClientJNI/vex_jni_TAVClientJNI.cpp";

constexpr int kLogLevel = 1;

// Not inline: a native whose record is not written shall not make room on the stack for one.
[[gnu::noinline]] void Record(const Native& native, DWORD dwLine, LPCTSTR lpszFormat) {
    if (!CDebugLogMgr::IsWritten(kLogLevel)) {
        return;
    }
    CDebugLogMgr::MacroHelper(L"[INFO] ", kLogLevel, kSourceFile, native.name.Wide(), dwLine)(lpszFormat,
                                                                                              native.name.Narrow());
}

[[gnu::always_inline]] inline void Trace(const Native& native, DWORD dwLine, LPCTSTR lpszFormat) {
    if (!CDebugLogMgr::IsDropped(kLogLevel)) {
        Record(native, dwLine, lpszFormat);
    }
}

[[gnu::always_inline]] inline void TraceEnter(const Native& native) {
    Trace(native, native.dwEnterLine, L"%s Enter.");
}

[[gnu::always_inline]] inline void TraceLeave(const Native& native) {
    Trace(native, native.dwLeaveLine, L"%s Leave.");
}

HANDLE ToHandle(jlong handle) {
    return reinterpret_cast<HANDLE>(handle);  // NOLINT(performance-no-int-to-ptr): Java has no pointers
}

// The status that Java sees; the toolkit's own code is not passed on.
constexpr jlong kSuccess = 0;
constexpr jlong kFailure = 1;

jlong ToStatus(INT nResult) {
    return nResult != 0 ? kFailure : kSuccess;
}

// A text of the toolkit: asked for its size, then fetched into a zeroed buffer of that size. Null on failure.
// query: INT(char* pszBuffer, int* pnLength)
template <typename Query>
std::unique_ptr<char[]> FetchText(Query query) {
    int nResultLen = 0;
    if (query(nullptr, &nResultLen) != 0 || nResultLen <= 0) {
        return nullptr;
    }
    auto pResult = std::make_unique<char[]>(static_cast<size_t>(nResultLen));
    if (query(pResult.get(), &nResultLen) != 0) {
        return nullptr;
    }
    return pResult;
}

// A signature of the Java text. Null on failure.
// sign: INT(LPCSTR pszData); result: INT(HANDLE hObject, char* pszBuffer, int* pnLength)
template <typename Sign, typename Result>
std::unique_ptr<char[]> SignText(JNIEnv* jenv, jlong handle, jstring bstrValue, Sign sign, Result result) {
    const std::wstring wstrValue = JstringToWindows(jenv, bstrValue);
    if (wstrValue.empty() || handle == 0) {
        return nullptr;
    }
    if (sign(CStringA(wstrValue.c_str())) != 0) {
        return nullptr;
    }
    return FetchText([=](char* pszBuffer, int* pnLength) { return result(ToHandle(handle), pszBuffer, pnLength); });
}

// What a P1 or P7 signature's input is, as the toolkit wants to be told.
constexpr int kBase64 = 1;
constexpr int kPlainText = 0;

std::unique_ptr<char[]> SignP1(JNIEnv* jenv, jlong handle, jstring bstrValue, int nInputForm) {
    return SignText(
        jenv, handle, bstrValue, [=](LPCSTR pszData) { return VCTK_P1Sign(ToHandle(handle), pszData, nInputForm); },
        VCTK_GetP1SignResult);
}

// Of the two flags the toolkit gets the low 32 bits as they are.
std::unique_ptr<char[]> SignP7(JNIEnv* jenv, jlong handle, jstring bstrValue, int nInputForm, jlong bDetach,
                               jlong bIncludeCert) {
    return SignText(
        jenv, handle, bstrValue,
        [=](LPCSTR pszData) {
            return VCTK_P7Sign(ToHandle(handle), pszData, nInputForm, static_cast<int>(bDetach),
                               static_cast<int>(bIncludeCert));
        },
        VCTK_GetP7SignResult);
}

// The result of a native that answers with a text of the toolkit's: null, and no record of the end, without one.
jstring LeaveWith(JNIEnv* jenv, const Native& native, const std::unique_ptr<char[]>& pResult) {
    if (!pResult) {
        return nullptr;
    }
    jstring jstrResult = stoJstring(jenv, pResult.get());
    TraceLeave(native);
    return jstrResult;
}

// Narrow text to Java the wide way; see WindowsToJstring for what arrives.
jstring NarrowToJstring(JNIEnv* jenv, LPCSTR psz) {
    const CString strText(psz);
    return WindowsToJstring(jenv, std::wstring(static_cast<LPCTSTR>(strText)));
}

}  // namespace

// Said here too, so that a signature that differs from the generated header's is an error and no overload.
extern "C" {

// bstrAlgType is not looked at.
JNIEXPORT jlong JNICALL Java_vex_jni_TAVClientJNI_Initialize(JNIEnv* jenv, jobject, jstring, jstring bstrAuxParam) {
    std::wstring wstrKeyInfo = JstringToWindows(jenv, bstrAuxParam);
    const CWiper wiper(wstrKeyInfo);
    if (wstrKeyInfo.empty()) {
        return 0;
    }
    TraceEnter(kInitialize);
    HANDLE hVexObject = nullptr;
    {
        CStringA straKeyInfo(wstrKeyInfo.c_str());
        const CWiper narrowWiper(straKeyInfo);
        hVexObject = VCTK_Initialize(straKeyInfo);
    }
    if (hVexObject != nullptr) {
        VCTK_CallQueueEnable(hVexObject, 0, 1);
    }
    TraceLeave(kInitialize);
    return reinterpret_cast<jlong>(hVexObject);
}

JNIEXPORT jlong JNICALL Java_vex_jni_TAVClientJNI_SetDigestAlg(JNIEnv* jenv, jobject, jlong handle,
                                                               jstring bstrDigestAlg) {
    const std::wstring wstrDigestAlg = JstringToWindows(jenv, bstrDigestAlg);
    if (wstrDigestAlg.empty() || handle == 0) {
        return kFailure;
    }
    const INT ret = VCTK_SetDigestAlg(ToHandle(handle), CStringA(wstrDigestAlg.c_str()));
    TraceLeave(kSetDigestAlg);
    return ToStatus(ret);
}

JNIEXPORT jlong JNICALL Java_vex_jni_TAVClientJNI_SetChooseSingleCert(JNIEnv*, jobject, jlong handle, jint isChoose) {
    TraceEnter(kSetChooseSingleCert);
    if (handle == 0) {
        return kFailure;
    }
    const INT ret = VCTK_SetChooseSingleCert(ToHandle(handle), isChoose);
    TraceLeave(kSetChooseSingleCert);
    return ToStatus(ret);
}

// A value that the process locale cannot encode reaches the toolkit as "".
JNIEXPORT jlong JNICALL Java_vex_jni_TAVClientJNI_AddFilter(JNIEnv* jenv, jobject, jlong handle, jlong ulType,
                                                            jstring bstrValue) {
    TraceEnter(kAddFilter);
    const std::wstring wstrValue = JstringToWindows(jenv, bstrValue);
    if (wstrValue.empty()) {
        return kFailure;
    }
    const CString strValue(wstrValue.c_str());
    if (handle == 0) {
        return kFailure;
    }
    const INT ret =
        VCTK_AddFilter(ToHandle(handle), static_cast<ULONG>(ulType), CStringA(static_cast<LPCTSTR>(strValue)));
    TraceLeave(kAddFilter);
    return ToStatus(ret);
}

JNIEXPORT jlong JNICALL Java_vex_jni_TAVClientJNI_ClearFilter(JNIEnv*, jobject, jlong handle) {
    TraceEnter(kClearFilter);
    if (handle == 0) {
        return kFailure;
    }
    const INT ret = VCTK_ClearFilter(ToHandle(handle));
    TraceLeave(kClearFilter);
    return ToStatus(ret);
}

JNIEXPORT jstring JNICALL Java_vex_jni_TAVClientJNI_P1Sign(JNIEnv* jenv, jobject, jlong handle,
                                                           jstring bstrValueBase64) {
    TraceEnter(kP1Sign);
    return LeaveWith(jenv, kP1Sign, SignP1(jenv, handle, bstrValueBase64, kBase64));
}

JNIEXPORT jstring JNICALL Java_vex_jni_TAVClientJNI_P1SignString(JNIEnv* jenv, jobject, jlong handle,
                                                                 jstring bstrValue) {
    TraceEnter(kP1SignString);
    return LeaveWith(jenv, kP1SignString, SignP1(jenv, handle, bstrValue, kPlainText));
}

JNIEXPORT jstring JNICALL Java_vex_jni_TAVClientJNI_P7Sign(JNIEnv* jenv, jobject, jlong handle, jstring bstrValue,
                                                           jlong bDetach, jlong bIncludeCert) {
    TraceEnter(kP7Sign);
    return LeaveWith(jenv, kP7Sign, SignP7(jenv, handle, bstrValue, kBase64, bDetach, bIncludeCert));
}

JNIEXPORT jstring JNICALL Java_vex_jni_TAVClientJNI_P7SignString(JNIEnv* jenv, jobject, jlong handle, jstring bstrValue,
                                                                 jlong bDetach, jlong bIncludeCert) {
    TraceEnter(kP7SignString);
    return LeaveWith(jenv, kP7SignString, SignP7(jenv, handle, bstrValue, kPlainText, bDetach, bIncludeCert));
}

JNIEXPORT jlong JNICALL Java_vex_jni_TAVClientJNI_Finalize(JNIEnv*, jobject, jlong handle) {
    TraceEnter(kFinalize);
    if (handle == 0) {
        return kFailure;
    }
    const INT ret = VCTK_Finalize(ToHandle(handle));
    TraceLeave(kFinalize);
    return ToStatus(ret);
}

// The bridge's own version; neither the handle nor the toolkit is asked.
JNIEXPORT jstring JNICALL Java_vex_jni_TAVClientJNI_GetSignVersion(JNIEnv* jenv, jobject, jlong) {
    TraceEnter(kGetSignVersion);
    jstring jstrVersion = NarrowToJstring(jenv, "1.0.0.1");
    TraceLeave(kGetSignVersion);
    return jstrVersion;
}

// Null even on success: the certificate is fetched, made a Java string and dropped.
JNIEXPORT jstring JNICALL Java_vex_jni_TAVClientJNI_GetSignCert(JNIEnv* jenv, jobject, jlong handle) {
    TraceEnter(kGetSignCert);
    if (handle == 0) {
        return nullptr;
    }
    const auto pResult = FetchText(
        [handle](char* pszBuffer, int* pnLength) { return VCTK_GetSignCert(ToHandle(handle), pszBuffer, pnLength); });
    if (!pResult) {
        return nullptr;
    }
    NarrowToJstring(jenv, pResult.get());
    TraceLeave(kGetSignCert);
    return nullptr;
}

// Handle 0 is passed on like any other.
JNIEXPORT jlong JNICALL Java_vex_jni_TAVClientJNI_GetLastError(JNIEnv*, jobject, jlong handle) {
    TraceEnter(kGetLastError);
    const jlong jRetError = VCTK_GetLastError(ToHandle(handle));
    TraceLeave(kGetLastError);
    return jRetError;
}

JNIEXPORT jstring JNICALL Java_vex_jni_TAVClientJNI_GetLastErrorMessage(JNIEnv* jenv, jobject, jlong handle) {
    TraceEnter(kGetLastErrorMessage);
    if (handle == 0) {
        return nullptr;
    }
    const auto pResult = FetchText([handle](char* pszBuffer, int* pnLength) {
        return VCTK_GetLastErrorMessage(ToHandle(handle), pszBuffer, pnLength);
    });
    return LeaveWith(jenv, kGetLastErrorMessage, pResult);
}

JNIEXPORT jstring JNICALL Java_vex_jni_TAVClientJNI_GetCertList(JNIEnv* jenv, jobject, jlong handle) {
    TraceEnter(kGetCertList);
    if (handle == 0) {
        return nullptr;
    }
    const auto pResult = FetchText([handle](char* pszBuffer, int* pnLength) {
        return VCTK_GetCertList(ToHandle(handle), "\r\n", " ", pszBuffer, pnLength);
    });
    return LeaveWith(jenv, kGetCertList, pResult);
}

}  // extern "C"
