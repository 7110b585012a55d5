#include "Natives.h"

#include <stdlib.h>

#include <clocale>
#include <stdexcept>

#include "CallText.h"
#include "RecordingToolkit.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

jlong Result(jlong n) {
    return n;
}

jlong Result(jstring text) {
    return reinterpret_cast<jlong>(text);
}

template <auto kNative>
jlong OfHandle(JNIEnv* env, jlong handle, jstring) {
    return Result(kNative(env, nullptr, handle));
}

template <auto kNative, jlong... kNumbers>
jlong OfText(JNIEnv* env, jlong handle, jstring text) {
    return Result(kNative(env, nullptr, handle, text, kNumbers...));
}

const std::vector<Native>& AllNatives() {
    static const std::vector<Native> s_natives = {
        {"Initialize",
         [](JNIEnv* env, jlong, jstring text) {
             return Java_vex_jni_TAVClientJNI_Initialize(env, nullptr, nullptr, text);
         },
         "VCTK_Initialize(%T)", "", 0},
        {"SetDigestAlg", OfText<Java_vex_jni_TAVClientJNI_SetDigestAlg>, "VCTK_SetDigestAlg(%H, %T)", "", 1},
        {"SetChooseSingleCert",
         [](JNIEnv* env, jlong handle, jstring) {
             return Java_vex_jni_TAVClientJNI_SetChooseSingleCert(env, nullptr, handle, 1);
         },
         "VCTK_SetChooseSingleCert(%H, 1)", "", 1},
        {"AddFilter",
         [](JNIEnv* env, jlong handle, jstring text) {
             return Java_vex_jni_TAVClientJNI_AddFilter(env, nullptr, handle, 1, text);
         },
         "VCTK_AddFilter(%H, 0x1, %T)", "", 1},
        {"ClearFilter", OfHandle<Java_vex_jni_TAVClientJNI_ClearFilter>, "VCTK_ClearFilter(%H)", "", 1},
        {"P1Sign", OfText<Java_vex_jni_TAVClientJNI_P1Sign>, "VCTK_P1Sign(%H, %T, 1)", "VCTK_GetP1SignResult(%H", 0},
        {"P1SignString", OfText<Java_vex_jni_TAVClientJNI_P1SignString>, "VCTK_P1Sign(%H, %T, 0)",
         "VCTK_GetP1SignResult(%H", 0},
        {"P7Sign", OfText<Java_vex_jni_TAVClientJNI_P7Sign, 1, 0>, "VCTK_P7Sign(%H, %T, 1, 1, 0)",
         "VCTK_GetP7SignResult(%H", 0},
        {"P7SignString", OfText<Java_vex_jni_TAVClientJNI_P7SignString, 1, 0>, "VCTK_P7Sign(%H, %T, 0, 1, 0)",
         "VCTK_GetP7SignResult(%H", 0},
        {"Finalize", OfHandle<Java_vex_jni_TAVClientJNI_Finalize>, "VCTK_Finalize(%H)", "", 1},
        {"GetSignVersion", OfHandle<Java_vex_jni_TAVClientJNI_GetSignVersion>, "", "", 0},
        {"GetSignCert", OfHandle<Java_vex_jni_TAVClientJNI_GetSignCert>, "", "VCTK_GetSignCert(%H", 0},
        {"GetLastError", OfHandle<Java_vex_jni_TAVClientJNI_GetLastError>, "VCTK_GetLastError(%H)", "", 0},
        {"GetLastErrorMessage", OfHandle<Java_vex_jni_TAVClientJNI_GetLastErrorMessage>, "",
         "VCTK_GetLastErrorMessage(%H", 0},
        {"GetCertList", OfHandle<Java_vex_jni_TAVClientJNI_GetCertList>, "", "VCTK_GetCertList(%H, \"\\r\\n\", \" \"",
         0},
    };
    return s_natives;
}

std::string Replaced(std::string strText, std::string_view placeholder, const std::string& strValue) {
    if (const size_t nAt = strText.find(placeholder); nAt != std::string::npos) {
        strText.replace(nAt, placeholder.size(), strValue);
    }
    return strText;
}

void SetLocale(const char* pszLocale) {
    if (std::setlocale(LC_ALL, pszLocale) == nullptr) {
        throw std::runtime_error(std::string("no locale ") + pszLocale);
    }
}

}  // namespace

bool Native::TakesHandle() const {
    return (strCall + strQuery).find("%H") != std::string::npos;
}

bool Native::TakesText() const {
    return strCall.find("%T") != std::string::npos;
}

std::string Native::Call(std::uint64_t nHandle, std::string_view text) const {
    return Replaced(Replaced(strCall, "%H", Hexadecimal(nHandle)), "%T", Quoted(text));
}

std::string Native::AskSize(std::uint64_t nHandle) const {
    return Replaced(strQuery, "%H", Hexadecimal(nHandle)) + ", null, &0)";
}

std::string Native::Fetch(std::uint64_t nHandle, int nSize) const {
    const std::string strSize = std::to_string(nSize);
    return Replaced(strQuery, "%H", Hexadecimal(nHandle)) + ", [" + strSize + " zero bytes], &" + strSize + ")";
}

std::vector<Native> NativesThat(const std::function<bool(const Native&)>& filter) {
    std::vector<Native> natives;
    for (const Native& native : AllNatives()) {
        if (filter(native)) {
            natives.push_back(native);
        }
    }
    return natives;
}

NativesTest::NativesTest() {
    // The first trace of a process sets the locale from the environment. It must come before a test sets its own.
    static const bool s_bTraced = [] {
        setenv("LC_ALL", "C.UTF-8", 1);
        FakeJniEnv env;
        return Java_vex_jni_TAVClientJNI_GetSignVersion(&env, nullptr, 0) != nullptr;
    }();
    if (!s_bTraced) {
        throw std::runtime_error("no version");
    }
    SetLocale("C.UTF-8");
    recording_toolkit::Reset();
}

NativesTest::~NativesTest() {
    SetLocale("C");
}
