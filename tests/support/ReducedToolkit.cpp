// Makes the toolkit one that knows less, for LD_PRELOAD. All other calls go to the toolkit that the process has loaded.
//
// VEX_TEST_WITHOUT      words, separated by blanks: a store URI and a digest name that contain one of them are refused
// VEX_TEST_REFUSAL      the error number for a refused store URI; 1101 if it is not set
// VEX_TEST_ANY_DIGEST   if it is set, every digest name is accepted, and signs with SHA-256 if it should be refused
#include <dlfcn.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

namespace {

thread_local bool t_bRefused = false;

template <typename Function>
Function* Real(Function* /*type*/, const char* pszName) {
    void* const pToolkit = dlopen("libVEXClientTKDll64.so", RTLD_LAZY | RTLD_NOLOAD);
    return reinterpret_cast<Function*>(dlsym(pToolkit, pszName));
}

bool IsUnknown(std::string_view strText) {
    const char* const pszWords = std::getenv("VEX_TEST_WITHOUT");
    std::istringstream words(pszWords == nullptr ? "" : pszWords);
    for (std::string strWord; words >> strWord;) {
        if (strText.find(strWord) != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

extern "C" void* VCTK_Initialize(const char* pszText) {
    static auto* const s_pReal = Real(VCTK_Initialize, "VCTK_Initialize");
    t_bRefused = IsUnknown(pszText);
    return t_bRefused ? nullptr : s_pReal(pszText);
}

extern "C" int VCTK_GetLastError(void* hObject) {
    static auto* const s_pReal = Real(VCTK_GetLastError, "VCTK_GetLastError");
    if (hObject != nullptr || !t_bRefused) {
        return s_pReal(hObject);
    }
    const char* const pszNumber = std::getenv("VEX_TEST_REFUSAL");
    return pszNumber == nullptr ? 1101 : std::atoi(pszNumber);
}

extern "C" int VCTK_SetDigestAlg(void* hObject, const char* pszDigestAlg) {
    static auto* const s_pReal = Real(VCTK_SetDigestAlg, "VCTK_SetDigestAlg");
    const char* const pszInstead = std::getenv("VEX_TEST_ANY_DIGEST") == nullptr ? "unknown" : "SHA-256";
    return s_pReal(hObject, IsUnknown(pszDigestAlg) ? pszInstead : pszDigestAlg);
}
