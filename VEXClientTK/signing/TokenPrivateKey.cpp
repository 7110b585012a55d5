// Without a provider, these functions are OpenSSL 3.0's only way to replace a private operation.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "signing/TokenPrivateKey.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <exception>
#include <new>

namespace vextk {
namespace {

using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, OpenSslDeleter<EVP_PKEY_CTX_free>>;
using RsaPtr = std::unique_ptr<RSA, OpenSslDeleter<RSA_free>>;
using EcKeyPtr = std::unique_ptr<EC_KEY, OpenSslDeleter<EC_KEY_free>>;
using EcSignaturePtr = std::unique_ptr<ECDSA_SIG, OpenSslDeleter<ECDSA_SIG_free>>;

// t_failure is used only if t_bFailed is set, because a thread's first use of it registers a destructor. If libc has no
// memory for that, it ends the process. Most threads never use a token.
thread_local std::exception_ptr t_failure;
thread_local bool t_bFailed = false;

void KeepFailure() {
    t_failure = std::current_exception();
    t_bFailed = true;
}

// Ties an OpenSSL key to its token. The OpenSSL key owns it.
struct Binding {
    std::shared_ptr<Token> token;
    TokenKey key;
    KeyPtr publicKey;

    bool Verifies(const unsigned char* pbSignature, size_t cbSignature, const unsigned char* pbData,
                  size_t cbData) const {
        const KeyContextPtr context(EVP_PKEY_CTX_new(publicKey.get(), nullptr));
        return context && EVP_PKEY_verify_init(context.get()) == 1 &&
               EVP_PKEY_verify(context.get(), pbSignature, cbSignature, pbData, cbData) == 1;
    }
};

void FreeBinding(void* /*parent*/, void* pBinding, CRYPTO_EX_DATA* /*data*/, int /*nIndex*/, long /*argl*/,
                 void* /*argp*/) {
    delete static_cast<Binding*>(pBinding);
}

int RsaIndex() {
    static const int s_nIndex = RSA_get_ex_new_index(0, nullptr, nullptr, nullptr, FreeBinding);
    return s_nIndex;
}

int EcIndex() {
    static const int s_nIndex = EC_KEY_get_ex_new_index(0, nullptr, nullptr, nullptr, FreeBinding);
    return s_nIndex;
}

// Keeps exceptions out of OpenSSL's C code.
template <typename Function>
auto Guarded(Function function) -> decltype(function()) {
    try {
        return function();
    } catch (const Failure&) {
        KeepFailure();
    } catch (const std::bad_alloc&) {
        KeepFailure();
    }
    return {};
}

constexpr const char* kWrongSignature = "the token's signature does not match the certificate's public key";

// Returns the length of the signature or -1.
int SignRsa(int cbData, const unsigned char* pbData, unsigned char* pbSignature, RSA* pRsa, int nPadding) {
    const int cbSigned = Guarded([&] {
        const auto* pBinding = static_cast<const Binding*>(RSA_get_ex_data(pRsa, RsaIndex()));
        if (pBinding == nullptr || nPadding != RSA_PKCS1_PADDING || cbData < 0) {
            throw Failure(VCTK_E_SIGN_FAILED, "a token's RSA key signs with PKCS #1 v1.5 padding only");
        }
        const std::vector<unsigned char> signature =
            pBinding->token->Sign(pBinding->key, CKM_RSA_PKCS, pbData, static_cast<size_t>(cbData));
        if (signature.size() != static_cast<size_t>(RSA_size(pRsa)) ||
            !pBinding->Verifies(signature.data(), signature.size(), pbData, static_cast<size_t>(cbData))) {
            throw Failure(VCTK_E_TOKEN_FAILED, kWrongSignature);
        }
        std::copy(signature.begin(), signature.end(), pbSignature);
        return static_cast<int>(signature.size());
    });
    return cbSigned > 0 ? cbSigned : -1;
}

EcSignaturePtr SignEcdsa(const Binding& binding, const unsigned char* pbDigest, int cbDigest, const EC_KEY* pKey) {
    // A token accepts no digest that is longer than the curve's order.
    const auto cbOrder = static_cast<size_t>((EC_GROUP_order_bits(EC_KEY_get0_group(pKey)) + 7) / 8);
    const size_t cbUsed = std::min(static_cast<size_t>(cbDigest), cbOrder);
    const std::vector<unsigned char> pair = binding.token->Sign(binding.key, CKM_ECDSA, pbDigest, cbUsed);
    EcSignaturePtr signature(RequireOpenSsl(ECDSA_SIG_new()));
    const int cbHalf = static_cast<int>(pair.size() / 2);
    BignumPtr r(RequireOpenSsl(BN_bin2bn(pair.data(), cbHalf, nullptr)));
    BignumPtr s(RequireOpenSsl(BN_bin2bn(pair.data() + cbHalf, cbHalf, nullptr)));
    RequireOpenSsl(ECDSA_SIG_set0(signature.get(), r.release(), s.release()) == 1);

    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_ECDSA_SIG(signature.get(), &pbDer);
    const MemoryPtr<unsigned char> der(pbDer);
    if (cbDer <= 0 ||
        !binding.Verifies(der.get(), static_cast<size_t>(cbDer), pbDigest, static_cast<size_t>(cbDigest))) {
        throw Failure(VCTK_E_TOKEN_FAILED, kWrongSignature);
    }
    return signature;
}

ECDSA_SIG* SignEcToObject(const unsigned char* pbDigest, int cbDigest, const BIGNUM* /*inverse*/, const BIGNUM* /*r*/,
                          EC_KEY* pKey) {
    return Guarded([&] {
               const auto* pBinding = static_cast<const Binding*>(EC_KEY_get_ex_data(pKey, EcIndex()));
               return pBinding != nullptr && cbDigest >= 0 ? SignEcdsa(*pBinding, pbDigest, cbDigest, pKey) : nullptr;
           })
        .release();
}

// pbSignature has room for ECDSA_size bytes.
int SignEcToDer(int /*nType*/, const unsigned char* pbDigest, int cbDigest, unsigned char* pbSignature,
                unsigned int* pcbSignature, const BIGNUM* pInverse, const BIGNUM* pR, EC_KEY* pKey) {
    const EcSignaturePtr signature(SignEcToObject(pbDigest, cbDigest, pInverse, pR, pKey));
    const int cbDer = signature ? i2d_ECDSA_SIG(signature.get(), &pbSignature) : 0;
    *pcbSignature = static_cast<unsigned int>(std::max(cbDer, 0));
    return cbDer > 0 ? 1 : 0;
}

// Never freed: keys may be used until the process ends.
const RSA_METHOD* TokenRsaMethod() {
    static const RSA_METHOD* const s_pMethod = [] {
        RSA_METHOD* const pMethod = RequireOpenSsl(RSA_meth_dup(RSA_PKCS1_OpenSSL()));
        RSA_meth_set1_name(pMethod, "PKCS #11 token");
        RSA_meth_set_priv_enc(pMethod, SignRsa);
        RSA_meth_set_priv_dec(pMethod, [](int, const unsigned char*, unsigned char*, RSA*, int) { return -1; });
        RSA_meth_set_flags(pMethod, RSA_meth_get_flags(pMethod) | RSA_FLAG_EXT_PKEY);
        return pMethod;
    }();
    return s_pMethod;
}

const EC_KEY_METHOD* TokenEcMethod() {
    static const EC_KEY_METHOD* const s_pMethod = [] {
        EC_KEY_METHOD* const pMethod = RequireOpenSsl(EC_KEY_METHOD_new(EC_KEY_OpenSSL()));
        EC_KEY_METHOD_set_sign(pMethod, SignEcToDer, nullptr, SignEcToObject);
        return pMethod;
    }();
    return s_pMethod;
}

BignumPtr Parameter(const EVP_PKEY* pKey, const char* pszName) {
    BIGNUM* pNumber = nullptr;
    RequireOpenSsl(EVP_PKEY_get_bn_param(pKey, pszName, &pNumber) == 1);
    return BignumPtr(pNumber);
}

KeyPtr MakeRsa(std::unique_ptr<Binding> binding) {
    RsaPtr rsa(RequireOpenSsl(RSA_new()));
    BignumPtr n = Parameter(binding->publicKey.get(), OSSL_PKEY_PARAM_RSA_N);
    BignumPtr e = Parameter(binding->publicKey.get(), OSSL_PKEY_PARAM_RSA_E);
    RequireOpenSsl(RSA_set_method(rsa.get(), TokenRsaMethod()) == 1 &&
                   RSA_set0_key(rsa.get(), n.get(), e.get(), nullptr) == 1);
    static_cast<void>(n.release());
    static_cast<void>(e.release());
    RequireOpenSsl(RSA_set_ex_data(rsa.get(), RsaIndex(), binding.get()) == 1);
    static_cast<void>(binding.release());
    KeyPtr key(RequireOpenSsl(EVP_PKEY_new()));
    RequireOpenSsl(EVP_PKEY_assign_RSA(key.get(), rsa.get()) == 1);
    static_cast<void>(rsa.release());
    return key;
}

KeyPtr MakeEc(std::unique_ptr<Binding> binding) {
    const EC_KEY* pPublic = RequireOpenSsl(EVP_PKEY_get0_EC_KEY(binding->publicKey.get()));
    EcKeyPtr ec(RequireOpenSsl(EC_KEY_dup(pPublic)));
    RequireOpenSsl(EC_KEY_set_method(ec.get(), TokenEcMethod()) == 1 &&
                   EC_KEY_set_ex_data(ec.get(), EcIndex(), binding.get()) == 1);
    static_cast<void>(binding.release());
    KeyPtr key(RequireOpenSsl(EVP_PKEY_new()));  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): ec owns the binding
    RequireOpenSsl(EVP_PKEY_assign_EC_KEY(key.get(), ec.get()) == 1);
    static_cast<void>(ec.release());
    return key;
}

}  // namespace

KeyPtr MakeTokenPrivateKey(std::shared_ptr<Token> token, TokenKey key, const X509* pCertificate) {
    EVP_PKEY* const pPublic = X509_get0_pubkey(pCertificate);
    const bool bRsa = key.type == CKK_RSA;
    if (pPublic == nullptr || EVP_PKEY_is_a(pPublic, bRsa ? "RSA" : "EC") != 1) {
        return nullptr;
    }
    EVP_PKEY_up_ref(pPublic);
    auto binding = std::make_unique<Binding>(Binding{std::move(token), std::move(key), KeyPtr(pPublic)});
    return bRsa ? MakeRsa(std::move(binding)) : MakeEc(std::move(binding));
}

void ThrowTokenFailure() {
    if (std::exchange(t_bFailed, false)) {
        std::rethrow_exception(std::exchange(t_failure, nullptr));
    }
}

void ForgetTokenFailure() {
    if (std::exchange(t_bFailed, false)) {
        t_failure = nullptr;
    }
}

}  // namespace vextk
