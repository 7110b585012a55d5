// The natives of the Java class vex.jni.TAVClientJNI and the three functions that convert between Java and native
// values.
//
// A native converts its arguments, calls the toolkit and converts the result back. It keeps no state between calls,
// takes no lock and throws no Java exception of its own. When memory runs out, it may throw std::bad_alloc. Callers
// depend on the texts, codes and call orders at the Java edge; do not change them, even where they look odd.
//
// A native logs a record when it begins and one when it ends. The second record is missing when the call is refused,
// and when the toolkit returns no signature or text.
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
#include "VEXRegisters.h"

namespace {

// Overwrites memory at the end of its scope, and clears the registers through which it was copied. For copies of a text
// that may hold a PIN, because freed memory keeps its bytes.
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
        ClearVectorRegisters();
    }

private:
    void* m_pMemory;
    std::size_t m_cb;
};

}  // namespace

// A Java string from UTF-8; pat must not be null. Every step runs even if the step before failed. After a failure a
// Java exception is pending.
jstring stoJstring(JNIEnv* env, const char* pat) {
    // A type signature where a class name belongs; JVMs accept it for "java/lang/String".
    jclass strClass = env->FindClass("Ljava/lang/String;");
    jmethodID ctorID = env->GetMethodID(strClass, "<init>", "([BLjava/lang/String;)V");
    const auto nLength = static_cast<jsize>(std::strlen(pat));
    jbyteArray bytes = env->NewByteArray(nLength);
    env->SetByteArrayRegion(bytes, 0, nLength, reinterpret_cast<const jbyte*>(pat));
    jstring encoding = env->NewStringUTF("utf-8");
    return static_cast<jstring>(env->NewObject(strClass, ctorID, bytes, encoding));
}

// The text of a Java string, up to the first zero character. Its modified UTF-8 form is decoded as UTF-8. Empty for
// null, for a text that cannot be converted, and when memory runs out.
std::wstring JstringToWindows(JNIEnv* jenv, jstring jstr) {
    std::wstring strResult;
    if (jstr == nullptr) {
        return strResult;
    }
    const jsize lengthUTF8 = jenv->GetStringUTFLength(jstr);
    jenv->GetStringLength(jstr);  // the result is unused; the sequence of JVM calls must not change
    jboolean jbIsCopy = JNI_FALSE;
    const char* const pszUTF8 = jenv->GetStringUTFChars(jstr, &jbIsCopy);

    // From here on the characters are released on success only.
    const int size = MultiByteToWideChar(CP_UTF8, 0, pszUTF8, lengthUTF8, nullptr, 0);
    constexpr int nMaxSize = (INT_MAX - 4) / 4;  // above it iLen does not fit an int
    if (size < 1 || size > nMaxSize) {
        return strResult;
    }
    // Room for iLen characters, of which only the first iLen bytes are cleared: the text and its terminator.
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

// A Java string with one UTF-16 unit for each character of str. The units come from the bytes of the 4-byte characters:
// "ab" becomes 'a' and U+0000. Null for an empty str. Only the JVM reads the storage of str as UTF-16 units.
jstring WindowsToJstring(JNIEnv* jenv, const std::wstring& str) {
    if (str.empty()) {
        return nullptr;
    }
    return jenv->NewString(reinterpret_cast<const jchar*>(str.data()), static_cast<jsize>(str.size()));
}

namespace {

// A function's name for a record: as wide text, and as the message's argument. The argument is narrow, but the log's %s
// reads it as wide text. So its bytes are stored in wide characters, four in each, with a zero character after them.
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

// What a native's records say. The line numbers are constants: people find a call by them, so they must not change when
// code moves.
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

// Relative to the project's root, so that records do not depend on the build directory.
constexpr wchar_t kSourceFile[] = L"TAVClientJNI/vex_jni_TAVClientJNI.cpp";

constexpr int kLogLevel = 1;

// Not inline: a native that writes no record must not reserve stack for one.
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

// The status for Java. The toolkit's own code is not passed on.
constexpr jlong kSuccess = 0;
constexpr jlong kFailure = 1;

jlong ToStatus(INT nResult) {
    return nResult != 0 ? kFailure : kSuccess;
}

// Fetches a text from the toolkit: asks for its size, then gets it into a zeroed buffer of that size. Null on failure.
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

// Signs the Java text. Null on failure.
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

// The form of a P1 or P7 signature's input, as the toolkit expects it.
constexpr int kBase64 = 1;
constexpr int kPlainText = 0;

std::unique_ptr<char[]> SignP1(JNIEnv* jenv, jlong handle, jstring bstrValue, int nInputForm) {
    return SignText(
        jenv, handle, bstrValue, [=](LPCSTR pszData) { return VCTK_P1Sign(ToHandle(handle), pszData, nInputForm); },
        VCTK_GetP1SignResult);
}

// The toolkit gets the low 32 bits of both flags.
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

// The end of a native that returns a text of the toolkit. Without a text: null, and no second record.
jstring LeaveWith(JNIEnv* jenv, const Native& native, const std::unique_ptr<char[]>& pResult) {
    if (!pResult) {
        return nullptr;
    }
    jstring jstrResult = stoJstring(jenv, pResult.get());
    TraceLeave(native);
    return jstrResult;
}

// Narrow text to Java through wide text. WindowsToJstring says what Java gets.
jstring NarrowToJstring(JNIEnv* jenv, LPCSTR psz) {
    const CString strText(psz);
    return WindowsToJstring(jenv, std::wstring(static_cast<LPCTSTR>(strText)));
}

}  // namespace

// Repeated here, so that a signature that differs from the generated header is an error, not an overload.
extern "C" {

// Ignores the algorithm type, the first text.
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

// The bridge's own version. Uses neither the handle nor the toolkit.
JNIEXPORT jstring JNICALL Java_vex_jni_TAVClientJNI_GetSignVersion(JNIEnv* jenv, jobject, jlong) {
    TraceEnter(kGetSignVersion);
    jstring jstrVersion = NarrowToJstring(jenv, "1.0.0.1");
    TraceLeave(kGetSignVersion);
    return jstrVersion;
}

// Returns null even on success: it fetches the certificate, makes a Java string of it and drops that.
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

// Passes handle 0 on like any other.
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
