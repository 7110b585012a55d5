#include "timestamp/Request.h"

#include <openssl/objects.h>
#include <openssl/rand.h>

#include <algorithm>

#include "posix/VisibleText.h"
#include "timestamp/Der.h"
#include "timestamp/Digests.h"
#include "timestamp/Numbers.h"

namespace vextimestamp {
namespace {

constexpr std::size_t kNonceSize = 16;

Bytes NewNonce() {
    Bytes nonce(kNonceSize);
    if (RAND_bytes(nonce.data(), static_cast<int>(nonce.size())) != 1) {
        throw Fault("OpenSSL has no random numbers for the time stamp's request: " + LastReason());
    }
    // Always a positive number of the full length.
    nonce.front() = static_cast<unsigned char>((nonce.front() & 0x7FU) | 0x40U);
    return nonce;
}

void SetImprint(TS_REQ* pRequest, const KnownDigest& digest, Bytes& imprint) {
    const AlgorithmPtr algorithm(RequireMemory(X509_ALGOR_new()));
    RequireMemory(X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(digest.nNid), V_ASN1_NULL, nullptr) == 1);
    const ImprintPtr message(RequireMemory(TS_MSG_IMPRINT_new()));
    RequireMemory(TS_MSG_IMPRINT_set_algo(message.get(), algorithm.get()) == 1 &&
                  TS_MSG_IMPRINT_set_msg(message.get(), imprint.data(), static_cast<int>(imprint.size())) == 1 &&
                  TS_REQ_set_msg_imprint(pRequest, message.get()) == 1);
}

void SetPolicy(TS_REQ* pRequest, const std::string& strPolicy) {
    if (strPolicy.empty()) {
        return;
    }
    const ObjectPtr policy(OBJ_txt2obj(strPolicy.c_str(), 1));
    // OpenSSL reads blanks as dots, and ignores a dot at the end.
    if (!policy || DottedText(policy.get()) != strPolicy) {
        throw Fault("the time stamp's policy \"" + vexposix::Visible(strPolicy, true) +
                    "\" is no object identifier; give one like 1.2.3.4");
    }
    RequireMemory(TS_REQ_set_policy_id(pRequest, policy.get()) == 1);
}

void SetNonce(TS_REQ* pRequest, const Bytes& bytes) {
    const BignumPtr number(RequireMemory(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr)));
    const IntegerPtr nonce(RequireMemory(BN_to_ASN1_INTEGER(number.get(), nullptr)));
    RequireMemory(TS_REQ_set_nonce(pRequest, nonce.get()) == 1);
}

Bytes Encoded(const TS_REQ* pRequest) {
    unsigned char* pb = nullptr;
    const int cb = i2d_TS_REQ(pRequest, &pb);
    RequireMemory(cb > 0);
    const MemoryPtr<unsigned char> owner(pb);
    return {pb, pb + cb};
}

[[noreturn]] void ThrowNoRequest(const std::string& strReason) {
    throw Fault("the time stamp's request is not one that was made here: " + strReason +
                "; pass it on exactly as it was given to you");
}

}  // namespace

Request MakeRequest(std::span<const unsigned char> signatureValue, const Wanted& wanted) {
    const ErrorMark mark;
    const KnownDigest& digest = RequireDigest(wanted.strDigest);
    Request made = {{}, DigestOf(digest, signatureValue), digest.pszName, NewNonce(), wanted.strPolicy};
    const RequestPtr request(RequireMemory(TS_REQ_new()));
    RequireMemory(TS_REQ_set_version(request.get(), 1) == 1 && TS_REQ_set_cert_req(request.get(), 1) == 1);
    SetImprint(request.get(), digest, made.imprint);
    SetPolicy(request.get(), wanted.strPolicy);
    SetNonce(request.get(), made.nonce);
    made.der = Encoded(request.get());
    return made;
}

Request ReadRequest(std::span<const unsigned char> der) {
    const ErrorMark mark;
    if (!OnlySequence(der)) {
        ThrowNoRequest("it is not one sequence in DER");
    }
    const unsigned char* pb = der.data();
    const RequestPtr request(d2i_TS_REQ(nullptr, &pb, static_cast<long>(der.size())));
    if (!request) {
        ThrowNoRequest("OpenSSL cannot read it: " + LastReason());
    }
    if (!std::ranges::equal(Encoded(request.get()), der)) {
        ThrowNoRequest("it is not in DER");
    }
    TS_MSG_IMPRINT* const pImprint = TS_REQ_get_msg_imprint(request.get());
    const KnownDigest* const pDigest = FindDigest(TS_MSG_IMPRINT_get_algo(pImprint));
    if (pDigest == nullptr) {
        ThrowNoRequest("its digest is unknown or too weak");
    }
    const ASN1_OCTET_STRING* const pMessage = TS_MSG_IMPRINT_get_msg(pImprint);
    const unsigned char* const pbMessage = ASN1_STRING_get0_data(pMessage);
    const std::optional<Bytes> nonce = PositiveBytes(TS_REQ_get_nonce(request.get()));
    if (TS_REQ_get_version(request.get()) != 1 || !nonce || TS_REQ_get_cert_req(request.get()) == 0) {
        ThrowNoRequest("its version, its nonce or its wish for the certificate is missing");
    }
    if (ASN1_STRING_length(pMessage) != static_cast<int>(DigestOf(*pDigest, {}).size())) {
        ThrowNoRequest("its digest has another length than its algorithm gives");
    }
    return {{der.begin(), der.end()},
            {pbMessage, pbMessage + ASN1_STRING_length(pMessage)},
            pDigest->pszName,
            *nonce,
            DottedText(TS_REQ_get_policy_id(request.get()))};
}

}  // namespace vextimestamp
