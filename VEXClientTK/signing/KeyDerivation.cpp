#include "signing/KeyDerivation.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <string>

#include "signing/Failure.h"

namespace vextk {
namespace {

constexpr std::uint64_t kTooMany = std::numeric_limits<std::uint64_t>::max();

using PbeParameters = std::unique_ptr<PBEPARAM, Deleter<PBEPARAM_free>>;
using Pbkdf2Parameters = std::unique_ptr<PBKDF2PARAM, Deleter<PBKDF2PARAM_free>>;
using ScryptParameters = std::unique_ptr<SCRYPT_PARAMS, Deleter<SCRYPT_PARAMS_free>>;

template <typename Pointer>
Pointer Parameters(const X509_ALGOR* pAlgorithm, const ASN1_ITEM* pItem) {
    return Pointer(static_cast<typename Pointer::pointer>(ASN1_TYPE_unpack_sequence(pItem, pAlgorithm->parameter)));
}

std::uint64_t Number(const ASN1_INTEGER* pNumber) {
    std::uint64_t n = 0;
    return ASN1_INTEGER_get_uint64(&n, pNumber) == 1 ? n : kTooMany;
}

std::uint64_t Product(std::uint64_t a, std::uint64_t b) {
    return a != 0 && b > kTooMany / a ? kTooMany : a * b;
}

// The iterations of the key derivation function of PBES2 and PBMAC1.
std::uint64_t IterationsOfFunction(const X509_ALGOR* pFunction) {
    if (OBJ_obj2nid(pFunction->algorithm) == NID_id_scrypt) {
        const auto scrypt = Parameters<ScryptParameters>(pFunction, ASN1_ITEM_rptr(SCRYPT_PARAMS));
        if (!scrypt) {
            return 0;
        }
        // Each of the r * p blocks also hashes the whole salt four times. 32 bytes of it take about as long as one of
        // the N rounds.
        const auto cbSalt = static_cast<std::uint64_t>(ASN1_STRING_length(scrypt->salt));
        return Product(std::max(Number(scrypt->costParameter), cbSalt / 32),
                       Product(Number(scrypt->blockSize), Number(scrypt->parallelizationParameter)));
    }
    const auto pbkdf2 = Parameters<Pbkdf2Parameters>(pFunction, ASN1_ITEM_rptr(PBKDF2PARAM));
    if (!pbkdf2) {
        return 0;
    }
    // PBKDF2 repeats all iterations for each block of the key. The shortest block is that of a 16-byte digest. No
    // cipher or MAC needs a key of more than four such blocks.
    const std::uint64_t cbKey = pbkdf2->keylength != nullptr ? Number(pbkdf2->keylength) : 0;
    return cbKey > 64 ? Product(Number(pbkdf2->iter), cbKey / 16) : Number(pbkdf2->iter);
}

std::uint64_t Iterations(const X509_ALGOR* pAlgorithm) {
    switch (OBJ_obj2nid(pAlgorithm->algorithm)) {
        case NID_pbes2:
        case NID_pbmac1: {  // with the same two parameters
            const auto both = Parameters<Pbe2Ptr>(pAlgorithm, ASN1_ITEM_rptr(PBE2PARAM));
            return both ? IterationsOfFunction(both->keyfunc) : 0;
        }
        default: {
            const auto pbe = Parameters<PbeParameters>(pAlgorithm, ASN1_ITEM_rptr(PBEPARAM));
            return pbe ? Number(pbe->iter) : 0;
        }
    }
}

// RFC 9579: the key is as long as the digest. OpenSSL 3.4 to 3.6 derives as many bytes as the file says into a buffer
// for a digest, and takes any salt for an octet string, if it is older than 3.4.4, 3.5.5 or 3.6.1.
void RequireUsablePbmac1(const X509_ALGOR* pAlgorithm) {
    const auto both = Parameters<Pbe2Ptr>(pAlgorithm, ASN1_ITEM_rptr(PBE2PARAM));
    Pbkdf2Parameters pbkdf2;
    if (both) {
        pbkdf2 = Parameters<Pbkdf2Parameters>(both->keyfunc, ASN1_ITEM_rptr(PBKDF2PARAM));
    }
    if (!pbkdf2 || ASN1_TYPE_get(pbkdf2->salt) != V_ASN1_OCTET_STRING || pbkdf2->keylength == nullptr ||
        Number(pbkdf2->keylength) > EVP_MAX_MD_SIZE) {
        throw Failure(VCTK_E_STORE_FORMAT, "the parameters of its check sum (MAC) cannot be used");
    }
}

}  // namespace

void DerivationWork::AddIterations(std::uint64_t cIterations) {
    const bool bTooMany = cIterations > kMost;
    if (bTooMany || cIterations > kMostOfFile - m_cIterations) {
        throw Failure(VCTK_E_STORE_UNREADABLE, "deriving keys from its PIN takes more than " +
                                                   std::to_string(bTooMany ? kMost : kMostOfFile) + " iterations" +
                                                   (bTooMany ? "" : " in all") + "; export the store again with fewer");
    }
    m_cIterations += cIterations;
}

void DerivationWork::Add(const X509_ALGOR* pAlgorithm) {
    const ErrorMark mark;
    AddIterations(Iterations(pAlgorithm));
}

void DerivationWork::Add(const X509_SIG* pEncryptedKey) {
    const X509_ALGOR* pAlgorithm = nullptr;
    X509_SIG_get0(pEncryptedKey, &pAlgorithm, nullptr);
    Add(pAlgorithm);
}

void DerivationWork::AddMac(const PKCS12* pFile) {
    const ErrorMark mark;
    const ASN1_INTEGER* pIterations = nullptr;
    const X509_ALGOR* pAlgorithm = nullptr;
    PKCS12_get0_mac(nullptr, &pAlgorithm, nullptr, &pIterations, pFile);
    if (pAlgorithm != nullptr && OBJ_obj2nid(pAlgorithm->algorithm) == NID_pbmac1) {
        RequireUsablePbmac1(pAlgorithm);
        AddIterations(Iterations(pAlgorithm));
    } else {
        AddIterations(pIterations != nullptr ? Number(pIterations) : 1);
    }
}

}  // namespace vextk
