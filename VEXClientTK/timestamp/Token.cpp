#include "timestamp/Token.h"

#include <openssl/objects.h>

#include <algorithm>

#include "timestamp/Authority.h"
#include "timestamp/Der.h"
#include "timestamp/Digests.h"
#include "timestamp/Numbers.h"

namespace vextimestamp {
namespace {

[[noreturn]] void ThrowNoToken(const std::string& strReason) {
    throw Fault("the time stamp cannot be read: " + strReason + kUseAnother);
}

// A SignedData of one signer with its content. The rest of the object is checked by Token.
CmsPtr Parse(View token) {
    const unsigned char* pb = token.data();
    CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &pb, static_cast<long>(token.size())));
    if (!cms) {
        ThrowNoToken("it is no CMS: " + LastReason());
    }
    // A second reader may not find something else behind the end.
    if (pb != token.data() + token.size()) {
        ThrowNoToken("something is behind its end");
    }
    if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
        ThrowNoToken("it is no CMS SignedData");
    }
    if (OBJ_obj2nid(CMS_get0_eContentType(cms.get())) != NID_id_smime_ct_TSTInfo) {
        ThrowNoToken("its content is no TSTInfo");
    }
    const STACK_OF(CMS_SignerInfo)* const pSigners = CMS_get0_SignerInfos(cms.get());
    if (pSigners == nullptr || sk_CMS_SignerInfo_num(pSigners) != 1) {
        ThrowNoToken("it has other than one signer");
    }
    return cms;
}

InfoPtr ParseInfo(CMS_ContentInfo* pCms) {
    ASN1_OCTET_STRING** const ppContent = CMS_get0_content(pCms);
    if (ppContent == nullptr || *ppContent == nullptr || ASN1_STRING_length(*ppContent) == 0) {
        ThrowNoToken("it has no content");
    }
    const View content = ViewOf(*ppContent);
    const unsigned char* pb = content.data();
    InfoPtr info(d2i_TS_TST_INFO(nullptr, &pb, static_cast<long>(content.size())));
    if (!info || pb != content.data() + content.size()) {
        ThrowNoToken("its content is no TSTInfo: " + LastReason());
    }
    if (TS_TST_INFO_get_version(info.get()) != 1) {
        ThrowNoToken("it is of another version than 1");
    }
    if (TS_TST_INFO_get_ext_by_critical(info.get(), 1, -1) >= 0) {
        ThrowNoToken("it has a critical extension that is unknown here");
    }
    return info;
}

std::time_t TimeOf(const TS_TST_INFO* pInfo) {
    const ASN1_GENERALIZEDTIME* const pTime = TS_TST_INFO_get_time(pInfo);
    const std::optional<std::time_t> time = MomentOf(pTime);
    if (!time || ViewOf(pTime).back() != 'Z') {
        ThrowNoToken("its time is none in UTC");
    }
    return *time;
}

// Returns the digest's name.
std::string CheckImprint(TS_TST_INFO* pInfo, View signatureValue) {
    TS_MSG_IMPRINT* const pImprint = TS_TST_INFO_get_msg_imprint(pInfo);
    const X509_ALGOR* const pAlgorithm = TS_MSG_IMPRINT_get_algo(pImprint);
    const KnownDigest* const pDigest = FindDigest(pAlgorithm);
    if (pDigest == nullptr) {
        const ASN1_OBJECT* pObject = nullptr;
        X509_ALGOR_get0(&pObject, nullptr, nullptr, pAlgorithm);
        throw Fault("the time stamp has an unknown or weak digest (" + DottedText(pObject) + ")" + kUseAnother);
    }
    if (!std::ranges::equal(ViewOf(TS_MSG_IMPRINT_get_msg(pImprint)), DigestOf(*pDigest, signatureValue))) {
        throw Fault("the time stamp belongs to another signature: its imprint is not the digest of this one" +
                    std::string(kUseAnother));
    }
    return pDigest->pszName;
}

void CheckAnswers(const Request& request, const TS_TST_INFO* pInfo, const TokenFacts& facts) {
    if (facts.strDigest != request.strDigest) {
        throw Fault("the time stamp has the digest " + facts.strDigest + ", not " + request.strDigest +
                    " as the request" + kUseAnother);
    }
    const ASN1_INTEGER* const pNonce = TS_TST_INFO_get_nonce(pInfo);
    if (pNonce == nullptr) {
        throw Fault(std::string("the time stamp has no nonce, so it may be an old one") + kUseAnother);
    }
    if (PositiveBytes(pNonce) != request.nonce) {
        throw Fault(std::string("the time stamp has another nonce than the request, so it answers another request") +
                    kUseAnother);
    }
    if (!request.strPolicy.empty() && facts.strPolicy != request.strPolicy) {
        throw Fault("the time stamp has the policy " + facts.strPolicy + ", not " + request.strPolicy +
                    " as asked for; ask for that one, or use another authority");
    }
}

// Returns the signer's certificate, which the object owns.
X509* CheckSigner(CMS_ContentInfo* pCms) {
    CMS_SignerInfo* const pSigner = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(pCms), 0);
    CMS_set1_signers_certs(pCms, nullptr, 0);
    X509* pCertificate = nullptr;
    X509_ALGOR* pDigest = nullptr;
    CMS_SignerInfo_get0_algs(pSigner, nullptr, &pCertificate, &pDigest, nullptr);
    if (pCertificate == nullptr) {
        throw Fault(std::string("the certificate of the time stamp's signer is not in it") + kUseAnother);
    }
    if (FindDigest(pDigest) == nullptr) {
        throw Fault(std::string("the time stamp's signature has an unknown or weak digest") + kUseAnother);
    }
    const ASN1_TYPE* const pType = SignedAttribute(pSigner, NID_pkcs9_contentType);
    if (pType == nullptr || pType->type != V_ASN1_OBJECT ||
        OBJ_obj2nid(pType->value.object) != NID_id_smime_ct_TSTInfo) {
        throw Fault(std::string("the time stamp's signature is not one of a TSTInfo") + kUseAnother);
    }
    // It compares the signed digest with that of the content, too.
    const BioPtr content(RequireMemory(BIO_new(BIO_s_null())));
    if (CMS_verify(pCms, nullptr, nullptr, nullptr, content.get(), CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) != 1) {
        // Of a wrong signature OpenSSL's CMS is the one to report. Below it are digests and schemes that are missing.
        const bool bWrong = ERR_GET_LIB(ERR_peek_last_error()) == ERR_LIB_CMS;
        throw Fault(
            (bWrong ? "the time stamp's signature is wrong: " : "OpenSSL cannot check the time stamp's signature: ") +
            LastReason() + kUseAnother);
    }
    RequireNamed(pSigner, pCertificate);
    return pCertificate;
}

}  // namespace

TokenFacts CheckToken(std::span<const unsigned char> token, std::span<const unsigned char> signatureValue,
                      X509_STORE* pTrusted, const Request* pRequest) {
    const ErrorMark mark;
    const CmsPtr cms = Parse(token);
    const InfoPtr info = ParseInfo(cms.get());
    TokenFacts facts;
    facts.time = TimeOf(info.get());
    facts.strPolicy = DottedText(TS_TST_INFO_get_policy_id(info.get()));
    facts.strSerial = HexText(TS_TST_INFO_get_serial(info.get()));
    facts.strDigest = CheckImprint(info.get(), signatureValue);
    if (pRequest != nullptr) {
        CheckAnswers(*pRequest, info.get(), facts);
    }
    X509* const pCertificate = CheckSigner(cms.get());
    facts.strAuthority = SubjectText(pCertificate);
    RequireMeantForTimeStamps(pCertificate);
    RequireValidAt(pCertificate, facts.time);
    if (pTrusted != nullptr) {
        const CertificatesPtr others(CMS_get1_certs(cms.get()));
        RequireTrusted(pCertificate, others.get(), pTrusted, facts.time);
    }
    return facts;
}

}  // namespace vextimestamp
