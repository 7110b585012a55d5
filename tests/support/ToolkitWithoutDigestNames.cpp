// Makes the toolkit one that does not know the digest names "prehashed:NAME" and, unless VEX_TEST_TOOLKIT_KNOWS_PSS is
// set, "NAME/PSS": it refuses them as it refuses any unknown name. For LD_PRELOAD.
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>

extern "C" int VCTK_SetDigestAlg(void* hObject, const char* pszDigestAlg) {
    static auto* const s_pReal = reinterpret_cast<decltype(&VCTK_SetDigestAlg)>(
        dlsym(dlopen("libVEXClientTKDll64.so", RTLD_LAZY | RTLD_NOLOAD), "VCTK_SetDigestAlg"));
    static const bool s_bKnowsPss = std::getenv("VEX_TEST_TOOLKIT_KNOWS_PSS") != nullptr;
    const bool bRefused = std::strstr(pszDigestAlg, "prehashed:") != nullptr ||
                          (!s_bKnowsPss && std::strstr(pszDigestAlg, "/PSS") != nullptr);
    return s_pReal(hObject, bRefused ? "unknown" : pszDigestAlg);
}
