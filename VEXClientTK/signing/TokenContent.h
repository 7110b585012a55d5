// Tokens and their content.
#pragma once

#include <string>
#include <tuple>
#include <vector>

#include "signing/OpenSsl.h"
#include "signing/Pkcs11Module.h"

namespace vextk {

// A private key on a token.
struct TokenKey {
    std::string strId;  // CKA_ID
    CK_KEY_TYPE type = CKK_RSA;
    std::string strLabel;

    bool operator<(const TokenKey& other) const {
        return std::tie(strId, type, strLabel) < std::tie(other.strId, other.type, other.strLabel);
    }
};

struct TokenCertificate {
    std::string strId;
    std::string strLabel;
    X509Ptr certificate;
};

struct TokenContent {
    std::vector<TokenCertificate> certificates;
    std::vector<TokenKey> keys;           // that may sign
    std::vector<TokenKey> notForSigning;  // CKA_SIGN is false
};

// A slot with an initialised token in it.
struct TokenSlot {
    CK_SLOT_ID nId;
    TokenName name;
    std::string strSlotDescription;
    std::string strSlotManufacturer;
    CK_FLAGS tokenFlags;
};

// The module's tokens. One that cannot be read is left out. Throws VCTK_E_TOKEN_FAILED.
std::vector<TokenSlot> ListTokens(const Pkcs11Module& module);

// Throws VCTK_E_TOKEN_NOT_FOUND if several of the tokens have this name: a PIN could go to any of them.
void RequireDistinct(const std::vector<TokenSlot>& tokens, const TokenName& name);

}  // namespace vextk
