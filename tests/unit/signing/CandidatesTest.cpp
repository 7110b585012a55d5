// Which certificates of a store can sign, and what the toolkit reports about the others.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Row.h"
#include "TestStore.h"
#include "ToolkitClient.h"
#include "VCTKFilter.h"

namespace {

class CandidatesTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        const TempDirectory& directory = *s_pDirectory;
        constexpr const char* kEc = "ec -pkeyopt ec_paramgen_curve:P-256";
        MakeIdentity(directory, {"plain", kEc});
        MakeIdentity(directory, {"signature", kEc, "/CN=Test", 30, "-addext keyUsage=digitalSignature"});
        MakeIdentity(directory, {"commitment", kEc, "/CN=Test", 30, "-addext keyUsage=nonRepudiation"});
        MakeIdentity(directory, {"encryption", kEc, "/CN=Test", 3650, "-addext keyUsage=keyEncipherment"});
        MakeIdentity(directory, {"authority", kEc, "/CN=Test", 3650, "-addext keyUsage=keyCertSign,cRLSign"});
        MakeIdentity(directory, {"old", kEc}, "20240101000000Z", "20260301235959Z");
        MakeIdentity(directory, {"older", kEc}, "20240101000000Z", "20250301235959Z");
        MakeIdentity(directory, {"medieval", kEc}, "09500101000000Z", "09510101000000Z");
        MakeIdentity(directory, {"next", kEc}, "25500101000000Z", "25510101000000Z");
        MakeIdentity(directory, {"later", kEc}, "25600101000000Z", "25610101000000Z");
        MakeIdentity(directory, {"rsa1024", "rsa:1024"});
        MakeIdentity(directory, {"rsa2047", "rsa:2047"});
        MakeIdentity(directory, {"p192", "ec -pkeyopt ec_paramgen_curve:P-192"});
        MakeIdentity(directory, {"p224", "ec -pkeyopt ec_paramgen_curve:P-224"});
        MakeIdentity(directory, {"explicit", "ec -pkeyopt ec_paramgen_curve:P-256 -pkeyopt ec_param_enc:explicit"});
        // A key that agrees on keys and signs nothing.
        RequireCommand("cd " + directory.Path() +
                       " && openssl genpkey -algorithm X25519 -out x25519.key && openssl pkey -in x25519.key -pubout"
                       " -out x25519.pub && openssl req -new -key plain.key -subj /CN=x -out x25519.csr"
                       " && openssl x509 -req -in x25519.csr -CA plain.crt -CAkey plain.key -CAcreateserial -days 30"
                       " -force_pubkey x25519.pub -out x25519.crt");
        RequireCommand("cd " + directory.Path() +
                       " && cp plain.crt keyless.crt && : > keyless.key"
                       " && openssl x509 -in plain.crt -outform DER -out plain.der");
        MakeChanged("timeless", "\x17\x0D", 2, 'x');
        MakeChanged("endless", "\x17\x0D", 2 + 13 + 2, 'x');
        // Turns the sequence in the extension basicConstraints into a NULL.
        MakeChanged("malformed", std::string("\x55\x1D\x13\x01\x01\xFF\x04", 7), 8, '\x05');
    }
    static void TearDownTestSuite() { delete s_pDirectory; }

    // The key and certificate of "plain". One byte of the certificate is changed, at a distance behind a known text.
    static void MakeChanged(const std::string& strName, const std::string& strText, size_t nBehind, char chNew) {
        std::string strDer = ReadWholeFile(s_pDirectory->Path("plain.der"));
        const size_t nFound = strDer.find(strText);
        ASSERT_NE(nFound, std::string::npos) << strName;
        strDer.at(nFound + nBehind) = chNew;
        s_pDirectory->Write(strName + ".der", strDer);
        RequireCommand("cd " + s_pDirectory->Path() + " && cp plain.key " + strName +
                       ".key && (echo -----BEGIN CERTIFICATE----- && base64 " + strName +
                       ".der && echo -----END CERTIFICATE-----) > " + strName + ".crt");
    }

    static std::string Uri(const std::vector<std::string>& names) {
        std::string strPem;
        for (const std::string& strName : names) {
            strPem += ReadWholeFile(s_pDirectory->Path(strName + ".key"));
            strPem += ReadWholeFile(s_pDirectory->Path(strName + ".crt"));
        }
        return "file:" + s_pDirectory->Write("store.pem", strPem);
    }

    // The last field of each record in the list of all certificates, such as "signs expired".
    static std::string States(const std::string& strUri) {
        std::string strStates;
        for (const auto& record : ToolkitClient(strUri + "?list=all").Records()) {
            EXPECT_EQ(record.size(), 8U);
            strStates += (strStates.empty() ? "" : " ") + record.back();
        }
        return strStates;
    }

    static TempDirectory* s_pDirectory;
};
TempDirectory* CandidatesTest::s_pDirectory = nullptr;

struct Signing : Row {
    const char* pszIdentity;
};

class CandidateSigns : public CandidatesTest, public testing::WithParamInterface<Signing> {};

TEST_P(CandidateSigns, AndOpensslVerifiesItForThePurposeOfSigning) {
    // Certificates that stay valid longer do not sign.
    const std::string strUri = Uri({"encryption", GetParam().pszIdentity, "authority"});
    EXPECT_EQ(States(strUri), "not-for-signing signs not-for-signing");
    const ToolkitClient client(strUri);
    EXPECT_EQ(client.Records().size(), 1U);
    ASSERT_EQ(VCTK_SetChooseSingleCert(client.Handle(), 1), 0);
    const auto strSignature = client.SignP7("text", 0, 0, 1);
    ASSERT_TRUE(strSignature) << client.Message();
    s_pDirectory->Write("p7", *strSignature);
    const CommandResult verified = RunCommand("cd " + s_pDirectory->Path() +
                                              " && base64 -d p7 | openssl cms -verify -binary -inform DER -CAfile " +
                                              GetParam().pszIdentity + ".crt -purpose smimesign");
    EXPECT_EQ(verified.nStatus, 0) << verified.strOutput;
}

INSTANTIATE_TEST_SUITE_P(, CandidateSigns,
                         testing::Values(Signing{"NoKeyUsage", "plain"}, Signing{"DigitalSignature", "signature"},
                                         Signing{"NonRepudiation", "commitment"}, Signing{"ShortestEcKey", "p224"}),
                         RowName);

struct PassedOver : Row {
    std::vector<std::string> names;
    const char* pszText;
    const char* pszStates;
    VCTKError nError = VCTK_E_NO_CERTIFICATE;
};

class CandidatesPassedOver : public CandidatesTest, public testing::WithParamInterface<PassedOver> {};

TEST_P(CandidatesPassedOver, AreReportedWithTheReason) {
    const std::string strUri = Uri(GetParam().names);
    const ToolkitClient client(strUri);
    if (client.IsOpen()) {
        EXPECT_EQ(client.CertificateList(), "");
        EXPECT_FALSE(client.SignP7("text", 0, 0, 1));
        EXPECT_FALSE(client.SignP1("text"));
    }
    EXPECT_EQ(client.LastError(), GetParam().nError);
    const std::string strPath =
        GetParam().nError == VCTK_E_STORE_NO_PRIVATE_KEY ? strUri.substr(std::strlen("file:")) + ": " : "";
    EXPECT_EQ(client.Message(), VCTKErrorMessage(GetParam().nError) + (": " + strPath) + GetParam().pszText);
    EXPECT_EQ(States(strUri), GetParam().pszStates);
}

INSTANTIATE_TEST_SUITE_P(
    , CandidatesPassedOver,
    testing::Values(
        PassedOver{"OldAndEncryption",
                   {"old", "encryption"},
                   "2 passed over: 1 expired on 2026-03-01 (CN=Test), 1 not for signing",
                   "expired not-for-signing"},
        PassedOver{"SeveralOld",
                   {"older", "old", "medieval"},
                   "3 passed over: 3 expired, the last on 2026-03-01 (CN=Test)",
                   "expired expired expired"},
        PassedOver{"Medieval", {"medieval"}, "1 passed over: 1 expired on 0951-01-01 (CN=Test)", "expired"},
        PassedOver{"Next", {"next"}, "1 passed over: 1 not valid before 2550-01-01 (CN=Test)", "not-valid-yet"},
        PassedOver{"SeveralNext",
                   {"later", "next"},
                   "2 passed over: 2 not valid yet, the first before 2550-01-01 (CN=Test)",
                   "not-valid-yet not-valid-yet"},
        PassedOver{
            "ShortRsa", {"rsa2047"}, "1 passed over: 1 with a key too short: RSA 2047 bits", "key-too-short:2047"},
        PassedOver{"ShortEc", {"p192"}, "1 passed over: 1 with a key too short: EC 192 bits", "key-too-short:192"},
        PassedOver{"SeveralShort",
                   {"rsa1024", "p192"},
                   "2 passed over: 2 with a key too short, the first RSA 1024 bits",
                   "key-too-short:1024 key-too-short:192"},
        PassedOver{"ExplicitCurve",
                   {"explicit"},
                   "1 passed over: 1 with an unsupported key: EC on an unnamed curve",
                   "unsupported-key"},
        PassedOver{"OtherAlgorithm",
                   {"x25519"},
                   "1 passed over: 1 with an unsupported key: X25519",
                   "unsupported-key",
                   VCTK_E_STORE_NO_PRIVATE_KEY},
        PassedOver{"Keyless",
                   {"keyless"},
                   "1 passed over: 1 without a private key",
                   "no-private-key",
                   VCTK_E_STORE_NO_PRIVATE_KEY},
        PassedOver{"KeylessBesidesOld",
                   {"old", "keyless"},
                   "2 passed over: 1 expired on 2026-03-01 (CN=Test), 1 without a private key",
                   "expired no-private-key"},
        PassedOver{"BeginThatIsNoTime", {"timeless"}, "1 passed over: 1 damaged", "damaged"},
        PassedOver{"EndThatIsNoTime", {"endless"}, "1 passed over: 1 damaged", "damaged"},
        PassedOver{"MalformedExtensions", {"malformed"}, "1 passed over: 1 damaged", "damaged"}),
    RowName);

TEST_F(CandidatesTest, TheOtherCertificatesStillSign) {
    const std::string strUri = Uri({"explicit", "medieval", "timeless", "malformed", "x25519", "commitment"});
    EXPECT_EQ(States(strUri), "unsupported-key expired damaged damaged unsupported-key signs");
    const ToolkitClient client(strUri);
    EXPECT_EQ(client.Records().size(), 1U);
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
}

TEST_F(CandidatesTest, CountsCertificatesThatFiltersExcludeSeparately) {
    const std::string strUri = Uri({"old", "plain", "p224"});
    const ToolkitClient client(strUri);
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_VALID_AT, "2026-02-01T00:00:00Z"), 0);
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.Message(),
              VCTKErrorMessage(VCTK_E_NO_CERTIFICATE) +
                  std::string(": 3 passed over: 1 expired on 2026-03-01 (CN=Test), 2 not passing the filters"));

    const ToolkitClient all(strUri + "?list=all");
    ASSERT_EQ(VCTK_AddFilter(all.Handle(), VCTK_FILTER_KEY_SIZE, "225"), 0);
    ASSERT_EQ(all.Records().size(), 2U);
    EXPECT_EQ(all.Records()[0][7], "expired");
    EXPECT_EQ(all.Records()[1][7], "signs");
    EXPECT_TRUE(all.SignP1("text")) << all.Message();
}

TEST_F(CandidatesTest, TheSameCertificateTwiceCountsOnce) {
    const ToolkitClient client(Uri({"plain", "keyless", "plain"}));
    ASSERT_EQ(VCTK_SetChooseSingleCert(client.Handle(), 1), 0);
    EXPECT_EQ(client.Records().size(), 1U);
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
}

TEST_F(CandidatesTest, BothCertificatesOfAnEcKeyInTwoPointFormsSign) {
    RequireCommand("cd " + s_pDirectory->Path() +
                   " && openssl ecparam -name prime256v1 -genkey -noout -out long.key"
                   " && openssl ec -in long.key -conv_form compressed -out short.key"
                   " && openssl req -x509 -key long.key -days 30 -subj /CN=Long -out long.crt"
                   " && openssl req -x509 -key short.key -days 30 -subj /CN=Short -out short.crt"
                   " && openssl x509 -in short.crt -noout -pubkey | openssl ec -pubin -noout -text | grep -q 'pub:'"
                   " && test $(openssl x509 -in short.crt -noout -pubkey | wc -c) -lt"
                   " $(openssl x509 -in long.crt -noout -pubkey | wc -c)");
    for (const std::string& strUri : {Uri({"long", "short"}), Uri({"short", "long"})}) {
        EXPECT_EQ(States(strUri), "signs signs");
    }
    for (const char* pszKey : {"long", "short"}) {
        s_pDirectory->Write("one.pem", ReadWholeFile(s_pDirectory->Path(std::string(pszKey) + ".key")) +
                                           ReadWholeFile(s_pDirectory->Path("long.crt")) +
                                           ReadWholeFile(s_pDirectory->Path("short.crt")));
        EXPECT_EQ(States("file:" + s_pDirectory->Path("one.pem")), "signs signs") << pszKey;
    }
}

}  // namespace
