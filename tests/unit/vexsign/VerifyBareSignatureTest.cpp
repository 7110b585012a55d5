// Every fault of a P1 that vexsign verify promises to find, beside the verdict of "openssl dgst" or "openssl pkeyutl".
#include <gtest/gtest.h>

#include <optional>
#include <tuple>

#include "KnownReports.h"
#include "Row.h"
#include "VerifyWorld.h"
#include "vexsign/verify/Verification.h"

namespace vexsign::verify {
namespace {

struct BareCase : Row {
    const char* pszSigner;
    const char* pszSignOptions;  // of openssl dgst -sign
    const char* pszDigest;       // --digest
    Change change;               // of the signature; may be null
    const char* pszContent;
    const char* pszFailed;
    const char* pszAlgorithm;
    std::optional<bool> openSsl;  // whether openssl accepts it with the options of pszSignOptions; nothing: not asked
};

class VerifyBareSignature : public testing::TestWithParam<BareCase> {};

TEST_P(VerifyBareSignature, FindsEachFault) {
    const World& world = World::Get();
    const BareCase& row = GetParam();
    world.Write("content", kContent);
    RequireCommand("cd " + world.Directory().Path() + " && openssl dgst " + row.pszSignOptions + " -sign " +
                   row.pszSigner + ".key -out bare content");
    std::string strSignature = ReadWholeFile(world.File("bare"));
    if (row.change) {
        strSignature = row.change(strSignature);
    }
    Settings settings = SettingsFor("root");
    AddSigner(CertificatesOf(row.pszSigner), settings);
    settings.strDigest = row.pszDigest;
    const Reader reader = ReaderOf(row.pszContent);
    const Report report = Verify(strSignature, settings, &reader);
    EXPECT_EQ(FailuresOf(report), row.pszFailed) << TextOf(report);
    EXPECT_EQ(report.IsGood(), *row.pszFailed == '\0') << TextOf(report);
    ExpectKnownReport(report, "BareSignature.txt");
    ASSERT_EQ(report.signers.size(), 1U);
    EXPECT_EQ(report.signers[0].strAlgorithm, row.pszAlgorithm);

    if (!row.openSsl) {
        return;
    }
    world.Write("bare", strSignature);
    world.Write("content", row.pszContent);
    const CommandResult result = RunCommand("cd " + world.Directory().Path() + " && openssl x509 -in " + row.pszSigner +
                                            ".crt -noout -pubkey -out bare.pub && openssl dgst " + row.pszSignOptions +
                                            " -verify bare.pub -signature bare content");
    EXPECT_EQ(result.nStatus == 0, *row.openSsl) << result.strOutput;
}

// "openssl dgst" reads no more of the file than the key's longest signature has.
std::string Plus(const std::string& strSignature) {
    return strSignature + '\0';
}

std::string Shorter(const std::string& strSignature) {
    return strSignature.substr(0, strSignature.size() - 1);
}

std::string LongLength(std::string strSignature) {
    return strSignature.insert(1, "\x81");
}

Change Pair(const std::string& r, const std::string& s) {
    return [r, s](const std::string&) { return EcdsaSequence(r, s); };
}

// By a key of P-384.
std::string OfOtherCurve(const std::string&) {
    return SignBytes(SignerOf("ec384").key.get(), "SHA256", kContent);
}

std::string OfOtherKey(const std::string&) {
    return SignBytes(SignerOf("below").key.get(), "SHA256", kContent);
}

constexpr const char* kPss = "-sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest";
constexpr const char* kEc256 = "ECDSA with SHA-256";
constexpr const char* kRsa256 = "RSASSA-PKCS1-v1_5 with SHA-256";
// The order of P-256 and one less.
const std::string kOrder(
    "\x00\xFF\xFF\xFF\xFF\x00\x00\x00\x00\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xBC\xE6\xFA\xAD\xA7"
    "\x17\x9E\x84\xF3\xB9\xCA\xC2\xFC\x63\x25\x51",
    33);
const std::string kSmall("\x05");
const std::string kNegative("\x85");

INSTANTIATE_TEST_SUITE_P(
    Ec, VerifyBareSignature,
    testing::Values(
        BareCase{{"Good"}, "ec", "-sha256", "", nullptr, kContent, "", kEc256, true},
        BareCase{{"Named"}, "ec", "-sha256", "SHA256", nullptr, kContent, "", kEc256, true},
        BareCase{{"Sha384"}, "ec", "-sha384", "", nullptr, kContent, "", "ECDSA with SHA-384", true},
        BareCase{{"Sha3"}, "ec", "-sha3-512", "", nullptr, kContent, "", "ECDSA with SHA3-512", true},
        BareCase{{"LongerKey"}, "ec384", "-sha256", "", nullptr, kContent, "", kEc256, true},
        BareCase{{"WrongHash"}, "ec", "-sha384", "SHA256", nullptr, kContent, "signature", "", true},
        BareCase{{"ContentChanged"}, "ec", "-sha256", "", nullptr, "I owe you 900 euros.\n", "signature", "", false},
        BareCase{{"OtherKey"}, "ec", "-sha256", "", OfOtherKey, kContent, "signature", "", false},
        BareCase{{"OtherCurve"}, "ec", "-sha256", "", OfOtherCurve, kContent, "signature", "", false},
        BareCase{{"RIsZero"}, "ec", "-sha256", "", Pair(kZero, kSmall), kContent, "signature", "", false},
        BareCase{{"SIsZero"}, "ec", "-sha256", "", Pair(kSmall, kZero), kContent, "signature", "", false},
        BareCase{{"BothZero"}, "ec", "-sha256", "", Pair(kZero, kZero), kContent, "signature", "", false},
        BareCase{{"RIsTheOrder"}, "ec", "-sha256", "", Pair(kOrder, kSmall), kContent, "signature", "", false},
        BareCase{{"SIsTheOrder"}, "ec", "-sha256", "", Pair(kSmall, kOrder), kContent, "signature", "", false},
        BareCase{{"RIsNegative"}, "ec", "-sha256", "", Pair(kNegative, kSmall), kContent, "signature", "", false},
        BareCase{{"Ber"}, "ec", "-sha256", "", LongLength, kContent, "signature", "", false},
        BareCase{{"TrailingByte"}, "ec", "-sha256", "", Plus, kContent, "signature", "", std::nullopt},
        BareCase{{"Truncated"}, "ec", "-sha256", "", Shorter, kContent, "signature", "", false},
        BareCase{{"Sha1"}, "ec", "-sha1", "", nullptr, kContent, "algorithm", "ECDSA with SHA-1", true},
        BareCase{{"Sha1Named"}, "ec", "-sha1", "SHA1", nullptr, kContent, "algorithm", "ECDSA with SHA-1", true}),
    RowName);

INSTANTIATE_TEST_SUITE_P(
    Rsa, VerifyBareSignature,
    testing::Values(
        BareCase{{"Good"}, "rsa", "-sha256", "", nullptr, kContent, "", kRsa256, true},
        BareCase{{"Named"}, "rsa", "-sha512", "sha-512", nullptr, kContent, "", "RSASSA-PKCS1-v1_5 with SHA-512", true},
        BareCase{{"TruncatedHash"},
                 "rsa",
                 "-sha512-256",
                 "",
                 nullptr,
                 kContent,
                 "",
                 "RSASSA-PKCS1-v1_5 with SHA-512/256",
                 true},
        BareCase{{"Pss"}, "rsa", kPss, "", nullptr, kContent, "", "RSASSA-PSS with SHA-256", true},
        BareCase{{"PssNamed"}, "rsa", kPss, "SHA-256/PSS", nullptr, kContent, "", "RSASSA-PSS with SHA-256", true},
        BareCase{{"PssNamedWithoutPss"}, "rsa", kPss, "SHA-256", nullptr, kContent, "signature", "", true},
        BareCase{{"NamedPssWithoutPss"}, "rsa", "-sha256", "SHA-256/PSS", nullptr, kContent, "signature", "", true},
        BareCase{{"WrongHash"}, "rsa", "-sha256", "SHA384", nullptr, kContent, "signature", "", true},
        BareCase{{"ContentChanged"}, "rsa", "-sha256", "", nullptr, "", "signature", "", false},
        BareCase{{"TrailingByte"}, "rsa", "-sha256", "", Plus, kContent, "signature", "", std::nullopt},
        BareCase{{"Truncated"}, "rsa", "-sha256", "", Shorter, kContent, "signature", "", false},
        BareCase{{"OfAnEcKey"}, "rsa", "-sha256", "", OfOtherKey, kContent, "signature", "", false},
        BareCase{{"Md5"}, "rsa", "-md5", "", nullptr, kContent, "algorithm", "RSASSA-PKCS1-v1_5 with MD5", true},
        // The key is refused before it is used.
        BareCase{{"ShortKey"}, "short", "-sha256", "", nullptr, kContent, "algorithm chain", "", true}),
    RowName);

TEST(VerifyEdwards, ChecksTheWholeContent) {
    const World& world = World::Get();
    const std::string strContent(1000000, 'x');
    world.Write("content", strContent);
    RequireCommand("cd " + world.Directory().Path() +
                   " && openssl pkeyutl -sign -rawin -inkey ed.key -in content -out bare");
    const std::string strSignature = ReadWholeFile(world.File("bare"));
    Settings settings = SettingsFor("root");
    AddSigner(CertificatesOf("ed"), settings);
    const auto failures = [&](const std::string& strBytes, std::string_view content) {
        const Reader reader = ReaderOf(content);
        const Report report = Verify(strBytes, settings, &reader);
        EXPECT_EQ(report.IsGood(), FailuresOf(report).empty());
        EXPECT_EQ(report.signers.at(0).strAlgorithm, "Ed25519");
        return FailuresOf(report);
    };
    EXPECT_EQ(failures(strSignature, strContent), "");
    EXPECT_EQ(failures(strSignature, std::string_view(strContent).substr(1)), "signature");
    EXPECT_EQ(failures(strSignature + "x", strContent), "signature");
    EXPECT_EQ(failures(strSignature.substr(1), strContent), "signature");
}

TEST(VerifyBare, NeedsCertificateAndContent) {
    const std::string strSignature = SignBytes(SignerOf("ec").key.get(), "SHA256", kContent);
    const Reader reader = ReaderOf(kContent);
    EXPECT_EQ(FailuresOf(Verify(strSignature, SettingsFor("root"), &reader)), "certificate");
    Settings settings = SettingsFor("root");
    AddSigner(CertificatesOf("ec"), settings);
    EXPECT_EQ(FailuresOf(Verify(strSignature, settings, nullptr)), "content");
    EXPECT_FALSE(Verify(strSignature, settings, nullptr).IsGood());
    EXPECT_EQ(FailuresOf(Verify("", settings, &reader)), "form");
    AddSigner(CertificatesOf("rsa"), settings);
    const Report report = Verify(strSignature, settings, &reader);
    EXPECT_EQ(FailuresOf(report), "certificate");
    // Neither of the two is taken for the signer.
    ASSERT_EQ(report.signers.size(), 1U);
    EXPECT_FALSE(report.signers[0].certificate);
    EXPECT_EQ(report.signers[0].checks.size(), 1U);
}

// The issuers' certificates in the file of the signer's are used, but not trusted.
TEST(VerifyBare, FollowsTheChainOfTheGivenFile) {
    const std::string strSignature = SignBytes(SignerOf("below").key.get(), "SHA256", kContent);
    for (const auto& [pszTrusted, pszGiven, pszFailed] : {
             std::tuple{"root", "below-and-middle", ""},
             std::tuple{"root", "below", "chain"},
             std::tuple{"alone", "below-and-middle", "chain"},
         }) {
        Settings settings = SettingsFor(pszTrusted);
        AddSigner(CertificatesOf(pszGiven), settings);
        const Reader reader = ReaderOf(kContent);
        const Report report = Verify(strSignature, settings, &reader);
        EXPECT_EQ(FailuresOf(report), pszFailed) << pszTrusted << " " << pszGiven;
    }
}

// Trusts another root than the signer's.
TEST(VerifyBare, SaysWhoseTrustIsMissing) {
    const std::string strSignature = SignBytes(SignerOf("ec").key.get(), "SHA256", kContent);
    for (const auto& [trust, pszText] : {
             std::pair{Trust::kFiles,
                       "none of the --ca files has the issuer of a certificate of the chain (CN=Signer)"},
             std::pair{Trust::kSystem,
                       "this system's trusted certificates do not have the issuer of a certificate of "
                       "the chain (CN=Signer)"},
         }) {
        Settings settings = SettingsFor("alone");
        settings.trust = trust;
        AddSigner(CertificatesOf("ec"), settings);
        const Reader reader = ReaderOf(kContent);
        const Report report = Verify(strSignature, settings, &reader);
        EXPECT_EQ(FailuresOf(report), "chain");
        EXPECT_NE(TextOf(report).find(std::string("chain: ") + pszText), std::string::npos) << TextOf(report);
    }
}

}  // namespace
}  // namespace vexsign::verify
