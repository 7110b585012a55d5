#include "SignedAttributes.h"

#include <openssl/objects.h>

#include <optional>

#include "Time.h"
#include "timestamp/SigningCertificate.h"

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
        const Attribute name = FindAttribute(pInfo, nNid);
        if (!name.bThere) {
            continue;
        }
        bThere = true;
        const bool bNames = name.pValue != nullptr && vextimestamp::NamesCertificate(name.pValue, nNid, pCertificate);
        static_cast<void>(TakeReason());
        if (!bNames) {
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
