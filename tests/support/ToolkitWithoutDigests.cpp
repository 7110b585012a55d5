// Makes the toolkit one that signs no digests and knows no RSASSA-PSS: VCTK_SetDigestAlg refuses such names like any
// unknown name. All other calls go to the toolkit that the process has loaded. For LD_PRELOAD.
#include <dlfcn.h>
#include <strings.h>

#include <cstring>

extern "C" int VCTK_SetDigestAlg(void* hObject, const char* pszName) {
    static auto* const s_pReal = reinterpret_cast<decltype(&VCTK_SetDigestAlg)>(
        dlsym(dlopen("libVEXClientTKDll64.so", RTLD_LAZY | RTLD_NOLOAD), "VCTK_SetDigestAlg"));
    const bool bNew =
        strncasecmp(pszName, "prehashed:", std::strlen("prehashed:")) == 0 || strcasestr(pszName, "/PSS") != nullptr;
    return s_pReal(hObject, bNew ? "a name that no toolkit knows" : pszName);
}
