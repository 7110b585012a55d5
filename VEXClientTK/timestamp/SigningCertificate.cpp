#include "timestamp/SigningCertificate.h"

#include <openssl/objects.h>

#include "timestamp/Der.h"
#include "timestamp/Numbers.h"

namespace vextimestamp {
namespace {

Bytes Sequence(View body) {
    constexpr std::size_t kMostHeader = 8;
    Bytes bytes(kMostHeader);
    unsigned char* pb = bytes.data();
    ASN1_put_object(&pb, 1, static_cast<int>(body.size()), V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
    bytes.resize(static_cast<std::size_t>(pb - bytes.data()));
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

// A SigningCertificate with nothing but its first identifier, because OpenSSL looks for every one of them. Empty: the
// value is no SigningCertificate.
Bytes WithSignerOnly(const ASN1_TYPE* pValue) {
    if (pValue->type != V_ASN1_SEQUENCE) {
        return {};
    }
    const std::optional<Element> value = OnlySequence(ViewOf(pValue->value.sequence));
    View fields = value ? value->body : View();
    const std::optional<Element> list = TakeElement(fields, V_ASN1_SEQUENCE);
    View identifiers = list ? list->body : View();
    const std::optional<Element> first = TakeElement(identifiers, V_ASN1_SEQUENCE);
    return first ? Sequence(Sequence(first->whole)) : Bytes();
}

using SigningCertificatePtr = std::unique_ptr<ESS_SIGNING_CERT, Deleter<ESS_SIGNING_CERT_free>>;
using SigningCertificateV2Ptr = std::unique_ptr<ESS_SIGNING_CERT_V2, Deleter<ESS_SIGNING_CERT_V2_free>>;

}  // namespace

bool NamesCertificate(const ASN1_TYPE* pValue, int nNid, X509* pCertificate) {
    const Bytes value = WithSignerOnly(pValue);
    const unsigned char* pb = value.data();
    const auto cb = static_cast<long>(value.size());
    // The list does not own the certificate.
    const std::unique_ptr<STACK_OF(X509), decltype([](STACK_OF(X509) * pStack) { sk_X509_free(pStack); })> chain(
        RequireMemory(sk_X509_new_null()));
    RequireMemory(sk_X509_push(chain.get(), pCertificate) > 0);
    if (nNid == NID_id_smime_aa_signingCertificateV2) {
        const SigningCertificateV2Ptr named(d2i_ESS_SIGNING_CERT_V2(nullptr, &pb, cb));
        return named && OSSL_ESS_check_signing_certs(nullptr, named.get(), chain.get(), 1) == 1;
    }
    const SigningCertificatePtr named(d2i_ESS_SIGNING_CERT(nullptr, &pb, cb));
    return named && OSSL_ESS_check_signing_certs(named.get(), nullptr, chain.get(), 1) == 1;
}

}  // namespace vextimestamp
