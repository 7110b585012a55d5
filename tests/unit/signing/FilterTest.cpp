// Which certificates pass which filters, and which one then signs.
#include "VCTKFilter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <ctime>

#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

// One has serial 0A0B and alone restricts its key usages, one is valid for the longest time, one has another issuer.
class FilterTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        MakeIdentity(*s_pDirectory, {"anna", "rsa:2048", "/CN=Anna Weiss/O=Acme, Inc", 30,
                                     "-set_serial 0x0A0B -addext keyUsage=digitalSignature,keyAgreement"
                                     " -addext extendedKeyUsage=emailProtection,1.2.3.4"
                                     " -addext certificatePolicies=1.3.6.1.4.1.99999.1,2.999.7"});
        MakeIdentity(*s_pDirectory, {"bo", "ec -pkeyopt ec_paramgen_curve:P-256", "/CN=B\xC3\x96 \xE7\xAD\xBE", 90,
                                     "-set_serial 5 -addext extendedKeyUsage=anyExtendedKeyUsage"
                                     " -addext certificatePolicies=2.5.29.32.0"});
        MakeIdentity(*s_pDirectory, {"root", "rsa:2048", "/CN=Root", 60});
        RequireCommand("cd " + s_pDirectory->Path() +
                       " && openssl req -new -nodes -newkey rsa:2048 -keyout cleo.key -out cleo.csr -subj '/CN=Cleo'"
                       " && openssl x509 -req -in cleo.csr -CA root.crt -CAkey root.key -set_serial 0xFFEEDDCCBBAA"
                       " -days 10 -out cleo.crt");
        MakePemStore(*s_pDirectory, "store.pem", {"anna", "bo", "cleo"});
        std::setlocale(LC_ALL, "C.UTF-8");
    }
    static void TearDownTestSuite() {
        std::setlocale(LC_ALL, "C");
        delete s_pDirectory;
    }

    static std::string Uri() { return "file:" + s_pDirectory->Path("store.pem"); }

    // The first letters of the common names that pass, in order.
    static std::string Passing(const ToolkitClient& client) {
        std::string strNames;
        for (const auto& record : client.Records()) {
            strNames += record.at(5).at(record.at(5).find("CN=") + 3);
        }
        return strNames;
    }

    static std::string Fingerprint(size_t nRecord) { return ToolkitClient(Uri()).Records().at(nRecord).at(1); }

    static TempDirectory* s_pDirectory;
};
TempDirectory* FilterTest::s_pDirectory = nullptr;

struct Case {
    ULONG ulType;
    const char* pszValue;
    const char* pszPassing;
};

class FilterPasses : public FilterTest, public testing::WithParamInterface<Case> {};

TEST_P(FilterPasses, TheseCertificates) {
    const ToolkitClient client(Uri());
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), GetParam().ulType, GetParam().pszValue), 0) << client.Message();
    EXPECT_EQ(Passing(client), GetParam().pszPassing);
}

INSTANTIATE_TEST_SUITE_P(
    All, FilterPasses,
    testing::Values(Case{VCTK_FILTER_ISSUER, "root", "C"}, Case{VCTK_FILTER_ISSUER, "CN=", "ABC"},
                    Case{VCTK_FILTER_ISSUER, "cleo", ""}, Case{VCTK_FILTER_SUBJECT, "cleo", "C"},
                    Case{VCTK_FILTER_SUBJECT, "CN=Anna Weiss", "A"}, Case{VCTK_FILTER_SUBJECT, "anna wEISS", "A"},
                    Case{VCTK_FILTER_SUBJECT, "Anna\\20Weiss", "A"}, Case{VCTK_FILTER_SUBJECT, "O=Acme\\, Inc", "A"},
                    Case{VCTK_FILTER_SUBJECT, "O=Acme, Inc", ""}, Case{VCTK_FILTER_SUBJECT, "Weiss\\", ""},
                    Case{VCTK_FILTER_SUBJECT, "b\xC3\xB6 \xE7\xAD\xBE", "B"}, Case{VCTK_FILTER_SUBJECT, "nobody", ""},
                    Case{VCTK_FILTER_SERIAL, "0A0B", "A"}, Case{VCTK_FILTER_SERIAL, "a0b", "A"},
                    Case{VCTK_FILTER_SERIAL, "0a:0B", "A"}, Case{VCTK_FILTER_SERIAL, "00000A0B", "A"},
                    Case{VCTK_FILTER_SERIAL, "5", "B"}, Case{VCTK_FILTER_SERIAL, "0A", ""},
                    Case{VCTK_FILTER_SERIAL, "-5", ""}, Case{VCTK_FILTER_SERIAL, "0", ""},
                    Case{VCTK_FILTER_SERIAL, "ff:ee:dd:cc:bb:aa", "C"},
                    Case{VCTK_FILTER_KEY_USAGE, "digitalSignature", "ABC"},
                    Case{VCTK_FILTER_KEY_USAGE, "KEYAGREEMENT", "ABC"},
                    Case{VCTK_FILTER_KEY_USAGE, "nonRepudiation", "BC"}, Case{VCTK_FILTER_KEY_USAGE, "cRLSign", "BC"},
                    Case{VCTK_FILTER_KEY_ALGORITHM, "RSA", "AC"}, Case{VCTK_FILTER_KEY_ALGORITHM, "ec", "B"}));

// OpenSSL writes "CN=#", which is no RFC 4514 text.
TEST_F(FilterTest, AMarkThatIsAWholeValueIsEscaped) {
    const TempDirectory directory;
    MakeIdentity(directory, {"mark", "ec -pkeyopt ec_paramgen_curve:P-256", "/O=#/CN=#a/L=x+OU=#/title=a#"});
    const ToolkitClient client("file:" + MakePemStore(directory, "mark.pem", {"mark"}));
    const std::string strSubject = client.Records().at(0).at(5);
    EXPECT_EQ(strSubject, "title=a#,OU=\\#+L=x,CN=\\#a,O=\\#");
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SUBJECT_NAME, strSubject.c_str()), 0) << client.Message();
    EXPECT_EQ(client.Records().size(), 1U);
}

// The validity of the certificates begins when the test creates them.
std::string UtcText(int nDays) {
    const std::time_t time = std::time(nullptr) + std::time_t{nDays} * 24 * 60 * 60;
    std::tm parts{};
    char szText[32];
    EXPECT_NE(std::strftime(szText, sizeof szText, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&time, &parts)), 0U);
    return szText;
}

TEST_F(FilterTest, ValidAtATime) {
    struct {
        int nDays;
        const char* pszPassing;
    } const cases[] = {{-1, ""}, {0, "ABC"}, {9, "ABC"}, {11, "AB"}, {31, "B"}, {91, ""}};
    for (const auto& expected : cases) {
        const ToolkitClient client(Uri());
        ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_VALID_AT, UtcText(expected.nDays).c_str()), 0);
        EXPECT_EQ(Passing(client), expected.pszPassing) << expected.nDays;
    }
}

TEST_F(FilterTest, ValidAtTheLastSecondAndNotOneLater) {
    const std::string strLast = ToolkitClient(Uri()).Records().at(2).at(3);
    const ToolkitClient client(Uri());
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_VALID_AT, strLast.c_str()), 0) << client.Message();
    EXPECT_EQ(Passing(client), "ABC");

    std::tm parts{};
    ASSERT_NE(strptime(strLast.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts), nullptr);
    const std::time_t time = timegm(&parts) + 1;
    char szBehind[32];
    ASSERT_NE(std::strftime(szBehind, sizeof szBehind, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&time, &parts)), 0U);
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_VALID_AT, szBehind), 0) << client.Message();
    EXPECT_EQ(Passing(client), "AB");
}

INSTANTIATE_TEST_SUITE_P(KeyUsageAll, FilterPasses,
                         testing::Values(Case{VCTK_FILTER_KEY_USAGE_ALL, "digitalSignature", "A"},
                                         Case{VCTK_FILTER_KEY_USAGE_ALL, "keyAgreement,DIGITALSIGNATURE", "A"},
                                         Case{VCTK_FILTER_KEY_USAGE_ALL, "digitalSignature,nonRepudiation", ""},
                                         Case{VCTK_FILTER_KEY_USAGE_ALL, "contentCommitment", ""}));

INSTANTIATE_TEST_SUITE_P(ExtendedKeyUsage, FilterPasses,
                         testing::Values(Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "emailProtection", "A"},
                                         Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "1.2.3.4,EMAILprotection", "A"},
                                         Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "1.3.6.1.5.5.7.3.4", "A"},
                                         Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "emailProtection,codeSigning", ""},
                                         Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "serverAuth", ""},
                                         Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "2.5.29.37.0", "B"}));

INSTANTIATE_TEST_SUITE_P(
    PolicyAndSize, FilterPasses,
    testing::Values(Case{VCTK_FILTER_POLICY, "1.3.6.1.4.1.99999.1", "A"}, Case{VCTK_FILTER_POLICY, "2.999.7", "A"},
                    Case{VCTK_FILTER_POLICY, "2.999", ""}, Case{VCTK_FILTER_POLICY, "2.5.29.32.0", "B"},
                    Case{VCTK_FILTER_KEY_SIZE, "2048", "AC"}, Case{VCTK_FILTER_KEY_SIZE, "2049", ""},
                    Case{VCTK_FILTER_KEY_SIZE, "256", "ABC"}, Case{VCTK_FILTER_KEY_SIZE, "257", "AC"},
                    Case{VCTK_FILTER_KEY_SIZE, "0", "ABC"}));

INSTANTIATE_TEST_SUITE_P(WholeNames, FilterPasses,
                         testing::Values(Case{VCTK_FILTER_SUBJECT_NAME, "O=Acme\\, Inc,CN=Anna Weiss", "A"},
                                         Case{VCTK_FILTER_SUBJECT_NAME, "o=ACME\\2C  inc , cn=anna\\20weiss", "A"},
                                         Case{VCTK_FILTER_SUBJECT_NAME, "CN=Anna Weiss", ""},
                                         Case{VCTK_FILTER_SUBJECT_NAME, "CN=Anna Weiss,O=Acme\\, Inc", ""},
                                         Case{VCTK_FILTER_SUBJECT_NAME, "CN=b\xC3\xB6 \xE7\xAD\xBE", "B"},
                                         Case{VCTK_FILTER_SUBJECT_NAME, "CN=Root", ""},
                                         Case{VCTK_FILTER_ISSUER_NAME, "cn=root", "C"},
                                         Case{VCTK_FILTER_ISSUER_NAME, "CN=Cleo", ""}));

class FilterRefused : public FilterTest, public testing::WithParamInterface<Case> {};

TEST_P(FilterRefused, AndNothingChanges) {
    const ToolkitClient client(Uri());
    const VCTKError nExpected =
        GetParam().ulType >= 1 && GetParam().ulType <= 13 ? VCTK_E_FILTER_VALUE : VCTK_E_FILTER_TYPE;
    EXPECT_EQ(VCTK_AddFilter(client.Handle(), GetParam().ulType, GetParam().pszValue), nExpected);
    EXPECT_EQ(client.LastError(), nExpected);
    EXPECT_NE(client.Message(), "");
    EXPECT_EQ(Passing(client), "ABC");
}

INSTANTIATE_TEST_SUITE_P(All, FilterRefused,
                         testing::Values(Case{0, "x", ""}, Case{0, "", ""}, Case{14, "x", ""}, Case{14, "", ""},
                                         Case{0x100000001, "root", ""}, Case{~0UL, "root", ""},
                                         Case{VCTK_FILTER_ISSUER, "", ""}, Case{VCTK_FILTER_SUBJECT, "", ""},
                                         Case{VCTK_FILTER_SERIAL, "", ""}, Case{VCTK_FILTER_FINGERPRINT, "", ""},
                                         Case{VCTK_FILTER_KEY_USAGE, "", ""}, Case{VCTK_FILTER_KEY_ALGORITHM, "", ""},
                                         Case{VCTK_FILTER_SUBJECT, "\xFF\xFE", ""}, Case{VCTK_FILTER_SERIAL, "0x5", ""},
                                         Case{VCTK_FILTER_SERIAL, "5 ", ""}, Case{VCTK_FILTER_SERIAL, "-", ""},
                                         Case{VCTK_FILTER_SERIAL, "--5", ""}, Case{VCTK_FILTER_SERIAL, "-:05", ""},
                                         Case{VCTK_FILTER_SERIAL, ":05", ""}, Case{VCTK_FILTER_SERIAL, "05:", ""},
                                         Case{VCTK_FILTER_SERIAL, "0:5", ""}, Case{VCTK_FILTER_SERIAL, "0A::0B", ""},
                                         Case{VCTK_FILTER_FINGERPRINT, "0A0B", ""},
                                         Case{VCTK_FILTER_KEY_USAGE, "signing", ""},
                                         Case{VCTK_FILTER_KEY_USAGE, "digitalSignature,keyAgreement", ""},
                                         Case{VCTK_FILTER_KEY_ALGORITHM, "DSA", ""}));

INSTANTIATE_TEST_SUITE_P(
    Later, FilterRefused,
    testing::Values(
        Case{VCTK_FILTER_KEY_USAGE_ALL, "", ""}, Case{VCTK_FILTER_KEY_USAGE_ALL, "signing", ""},
        Case{VCTK_FILTER_KEY_USAGE_ALL, "digitalSignature,", ""},
        Case{VCTK_FILTER_KEY_USAGE_ALL, ",digitalSignature", ""},
        Case{VCTK_FILTER_KEY_USAGE_ALL, "digitalSignature, keyAgreement", ""},
        Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "", ""}, Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "email", ""},
        Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "emailProtection,", ""}, Case{VCTK_FILTER_EXTENDED_KEY_USAGE, "1.2 3", ""},
        Case{VCTK_FILTER_VALID_AT, "", ""}, Case{VCTK_FILTER_VALID_AT, "2026-11-21", ""},
        Case{VCTK_FILTER_VALID_AT, "2026-11-21T05:00:00", ""}, Case{VCTK_FILTER_VALID_AT, "2026-11-21T05:00:00z", ""},
        Case{VCTK_FILTER_VALID_AT, "2026-11-21T05:00:00+", ""}, Case{VCTK_FILTER_VALID_AT, "2026-11-21T05:00:-1Z", ""},
        Case{VCTK_FILTER_VALID_AT, "2026-02-29T05:00:00Z", ""}, Case{VCTK_FILTER_VALID_AT, "2026-13-01T05:00:00Z", ""},
        Case{VCTK_FILTER_VALID_AT, "2026-00-01T05:00:00Z", ""}, Case{VCTK_FILTER_VALID_AT, "2026-11-21T24:00:00Z", ""},
        Case{VCTK_FILTER_VALID_AT, "2026-11-21T05:60:00Z", ""}, Case{VCTK_FILTER_VALID_AT, "2026-11-21T05:00:61Z", ""},
        Case{VCTK_FILTER_POLICY, "", ""}, Case{VCTK_FILTER_POLICY, "anyPolicy", ""}, Case{VCTK_FILTER_POLICY, "1", ""},
        Case{VCTK_FILTER_POLICY, "1.2.", ""}, Case{VCTK_FILTER_POLICY, "1 2 3", ""},
        Case{VCTK_FILTER_POLICY, "1.2,1.3", ""}, Case{VCTK_FILTER_KEY_SIZE, "", ""},
        Case{VCTK_FILTER_KEY_SIZE, "-1", ""}, Case{VCTK_FILTER_KEY_SIZE, "+1", ""},
        Case{VCTK_FILTER_KEY_SIZE, "2048 ", ""}, Case{VCTK_FILTER_KEY_SIZE, "0x10", ""},
        Case{VCTK_FILTER_KEY_SIZE, "99999999999", ""}, Case{VCTK_FILTER_SUBJECT_NAME, "", ""},
        Case{VCTK_FILTER_SUBJECT_NAME, "Anna", ""}, Case{VCTK_FILTER_SUBJECT_NAME, "CN=\xFF", ""},
        Case{VCTK_FILTER_ISSUER_NAME, "", ""}, Case{VCTK_FILTER_ISSUER_NAME, "Nobody=x", ""}));

// OpenSSL's time to read such a number grows with the square of its length, to minutes.
TEST_F(FilterTest, ALongNumberIsRefusedAtOnce) {
    const std::string strLong = "1.2." + std::string(1 << 20, '9');
    for (const auto& [ulType, strValue] : {std::pair{VCTK_FILTER_POLICY, strLong},
                                           {VCTK_FILTER_EXTENDED_KEY_USAGE, strLong},
                                           {VCTK_FILTER_SUBJECT_NAME, strLong + "=x"}}) {
        const ToolkitClient client(Uri());
        EXPECT_EQ(VCTK_AddFilter(client.Handle(), ulType, strValue.c_str()), VCTK_E_FILTER_VALUE) << ulType;
    }
}

TEST_F(FilterTest, FingerprintInAnySpelling) {
    const std::string strFingerprint = Fingerprint(1);
    std::string strColons;
    for (size_t i = 0; i < strFingerprint.size(); ++i) {
        strColons += i > 0 && i % 2 == 0 ? ":" : "";
        strColons += static_cast<char>(std::tolower(strFingerprint[i]));
    }
    for (const std::string& strValue : {strFingerprint, strColons}) {
        const ToolkitClient client(Uri());
        ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_FINGERPRINT, strValue.c_str()), 0) << client.Message();
        EXPECT_EQ(Passing(client), "B");
    }
}

TEST_F(FilterTest, EveryFilterHasToPass) {
    const ToolkitClient client(Uri());
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_KEY_ALGORITHM, "RSA"), 0);
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SUBJECT, "Anna"), 0);
    EXPECT_EQ(Passing(client), "A");
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SUBJECT, "Cleo"), 0);
    EXPECT_EQ(client.CertificateList(), "");
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_NO_CERTIFICATE);
    ASSERT_EQ(VCTK_ClearFilter(client.Handle()), 0);
    EXPECT_EQ(Passing(client), "ABC");
}

TEST_F(FilterTest, TheCertificateThatStaysValidLongestSigns) {
    const ToolkitClient client(Uri());
    ASSERT_TRUE(client.SignP1("text"));
    const auto strBo = client.SignCertificate();
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_KEY_ALGORITHM, "RSA"), 0);
    EXPECT_EQ(client.SignCertificate(), strBo) << "the certificate of the last signature";
    ASSERT_TRUE(client.SignP1("text"));
    EXPECT_NE(client.SignCertificate(), strBo);
    const std::string strAnna =
        RunCommand("openssl x509 -in " + s_pDirectory->Path("anna.crt") + " -outform DER | base64 -w0").strOutput;
    EXPECT_EQ(client.SignCertificate(), strAnna);
}

TEST_F(FilterTest, SingleChoiceNeedsExactlyOne) {
    const ToolkitClient client(Uri());
    ASSERT_EQ(VCTK_SetChooseSingleCert(client.Handle(), -7), 0);
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_SEVERAL_CERTIFICATES);
    EXPECT_NE(client.Message().find("3 certificates"), std::string::npos) << client.Message();
    EXPECT_FALSE(client.SignCertificate());
    EXPECT_EQ(client.LastError(), VCTK_E_SEVERAL_CERTIFICATES);

    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_ISSUER, "Root"), 0);
    EXPECT_TRUE(client.SignP1("text")) << client.Message();

    ASSERT_EQ(VCTK_ClearFilter(client.Handle()), 0);
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_KEY_ALGORITHM, "RSA"), 0);
    ASSERT_EQ(client.Records().size(), 2U);
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_SEVERAL_CERTIFICATES);

    ASSERT_EQ(VCTK_ClearFilter(client.Handle()), 0);
    ASSERT_EQ(VCTK_SetChooseSingleCert(client.Handle(), 0), 0);
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
}

}  // namespace
