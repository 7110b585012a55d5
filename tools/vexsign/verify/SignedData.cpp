#include "SignedData.h"

#include <openssl/cmserr.h>
#include <openssl/objects.h>

#include <optional>
#include <string>
#include <vector>

#include "Algorithms.h"
#include "SignedAttributes.h"
#include "SignedDataForm.h"
#include "Stamps.h"

namespace vexsign::verify {
namespace {

std::string_view BytesOf(const ASN1_OCTET_STRING* pString) {
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(pString)),
            static_cast<std::size_t>(ASN1_STRING_length(pString))};
}

int NidOf(const X509_ALGOR* pAlgorithm) {
    const ASN1_OBJECT* pObject = nullptr;
    X509_ALGOR_get0(&pObject, nullptr, nullptr, pAlgorithm);
    return OBJ_obj2nid(pObject);
}

// What OpenSSL's SignerInfo holds; nothing here is owned.
struct SignerFields {
    CMS_SignerInfo* pInfo;
    EVP_PKEY* pKey = nullptr;
    X509* pCertificate = nullptr;
    X509_ALGOR* pDigestAlgorithm = nullptr;
    X509_ALGOR* pSignatureAlgorithm = nullptr;

    explicit SignerFields(CMS_SignerInfo* pSignerInfo) : pInfo(pSignerInfo) {
        CMS_SignerInfo_get0_algs(pInfo, &pKey, &pCertificate, &pDigestAlgorithm, &pSignatureAlgorithm);
    }
};

const char* SchemeOf(const EVP_PKEY* pKey, int nSignatureNid) {
    switch (EVP_PKEY_get_base_id(pKey)) {
        case EVP_PKEY_EC:
            return "ECDSA";
        case EVP_PKEY_ED25519:
            return "Ed25519";
        case EVP_PKEY_ED448:
            return "Ed448";
        default:
            return nSignatureNid == NID_rsassaPss ? "RSASSA-PSS" : "RSASSA-PKCS1-v1_5";
    }
}

// Whether a signature algorithm, which may name a digest and a kind of key, contradicts those that are used.
bool Contradicts(int nSignatureNid, const KnownDigest& digest, const EVP_PKEY* pKey) {
    const int nKey = EVP_PKEY_get_base_id(pKey);
    int nDigestNid = NID_undef;
    int nKeyNid = NID_undef;
    if (OBJ_find_sigid_algs(nSignatureNid, &nDigestNid, &nKeyNid) != 1) {
        return nSignatureNid != nKey;  // only the kind of key, such as rsaEncryption
    }
    const bool bKeyFits = nKeyNid == nKey || (nKeyNid == NID_rsassaPss && nKey == EVP_PKEY_RSA);
    return !bKeyFits || (nDigestNid != NID_undef && FindDigest(nDigestNid) != &digest);
}

void CheckAlgorithm(const SignerFields& fields, const KnownDigest* pDigest, SignerReport& signer) {
    if (const std::string strFault = KeyFault(fields.pKey); !strFault.empty()) {
        signer.Fail(check::kAlgorithm, strFault);
        return;
    }
    if (pDigest == nullptr) {
        signer.Fail(check::kAlgorithm, "its digest algorithm is unknown");
        return;
    }
    const int nSignatureNid = NidOf(fields.pSignatureAlgorithm);
    signer.strAlgorithm = std::string(SchemeOf(fields.pKey, nSignatureNid)) + " with " + pDigest->pszName;
    if (!pDigest->bTrusted) {
        signer.Fail(check::kAlgorithm, DistrustText(*pDigest));
    } else if (Contradicts(nSignatureNid, *pDigest, fields.pKey)) {
        signer.Fail(check::kAlgorithm, "its signature algorithm does not fit its digest or the certificate's key");
    } else {
        signer.Pass(check::kAlgorithm, "digest and key are strong enough");
    }
}

void CheckSignature(const SignerFields& fields, SignerReport& signer) {
    if (CMS_SignerInfo_verify(fields.pInfo) == 1) {
        ERR_clear_error();
        signer.Pass(check::kSignature, "the certificate's key made the signature");
        return;
    }
    const unsigned long ulError = ERR_peek_last_error();
    const bool bWrong = ERR_GET_LIB(ulError) == ERR_LIB_CMS && ERR_GET_REASON(ulError) == CMS_R_VERIFICATION_FAILURE;
    const std::string strReason = TakeReason();
    const std::string strForm =
        fields.pKey == nullptr ? ""
                               : SignatureFormFault(fields.pKey, BytesOf(CMS_SignerInfo_get0_signature(fields.pInfo)));
    if (!strForm.empty()) {
        signer.Fail(check::kSignature, strForm);
    } else if (bWrong) {
        signer.Fail(check::kSignature,
                    "the certificate's key did not make the signature, or the signed attributes were changed");
    } else {
        signer.Fail(check::kSignature, "OpenSSL cannot check it: " + strReason);
    }
}

CmsPtr Parse(std::string_view bytes) {
    const auto* pb = reinterpret_cast<const unsigned char*>(bytes.data());
    CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &pb, static_cast<long>(bytes.size())));
    if (!cms) {
        throw BadForm("OpenSSL cannot read it: " + TakeReason());
    }
    return cms;
}

// The certificates in the signature, and those that the user gave.
CertificatesPtr AllCertificates(CMS_ContentInfo* pCms, const Settings& settings) {
    CertificatesPtr certificates(CMS_get1_certs(pCms));
    if (!certificates) {
        certificates = NewCertificates();
    }
    for (const CertificatesPtr* const pGiven : {&settings.signers, &settings.issuers}) {
        for (int i = 0; *pGiven && i < sk_X509_num(pGiven->get()); ++i) {
            AddCertificate(certificates.get(), sk_X509_value(pGiven->get(), i));
        }
    }
    return certificates;
}

class SignedData {
public:
    SignedData(std::string_view bytes, const Settings& settings)
        : m_forms(FormOf(bytes)), m_cms(Parse(bytes)), m_settings(settings) {
        STACK_OF(CMS_SignerInfo)* const pInfos = CMS_get0_SignerInfos(m_cms.get());
        if (pInfos == nullptr || static_cast<std::size_t>(sk_CMS_SignerInfo_num(pInfos)) != m_forms.size()) {
            throw BadForm("OpenSSL finds another number of signers in it");
        }
        // A certificate that the user gives must be the signer's; it is not merely tried first.
        CMS_set1_signers_certs(m_cms.get(), settings.signers.get(), settings.signers ? CMS_NOINTERN : 0U);
        ERR_clear_error();
        for (int i = 0; i < sk_CMS_SignerInfo_num(pInfos); ++i) {
            m_signers.emplace_back(sk_CMS_SignerInfo_value(pInfos, i));
            m_digests.push_back(FindDigest(NidOf(m_signers.back().pDigestAlgorithm)));
        }
    }

    void Verify(const Reader* pContent, Report& report) {
        ASN1_OCTET_STRING** const ppContent = CMS_get0_content(m_cms.get());
        const bool bAttached = ppContent != nullptr && *ppContent != nullptr;
        report.bDetached = !bAttached;
        report.Pass(check::kForm, "it is a CMS SignedData with " +
                                      std::string(m_signers.size() == 1 ? "one signer" : "several signers") +
                                      ", and nothing is behind it");
        if (!bAttached && pContent == nullptr) {
            report.Fail(check::kContent, "the content is not in the signature; give the FILE that was signed");
        }
        const Digests inside = bAttached ? DigestsOf(ReaderOf(BytesOf(*ppContent))) : Digests();
        const Digests file = pContent != nullptr ? DigestsOf(*pContent) : Digests();
        const CertificatesPtr certificates = AllCertificates(m_cms.get(), m_settings);
        for (std::size_t i = 0; i < m_signers.size(); ++i) {
            SignerReport& signer = report.signers.emplace_back();
            const std::string strDigest = CheckAttributes(m_cms.get(), m_signers[i].pInfo, m_forms[i], signer);
            if (bAttached) {
                CheckContent(inside, strDigest, i, "in the signature", signer);
            }
            if (pContent != nullptr) {
                CheckContent(file, strDigest, i, "in FILE", signer);
            }
            CheckSigner(i, certificates.get(), signer);
        }
    }

private:
    Digests DigestsOf(const Reader& reader) const {
        Digests digests;
        for (const KnownDigest* const pDigest : m_digests) {
            if (pDigest != nullptr) {
                digests.Want(pDigest->pszName);
            }
        }
        ForEachPiece(reader, [&](std::string_view piece) { digests.Add(piece); });
        digests.Finish();
        return digests;
    }

    void CheckContent(const Digests& digests, const std::string& strSigned, std::size_t i, const char* pszWhere,
                      SignerReport& signer) const {
        const std::string* const pDigest = m_digests[i] == nullptr ? nullptr : digests.Find(m_digests[i]->pszName);
        if (pDigest == nullptr || strSigned.empty()) {
            signer.Fail(check::kContent, "no message digest can be compared");
        } else if (*pDigest != strSigned) {
            signer.Fail(check::kContent, std::string("the content ") + pszWhere +
                                             " is not what was signed: it was changed, or it is another file");
        } else {
            signer.Pass(check::kContent, std::string("the content ") + pszWhere + " is what was signed");
        }
    }

    void CheckSigner(std::size_t i, STACK_OF(X509) * pCertificates, SignerReport& signer) const {
        const SignerFields& fields = m_signers[i];
        if (fields.pCertificate == nullptr) {
            signer.Fail(check::kCertificate,
                        m_settings.signers ? "the signer's certificate is not the one of --cert"
                                           : "the signer's certificate is not in the signature; give it with --cert");
            return;
        }
        signer.certificate = FactsOf(fields.pCertificate);
        CheckAlgorithm(fields, m_digests[i], signer);
        if (!signer.HasPassed(check::kAttributes)) {
            signer.Skip(check::kSignature, "whether the certificate's key made it: the signed attributes are wrong");
        } else {
            CheckSignature(fields, signer);
        }
        if (m_forms[i].bHasAttributes) {
            CheckBinding(fields.pInfo, fields.pCertificate, signer);
        }
        const std::optional<std::time_t> stamped = CheckStamps(fields.pInfo, m_settings, signer);
        const std::time_t nMoment = stamped.value_or(m_settings.nMoment);
        CheckCertificate(fields.pCertificate, pCertificates, m_settings, nMoment, signer);
        if (m_forms[i].bHasAttributes) {
            CheckTime(fields.pInfo, fields.pCertificate, nMoment, stamped.has_value(), signer);
        }
    }

    std::vector<SignerForm> m_forms;
    CmsPtr m_cms;
    const Settings& m_settings;
    std::vector<SignerFields> m_signers;
    std::vector<const KnownDigest*> m_digests;  // of each signer; null: unknown
};

}  // namespace

void VerifySignedData(std::string_view bytes, const Settings& settings, const Reader* pContent, Report& report) {
    ERR_clear_error();
    std::optional<SignedData> signedData;
    try {
        signedData.emplace(bytes, settings);
    } catch (const BadForm& fault) {
        static_cast<void>(TakeReason());
        report.Fail(check::kForm, fault.what());
        return;
    }
    signedData->Verify(pContent, report);
}

}  // namespace vexsign::verify
