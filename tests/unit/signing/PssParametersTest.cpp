// What a certificate for RSASSA-PSS says about its signatures, in every form that its parameters can have.
#include "signing/PssParameters.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "Row.h"
#include "Tlv.h"
#include "signing/Failure.h"
#include "signing/OpenSsl.h"

namespace vextk {
namespace {

using namespace std::string_literals;

constexpr unsigned char kSequence = 0x30;
const std::string kSha256 = "\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01"s;
const std::string kSha512 = "\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x03"s;
const std::string kWeak = "\x06\x08\x2A\x86\x48\x86\xF7\x0D\x02\x04"s;  // MD4
const std::string kMgf1 = "\x06\x09\x2A\x86\x48\x86\xF7\x0D\x01\x01\x08"s;
const std::string kOther = "\x06\x03\x2A\x03\x04"s;

std::string Digest(const std::string& strObject) {
    return Tlv(0xA0, Tlv(kSequence, strObject));
}
std::string Mask(const std::string& strObject, const std::string& strParameter) {
    return Tlv(0xA1, Tlv(kSequence, strObject + strParameter));
}
std::string Salt(const std::string& strNumber) {
    return Tlv(0xA2, Tlv(0x02, strNumber));
}
const std::string kMaskSha256 = Mask(kMgf1, Tlv(kSequence, kSha256));

// A certificate with an RSA key whose algorithm is the given one. Only its parameters matter.
X509Ptr Certificate(int nAlgorithm, int nType, const std::string& strParameters) {
    const KeyPtr key(EVP_RSA_gen(1024));
    X509Ptr certificate(X509_new());
    X509_set_pubkey(certificate.get(), key.get());
    ASN1_STRING* pParameters = nullptr;
    if (nType == V_ASN1_SEQUENCE) {
        pParameters = ASN1_STRING_new();
        ASN1_STRING_set(pParameters, strParameters.data(), static_cast<int>(strParameters.size()));
    }
    X509_PUBKEY_set0_param(X509_get_X509_PUBKEY(certificate.get()), OBJ_nid2obj(nAlgorithm), nType, pParameters,
                           nullptr, 0);
    return certificate;
}

// Why the certificate does not sign with SHA-256; empty: it does.
std::string Refusal(const X509Ptr& certificate) {
    try {
        RequirePssAllowed(certificate.get(), EVP_sha256());
        return "";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Number(), VCTK_E_SIGN_FAILED);
        return failure.Detail();
    }
}

struct Parameters : Row {
    std::string strFields;
    std::string strRefusal;  // empty: it signs
};

class PssParameters : public testing::TestWithParam<Parameters> {};

TEST_P(PssParameters, DecideWithTheReason) {
    const std::string strDer = Tlv(kSequence, GetParam().strFields);
    const std::string strRefusal = Refusal(Certificate(NID_rsassaPss, V_ASN1_SEQUENCE, strDer));
    if (GetParam().strRefusal.empty()) {
        EXPECT_EQ(strRefusal, "");
    } else {
        EXPECT_NE(strRefusal.find("the certificate is for RSASSA-PSS " + GetParam().strRefusal), std::string::npos)
            << strRefusal;
    }
}

constexpr const char* kTwoDigests = "with different digests in the signature and in MGF1";

INSTANTIATE_TEST_SUITE_P(
    , PssParameters,
    testing::Values(Parameters{"Whole", Digest(kSha256) + kMaskSha256 + Salt("\x20"), ""},
                    Parameters{"DefaultSalt", Digest(kSha256) + kMaskSha256, ""},
                    Parameters{"SaltTooLong", Digest(kSha256) + kMaskSha256 + Salt("\x21"),
                               "with a salt of at least 33 bytes; the salt is as long as the digest, 32 bytes"},
                    Parameters{"SaltThatNobodyHas", Digest(kSha256) + kMaskSha256 + Salt("\x7F" + std::string(8, 'x')),
                               "with a salt of at least 9223372036854775807 bytes"},
                    Parameters{"NegativeSalt", Digest(kSha256) + kMaskSha256 + Salt("\xFF"), ""},
                    Parameters{"AllDefaults", "", "with SHA1 only, which is not offered"},
                    Parameters{"DigestThatNobodyKnows", Digest(kOther) + Mask(kMgf1, Tlv(kSequence, kOther)),
                               "with 1.2.3.4 only, which is not offered"},
                    Parameters{"DigestThatOpenSslLacks", Digest(kWeak) + Mask(kMgf1, Tlv(kSequence, kWeak)),
                               "with MD4 only, which is not offered"},
                    Parameters{"OtherDigest", Digest(kSha512) + Mask(kMgf1, Tlv(kSequence, kSha512)),
                               "with SHA-512 only; set this digest"},
                    Parameters{"DefaultMask", Digest(kSha256), kTwoDigests},
                    Parameters{"DefaultDigest", kMaskSha256, kTwoDigests},
                    Parameters{"OtherMaskFunction", Digest(kSha256) + Mask(kOther, Tlv(kSequence, kSha256)),
                               kTwoDigests},
                    Parameters{"MaskWithoutDigest", Digest(kSha256) + Mask(kMgf1, Tlv(0x05, "")), kTwoDigests},
                    Parameters{"MaskWithGarbage", Digest(kSha256) + Mask(kMgf1, Tlv(kSequence, "\x02")), kTwoDigests},
                    Parameters{"Garbage", "garbage", "with parameters that cannot be read"}),
    RowName);

TEST(PssParametersOf, AnotherTypeCannotBeRead) {
    EXPECT_EQ(Refusal(Certificate(NID_rsassaPss, V_ASN1_NULL, "")),
              "the certificate is for RSASSA-PSS with parameters that cannot be read");
}

TEST(PssParametersOf, NoneOrAnotherAlgorithmAllowEveryDigest) {
    EXPECT_EQ(Refusal(Certificate(NID_rsassaPss, V_ASN1_UNDEF, "")), "");
    EXPECT_EQ(Refusal(Certificate(NID_rsaEncryption, V_ASN1_NULL, "")), "");
}

}  // namespace
}  // namespace vextk
