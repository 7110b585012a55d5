#include "timestamp/Cms.h"

#include <openssl/objects.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <string>

#include "timestamp/Der.h"
#include "timestamp/Numbers.h"
#include "timestamp/OpenSsl.h"

namespace vextimestamp {
namespace {

constexpr int kToken = NID_id_smime_aa_timeStampToken;

[[noreturn]] void ThrowNoSignature(const std::string& strReason) {
    throw Fault("only a CMS signature of one signer can have a time stamp: " + strReason);
}

CmsPtr Parse(View bytes) {
    if (bytes.size() > INT_MAX) {
        ThrowNoSignature("this one is larger than 2 GiB; make a detached signature");
    }
    const unsigned char* pb = bytes.data();
    CmsPtr cms(bytes.empty() ? nullptr : d2i_CMS_ContentInfo(nullptr, &pb, static_cast<long>(bytes.size())));
    if (!cms) {
        ThrowNoSignature(bytes.empty() ? "there are no bytes" : "OpenSSL cannot read this one: " + LastReason());
    }
    if (pb != bytes.data() + bytes.size()) {
        ThrowNoSignature("something is behind the end of this one");
    }
    if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
        ThrowNoSignature("this is another kind of CMS");
    }
    return cms;
}

CMS_SignerInfo* SignerOf(CMS_ContentInfo* pCms) {
    const STACK_OF(CMS_SignerInfo)* const pSigners = CMS_get0_SignerInfos(pCms);
    const int cSigners = pSigners == nullptr ? 0 : sk_CMS_SignerInfo_num(pSigners);
    if (cSigners != 1) {
        ThrowNoSignature("this one has " + std::to_string(cSigners > 0 ? cSigners : 0));
    }
    return sk_CMS_SignerInfo_value(pSigners, 0);
}

Bytes Encoded(const CMS_ContentInfo* pCms) {
    unsigned char* pb = nullptr;
    const int cb = i2d_CMS_ContentInfo(pCms, &pb);
    if (cb <= 0) {
        ThrowNoSignature("OpenSSL cannot write it with a time stamp: " + LastReason());
    }
    const MemoryPtr<unsigned char> owner(pb);
    return {pb, pb + cb};
}

// The signed attributes of the only signer as they are in DER bytes; empty: there are none. Throws Fault if the bytes
// have another form than those that OpenSSL writes.
View SignedAttributesOf(View cms) {
    const auto require = [](const std::optional<Element>& element) {
        if (!element) {
            ThrowNoSignature("OpenSSL wrote it in an unexpected form");
        }
        return *element;
    };
    View contentInfo = require(TakeElement(cms, V_ASN1_SEQUENCE)).body;
    require(TakeElement(contentInfo, V_ASN1_OBJECT));
    View explicitTag = require(TakeElement(contentInfo)).body;
    View signedData = require(TakeElement(explicitTag, V_ASN1_SEQUENCE)).body;
    Element last;
    while (!signedData.empty()) {
        last = require(TakeElement(signedData));
    }
    View signers = last.body;
    View signer = require(TakeElement(signers, V_ASN1_SEQUENCE)).body;
    // The version, the signer's identifier, the digest; then the attributes, if there are any.
    for (int i = 0; i < 3; ++i) {
        require(TakeElement(signer));
    }
    const Element next = require(TakeElement(signer));
    return next.nClass == V_ASN1_CONTEXT_SPECIFIC && next.nTag == 0 ? next.whole : View();
}

bool Contains(View bytes, View part) {
    return part.empty() || std::search(bytes.begin(), bytes.end(),
                                       std::boyer_moore_horspool_searcher(part.begin(), part.end())) != bytes.end();
}

}  // namespace

Bytes SignatureValueOf(std::span<const unsigned char> cms) {
    const ErrorMark mark;
    const CmsPtr parsed = Parse(cms);
    const ASN1_OCTET_STRING* const pValue = CMS_SignerInfo_get0_signature(SignerOf(parsed.get()));
    const View value = ViewOf(pValue);
    if (value.empty()) {
        ThrowNoSignature("the signature value of this one is empty");
    }
    return {value.begin(), value.end()};
}

Bytes WithToken(std::span<const unsigned char> cms, std::span<const unsigned char> token) {
    const ErrorMark mark;
    if (!OnlySequence(token)) {
        throw Fault("the time stamp is not one sequence in DER; use another authority");
    }
    const CmsPtr parsed = Parse(cms);
    // OpenSSL keeps the bytes of the sequence as they are.
    if (CMS_unsigned_add1_attr_by_NID(SignerOf(parsed.get()), kToken, V_ASN1_SEQUENCE, token.data(),
                                      static_cast<int>(token.size())) != 1) {
        ThrowNoSignature("OpenSSL cannot add one to this one: " + LastReason());
    }
    Bytes stamped = Encoded(parsed.get());
    // OpenSSL writes the signed attributes in DER. If they were not, the signer may have signed other bytes than these.
    if (!Contains(cms, SignedAttributesOf(stamped))) {
        ThrowNoSignature(
            "the signed attributes of this one are not in DER, so a time stamp would change what was signed");
    }
    return stamped;
}

std::vector<Bytes> TokensOf(std::span<const unsigned char> cms) {
    const ErrorMark mark;
    const CmsPtr parsed = Parse(cms);
    std::vector<Bytes> tokens;
    for (const ASN1_STRING* const pToken : TokensOf(SignerOf(parsed.get()))) {
        if (pToken == nullptr) {
            throw Fault("a time stamp of the signature is no sequence, so it cannot be read");
        }
        const View token = ViewOf(pToken);
        tokens.emplace_back(token.begin(), token.end());
    }
    return tokens;
}

std::vector<const ASN1_STRING*> TokensOf(const CMS_SignerInfo* pSigner) {
    std::vector<const ASN1_STRING*> tokens;
    for (int nAt = -1; (nAt = CMS_unsigned_get_attr_by_NID(pSigner, kToken, nAt)) >= 0;) {
        X509_ATTRIBUTE* const pAttribute = CMS_unsigned_get_attr(pSigner, nAt);
        for (int i = 0; i < X509_ATTRIBUTE_count(pAttribute); ++i) {
            const ASN1_TYPE* const pValue = X509_ATTRIBUTE_get0_type(pAttribute, i);
            tokens.push_back(pValue != nullptr && pValue->type == V_ASN1_SEQUENCE ? pValue->value.sequence : nullptr);
        }
    }
    return tokens;
}

}  // namespace vextimestamp
