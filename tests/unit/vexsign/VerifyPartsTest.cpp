// The parts of "vexsign verify": encodings, BER, moments, large content, and the report.
#include <gtest/gtest.h>

#include "VerifyWorld.h"
#include "vexsign/Base64.h"
#include "vexsign/verify/Algorithms.h"
#include "vexsign/verify/BareSignature.h"
#include "vexsign/verify/Ber.h"
#include "vexsign/verify/Content.h"
#include "vexsign/verify/Time.h"
#include "vexsign/verify/Verification.h"

namespace vexsign::verify {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

TEST(VerifyBer, TakesElements) {
    std::string_view text = "\x30\x80\x04\x01x\x30\x80\x00\x00\x00\x00\x05\x00"sv;
    const std::optional<Element> element = TakeElement(text);
    ASSERT_TRUE(element);
    EXPECT_EQ(element->body, "\x04\x01x\x30\x80\x00\x00"sv);
    EXPECT_EQ(element->whole.size(), 11U);
    EXPECT_EQ(text, "\x05\x00"sv);
    for (const std::string_view damaged :
         {""sv, "\x30"sv, "\x30\x02\x05"sv, "\x30\x80\x05\x00"sv, "\x30\x80\x05\x00\x00"sv, "\x04\x80\x00\x00"sv,
          "\x30\x84\xFF\xFF\xFF\xFF"sv}) {
        std::string_view rest = damaged;
        EXPECT_FALSE(TakeElement(rest)) << damaged.size();
    }
    const std::string strDeep = std::string(100000, '\x30');
    std::string strNested;
    for (const char ch : strDeep) {
        strNested += ch;
        strNested += '\x80';
    }
    std::string_view nested = strNested;
    EXPECT_FALSE(TakeElement(nested));
}

TEST(VerifyBer, TellsDerFromBer) {
    for (const std::string_view der :
         {""sv, "\x05\x00"sv, "\x30\x02\x05\x00"sv, "\x31\x00\x04\x01x"sv, "\xA0\x02\x05\x00"sv}) {
        EXPECT_TRUE(IsDer(der)) << der.size();
    }
    for (const std::string_view ber : {"\x30\x80\x00\x00"sv, "\x04\x81\x01x"sv, "\x30\x81\x02\x05\x00"sv,
                                       "\x24\x03\x04\x01x"sv, "\x30\x03\x04\x81\x00"sv, "\x10\x00"sv, "\x05"sv}) {
        EXPECT_FALSE(IsDer(ber)) << ber.size();
    }
    EXPECT_TRUE(IsSorted("\x04\x01y\x04\x02xx\x05\x00"sv));
    EXPECT_TRUE(IsSorted("\x04\x01y\x04\x01y"sv));
    EXPECT_FALSE(IsSorted("\x05\x00\x04\x01y"sv));
    EXPECT_FALSE(IsSorted("\x04\x01\x80\x04\x01\x7F"sv));
}

TEST(VerifyEncoding, ReadsEachForm) {
    const std::string strDer = MakeSignedData({}, {}, nullptr);
    const std::string strBase64 = EncodeBase64(strDer);
    const auto pem = [&](const std::string& strLabel) {
        return "-----BEGIN " + strLabel + "-----\n" + strBase64 + "\n-----END " + strLabel + "-----\n";
    };
    EXPECT_EQ(DecodeSignature(strDer), strDer);
    EXPECT_EQ(DecodeSignature(strBase64), strDer);
    EXPECT_EQ(DecodeSignature(strBase64.substr(0, 8) + "\r\n" + strBase64.substr(8) + "\r\n"), strDer);
    EXPECT_EQ(DecodeSignature(pem("CMS")), strDer);
    EXPECT_EQ(DecodeSignature("A letter.\n" + pem("PKCS7")), strDer);
    EXPECT_FALSE(DecodeSignature(pem("CMS") + pem("CMS")));
    EXPECT_FALSE(DecodeSignature(pem("CERTIFICATE")));
    EXPECT_FALSE(DecodeSignature(pem("CMS").substr(0, 40)));
    EXPECT_FALSE(DecodeSignature("-----BEGIN CMS-----\n*\n-----END CMS-----\n"));
    // Text that is not Base64 is taken as bytes, which then are no signature.
    EXPECT_EQ(DecodeSignature("no Base64!"), "no Base64!");
    EXPECT_EQ(DecodeSignature(""), "");
    EXPECT_EQ(KindOf(strDer), Kind::kP7);
    EXPECT_EQ(KindOf(strDer.substr(0, 5)), Kind::kP7);
    EXPECT_EQ(KindOf("\x30\x80\x06"), Kind::kP7);
    EXPECT_EQ(KindOf(EcdsaSequence("\x01", "\x02")), Kind::kP1);
    EXPECT_EQ(KindOf(std::string(256, '\x30')), Kind::kP1);
    EXPECT_EQ(KindOf("\x30"), Kind::kP1);
}

TEST(VerifyEncoding, OfBase64HasBlanksAnywhere) {
    EXPECT_EQ(DecodeBase64("QUJD"), "ABC");
    EXPECT_EQ(DecodeBase64(" Q\tU\rJ\nD \r\n"), "ABC");
    EXPECT_EQ(DecodeBase64("QUI=\n"), "AB");
    for (const char* const pszBad : {"QUJD!", "!QUJD", "QUJD\v", "QUJD\f", "QUJ", "Q UJD=", "QU=I"}) {
        EXPECT_FALSE(DecodeBase64(pszBad)) << pszBad;
    }
}

TEST(VerifyEncoding, KnowsTheForm) {
    const std::string strDer = MakeSignedData({}, {}, nullptr);
    const std::string strBase64 = EncodeBase64(strDer);
    const struct {
        std::string strFile;
        FileForm form;
        const char* pszLabel;
    } rows[] = {
        {strDer, FileForm::kBytes, ""},
        {strBase64 + "\n", FileForm::kBase64, ""},
        {"-----BEGIN CMS-----\n" + strBase64 + "\n-----END CMS-----\n", FileForm::kPem, "CMS"},
        {"-----BEGIN PKCS7-----\n" + strBase64 + "\n-----END PKCS7-----\n", FileForm::kPem, "PKCS7"},
        {"-----BEGIN SIGNED MESSAGE-----\n" + strBase64 + "\n-----END SIGNED MESSAGE-----\n", FileForm::kPem,
         "SIGNED MESSAGE"},
    };
    for (const auto& row : rows) {
        const std::optional<SignatureFile> file = ParseSignatureFile(row.strFile);
        ASSERT_TRUE(file) << row.strFile;
        EXPECT_EQ(file->strBytes, strDer);
        EXPECT_EQ(file->form, row.form);
        EXPECT_EQ(file->strLabel, row.pszLabel);
    }
}

// What was signed decided how the file is read: an old signature in the content stood for the signature.
TEST(VerifyEncoding, IsNotThatOfTheContent) {
    const std::string strBase64 = EncodeBase64(MakeSignedData({}, {}, nullptr));
    const std::string strPem = "-----BEGIN CMS-----\n" + strBase64 + "\n-----END CMS-----\n";
    const std::string strCertificate = ReadWholeFile(World::Get().File("ec.crt"));
    for (const std::string& strContent :
         {"\n" + strPem, "\n" + strPem + strPem, "Certificate:\n" + strCertificate, "\n-----BEGIN CMS-----\n"s}) {
        const std::string strDer = MakeSignedData({}, {}, &strContent);
        std::string_view rest = strDer;
        const std::string strBer = "\x30\x80" + std::string(TakeElement(rest)->body) + "\0\0"s;
        for (const std::string& strFile : {strDer, strBer, strDer.substr(0, strDer.size() - 1), strDer + "x"}) {
            const std::optional<SignatureFile> file = ParseSignatureFile(strFile);
            ASSERT_TRUE(file) << strContent;
            EXPECT_EQ(file->strBytes, strFile);
            EXPECT_EQ(file->form, FileForm::kBytes);
        }
    }
    // Text may begin like a sequence.
    EXPECT_EQ(DecodeSignature("0 letters\n" + strPem), MakeSignedData({}, {}, nullptr));
    EXPECT_EQ(DecodeSignature("0\n" + strPem), MakeSignedData({}, {}, nullptr));
}

// The certificate with the serial number 1 and an issuer of this name.
std::string IssuedBy(const std::string& strName, std::string_view der) {
    std::string_view certificate = TakeElement(der)->body;
    std::string_view fields = TakeElement(certificate)->body;
    const std::string strVersion(TakeElement(fields)->whole);
    TakeElement(fields);
    const std::string strAlgorithm(TakeElement(fields)->whole);
    TakeElement(fields);
    const std::string strValue = ObjectIdentifier("2.5.4.3") + Tlv(V_ASN1_UTF8STRING, strName);
    const std::string strIssuer = Tlv(0x30, Tlv(0x31, Tlv(0x30, strValue)));
    const std::string strFields = strVersion + Tlv(V_ASN1_INTEGER, "\x01") + strAlgorithm + strIssuer;
    return Tlv(0x30, Tlv(0x30, strFields + std::string(fields)) + std::string(certificate));
}

TEST(VerifyEncoding, ReadsCertificates) {
    const World& world = World::Get();
    const std::string strPem = ReadWholeFile(world.File("ec.crt"));
    RequireCommand("openssl x509 -in " + world.File("ec.crt") + " -outform DER -out " + world.File("ec.der"));
    const std::string strDer = ReadWholeFile(world.File("ec.der"));
    const auto count = [](const std::string& strFile) { return sk_X509_num(ReadCertificates(strFile, "name").get()); };
    EXPECT_EQ(count(strPem), 1);
    EXPECT_EQ(count("text\n" + strPem + ReadWholeFile(world.File("root.key")) + strPem), 2);
    EXPECT_EQ(count(strDer), 1);
    EXPECT_EQ(count(EncodeBase64(strDer)), 1);
    for (const std::string& strBad : {std::string(), std::string("x"), strDer + "x",
                                      ReadWholeFile(world.File("root.key")), strPem + strPem.substr(0, 100)}) {
        EXPECT_THROW(count(strBad), std::runtime_error) << strBad.size();
    }
    EXPECT_EQ(count("0 letters\n" + strPem), 1);
    EXPECT_EQ(count(IssuedBy("\n" + strPem + strPem, strDer)), 1);
    const auto fault = [](const std::string& strFile) -> std::string {
        try {
            ReadCertificates(strFile, "name");
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    };
    const std::string strDamaged = "-----BEGIN CERTIFICATE-----\nMAAwAA==\n-----END CERTIFICATE-----\n";
    EXPECT_TRUE(fault(strDamaged).starts_with("name: certificate 1 is damaged: ")) << fault(strDamaged);
    EXPECT_TRUE(fault(strPem + strDamaged).starts_with("name: certificate 2 is damaged: "))
        << fault(strPem + strDamaged);
    EXPECT_EQ(fault(strDamaged).find("unknown reason"), std::string::npos) << fault(strDamaged);
    EXPECT_EQ(fault(ReadWholeFile(world.File("root.key"))), "name: there is PEM in it, but no certificate");
    EXPECT_EQ(fault("x"), "name: it is no certificate in PEM, DER or Base64");
}

TEST(VerifyTime, IsReadAndWritten) {
    EXPECT_EQ(ParseMoment("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(ParseMoment("2026-03-01T12:34:56Z"), 1772368496);
    EXPECT_EQ(TextOf(std::time_t{1772368496}), "2026-03-01T12:34:56Z");
    for (const char* const pszBad :
         {"", "2026-03-01", "2026-02-30T00:00:00Z", "2026-13-01T00:00:00Z", "2026-03-01T24:00:00Z",
          "2026-03-01T12:34:56", "2026-03-01T12:34:56Zx", "2026-03-01 12:34:56Z"}) {
        EXPECT_FALSE(ParseMoment(pszBad)) << pszBad;
    }
}

TEST(VerifyAlgorithms, SayWhatIsWrongWithAKey) {
    EXPECT_EQ(KeyFault(SignerOf("ec").key.get()), "");
    EXPECT_EQ(KeyFault(SignerOf("short").key.get()),
              "the certificate's key has only 1024 bits; RSA needs 2048, EC 224");
    EXPECT_EQ(KeyFault(nullptr), "OpenSSL cannot read the certificate's key");
}

TEST(VerifyDigestNames, AreThoseOfSigning) {
    for (const char* const pszName :
         {"SHA256", "sha-384", "SHA2-512", "SHA512/256", "SHA3-256", "SHA-256/PSS", "MD5"}) {
        EXPECT_TRUE(IsDigestName(pszName)) << pszName;
    }
    for (const char* const pszName : {"", "SHA-257", "prehashed:SHA-256", "/PSS", "AES"}) {
        EXPECT_FALSE(IsDigestName(pszName)) << pszName;
    }
    for (const KnownDigest& known : KnownDigests()) {
        EXPECT_TRUE(IsDigestName(known.pszName)) << known.pszName;
    }
}

// Five gigabytes that are never in memory.
TEST(VerifyContent, IsReadInPieces) {
    constexpr std::size_t kPieces = 20480;
    std::size_t cRead = 0;
    std::size_t cbLargest = 0;
    const Reader reader = [&](char*, std::size_t cbBuffer) { return ++cRead <= kPieces ? cbBuffer : 0; };
    std::uint64_t cb = 0;
    ForEachPiece(reader, [&](std::string_view piece) {
        cb += piece.size();
        cbLargest = std::max(cbLargest, piece.size());
    });
    EXPECT_EQ(cb, std::uint64_t{kPieces} * cbLargest);
    EXPECT_LE(cbLargest, std::size_t{1024} * 1024);
}

std::string JsonOf(const Report& report) {
    vexposix::OutputBuffer output(-1);
    PrintJson(report, output);
    return std::string(output.Pending());
}

Report HostileReport() {
    const TestSigner signer = SignerOf("hostile");
    Recipe recipe;
    recipe.pSigner = &signer;
    recipe.attributes = {ContentTypeAttribute(), DigestAttribute(DigestOf("SHA256", "x"))};
    const std::string strSignature = MakeSignedData({MakeSigner(recipe, "x")}, {signer.certificate.get()}, nullptr);
    const Reader reader = ReaderOf("x");
    Report report = Verify(strSignature, SettingsFor(""), &reader);
    report.strSignature = "a\x1b]0;\"name\xFF";
    return report;
}

TEST(VerifyReport, ShowsHostileNamesVisibly) {
    const Report report = HostileReport();
    ASSERT_TRUE(report.IsGood()) << TextOf(report);
    const std::string strText = TextOf(report);
    for (const char ch : strText) {
        EXPECT_TRUE(ch == '\n' || static_cast<unsigned char>(ch) >= ' ') << strText;
    }
    EXPECT_EQ(strText.find("\xE2\x80\xAE"), std::string::npos) << strText;
    EXPECT_EQ(strText.find("\xC2\x9B"), std::string::npos) << strText;
    EXPECT_NE(strText.find("\\u{202e}gpj"), std::string::npos) << strText;
    EXPECT_NE(strText.find("O=Gr\xC3\xBC\xC3\x9F"), std::string::npos) << strText;
    EXPECT_NE(strText.find("a\\x1b]0;\"name\\xff"), std::string::npos) << strText;
    EXPECT_NE(strText.find("--no-chain"), std::string::npos) << strText;
    EXPECT_NE(strText.find(": the signature is good, but whose certificate it is was not checked\n"), std::string::npos)
        << strText;
}

// Python's parser is the judge.
TEST(VerifyReport, IsJson) {
    const World& world = World::Get();
    Report report = HostileReport();
    SignerReport stamped = report.signers[0];
    stamped.time = SigningTime{"2026-11-22T17:00:02Z", true, ""};
    stamped.stamps = {{"2026-11-22T17:00:02Z", "CN=\"\x1b\xFF", "1.2.3", "0F", "SHA256", true},
                      {"2026-11-22T17:00:03Z", "CN=b", "1.2.4", "10", "SHA512"}};
    report.signers.push_back(stamped);
    world.Write("report.json", JsonOf(report));
    const CommandResult result = RunCommand("python3 - " + world.File("report.json") + " <<'END'\n" + R"(
import json, sys
report = json.load(open(sys.argv[1], encoding="utf-8"))
assert list(report) == ["signature", "type", "detached", "good", "trust", "checked_for", "checks", "signers"]
assert report["signature"] == "a\x1b]0;\"name\ufffd", report["signature"]
assert (report["type"], report["detached"], report["good"], report["trust"]) == ("p7", True, True, "none")
signer, stamped = report["signers"]
assert list(signer) == ["certificate", "signing_time", "time_stamps", "algorithm", "checks"], list(signer)
certificate = signer["certificate"]
assert list(certificate) == ["subject", "issuer", "serial", "fingerprint_sha256", "not_before", "not_after"]
assert "\u202egpj" in certificate["subject"] and "\x9b" in certificate["subject"], certificate["subject"]
assert len(certificate["fingerprint_sha256"]) == 64 and certificate["fingerprint_sha256"].isupper()
assert signer["signing_time"] is None and signer["algorithm"] == "ECDSA with SHA-256"
results = {check["check"]: check["result"] for check in signer["checks"]}
assert results["signature"] == results["content"] == "passed" and results["chain"] == "not-checked", results
assert signer["time_stamps"] == [], signer["time_stamps"]
assert stamped["signing_time"] == {"time": "2026-11-22T17:00:02Z", "proven": True, "claimed": None}, stamped
first, second = stamped["time_stamps"]
assert first == {"time": "2026-11-22T17:00:02Z", "authority": "CN=\"\x1b\ufffd", "policy": "1.2.3", "serial": "0F",
                 "digest": "SHA256", "trusted": True}, first
assert list(second) == list(first) and second["authority"] == "CN=b" and second["trusted"] is False, second
END)");
    EXPECT_EQ(result.nStatus, 0) << result.strOutput;
}

Report ReportOfTwoSigners() {
    Report report;
    report.strSignature = "letter.p7s";
    report.strMoment = "2026-11-23T05:00:00Z";
    report.trust = Trust::kFiles;
    report.Pass(check::kForm, "it is one");
    SignerReport& first = report.signers.emplace_back();
    first.certificate = {"CN=a", "CN=root", "0A", "FF00", "2026-01-01T00:00:00Z", "2027-01-01T00:00:00Z"};
    first.time = SigningTime{"2026-11-22T17:00:02Z", true, "2026-11-22T17:00:01Z"};
    first.stamps = {{"2026-11-22T17:00:02Z", "CN=TSA", "1.2.3", "0F", "SHA256", true},
                    {"2026-11-22T17:00:03Z", "CN=other", "1.2.4", "10", "SHA512"}};
    first.strAlgorithm = "ECDSA with SHA-256";
    first.Skip(check::kRevocation, "nobody is asked");
    first.Pass(check::kContent, "same");
    first.Fail(check::kUsage, "for something else");
    first.Pass(check::kSignature, "made");
    first.Fail(check::kChain, "unknown");
    SignerReport& second = report.signers.emplace_back();
    second.time = SigningTime{"2026-11-22T17:00:05Z"};
    return report;
}

TEST(VerifyReport, HasThisLayout) {
    Report report = ReportOfTwoSigners();
    EXPECT_EQ(TextOf(report), R"(letter.p7s: the signature is NOT good
checked:
  form: it is one
signer 1:
  signed by:      CN=a
  issued by:      CN=root
  serial number:  0A
  fingerprint:    FF00
  valid:          2026-01-01T00:00:00Z to 2027-01-01T00:00:00Z
  signed at:      2026-11-22T17:00:02Z at the latest; a time stamp proves it
  claimed time:   2026-11-22T17:00:01Z, as the signer says
  time stamp:     2026-11-22T17:00:02Z by CN=TSA
  time stamp:     2026-11-22T17:00:03Z by CN=other, not trusted
  algorithm:      ECDSA with SHA-256
  wrong:
    usage: for something else
    chain: unknown
  checked:
    content: same
    signature: made
  not checked:
    revocation: nobody is asked
signer 2:
  signed at:      2026-11-22T17:00:05Z, as the signer says; nothing proves it
)");
    // Without a claim, and a signer whom nobody knows.
    report.signers[0] = report.signers[1];
    report.signers[0].time = SigningTime{"2026-11-22T17:00:02Z", true};
    report.signers.resize(1);
    EXPECT_EQ(TextOf(report), R"(letter.p7s: the signature is NOT good
checked:
  form: it is one
  signed at:      2026-11-22T17:00:02Z at the latest; a time stamp proves it
)");
}

TEST(VerifyReport, HasThisJson) {
    Report report = ReportOfTwoSigners();
    EXPECT_EQ(JsonOf(report),
              R"({"signature":"letter.p7s","type":"p7","detached":true,"good":false,"trust":"ca",)"
              R"("checked_for":"2026-11-23T05:00:00Z",)"
              R"("checks":[{"check":"form","result":"passed","text":"it is one"}],"signers":[)"
              R"({"certificate":{"subject":"CN=a","issuer":"CN=root","serial":"0A","fingerprint_sha256":"FF00",)"
              R"("not_before":"2026-01-01T00:00:00Z","not_after":"2027-01-01T00:00:00Z"},)"
              R"("signing_time":{"time":"2026-11-22T17:00:02Z","proven":true,"claimed":"2026-11-22T17:00:01Z"},)"
              R"("time_stamps":[{"time":"2026-11-22T17:00:02Z","authority":"CN=TSA","policy":"1.2.3","serial":"0F",)"
              R"("digest":"SHA256","trusted":true},{"time":"2026-11-22T17:00:03Z","authority":"CN=other",)"
              R"("policy":"1.2.4","serial":"10","digest":"SHA512","trusted":false}],)"
              R"("algorithm":"ECDSA with SHA-256","checks":[)"
              R"({"check":"revocation","result":"not-checked","text":"nobody is asked"},)"
              R"({"check":"content","result":"passed","text":"same"},)"
              R"({"check":"usage","result":"failed","text":"for something else"},)"
              R"({"check":"signature","result":"passed","text":"made"},)"
              R"({"check":"chain","result":"failed","text":"unknown"}]},)"
              R"({"certificate":null,"signing_time":{"time":"2026-11-22T17:00:05Z","proven":false,"claimed":null},)"
              R"("time_stamps":[],"algorithm":null,"checks":[]}]})"
              "\n");
    report = Report();
    report.kind = Kind::kP1;
    report.bDetached = false;
    report.signers.emplace_back();
    EXPECT_EQ(JsonOf(report), R"({"signature":"","type":"p1","detached":false,"good":false,"trust":"system",)"
                              R"("checked_for":"","checks":[],"signers":[{"certificate":null,"signing_time":null,)"
                              R"("time_stamps":[],"algorithm":null,"checks":[]}]})"
                              "\n");
}

// A check that is missing must not count as passed.
TEST(VerifyReport, IsGoodOnlyWithEveryCheck) {
    const Report good = HostileReport();
    ASSERT_TRUE(good.IsGood());
    EXPECT_FALSE(Report().IsGood());
    for (const char* const pszName :
         {check::kContent, check::kSignature, check::kAlgorithm, check::kAttributes, check::kUsage, check::kValidity}) {
        Report report = good;
        std::erase_if(report.signers[0].checks,
                      [&](const Check& found) { return std::string_view(found.pszName) == pszName; });
        EXPECT_FALSE(report.IsGood()) << pszName;
    }
    Report report = good;
    report.trust = Trust::kFiles;
    EXPECT_FALSE(report.IsGood());
    report = good;
    report.signers.emplace_back();
    EXPECT_FALSE(report.IsGood());
    report = good;
    report.signers[0].Fail(check::kTime, "");
    EXPECT_FALSE(report.IsGood());
}

}  // namespace
}  // namespace vexsign::verify
