// The class vex.bench.HandWrittenBridge: natives that call the toolkit, written by hand.
#include "HandJni.h"
#include "VCTK.h"
#include "vex_bench_HandWrittenBridge.h"

using namespace bench;

namespace {

HANDLE ToHandle(jlong handle) {
    return reinterpret_cast<HANDLE>(handle);  // NOLINT(performance-no-int-to-ptr): Java has no pointers
}

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_vex_bench_HandWrittenBridge_startLog(JNIEnv* pEnv, jclass, jstring jFile) {
    const char* const pszFile = pEnv->GetStringUTFChars(jFile, nullptr);
    HandLog::Start(pszFile);
    pEnv->ReleaseStringUTFChars(jFile, pszFile);
}

JNIEXPORT jlong JNICALL Java_vex_bench_HandWrittenBridge_SetChooseSingleCert(JNIEnv*, jobject, jlong handle,
                                                                             jint isChoose) {
    HandLog::Trace(L"Java_vex_jni_TAVClientJNI_SetChooseSingleCert", "Java_vex_jni_TAVClientJNI_SetChooseSingleCert",
                   149, L"%s Enter.");
    if (handle == 0) {
        return 1;
    }
    const INT nResult = VCTK_SetChooseSingleCert(ToHandle(handle), isChoose);
    HandLog::Trace(L"Java_vex_jni_TAVClientJNI_SetChooseSingleCert", "Java_vex_jni_TAVClientJNI_SetChooseSingleCert",
                   164, L"%s Leave.");
    return nResult != 0 ? 1 : 0;
}

JNIEXPORT jstring JNICALL Java_vex_bench_HandWrittenBridge_P1SignString(JNIEnv* pEnv, jobject, jlong handle,
                                                                        jstring jText) {
    HandLog::Trace(L"Java_vex_jni_TAVClientJNI_P1SignString", "Java_vex_jni_TAVClientJNI_P1SignString", 274,
                   L"%s Enter.");
    const std::wstring strText = HandWideText(pEnv, jText);
    if (strText.empty() || handle == 0) {
        return nullptr;
    }
    if (VCTK_P1Sign(ToHandle(handle), HandNarrowText(strText).c_str(), 0) != 0) {
        return nullptr;
    }
    int nLength = 0;
    if (VCTK_GetP1SignResult(ToHandle(handle), nullptr, &nLength) != 0 || nLength <= 0) {
        return nullptr;
    }
    const auto pszResult = std::make_unique<char[]>(static_cast<std::size_t>(nLength));
    if (VCTK_GetP1SignResult(ToHandle(handle), pszResult.get(), &nLength) != 0) {
        return nullptr;
    }
    const jstring jResult = HandJavaText(pEnv, pszResult.get());
    HandLog::Trace(L"Java_vex_jni_TAVClientJNI_P1SignString", "Java_vex_jni_TAVClientJNI_P1SignString", 318,
                   L"%s Leave.");
    return jResult;
}

}  // extern "C"
