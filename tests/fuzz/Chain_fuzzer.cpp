// Chains of issuers that are built from a store's certificates. The input describes certificates of a few names and
// keys, eight bytes each. The target issues them, and looks for the chain of each.
//
// A chain has no certificate twice, ends, and each of its certificates has issued the one before. A root has signed
// itself. If OpenSSL finds a chain, there is one.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "Require.h"
#include "signing/Candidates.h"
#include "signing/Chain.h"

namespace {

using namespace vextk;

constexpr std::time_t kMoment = 1800000000;
constexpr std::size_t kMostCertificates = 8;
// With more, the limit of the search for a chain may end it first.
constexpr std::size_t kMostForOpenSsl = 5;
constexpr std::size_t kLongestChain = 9;
constexpr int kKeys = 4;

struct Description {
    std::uint8_t uNames;  // subject, issuer
    std::uint8_t uKeys;   // of the subject, of the issuer
    std::uint8_t uSerial;
    std::uint8_t uExtensions;  // which there are
    std::uint8_t uPathLength;
    std::uint8_t uIdentifiers;
    std::uint8_t uTimes;
    std::uint8_t uConstraints;
};

// Not secret: new in each process. Short, because nearly all the time goes into their signatures.
EVP_PKEY* KeyOf(unsigned n) {
    static const auto s_keys = [] {
        std::array<KeyPtr, kKeys> keys;
        std::generate(keys.begin(), keys.end(), [] { return KeyPtr(EVP_RSA_gen(1024)); });
        return keys;
    }();
    return s_keys[n % kKeys].get();
}

void SetName(X509_NAME* pName, unsigned n) {
    // The second and the third are equal for RFC 5280, but have different bytes.
    constexpr std::array<const char*, 8> kNames = {"Root", "CA one", "ca  ONE", "CA two", "Leaf", "Other", "", "Root"};
    const char* const pszName = kNames[n % kNames.size()];
    X509_NAME_add_entry_by_txt(pName, "CN", n % 16 < 8 ? MBSTRING_UTF8 : MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(pszName), -1, -1, 0);
}

void AddExtension(X509* pCertificate, int nNid, const std::string& strValue) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, nullptr, pCertificate, nullptr, nullptr, 0);
    const ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nNid, strValue.c_str()));
    if (extension) {
        X509_add_ext(pCertificate, extension.get(), -1);
    }
}

void AddKeyIdentifiers(X509* pCertificate, std::uint8_t uIdentifiers) {
    if ((uIdentifiers & 1U) != 0) {
        AddExtension(pCertificate, NID_subject_key_identifier, "0" + std::to_string(uIdentifiers / 4 % 4));
    }
    if ((uIdentifiers & 2U) != 0) {
        const std::unique_ptr<AUTHORITY_KEYID, Deleter<AUTHORITY_KEYID_free>> authority(AUTHORITY_KEYID_new());
        authority->keyid = ASN1_OCTET_STRING_new();
        const auto uByte = static_cast<unsigned char>(uIdentifiers / 16 % 4);
        ASN1_OCTET_STRING_set(authority->keyid, &uByte, 1);
        X509_add1_ext_i2d(pCertificate, NID_authority_key_identifier, authority.get(), 0, 0);
    }
}

void AddExtensions(X509* pCertificate, const Description& description) {
    const unsigned u = description.uExtensions;
    if ((u & 1U) == 0) {
        AddExtension(pCertificate, NID_basic_constraints,
                     std::string("critical,CA:") + ((u & 2U) == 0 ? "TRUE" : "FALSE") +
                         (description.uPathLength < 8 ? ",pathlen:" + std::to_string(description.uPathLength) : ""));
    }
    if ((u & 4U) != 0) {
        AddExtension(pCertificate, NID_key_usage, (u & 8U) == 0 ? "critical,keyCertSign,cRLSign" : "digitalSignature");
    }
    if ((u & 16U) != 0) {
        AddExtension(pCertificate, NID_ext_key_usage, (u & 32U) == 0 ? "emailProtection" : "critical,serverAuth");
    }
    if ((u & 64U) != 0) {
        AddExtension(pCertificate, NID_certificate_policies, "1.2.3.4");
    }
    constexpr std::array kConstraints = {"critical,permitted;dirName:none",     "permitted;email:example.com",
                                         "critical,excluded;DNS:example.com",   "critical,permitted;DNS:.",
                                         "excluded;IP:192.168.0.0/255.255.0.0", "critical,excluded;URI:.com"};
    if (description.uConstraints % 4 == 1) {
        AddExtension(pCertificate, NID_name_constraints,
                     kConstraints[description.uConstraints / 4U % kConstraints.size()]);
    }
    if (description.uConstraints % 4 == 2) {
        AddExtension(pCertificate, NID_subject_alt_name, "email:a@example.com,DNS:a.example.com");
    }
    AddKeyIdentifiers(pCertificate, description.uIdentifiers);
}

X509Ptr Issue(const Description& description) {
    X509Ptr certificate(X509_new());
    X509* const pCertificate = certificate.get();
    X509_set_version(pCertificate, (description.uExtensions & 128U) == 0 ? X509_VERSION_3 : X509_VERSION_1);
    ASN1_INTEGER_set(X509_get_serialNumber(pCertificate), description.uSerial);
    SetName(X509_get_subject_name(pCertificate), description.uNames & 15U);
    SetName(X509_get_issuer_name(pCertificate), description.uNames / 16U);
    // Most are valid at the moment.
    constexpr std::array<std::time_t, 4> kOffsets = {1000000, 1000, 0, -1};
    ASN1_TIME_set(X509_getm_notBefore(pCertificate), kMoment - kOffsets[description.uTimes / 64U]);
    ASN1_TIME_set(X509_getm_notAfter(pCertificate), kMoment + kOffsets[description.uTimes / 16U % 4]);
    X509_set_pubkey(pCertificate, KeyOf(description.uKeys & 15U));
    if ((description.uExtensions & 128U) == 0) {
        AddExtensions(pCertificate, description);
    }
    Require(X509_sign(pCertificate, KeyOf(description.uKeys / 16U), EVP_sha256()) > 0);
    // As it would be read from a file.
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_X509(pCertificate, &pbDer);
    const MemoryPtr<unsigned char> der(pbDer);
    const unsigned char* pbRead = pbDer;
    return X509Ptr(d2i_X509(nullptr, &pbRead, cbDer));
}

// Inputs that libFuzzer makes of one another have most certificates in common.
IdentityPtr IdentityOf(const Description& description) {
    constexpr std::size_t kMostKept = 4096;
    static std::map<std::string, IdentityPtr> s_kept;
    const std::string strKey(reinterpret_cast<const char*>(&description), sizeof description);
    if (const auto found = s_kept.find(strKey); found != s_kept.end()) {
        return found->second;
    }
    if (s_kept.size() >= kMostKept) {
        s_kept.clear();
    }
    const ErrorMark mark;
    return s_kept[strKey] = MakeIdentity(Issue(description), nullptr);
}

// For OpenSSL, a certificate that names itself as its issuer is a root, whoever has signed it.
bool OpenSslFindsIssuers(const IdentityPtr& signer, const Identities& certificates) {
    const ErrorMark mark;
    const StorePtr store(X509_STORE_new());
    for (const IdentityPtr& certificate : certificates) {
        if (IsAuthority(*certificate)) {
            X509_STORE_add_cert(store.get(), certificate->Certificate());
        }
    }
    const StoreContextPtr context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store.get(), signer->Certificate(), nullptr);
    X509_STORE_CTX_set_time(context.get(), 0, kMoment);
    X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_IGNORE_CRITICAL);
    return X509_verify_cert(context.get()) == 1 && X509_self_signed(signer->Certificate(), 0) != 1;
}

void RequireChain(const IdentityPtr& signer, const Chain& chain, const Authorities& authorities) {
    const ErrorMark mark;
    Require(chain.issuers.size() <= kLongestChain && chain.period.Contains(kMoment));
    Require(!chain.bHasRoot || !chain.issuers.empty());
    Identities path{signer};
    for (const IdentityPtr& issuer : chain.issuers) {
        Require(std::find(path.begin(), path.end(), issuer) == path.end());
        Require(std::any_of(authorities.begin(), authorities.end(),
                            [&](const auto& authority) { return authority.second == issuer; }));
        Require(issuer->IsValidAt(kMoment));
        X509* const pBelow = path.back()->Certificate();
        Require(X509_NAME_cmp(X509_get_issuer_name(pBelow), X509_get_subject_name(issuer->Certificate())) == 0);
        Require(X509_verify(pBelow, X509_get0_pubkey(issuer->Certificate())) == 1);
        path.push_back(issuer);
    }
    if (chain.bHasRoot) {
        Require(X509_self_signed(path.back()->Certificate(), 1) == 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    InitialiseOpenSsl();
    Identities all;
    for (std::size_t n = 0; n + sizeof(Description) <= cbData && all.size() < kMostCertificates;
         n += sizeof(Description)) {
        Description description{};
        std::memcpy(&description, pbData + n, sizeof description);
        all.push_back(IdentityOf(description));
    }
    const Identities certificates = WithoutCopies(std::move(all));
    const Authorities authorities = SelectAuthorities(certificates);
    for (const IdentityPtr& signer : certificates) {
        if (signer->Certificate() == nullptr) {
            continue;
        }
        const Chain chain = FindChain(signer, authorities, kMoment);
        RequireChain(signer, chain, authorities);
        if (certificates.size() <= kMostForOpenSsl && OpenSslFindsIssuers(signer, certificates)) {
            Require(!chain.issuers.empty());
        }
    }
    Require(ERR_peek_error() == 0);
    return 0;
}
