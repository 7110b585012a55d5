// What a store file holds, and what went wrong on the way.
#pragma once

#include <vector>

#include "signing/OpenSsl.h"

namespace vextk {

struct StoreContent {
    std::vector<X509Ptr> certificates;
    std::vector<KeyPtr> keys;
    bool fPinAsked = false;
    bool fFailed = false;
    bool fUnsupportedCipher = false;

    // Notes that OpenSSL failed just now, and whether for a cipher that it does not offer: another fault than a wrong
    // PIN. OpenSSL's queue can only be read by emptying it.
    void NoteFailure() {
        fFailed = true;
        while (const unsigned long ulError = ERR_get_error()) {
            fUnsupportedCipher |= ERR_GET_LIB(ulError) == ERR_LIB_EVP && ERR_GET_REASON(ulError) == ERR_R_UNSUPPORTED;
        }
    }
};

}  // namespace vextk
