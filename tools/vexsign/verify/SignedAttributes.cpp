#include "SignedAttributes.h"

#include <openssl/ess.h>
#include <openssl/objects.h>

#include <optional>

#include "Ber.h"
#include "Time.h"

namespace vexsign::verify {
namespace {

struct Attribute {
    bool bThere = false;
    const ASN1_TYPE* pValue =
        nullptr;  // the only value of the only attribute; null: there is none, or there are several
};

Attribute FindAttribute(const CMS_SignerInfo* pInfo, int nNid) {
    const int nAt = CMS_signed_get_attr_by_NID(pInfo, nNid, -1);
    if (nAt < 0) {
        return {};
    }
    Attribute found = {true, nullptr};
    X509_ATTRIBUTE* const pAttribute = CMS_signed_get_attr(pInfo, nAt);
    if (CMS_signed_get_attr_by_NID(pInfo, nNid, nAt) < 0 && X509_ATTRIBUTE_count(pAttribute) == 1) {
        found.pValue = X509_ATTRIBUTE_get0_type(pAttribute, 0);
    }
    return found;
}

std::optional<std::time_t> SigningTimeOf(const CMS_SignerInfo* pInfo) {
    const ASN1_TYPE* const pValue = FindAttribute(pInfo, NID_pkcs9_signingTime).pValue;
    if (pValue == nullptr || (pValue->type != V_ASN1_UTCTIME && pValue->type != V_ASN1_GENERALIZEDTIME)) {
        return std::nullopt;
    }
    return MomentOf(pValue->type == V_ASN1_UTCTIME ? pValue->value.utctime : pValue->value.generalizedtime);
}

std::string Sequence(std::string_view body) {
    constexpr std::size_t kMostHeader = 8;
    std::string strHeader(kMostHeader, '\0');
    auto* const pbBegin = reinterpret_cast<unsigned char*>(strHeader.data());
    unsigned char* pb = pbBegin;
    ASN1_put_object(&pb, 1, static_cast<int>(body.size()), V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
    strHeader.resize(static_cast<std::size_t>(pb - pbBegin));
    return strHeader.append(body);
}

// A SigningCertificate with nothing but its first identifier, which is the signer's; the others may be those of
// issuers. Empty: the value is no SigningCertificate.
std::string WithSignerOnly(const ASN1_TYPE* pValue) {
    if (pValue == nullptr || pValue->type != V_ASN1_SEQUENCE) {
        return "";
    }
    std::string_view value(reinterpret_cast<const char*>(ASN1_STRING_get0_data(pValue->value.sequence)),
                           static_cast<std::size_t>(ASN1_STRING_length(pValue->value.sequence)));
    std::optional<Element> element = TakeElement(value);
    std::string_view fields = element ? element->body : std::string_view();
    element = TakeElement(fields);
    std::string_view identifiers = element ? element->body : std::string_view();
    element = TakeElement(identifiers);
    return element ? Sequence(Sequence(element->whole)) : "";
}

bool NamesCertificate(const CMS_SignerInfo* pInfo, int nNid, X509* pCertificate) {
    const std::string strValue = WithSignerOnly(FindAttribute(pInfo, nNid).pValue);
    const auto* pb = reinterpret_cast<const unsigned char*>(strValue.data());
    const auto cb = static_cast<long>(strValue.size());
    const CertificatesPtr chain = NewCertificates();
    AddCertificate(chain.get(), pCertificate);
    int nResult = 0;
    if (nNid == NID_id_smime_aa_signingCertificateV2) {
        const std::unique_ptr<ESS_SIGNING_CERT_V2, Deleter<ESS_SIGNING_CERT_V2_free>> value(
            d2i_ESS_SIGNING_CERT_V2(nullptr, &pb, cb));
        nResult = value ? OSSL_ESS_check_signing_certs(nullptr, value.get(), chain.get(), 1) : 0;
    } else {
        const std::unique_ptr<ESS_SIGNING_CERT, Deleter<ESS_SIGNING_CERT_free>> value(
            d2i_ESS_SIGNING_CERT(nullptr, &pb, cb));
        nResult = value ? OSSL_ESS_check_signing_certs(value.get(), nullptr, chain.get(), 1) : 0;
    }
    static_cast<void>(TakeReason());
    return nResult == 1;
}

}  // namespace

std::string CheckAttributes(const CMS_ContentInfo* pCms, const CMS_SignerInfo* pInfo, const SignerForm& form,
                            SignerReport& signer) {
    if (!form.bHasAttributes) {
        signer.Fail(check::kAttributes,
                    "it has no signed attributes; such a signature can be made from one of other data, so it is not "
                    "accepted");
        return "";
    }
    const Attribute type = FindAttribute(pInfo, NID_pkcs9_contentType);
    const Attribute digest = FindAttribute(pInfo, NID_pkcs9_messageDigest);
    const bool bDigest = digest.pValue != nullptr && digest.pValue->type == V_ASN1_OCTET_STRING;
    const bool bType = type.pValue != nullptr && type.pValue->type == V_ASN1_OBJECT;
    const Attribute time = FindAttribute(pInfo, NID_pkcs9_signingTime);
    const std::size_t cBefore = signer.checks.size();
    if (!form.bAttributesAreDer) {
        signer.Fail(check::kAttributes, "the signed attributes are BER and not DER, as CMS demands");
    }
    if (!bType) {
        signer.Fail(check::kAttributes, type.bThere
                                            ? "the signed content type is there twice, or is no object identifier"
                                            : "the signed content type is missing");
    } else if (OBJ_cmp(type.pValue->value.object, CMS_get0_eContentType(const_cast<CMS_ContentInfo*>(pCms))) != 0) {
        signer.Fail(check::kAttributes, "the signed content type is another one than the content's");
    }
    if (!bDigest) {
        signer.Fail(check::kAttributes, digest.bThere
                                            ? "the signed message digest is there twice, or is no octet string"
                                            : "the signed message digest is missing");
    }
    if (const std::optional<std::time_t> moment = SigningTimeOf(pInfo)) {
        signer.time = SigningTime{TextOf(*moment), false, TextOf(*moment)};
    } else if (time.bThere) {
        signer.Fail(check::kAttributes, "the signing time is there twice, or is no date");
    }
    if (signer.checks.size() == cBefore) {
        signer.Pass(check::kAttributes, "the signed attributes are complete and in DER");
    }
    if (!bDigest) {
        return "";
    }
    const ASN1_OCTET_STRING* const pDigest = digest.pValue->value.octet_string;
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(pDigest)),
            static_cast<std::size_t>(ASN1_STRING_length(pDigest))};
}

void CheckBinding(const CMS_SignerInfo* pInfo, X509* pCertificate, SignerReport& signer) {
    bool bThere = false;
    for (const int nNid : {NID_id_smime_aa_signingCertificateV2, NID_id_smime_aa_signingCertificate}) {
        if (!FindAttribute(pInfo, nNid).bThere) {
            continue;
        }
        bThere = true;
        if (!NamesCertificate(pInfo, nNid, pCertificate)) {
            signer.Fail(check::kBinding, "the signed attributes name another certificate than this one");
            return;
        }
    }
    if (bThere) {
        signer.Pass(check::kBinding, "the signed attributes name this certificate");
    } else {
        signer.Skip(check::kBinding, "which certificate the signer meant: the signed attributes name none");
    }
}

void CheckTime(const CMS_SignerInfo* pInfo, X509* pCertificate, std::time_t nMoment, bool bStamped,
               SignerReport& signer) {
    const std::optional<std::time_t> time = SigningTimeOf(pInfo);
    const std::optional<std::time_t> begin = MomentOf(X509_get0_notBefore(pCertificate));
    const std::optional<std::time_t> end = MomentOf(X509_get0_notAfter(pCertificate));
    if (time && begin && end && (*time < *begin - kClockError || *time > *end + kClockError)) {
        signer.Fail(check::kTime, "the signer says " + TextOf(*time) + ", when the certificate was not valid");
    } else if (time && *time > nMoment + kClockError) {
        signer.Fail(check::kTime, "the signer says " + TextOf(*time) + ", which is later than " + TextOf(nMoment) +
                                      "; a clock is wrong");
    } else {
        const std::string strWhat =
            time ? "whether the signer's time is true" : "when it was signed: the signer does not say so";
        signer.Skip(check::kTime, strWhat + (bStamped ? "; a time stamp proves only when the signature existed"
                                                      : "; no trusted time stamp proves when the signature existed"));
    }
}

}  // namespace vexsign::verify
