#include "signing/KeyIndex.h"

#include <openssl/core_names.h>

#include <algorithm>
#include <string>
#include <unordered_map>

#include "signing/Identity.h"

namespace vextk {
namespace {

// False: the key has no such number.
bool AppendNumber(const EVP_PKEY* pKey, const char* pszParameter, std::string& strText) {
    BIGNUM* pNumber = nullptr;
    if (EVP_PKEY_get_bn_param(pKey, pszParameter, &pNumber) != 1) {
        RequireMemory();
        return false;
    }
    const BignumPtr number(pNumber);
    std::string strBytes(static_cast<size_t>(BN_num_bytes(number.get())), '\0');
    BN_bn2bin(number.get(), reinterpret_cast<unsigned char*>(strBytes.data()));
    strText.append(std::to_string(strBytes.size())).append(" ").append(strBytes);
    return true;
}

std::string EncodedText(const EVP_PKEY* pKey) {
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_PUBKEY(pKey, &pbDer);
    const MemoryPtr<unsigned char> der(pbDer);
    return cbDer > 0 ? std::string(reinterpret_cast<const char*>(pbDer), static_cast<size_t>(cbDer)) : std::string();
}

// The same text for each form of a key. It contains the key's numbers, not its encoding, because an EC point may be
// compressed and a curve may be given by its parameters.
std::string PublicText(const EVP_PKEY* pKey) {
    const ErrorMark mark;
    const bool bPss = EVP_PKEY_is_a(pKey, "RSA-PSS") == 1;  // to OpenSSL, never equal to a key of the type RSA
    const bool bRsa = bPss || EVP_PKEY_is_a(pKey, "RSA") == 1;
    const bool bEc = EVP_PKEY_is_a(pKey, "EC") == 1;
    std::string strText = bPss ? "RSA-PSS " : bRsa ? "RSA " : "EC ";
    const bool bNumbers = (bRsa && AppendNumber(pKey, OSSL_PKEY_PARAM_RSA_N, strText) &&
                           AppendNumber(pKey, OSSL_PKEY_PARAM_RSA_E, strText)) ||
                          (bEc && AppendNumber(pKey, OSSL_PKEY_PARAM_EC_PUB_X, strText) &&
                           AppendNumber(pKey, OSSL_PKEY_PARAM_EC_PUB_Y, strText));
    return bNumbers ? strText : EncodedText(pKey);  // a point at infinity has no coordinates
}

}  // namespace

std::vector<EVP_PKEY*> KeysOf(const StoreContent& content) {
    std::unordered_multimap<std::string, EVP_PKEY*> byPublicText;
    for (const KeyPtr& key : content.keys) {
        byPublicText.emplace(PublicText(key.get()), key.get());
    }
    std::vector<EVP_PKEY*> keys;
    for (const X509Ptr& certificate : content.certificates) {
        const EVP_PKEY* const pPublic = X509_get0_pubkey(certificate.get());
        EVP_PKEY* pFound = nullptr;
        if (pPublic != nullptr && IsSigningKey(pPublic)) {
            // A point with the same numbers may be on another curve.
            const auto [begin, end] = byPublicText.equal_range(PublicText(pPublic));
            const auto found =
                std::find_if(begin, end, [&](const auto& entry) { return EVP_PKEY_eq(pPublic, entry.second) == 1; });
            if (found == end) {
                RequireMemory();
            }
            pFound = found != end ? found->second : nullptr;
        }
        keys.push_back(pFound);
    }
    return keys;
}

}  // namespace vextk
