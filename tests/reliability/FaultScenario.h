// Calls of all fifteen natives.
#pragma once

#include <jni.h>

#include <functional>
#include <string>
#include <vector>

#include "FaultyJniEnv.h"
#include "TestStore.h"
#include "vex_jni_TAVClientJNI.h"

inline const std::string& StoreUri() {
    static const TempDirectory s_directory;
    static const std::string s_strUri = [] {
        MakeIdentity(s_directory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
        return "file:" + MakePemStore(s_directory, "s.pem", {"ec"});
    }();
    return s_strUri;
}

enum class Kind { kHandle, kStatus, kText, kNull, kNumber };

// One call of the scenario.
struct Step {
    const char* pszNative;
    Kind kind;
    std::function<jlong(FaultyJniEnv&, jlong handle)> fnCall;
};

inline jlong Address(jstring text) {
    return reinterpret_cast<jlong>(text);
}

inline const std::vector<Step>& Scenario() {
    static const std::vector<Step> s_steps = [] {
        const auto text = [](jstring (*pfn)(JNIEnv*, jobject, jlong, jstring)) {
            return [pfn](FaultyJniEnv& env, jlong handle) {
                return Address(pfn(env.Get(), nullptr, handle, env.MakeString("dGV4dA==")));
            };
        };
        const auto text7 = [](jstring (*pfn)(JNIEnv*, jobject, jlong, jstring, jlong, jlong)) {
            return [pfn](FaultyJniEnv& env, jlong handle) {
                return Address(pfn(env.Get(), nullptr, handle, env.MakeString("dGV4dA=="), 1, 1));
            };
        };
        const auto query = [](jstring (*pfn)(JNIEnv*, jobject, jlong)) {
            return [pfn](FaultyJniEnv& env, jlong handle) { return Address(pfn(env.Get(), nullptr, handle)); };
        };
        const auto status = [](jlong (*pfn)(JNIEnv*, jobject, jlong)) {
            return [pfn](FaultyJniEnv& env, jlong handle) { return pfn(env.Get(), nullptr, handle); };
        };
        return std::vector<Step>{
            {"Initialize", Kind::kHandle,
             [](FaultyJniEnv& env, jlong) {
                 return Java_vex_jni_TAVClientJNI_Initialize(env.Get(), nullptr, nullptr,
                                                             env.MakeString(StoreUri().c_str()));
             }},
            {"SetDigestAlg", Kind::kStatus,
             [](FaultyJniEnv& env, jlong handle) {
                 return Java_vex_jni_TAVClientJNI_SetDigestAlg(env.Get(), nullptr, handle, env.MakeString("SHA384"));
             }},
            {"SetChooseSingleCert", Kind::kStatus,
             [](FaultyJniEnv& env, jlong handle) {
                 return Java_vex_jni_TAVClientJNI_SetChooseSingleCert(env.Get(), nullptr, handle, 1);
             }},
            {"AddFilter", Kind::kStatus,
             [](FaultyJniEnv& env, jlong handle) {
                 return Java_vex_jni_TAVClientJNI_AddFilter(env.Get(), nullptr, handle, 6, env.MakeString("EC"));
             }},
            {"ClearFilter", Kind::kStatus, status(Java_vex_jni_TAVClientJNI_ClearFilter)},
            {"P1Sign", Kind::kText, text(Java_vex_jni_TAVClientJNI_P1Sign)},
            {"P1SignString", Kind::kText, text(Java_vex_jni_TAVClientJNI_P1SignString)},
            {"P7Sign", Kind::kText, text7(Java_vex_jni_TAVClientJNI_P7Sign)},
            {"P7SignString", Kind::kText, text7(Java_vex_jni_TAVClientJNI_P7SignString)},
            {"GetSignVersion", Kind::kText, query(Java_vex_jni_TAVClientJNI_GetSignVersion)},
            {"GetSignCert", Kind::kNull, query(Java_vex_jni_TAVClientJNI_GetSignCert)},
            {"GetLastError", Kind::kNumber, status(Java_vex_jni_TAVClientJNI_GetLastError)},
            {"GetLastErrorMessage", Kind::kText, query(Java_vex_jni_TAVClientJNI_GetLastErrorMessage)},
            {"GetCertList", Kind::kText, query(Java_vex_jni_TAVClientJNI_GetCertList)},
            {"Finalize", Kind::kStatus, status(Java_vex_jni_TAVClientJNI_Finalize)},
        };
    }();
    return s_steps;
}
