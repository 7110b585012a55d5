// The text that VCTK_GetCertList returns.
#include <gtest/gtest.h>

#include "TestStore.h"
#include "ToolkitClient.h"
#include "VCTKFilter.h"

namespace {

class CertificateListTest : public testing::Test {
protected:
    std::string Openssl(const std::string& strArguments) {
        std::string strText =
            RunCommand("openssl x509 -noout -in " + m_directory.Path("a.crt") + " " + strArguments).strOutput;
        strText.erase(0, strText.find('=') + 1);
        return strText.substr(0, strText.find('\n'));
    }

    TempDirectory m_directory;
};

TEST_F(CertificateListTest, ShowsTheFieldsOfTheCertificate) {
    MakeIdentity(m_directory, {"a", "rsa:2048", "/CN=Ann  B/O= X, \\\"Y\\\" /OU=\xE7\xAD\xBE\xE5\x90\x8D", 30,
                               "-set_serial 0x00F1"});
    const ToolkitClient client("file:" + MakePemStore(m_directory, "s.pem", {"a"}));
    ASSERT_TRUE(client.IsOpen());
    const auto records = client.Records();
    ASSERT_EQ(records.size(), 1U);
    const std::vector<std::string>& record = records[0];
    ASSERT_EQ(record.size(), 7U);
    EXPECT_EQ(record[0], "F1");
    std::string strFingerprint = Openssl("-fingerprint -sha256");
    std::erase(strFingerprint, ':');
    EXPECT_EQ(record[1], strFingerprint);
    const std::string strBegin = Openssl("-startdate -dateopt iso_8601");
    EXPECT_EQ(record[2], strBegin.substr(0, 10) + "T" + strBegin.substr(11));
    const std::string strEnd = Openssl("-enddate -dateopt iso_8601");
    EXPECT_EQ(record[3], strEnd.substr(0, 10) + "T" + strEnd.substr(11));
    EXPECT_EQ(record[4], "RSA");
    EXPECT_EQ(record[5], "OU=\xE7\xAD\xBE\xE5\x90\x8D,O=\\20X\\,\\20\\\"Y\\\"\\20,CN=Ann\\20\\20B");
    EXPECT_EQ(record[6], record[5]);
}

TEST_F(CertificateListTest, WithCertificatesHasTheNamesInTheStore) {
    MakeIdentity(m_directory, {"a"});
    for (const auto& [strOptions, strField] : {std::pair<std::string, std::string>{"", ""},
                                               {"-name 'Ann B\xC3\x96%-._~/Z9'", "Ann%20B%C3%96%25-._~%2FZ9"},
                                               {"-name 'two\r\nlines'", "two%0D%0Alines"}}) {
        const std::string strStore = "file:" + MakePkcs12Store(m_directory, "a", strOptions) + "?pin-value=" + kTestPin;
        const auto records = ToolkitClient(strStore + "&list=certificates").Records();
        ASSERT_EQ(records.size(), 1U) << strOptions;
        ASSERT_EQ(records[0].size(), 9U) << strOptions;
        EXPECT_EQ(records[0][7], strField) << strOptions;
        EXPECT_EQ(ToolkitClient(strStore).Records().at(0),
                  std::vector<std::string>(records[0].begin(), records[0].end() - 2));
    }
}

TEST_F(CertificateListTest, UsesTheCallersSeparators) {
    MakeIdentity(m_directory, {"a"});
    MakeIdentity(m_directory, {"b", "ec -pkeyopt ec_paramgen_curve:P-256"});
    const ToolkitClient client("file:" + MakePemStore(m_directory, "s.pem", {"a", "b"}));
    const std::string strList = client.CertificateList("<R>", "<F>").value();
    EXPECT_EQ(strList.find("\r\n"), std::string::npos);
    EXPECT_EQ(strList.find(' '), std::string::npos);
    size_t cFields = 0;
    for (size_t n = strList.find("<F>"); n != std::string::npos; n = strList.find("<F>", n + 1)) {
        ++cFields;
    }
    EXPECT_EQ(cFields, 2U * 6U);
    EXPECT_EQ(strList.find("<R>"), strList.rfind("<R>"));
    EXPECT_FALSE(client.CertificateList(nullptr, " "));
    EXPECT_EQ(client.LastError(), VCTK_E_INVALID_ARGUMENT);
    EXPECT_FALSE(client.CertificateList("\r\n", nullptr));
}

TEST_F(CertificateListTest, AnEmptyListIsAnEmptyText) {
    MakeIdentity(m_directory, {"a"});
    const ToolkitClient client("file:" + MakePemStore(m_directory, "s.pem", {"a"}));
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_KEY_ALGORITHM, "EC"), 0);
    int nLength = 0;
    EXPECT_EQ(VCTK_GetCertList(client.Handle(), "\r\n", " ", nullptr, &nLength), 0);
    EXPECT_EQ(nLength, 1);
    EXPECT_EQ(client.CertificateList(), "");
}

TEST_F(CertificateListTest, AFilterTakesANegativeSerialNumberAsListed) {
    MakeIdentity(m_directory, {"a", "rsa:2048", "/CN=Negative", 30, "-set_serial -0x1A5"});
    const ToolkitClient client("file:" + MakePemStore(m_directory, "s.pem", {"a"}));
    ASSERT_EQ(client.Records().size(), 1U);
    EXPECT_EQ(client.Records()[0][0], "-01A5");
    for (const char* pszValue : {"-01A5", "-1a5", "-01:A5"}) {
        ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SERIAL, pszValue), 0) << pszValue;
        EXPECT_EQ(client.Records().size(), 1U) << pszValue;
    }
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SERIAL, "1A5"), 0);
    EXPECT_EQ(client.CertificateList(), "");
}

// Blanks at the ends of a value, and a backslash before what would be an escaped blank.
TEST_F(CertificateListTest, AFilterTakesANameAsListed) {
    for (const char* pszName : {R"(odd 20)", R"( odd )", R"(odd\\20)", R"(odd\\)"}) {
        MakeIdentity(m_directory, {"odd", "ec -pkeyopt ec_paramgen_curve:P-256", std::string("/CN=") + pszName});
        const ToolkitClient client("file:" + MakePemStore(m_directory, "odd.pem", {"odd"}));
        const auto records = client.Records();
        ASSERT_EQ(records.size(), 1U);
        ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SUBJECT, records[0].at(5).c_str()), 0);
        EXPECT_EQ(client.Records(), records) << records[0].at(5);
    }
}

TEST_F(CertificateListTest, AYearHasFourDigits) {
    MakeIdentity(m_directory, {"a"}, "09500101000000Z", "29500101000000Z");
    const ToolkitClient client("file:" + MakePemStore(m_directory, "s.pem", {"a"}));
    ASSERT_EQ(client.Records().size(), 1U);
    EXPECT_EQ(client.Records()[0][2], "0950-01-01T00:00:00Z");
    EXPECT_EQ(client.Records()[0][3], "2950-01-01T00:00:00Z");
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_VALID_AT, "0950-01-01T00:00:00Z"), 0) << client.Message();
    EXPECT_EQ(client.Records().size(), 1U);
}

TEST_F(CertificateListTest, OnlyCertificatesValidNowAreCandidates) {
    MakeIdentity(m_directory, {"a"});
    MakeExpiredCertificate(m_directory.Path(), "a.key", "old");
    RequireCommand("cd " + m_directory.Path() + " && cp a.key old.key");
    const ToolkitClient client("file:" + MakePemStore(m_directory, "s.pem", {"old"}));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_EQ(client.CertificateList(), "");
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_NO_CERTIFICATE);
}

}  // namespace
