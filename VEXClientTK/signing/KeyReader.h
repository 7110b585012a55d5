// Reads the private keys of a store.
#pragma once

#include <openssl/decoder.h>

#include "signing/OpenSsl.h"

namespace vextk {

// OpenSSL takes much longer to find its decoders than to read a key with them. So they are kept for all keys of a
// store. For one thread.
class KeyReader {
public:
    KeyReader() = default;
    KeyReader(const KeyReader&) = delete;
    KeyReader& operator=(const KeyReader&) = delete;

    // Null: OpenSSL fails, and the reason is in its error queue.
    KeyPtr Read(const PKCS8_PRIV_KEY_INFO* pKeyInfo);

private:
    EVP_PKEY* m_pRead = nullptr;  // the decoder stores the key here
    std::unique_ptr<OSSL_DECODER_CTX, Deleter<OSSL_DECODER_CTX_free>> m_decoder;
};

}  // namespace vextk
