// Makes the toolkit one that does not know the digest names "prehashed:NAME" and "NAME/PSS": it refuses them as it
// refuses any unknown name. With VEX_TEST_TOOLKIT=pss it knows "NAME/PSS". With VEX_TEST_TOOLKIT=any it accepts every
// name, and signs with SHA-256 after those that it does not know. For LD_PRELOAD.
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

extern "C" int VCTK_SetDigestAlg(void* hObject, const char* pszDigestAlg) {
    static auto* const s_pReal = reinterpret_cast<decltype(&VCTK_SetDigestAlg)>(
        dlsym(dlopen("libVEXClientTKDll64.so", RTLD_LAZY | RTLD_NOLOAD), "VCTK_SetDigestAlg"));
    static const char* const s_pszMode = std::getenv("VEX_TEST_TOOLKIT");
    static const std::string_view s_strMode = s_pszMode != nullptr ? s_pszMode : "";
    const bool bNew = std::strstr(pszDigestAlg, "prehashed:") != nullptr ||
                      (s_strMode != "pss" && std::strstr(pszDigestAlg, "/PSS") != nullptr);
    const char* const pszUnknown = s_strMode == "any" ? "SHA-256" : "unknown";
    return s_pReal(hObject, bNew ? pszUnknown : pszDigestAlg);
}
