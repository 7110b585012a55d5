#include "timestamp/OpenSsl.h"

#include "posix/VisibleText.h"

namespace vextimestamp {

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

std::string DottedText(const ASN1_OBJECT* pObject) {
    const int cch = pObject == nullptr ? 0 : OBJ_obj2txt(nullptr, 0, pObject, 1);
    if (cch <= 0) {
        return {};
    }
    std::string strText(static_cast<std::size_t>(cch) + 1, '\0');
    OBJ_obj2txt(strText.data(), cch + 1, pObject, 1);
    strText.pop_back();
    return strText;
}

}  // namespace vextimestamp
