#include "signing/LegacyCiphers.h"

#include <new>
#include <string>
#include <utility>

#include "signing/Failure.h"

namespace vextk {
namespace {

// The cipher of an encryption with a PIN; NID_undef if OpenSSL does not know the encryption.
int CipherOf(const X509_ALGOR* pAlgorithm) {
    const int nAlgorithm = OBJ_obj2nid(pAlgorithm->algorithm);
    if (nAlgorithm == NID_pbes2) {
        const Pbe2Ptr both(
            static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), pAlgorithm->parameter)));
        return both ? OBJ_obj2nid(both->encryption->algorithm) : NID_undef;
    }
    int nCipher = NID_undef;
    const bool bKnown = EVP_PBE_find(EVP_PBE_TYPE_OUTER, nAlgorithm, &nCipher, nullptr, nullptr) == 1;
    return bKnown && nCipher > 0 ? nCipher : NID_undef;
}

// Memory may run out in any layer, which then adds errors of its own. The caller's errors are not in the queue.
void RequireMemoryInAllLayers() {
    RequireMemory();
    while (const unsigned long ulError = ERR_get_error()) {
        if (ERR_GET_REASON(ulError) == ERR_R_MALLOC_FAILURE) {
            throw std::bad_alloc();
        }
    }
}

OSSL_LIB_CTX* NewContext() {
    OSSL_LIB_CTX* const pContext = OSSL_LIB_CTX_new();
    if (pContext == nullptr) {
        throw std::bad_alloc();  // nothing else can fail
    }
    return pContext;
}

// Whether OpenSSL knows the cipher, but the process has not loaded the module that implements it.
bool IsMissing(int nCipher) {
    if (nCipher == NID_undef || EVP_get_cipherbynid(nCipher) == nullptr) {
        return false;
    }
    if (CipherPtr(EVP_CIPHER_fetch(nullptr, OBJ_nid2sn(nCipher), nullptr))) {
        return false;
    }
    RequireMemoryInAllLayers();
    return true;
}

}  // namespace

class LegacyCiphers::Module {
public:
    // IsLoaded() tells whether this succeeded.
    Module()
        : m_context(NewContext()),
          m_default(OSSL_PROVIDER_load(m_context.get(), "default")),  // the digests, and triple DES
          m_legacy(OSSL_PROVIDER_load(m_context.get(), "legacy")) {}

    bool IsLoaded() const { return m_default != nullptr && m_legacy != nullptr; }
    OSSL_LIB_CTX* Context() const { return m_context.get(); }

private:
    LibraryContextPtr m_context;
    ProviderPtr m_default;
    ProviderPtr m_legacy;
};

LegacyCiphers::LegacyCiphers() = default;
LegacyCiphers::~LegacyCiphers() = default;

OSSL_LIB_CTX* LegacyCiphers::ContextFor(const X509_ALGOR* pAlgorithm) {
    const int nCipher = CipherOf(pAlgorithm);
    const bool bMissing = IsMissing(nCipher);
    if (bMissing && !m_module) {
        auto module = std::make_unique<Module>();
        if (!module->IsLoaded()) {
            RequireMemoryInAllLayers();
            throw Failure(
                VCTK_E_STORE_FORMAT,
                std::string("it is encrypted with ") + OBJ_nid2sn(nCipher) +
                    ", and OpenSSL's module for old ciphers (legacy.so) cannot be loaded; install the package "
                    "openssl-provider-legacy (Debian 12: libssl3), or convert the file with \"openssl pkcs12 "
                    "-legacy\" on a machine that has the module");
        }
        m_module = std::move(module);
    }
    ERR_clear_error();
    return bMissing ? m_module->Context() : nullptr;
}

}  // namespace vextk
