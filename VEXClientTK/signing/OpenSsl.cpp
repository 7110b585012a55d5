#include "signing/OpenSsl.h"

#include <array>
#include <mutex>

#include "signing/Failure.h"
#include "signing/WipingMemory.h"

namespace vextk {

void InitialiseOpenSsl() {
    static std::once_flag s_once;
    std::call_once(s_once, [] {
        WipeWhatOpenSslFrees();
        RequireOpenSsl(OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1);
    });
}

std::string LastOpenSslReason() {
    const char* pszReason = ERR_reason_error_string(ERR_peek_last_error());
    return pszReason != nullptr ? pszReason : "";
}

void RequireOpenSsl(bool fSucceeded) {
    if (!fSucceeded) {
        throw Failure(VCTK_E_INTERNAL, LastOpenSslReason());
    }
}

std::string DottedText(const ASN1_OBJECT* pObject) {
    std::array<char, 512> text{};
    const int cch = OBJ_obj2txt(text.data(), static_cast<int>(text.size()), pObject, 1);
    return cch > 0 && static_cast<size_t>(cch) < text.size() ? std::string(text.data()) : std::string();
}

ObjectPtr FindDottedOid(const std::string& strText) {
    const OpenSslErrorMark mark;
    ObjectPtr object(OBJ_txt2obj(strText.c_str(), 1));
    // OpenSSL takes blanks for dots, and a dot at the end for nothing.
    return object && DottedText(object.get()) == strText ? std::move(object) : nullptr;
}

std::string MemoryBioText(BIO* pBio) {
    const char* pchData = nullptr;
    const long cbData = BIO_get_mem_data(pBio, &pchData);
    return cbData > 0 ? std::string(pchData, static_cast<size_t>(cbData)) : std::string();
}

}  // namespace vextk
