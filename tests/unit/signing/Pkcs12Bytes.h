// The last steps of making a PKCS #12 file.
#pragma once

#include <openssl/pkcs12.h>

#include <string>

#include "MemoryBio.h"
#include "signing/OpenSsl.h"

namespace vextk {

inline std::string BytesOf(const PKCS12* pFile) {
    const BioPtr bytes(BIO_new(BIO_s_mem()));
    i2d_PKCS12_bio(bytes.get(), pFile);
    return MemoryBioText(bytes.get());
}

// Of a file with these parts, which are freed. pszPin: that of the MAC; null: there is no MAC.
inline std::string BytesOf(STACK_OF(PKCS7) * pSafes, const char* pszPin) {
    const Pkcs12Ptr file(PKCS12_add_safes(pSafes, 0));
    sk_PKCS7_pop_free(pSafes, PKCS7_free);
    if (pszPin != nullptr) {
        PKCS12_set_mac(file.get(), pszPin, -1, nullptr, 0, 1, EVP_sha256());
    }
    return BytesOf(file.get());
}

// Damages an encrypted part: what is left of it are not whole blocks.
inline void CutEncryption(PKCS7& safe) {
    ASN1_OCTET_STRING* const pData = safe.d.encrypted->enc_data->enc_data;
    ASN1_STRING_set(pData, ASN1_STRING_get0_data(pData), ASN1_STRING_length(pData) - 1);
}

}  // namespace vextk
