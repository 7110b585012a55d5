// Every fault of a P7 that vexsign verify promises to find, beside the verdict of "openssl cms -verify".
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>

#include "KnownReports.h"
#include "Row.h"
#include "VerifyWorld.h"
#include "vexsign/verify/SignedDataForm.h"
#include "vexsign/verify/Time.h"
#include "vexsign/verify/Verification.h"

namespace vexsign::verify {
namespace {

// A signature and how it is verified. Without changes it is good.
struct Trial {
    std::string strSigner = "ec";
    std::string strKey;  // empty: the signer's
    Recipe recipe;
    std::string strSigned = kContent;
    std::string strGiven = kContent;
    bool bGiven = true;
    bool bAttached = false;
    bool bCertificate = true;
    std::vector<std::string> signers;  // further ones
    Change change;                     // of the whole signature

    std::string strTrusted = "root";
    std::vector<std::string> certificateFiles;  // each names a signer
    std::string strAt;
    bool bAnyPurpose = false;
    std::string strOpenSsl;  // further options

    std::string strTime = "";  // of signing; empty: now
};

using Attributes = std::vector<std::string>;

Attributes AttributesOf(const Trial& trial, X509* pCertificate) {
    return {ContentTypeAttribute(), DigestAttribute(DigestOf(trial.recipe.pszDigest, trial.strSigned)),
            TimeAttribute(trial.strTime.empty() ? UtcTime(std::time(nullptr)) : trial.strTime),
            BindingAttribute(pCertificate)};
}

struct Case : Row {
    std::function<void(Trial&)> prepare;
    std::function<void(Trial&, Attributes&)> attributes;  // may be null
    const char* pszFailed;                                // the checks that fail; empty: it is good
    std::optional<bool> openSsl;                          // whether openssl accepts it; nothing: it is not asked
};

class VerifySignedData : public testing::TestWithParam<Case> {};

TEST_P(VerifySignedData, FindsEachFault) {
    const World& world = World::Get();
    const Case& row = GetParam();
    Trial trial;
    if (row.prepare) {
        row.prepare(trial);
    }
    const TestSigner signer = SignerOf(trial.strSigner, trial.strKey);
    trial.recipe.pSigner = &signer;
    trial.recipe.attributes = AttributesOf(trial, signer.certificate.get());
    if (row.attributes) {
        row.attributes(trial, trial.recipe.attributes);
    }
    std::vector<std::string> signers = {MakeSigner(trial.recipe, trial.strSigned)};
    signers.insert(signers.end(), trial.signers.begin(), trial.signers.end());
    const std::vector<X509*> certificates =
        trial.bCertificate ? std::vector<X509*>{signer.certificate.get()} : std::vector<X509*>();
    std::string strSignature =
        MakeSignedData(signers, certificates, trial.bAttached ? &trial.strSigned : nullptr, trial.recipe.pszDigestOid);
    if (trial.change) {
        strSignature = trial.change(strSignature);
    }

    Settings settings = SettingsFor(trial.strTrusted);
    if (!trial.strAt.empty()) {
        settings.nMoment = ParseMoment(trial.strAt).value();
    }
    settings.bAnyPurpose = trial.bAnyPurpose;
    std::string strGivenCertificates;
    for (const std::string& strFile : trial.certificateFiles) {
        AddSigner(CertificatesOf(strFile), settings);
        strGivenCertificates += ReadWholeFile(world.File(strFile + ".crt"));
    }
    const Reader reader = ReaderOf(trial.strGiven);
    const Report report = Verify(strSignature, settings, trial.bGiven ? &reader : nullptr);
    EXPECT_EQ(FailuresOf(report), row.pszFailed) << TextOf(report);
    EXPECT_EQ(report.IsGood(), *row.pszFailed == '\0') << TextOf(report);
    ExpectKnownReport(report, "SignedData.txt");

    if (row.openSsl) {
        const std::string strTrust = trial.strTrusted.empty()
                                         ? " -noverify"
                                         : " -partial_chain -CAfile " + world.File(trial.strTrusted + ".crt");
        const std::string strCertificate =
            trial.certificateFiles.empty() ? "" : " -certfile " + world.Write("given", strGivenCertificates);
        const std::string strContent = trial.bGiven ? " -content " + world.Write("content", trial.strGiven) : "";
        const CommandResult result = RunCommand(
            "openssl cms -verify -binary -inform DER -out /dev/null -in " + world.Write("signature", strSignature) +
            strTrust + strCertificate + strContent + (trial.bAnyPurpose ? " -purpose any" : "") + trial.strOpenSsl);
        EXPECT_EQ(result.nStatus == 0, *row.openSsl) << result.strOutput;
    }
}

// The same content, signed by another key as a second signer.
std::string SecondSigner(const std::string& strName, const std::string& strKey = "") {
    static const TestSigner s_rsa = SignerOf("rsa");
    const TestSigner other = SignerOf(strName, strKey);
    Recipe recipe;
    recipe.pSigner = &s_rsa;
    recipe.pOtherKey = other.key.get();
    Trial trial;
    recipe.attributes = AttributesOf(trial, s_rsa.certificate.get());
    return MakeSigner(recipe, kContent);
}

EVP_PKEY* KeyOf(const std::string& strName) {
    static std::map<std::string, TestSigner> s_signers;
    return s_signers.try_emplace(strName, SignerOf(strName)).first->second.key.get();
}

Change Always(const std::string& strBytes) {
    return [strBytes](const std::string&) { return strBytes; };
}

// Twenty bytes below the order of the curve P-256, and more than it.
const std::string kSome(20, '\x11');
const std::string kAboveOrder = std::string(1, '\0') + std::string(32, '\xFF');

void UseDigest(Trial& trial, const char* pszDigest, const char* pszOid) {
    trial.strSigner = "rsa";
    trial.recipe.pszDigest = pszDigest;
    trial.recipe.pszDigestOid = pszOid;
}

// The first length becomes one byte longer than needed.
std::string WithLongLength(std::string bytes) {
    return bytes.insert(1, "\x81");
}

std::string Indefinite(std::string bytes) {
    std::string_view rest = bytes;
    // The signature is longer than 255 bytes, so its header has four.
    rest.remove_prefix(4);
    return std::string("\x30\x80", 2) + std::string(rest) + std::string(2, '\0');
}

INSTANTIATE_TEST_SUITE_P(
    Whole, VerifySignedData,
    testing::Values(
        Case{{"Good"}, nullptr, nullptr, "", true},
        Case{{"GoodRsa"}, [](Trial& trial) { trial.strSigner = "rsa"; }, nullptr, "", true},
        Case{{"Attached"}, [](Trial& trial) { trial.bAttached = true, trial.bGiven = false; }, nullptr, "", true},
        Case{{"AttachedAndTheSameFile"}, [](Trial& trial) { trial.bAttached = true; }, nullptr, "", std::nullopt},
        Case{{"AttachedAndAnotherFile"},
             [](Trial& trial) { trial.bAttached = true, trial.strGiven = "other"; },
             nullptr,
             "content",
             std::nullopt},
        Case{{"ContentChanged"},
             [](Trial& trial) { trial.strGiven = "I owe you 900 euros.\n"; },
             nullptr,
             "content",
             false},
        Case{{"ContentMissing"}, [](Trial& trial) { trial.bGiven = false; }, nullptr, "content", false},
        Case{{"BerOutsideOfAttributes"}, [](Trial& trial) { trial.change = Indefinite; }, nullptr, "", true},
        Case{{"TrailingByte"},
             [](Trial& trial) { trial.change = [](const std::string& s) { return s + "\n"; }; },
             nullptr,
             "form",
             true},
        Case{{"Truncated"},
             [](Trial& trial) { trial.change = [](const std::string& s) { return s.substr(0, s.size() - 1); }; },
             nullptr,
             "form",
             false},
        Case{{"TwoSigners"},
             [](Trial& trial) {
                 trial.signers = {SecondSigner("rsa")}, trial.certificateFiles = {"ec", "rsa"};
             },
             nullptr,
             "",
             true},
        Case{{"SecondSignerWrong"},
             [](Trial& trial) {
                 trial.signers = {SecondSigner("rsa", "ec")}, trial.certificateFiles = {"ec", "rsa"};
             },
             nullptr,
             "signature",
             false},
        Case{{"SecondSignerUnknown"},
             [](Trial& trial) { trial.signers = {SecondSigner("rsa")}; },
             nullptr,
             "certificate",
             false},
        Case{{"TooManySigners"},
             [](Trial& trial) {
                 trial.signers.assign(kMostSigners, SecondSigner("rsa")), trial.certificateFiles = {"ec", "rsa"};
             },
             nullptr,
             "form",
             true}),
    RowName);

INSTANTIATE_TEST_SUITE_P(
    SignedAttributes, VerifySignedData,
    testing::Values(
        Case{{"None"}, nullptr, [](Trial&, Attributes& a) { a.clear(); }, "attributes content", true},
        Case{{"NoContentType"}, nullptr, [](Trial&, Attributes& a) { a.erase(a.begin()); }, "attributes", false},
        Case{{"OtherContentType"},
             nullptr,
             [](Trial&, Attributes& a) { a[0] = ContentTypeAttribute("1.2.840.113549.1.7.5"); },
             "attributes",
             std::nullopt},
        Case{{"ContentTypeTwice"}, nullptr, [](Trial&, Attributes& a) { a.push_back(a[0]); }, "attributes", false},
        Case{{"NoMessageDigest"},
             nullptr,
             [](Trial&, Attributes& a) { a.erase(a.begin() + 1); },
             "attributes content",
             false},
        Case{{"WrongMessageDigest"},
             nullptr,
             [](Trial&, Attributes& a) { a[1] = DigestAttribute(DigestOf("SHA256", "other")); },
             "content",
             false},
        Case{{"EmptyMessageDigest"},
             nullptr,
             [](Trial&, Attributes& a) { a[1] = DigestAttribute(""); },
             "content",
             false},
        Case{{"MessageDigestTwice"},
             nullptr,
             [](Trial&, Attributes& a) { a.push_back(DigestAttribute(DigestOf("SHA256", "other"))); },
             "attributes content",
             false},
        Case{{"NoSigningTime"}, nullptr, [](Trial&, Attributes& a) { a.erase(a.begin() + 2); }, "", true},
        Case{{"SigningTimeTwice"}, nullptr, [](Trial&, Attributes& a) { a.push_back(a[2]); }, "attributes", false},
        Case{{"SigningTimeImpossible"},
             nullptr,
             [](Trial&, Attributes& a) { a[2] = TimeAttribute("261399000000Z"); },
             "attributes",
             std::nullopt},
        // These two were signed as DER with another encoding or order than in the file, which openssl does not notice.
        Case{
            {"Ber"}, [](Trial& trial) { trial.recipe.attributesInFile = WithLongLength; }, nullptr, "attributes", true},
        Case{{"Unsorted"},
             [](Trial& trial) { trial.recipe.bSorted = false; },
             [](Trial&, Attributes& a) {
                 std::sort(a.begin(), a.end());
                 std::swap(a.front(), a.back());
             },
             "attributes",
             true},
        Case{{"ChangedAfterSigning"},
             [](Trial& trial) {
                 trial.recipe.attributesInFile = [](std::string s) {
                     s.back() = static_cast<char>(s.back() ^ 1);
                     return s;
                 };
             },
             nullptr,
             // The last attribute is the longest: the one that names the certificate.
             "signature binding",
             false},
        Case{{"NoBinding"}, nullptr, [](Trial&, Attributes& a) { a.pop_back(); }, "", true},
        Case{{"BindingNamesAnother"},
             [](Trial& trial) { trial.strOpenSsl = " -cades"; },
             [](Trial&, Attributes& a) { a.back() = BindingAttribute(SignerOf("rsa").certificate.get()); },
             "binding",
             false},
        Case{{"BindingNamesTheTwinOfTheKey"},
             [](Trial& trial) { trial.strOpenSsl = " -cades"; },
             [](Trial&, Attributes& a) { a.back() = BindingAttribute(SignerOf("twin", "ec").certificate.get()); },
             "binding",
             false}),
    RowName);

INSTANTIATE_TEST_SUITE_P(
    SignatureValue, VerifySignedData,
    testing::Values(
        Case{{"OtherKey"}, [](Trial& trial) { trial.recipe.pOtherKey = KeyOf("below"); }, nullptr, "signature", false},
        Case{
            {"OtherCurve"}, [](Trial& trial) { trial.recipe.pOtherKey = KeyOf("ec384"); }, nullptr, "signature", false},
        Case{{"OtherKindOfKey"},
             [](Trial& trial) { trial.recipe.pOtherKey = KeyOf("rsa"); },
             nullptr,
             "signature",
             false},
        Case{{"RIsZero"},
             [](Trial& trial) { trial.recipe.signature = Always(EcdsaSequence(kZero, kSome)); },
             nullptr,
             "signature",
             false},
        Case{{"SIsZero"},
             [](Trial& trial) { trial.recipe.signature = Always(EcdsaSequence(kSome, kZero)); },
             nullptr,
             "signature",
             false},
        Case{{"RIsAboveTheOrder"},
             [](Trial& trial) { trial.recipe.signature = Always(EcdsaSequence(kAboveOrder, kSome)); },
             nullptr,
             "signature",
             false},
        Case{{"SIsAboveTheOrder"},
             [](Trial& trial) { trial.recipe.signature = Always(EcdsaSequence(kSome, kAboveOrder)); },
             nullptr,
             "signature",
             false},
        Case{
            {"EcdsaInBer"}, [](Trial& trial) { trial.recipe.signature = WithLongLength; }, nullptr, "signature", false},
        Case{{"EcdsaWithTrailingByte"},
             [](Trial& trial) { trial.recipe.signature = [](const std::string& s) { return s + '\0'; }; },
             nullptr,
             "signature",
             false},
        Case{{"EcdsaEmpty"}, [](Trial& trial) { trial.recipe.signature = Always(""); }, nullptr, "signature", false},
        Case{{"RsaWithTrailingByte"},
             [](Trial& trial) {
                 trial.strSigner = "rsa";
                 trial.recipe.signature = [](const std::string& s) { return s + '\0'; };
             },
             nullptr,
             "signature",
             false},
        Case{{"RsaShort"},
             [](Trial& trial) {
                 trial.strSigner = "rsa";
                 trial.recipe.signature = [](const std::string& s) { return s.substr(1); };
             },
             nullptr,
             "signature",
             false}),
    RowName);

INSTANTIATE_TEST_SUITE_P(
    Algorithms, VerifySignedData,
    testing::Values(
        Case{{"Sha1"}, [](Trial& trial) { UseDigest(trial, "SHA1", kSha1); }, nullptr, "algorithm", true},
        Case{{"Md5"}, [](Trial& trial) { UseDigest(trial, "MD5", kMd5); }, nullptr, "algorithm", true},
        Case{{"WrongDigestNamed"},
             [](Trial& trial) {
                 trial.strSigner = "rsa";
                 trial.recipe.pszDigestOid = kSha1;
             },
             nullptr,
             "content algorithm signature",
             false},
        Case{{"UnknownDigest"},
             [](Trial& trial) { trial.recipe.pszDigestOid = "1.2.3.4"; },
             nullptr,
             "content algorithm signature",
             false},
        // ecdsa-with-SHA384, although everything is SHA-256; openssl ignores what it says.
        Case{{"DigestContradictsSignature"},
             [](Trial& trial) { trial.recipe.pszSignatureOid = "1.2.840.10045.4.3.3"; },
             nullptr,
             "algorithm",
             true},
        Case{{"KeyContradictsSignature"},
             [](Trial& trial) { trial.recipe.pszSignatureOid = "1.2.840.113549.1.1.11"; },
             nullptr,
             "algorithm",
             std::nullopt},
        // The chain has it, too.
        Case{{"ShortKey"}, [](Trial& trial) { trial.strSigner = "short"; }, nullptr, "algorithm chain", true}),
    RowName);

INSTANTIATE_TEST_SUITE_P(
    Certificate, VerifySignedData,
    testing::Values(
        Case{{"Missing"}, [](Trial& trial) { trial.bCertificate = false; }, nullptr, "certificate", false},
        Case{{"Given"},
             [](Trial& trial) { trial.bCertificate = false, trial.certificateFiles = {"ec"}; },
             nullptr,
             "",
             true},
        Case{{"GivenIsAnother"},
             [](Trial& trial) { trial.certificateFiles = {"rsa"}; },
             nullptr,
             "certificate",
             std::nullopt},
        Case{{"GivenTwoAreOthers"},
             [](Trial& trial) {
                 trial.certificateFiles = {"rsa", "twin"};
             },
             nullptr,
             "certificate",
             std::nullopt},
        // Who signs with the key of an issuer is not the signer.
        Case{{"GivenAsAnIssuer"},
             [](Trial& trial) { trial.certificateFiles = {"rsa-and-ec"}; },
             nullptr,
             "certificate",
             std::nullopt},
        Case{{"NotChecked"},
             [](Trial& trial) {
                 trial.strSigner = "alone";
                 trial.strTrusted.clear();
             },
             nullptr,
             "",
             true},
        Case{{"SelfSignedAndUnknown"}, [](Trial& trial) { trial.strSigner = "alone"; }, nullptr, "chain", false},
        Case{{"SelfSignedAndTrusted"},
             [](Trial& trial) { trial.strSigner = trial.strTrusted = "alone"; },
             nullptr,
             "",
             true},
        Case{{"IntermediateMissing"}, [](Trial& trial) { trial.strSigner = "below"; }, nullptr, "chain", false},
        Case{{"IntermediateGiven"},
             [](Trial& trial) { trial.strSigner = "below", trial.certificateFiles = {"below-and-middle"}; },
             nullptr,
             "",
             // openssl does not follow the chain of -certfile.
             std::nullopt},
        Case{{"IntermediateTrusted"},
             [](Trial& trial) { trial.strSigner = "below", trial.strTrusted = "middle"; },
             nullptr,
             "",
             true},
        Case{{"Authority"},
             [](Trial& trial) { trial.strSigner = "middle"; },
             nullptr,
             // openssl's purpose is no better.
             "usage chain",
             false},
        Case{{"AuthorityForAnyPurpose"},
             [](Trial& trial) { trial.strSigner = "middle", trial.bAnyPurpose = true; },
             nullptr,
             "usage",
             std::nullopt},
        Case{{"ForServers"},
             [](Trial& trial) { trial.strSigner = trial.strTrusted = "server"; },
             nullptr,
             "chain",
             false},
        Case{{"ForServersAccepted"},
             [](Trial& trial) { trial.strSigner = trial.strTrusted = "server", trial.bAnyPurpose = true; },
             nullptr,
             "",
             true},
        Case{{"OfAnotherNetscapeType"},
             [](Trial& trial) { trial.strSigner = trial.strTrusted = "old"; },
             nullptr,
             "chain",
             false},
        Case{{"OfAnotherNetscapeTypeAccepted"},
             [](Trial& trial) { trial.strSigner = trial.strTrusted = "old", trial.bAnyPurpose = true; },
             nullptr,
             "",
             true},
        Case{{"Expired"},
             [](Trial& trial) {
                 trial.strSigner = trial.strTrusted = "expired";
                 trial.strKey = "ec";
                 trial.strTime = "200115000000Z";
             },
             nullptr,
             "validity chain",
             false},
        Case{{"NotExpiredThen"},
             [](Trial& trial) {
                 trial.strSigner = trial.strTrusted = "expired";
                 trial.strKey = "ec";
                 trial.strTime = "200115000000Z";
                 trial.strAt = "2020-01-20T00:00:00Z";
                 trial.strOpenSsl = " -attime " + std::to_string(ParseMoment(trial.strAt).value());
             },
             nullptr,
             "",
             true},
        Case{{"NotYetValid"},
             [](Trial& trial) {
                 trial.strSigner = trial.strTrusted = "expired";
                 trial.strKey = "ec";
                 trial.strTime = "200115000000Z";
                 trial.strAt = "2019-12-31T23:59:59Z";
                 trial.strOpenSsl = " -attime " + std::to_string(ParseMoment(trial.strAt).value());
             },
             nullptr,
             "validity chain time",
             false},
        Case{{"ClaimedTimeBeforeIt"}, [](Trial& trial) { trial.strTime = "200115000000Z"; }, nullptr, "time", true},
        Case{{"ClaimedTimeInTheFuture"},
             [](Trial& trial) { trial.strTime = UtcTime(std::time(nullptr) + 86400); },
             nullptr,
             "time",
             true}),
    RowName);

}  // namespace
}  // namespace vexsign::verify
