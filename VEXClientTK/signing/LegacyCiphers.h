// The ciphers of old PKCS #12 files (RC2 with 40 bits for one). OpenSSL 3 has them only in its legacy module.
#pragma once

#include <memory>

#include "signing/OpenSsl.h"

namespace vextk {

// Lends the ciphers for reading one file, to one thread. It loads the module when the file needs it, into a library
// context of its own, so nothing else in the process can use these ciphers. The destructor frees the context: threads
// share nothing of it, and neither a fork nor the end of the process meets it.
class LegacyCiphers {
public:
    LegacyCiphers();
    ~LegacyCiphers();
    LegacyCiphers(const LegacyCiphers&) = delete;
    LegacyCiphers& operator=(const LegacyCiphers&) = delete;

    // The library context to decrypt with; null is OpenSSL's default one. Keys that are read in another one must not
    // be used to sign, because they die with this object. Throws VCTK_E_STORE_FORMAT if the algorithm needs the module
    // and the module cannot be loaded.
    OSSL_LIB_CTX* ContextFor(const X509_ALGOR* pAlgorithm);

private:
    class Module;
    std::unique_ptr<Module> m_module;
};

}  // namespace vextk
