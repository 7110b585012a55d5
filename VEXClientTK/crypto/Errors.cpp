#include "crypto/Errors.h"

#include "posix/VisibleText.h"

namespace vexcrypto {

std::string LastReason() {
    const char* pszData = nullptr;
    int nFlags = 0;
    const unsigned long ulError = ERR_peek_last_error_data(&pszData, &nFlags);
    if (ERR_GET_REASON(ulError) == ERR_R_MALLOC_FAILURE) {
        throw std::bad_alloc();
    }
    const char* const pszReason = ulError == 0 ? nullptr : ERR_reason_error_string(ulError);
    std::string strReason = pszReason == nullptr ? "unknown reason" : pszReason;
    if (pszData != nullptr && (nFlags & ERR_TXT_STRING) != 0 && *pszData != '\0') {
        strReason += std::string(" (") + pszData + ")";
    }
    return vexposix::Visible(strReason, false);
}

}  // namespace vexcrypto
