// The bridge works with every toolkit that the process has loaded under the soname. This program is built once for each
// toolkit. Both use the same file of the bridge.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "FakeJniEnv.h"
#include "TempDirectory.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

// The file of the library with the first symbol of this name.
std::filesystem::path LibraryThatHas(const char* pszSymbol) {
    Dl_info info{};
    if (dladdr(dlsym(RTLD_DEFAULT, pszSymbol), &info) == 0) {
        return {};
    }
    return std::filesystem::canonical(info.dli_fname);
}

std::vector<std::string> LoadedLibrariesNamed(const std::string& strName) {
    struct Search {
        const std::string& strName;
        std::vector<std::string> found;
    } search{strName, {}};
    dl_iterate_phdr(
        [](dl_phdr_info* pInfo, size_t, void* pSearch) {
            auto& self = *static_cast<Search*>(pSearch);
            if (std::filesystem::path(pInfo->dlpi_name).filename() == self.strName) {
                self.found.emplace_back(pInfo->dlpi_name);
            }
            return 0;
        },
        &search);
    return search.found;
}

TEST(ToolkitSwapTest, OneToolkitIsLoadedAndTheBridgeIsTheBuiltOne) {
    EXPECT_EQ(LibraryThatHas("VCTK_Initialize"), std::filesystem::canonical(VEX_TEST_TOOLKIT));
    EXPECT_EQ(LibraryThatHas("Java_vex_jni_TAVClientJNI_Initialize"), std::filesystem::canonical(VEX_TEST_BRIDGE));
    EXPECT_EQ(LoadedLibrariesNamed("libVEXClientTKDll64.so").size(), 1U);
}

TEST(ToolkitSwapTest, SignsFromTheFirstCallToTheLast) {
    const TempDirectory data;  // for the demo store of the substitute
    ASSERT_EQ(setenv("XDG_DATA_HOME", data.Path().c_str(), 1), 0);

    FakeJniEnv env;
    const jlong handle = Java_vex_jni_TAVClientJNI_Initialize(&env, nullptr, nullptr, env.MakeString("demo:"));
    ASSERT_NE(handle, 0);
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_SetDigestAlg(&env, nullptr, handle, env.MakeString("SHA256")), 0);
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_SetChooseSingleCert(&env, nullptr, handle, 1), 0);
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_AddFilter(&env, nullptr, handle, 6, env.MakeString("RSA")), 0);

    const jstring signatures[] = {
        Java_vex_jni_TAVClientJNI_P1Sign(&env, nullptr, handle, env.MakeString("ZGF0YQ==")),
        Java_vex_jni_TAVClientJNI_P1SignString(&env, nullptr, handle, env.MakeString("data")),
        Java_vex_jni_TAVClientJNI_P7Sign(&env, nullptr, handle, env.MakeString("ZGF0YQ=="), 1, 0),
        Java_vex_jni_TAVClientJNI_P7SignString(&env, nullptr, handle, env.MakeString("data"), 0, 1)};
    for (const jstring signature : signatures) {
        ASSERT_NE(signature, nullptr);
        EXPECT_NE(env.Bytes(signature), "");
    }
    // "data", in Base64 and plain. P1 signatures with an RSA key are always the same.
    EXPECT_EQ(env.Bytes(signatures[0]), env.Bytes(signatures[1]));

    const jstring list = Java_vex_jni_TAVClientJNI_GetCertList(&env, nullptr, handle);
    ASSERT_NE(list, nullptr);
    EXPECT_NE(env.Bytes(list), "");
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_GetSignCert(&env, nullptr, handle), nullptr);
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_GetLastError(&env, nullptr, handle), 0);
    EXPECT_NE(Java_vex_jni_TAVClientJNI_GetLastErrorMessage(&env, nullptr, handle), nullptr);
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_ClearFilter(&env, nullptr, handle), 0);
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_Finalize(&env, nullptr, handle), 0);
}

}  // namespace
