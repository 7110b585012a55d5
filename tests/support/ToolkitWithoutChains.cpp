// Makes the toolkit one that does not know the attributes "chain", "list" and "errors" of a store URI and the scheme
// "handle": it refuses such a text with the error number in VEX_TEST_CHAIN_ERROR. All other calls go to the toolkit
// that the process has loaded. For LD_PRELOAD.
#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::array s_apszUnknown = {"chain=", "list=", "errors=", "handle:"};
thread_local bool t_bRefused = false;

template <typename Function>
Function* Real(Function* /*type*/, const char* pszName) {
    void* const pToolkit = dlopen("libVEXClientTKDll64.so", RTLD_LAZY | RTLD_NOLOAD);
    return reinterpret_cast<Function*>(dlsym(pToolkit, pszName));
}

}  // namespace

extern "C" void* VCTK_Initialize(const char* pszText) {
    static auto* const s_pReal = Real(VCTK_Initialize, "VCTK_Initialize");
    t_bRefused = std::ranges::any_of(s_apszUnknown, [pszText](const char* pszUnknown) {
        return std::strstr(pszText, pszUnknown) != nullptr;
    });
    return t_bRefused ? nullptr : s_pReal(pszText);
}

extern "C" int VCTK_GetLastError(void* hObject) {
    static auto* const s_pReal = Real(VCTK_GetLastError, "VCTK_GetLastError");
    return hObject == nullptr && t_bRefused ? std::atoi(std::getenv("VEX_TEST_CHAIN_ERROR")) : s_pReal(hObject);
}
