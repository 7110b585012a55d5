// Time-stamped P7 signatures, and the store for stamps alone. The openssl command makes the stamps and verifies them.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "RunningAuthority.h"
#include "SystemCalls.h"
#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

std::atomic<int> s_cSockets = 0;

constexpr const char* kText = "text";
// OpenSSL's usual configuration has names for the policies of the tests.
constexpr const char* kShowQuery = "OPENSSL_CONF=/dev/null openssl ts -query -text -in ";
// Nobody listens there, so a connection is refused at once.
constexpr const char* kDead = "http://127.0.0.1:1/";
// A busy machine may need more than the ten seconds that a stamp has by default.
constexpr const char* kPatient = "&tsa-timeout=600000";

std::string HandleUri(HANDLE hObject) {
    return "handle:" + std::to_string(reinterpret_cast<std::uintptr_t>(hObject));
}

std::string StampMessage(const std::string& strDetail = {}) {
    return VCTKErrorMessage(VCTK_E_TIMESTAMP) + (strDetail.empty() ? ": " : ": " + strDetail);
}

class TimeStampTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        MakeIdentity(*s_pDirectory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
        MakePemStore(*s_pDirectory, "s.pem", {"ec"});
        s_pAuthority = new RunningAuthority;
    }
    static void TearDownTestSuite() {
        delete s_pAuthority;
        delete s_pDirectory;
    }

    static std::string Store() { return "file:" + s_pDirectory->Path("s.pem"); }
    static std::string Stamped(const std::string& strMore = {}) {
        return Store() + "?tsa=" + s_pAuthority->Url() + kPatient + strMore;
    }
    static std::string Trusted() { return "&tsa-ca=file:" + s_pAuthority->Root(); }

    // In a directory with the signature as s.der. Its stamp becomes token.der, and the bytes that the stamp is about
    // value; the files are missing if there is no stamp.
    static CommandResult Check(const std::string& strBase64, const std::string& strCommand) {
        const TempDirectory work;
        work.Write("s.b64", strBase64);
        work.Write("content", kText);
        return RunCommand("cd " + work.Path() +
                          " && base64 -d s.b64 > s.der && openssl asn1parse -inform DER -in s.der > dump && "
                          "token=$(awk -F: '/id-smime-aa-timeStampToken/ { n = NR } n && NR == n + 2 { print $1 + 0; "
                          "exit }' dump) && "
                          "value=$(awk -F: '/d=5 .*cont \\[ 1 \\]/ { print at; exit } /d=5 .*OCTET STRING/ { at = $1 "
                          "+ 0 }' dump) && "
                          "{ [ -z \"$token\" ] || openssl asn1parse -inform DER -in s.der -strparse $token -noout "
                          "-out token.der; } && "
                          "{ [ -z \"$value\" ] || openssl asn1parse -inform DER -in s.der -strparse $value -noout "
                          "-out value; } && " +
                          strCommand);
    }
    static void ExpectStamped(const std::string& strBase64, const RunningAuthority& authority = *s_pAuthority) {
        const CommandResult stamp =
            Check(strBase64, "openssl ts -verify -token_in -in token.der -data value -CAfile " + authority.Root());
        EXPECT_EQ(stamp.nStatus, 0) << stamp.strOutput;
        const CommandResult signature =
            Check(strBase64,
                  "openssl cms -verify -binary -cades -inform DER -in s.der -content content -out out "
                  "-CAfile " +
                      s_pDirectory->Path("ec.crt") + " && cmp out content");
        EXPECT_EQ(signature.nStatus, 0) << signature.strOutput;
    }
    static bool HasStamp(const std::string& strBase64) { return Check(strBase64, "test -s token.der").nStatus == 0; }

    // Both in Base64. The files are DER.
    static std::string Join(const TempDirectory& work, const std::string& strFiles) {
        return RunCommand("cd " + work.Path() + " && cat " + strFiles + " | base64 -w0").strOutput;
    }
    static void WriteDecoded(const TempDirectory& work, const std::string& strFile, const std::string& strBase64) {
        RequireCommand("base64 -d " + work.Write(strFile + ".b64", strBase64) + " > " + work.Path(strFile));
    }
    // Sends the request as others would do.
    static void Fetch(const TempDirectory& work, const RunningAuthority& authority) {
        RequireCommand("cd " + work.Path() +
                       " && python3 -c 'import sys, urllib.request as u; open(\"reply\", \"wb\").write(u.urlopen("
                       "u.Request(sys.argv[1], open(\"request\", \"rb\").read(), {\"Content-Type\": "
                       "\"application/timestamp-query\"})).read())' " +
                       authority.Url());
    }

    static void ExpectNotStamped(const ToolkitClient& client, const std::string& strReason) {
        EXPECT_FALSE(client.SignP7(kText, 0, 1, 1));
        EXPECT_EQ(client.LastError(), VCTK_E_TIMESTAMP);
        EXPECT_TRUE(client.Message().starts_with(StampMessage())) << client.Message();
        EXPECT_NE(client.Message().find(strReason), std::string::npos) << client.Message();
        EXPECT_EQ(client.Message().find('\n'), std::string::npos) << client.Message();
        int nLength = 0;
        EXPECT_EQ(VCTK_GetP7SignResult(client.Handle(), nullptr, &nLength), VCTK_E_NO_SIGNATURE)
            << "there is no signature without a stamp";
    }

    static size_t OpenDescriptors() {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
    }

    static TempDirectory* s_pDirectory;
    static RunningAuthority* s_pAuthority;
};
TempDirectory* TimeStampTest::s_pDirectory = nullptr;
RunningAuthority* TimeStampTest::s_pAuthority = nullptr;

TEST_F(TimeStampTest, OpenSslVerifiesStampAndSignature) {
    for (const std::string& strSettings : {std::string(), Trusted(), Trusted() + "&chain=store&list=certificates"}) {
        const ToolkitClient client(Stamped(strSettings));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        for (const int nDetached : {0, 1}) {
            const auto strP7 = client.SignP7(kText, 0, nDetached, 1);
            ASSERT_TRUE(strP7) << client.Message();
            EXPECT_EQ(strP7->find_first_of("\r\n "), std::string::npos);
            ExpectStamped(*strP7);
        }
    }
}

TEST_F(TimeStampTest, WithoutAnAuthorityThereIsNoStampAndNoSocket) {
    const TempDirectory home;
    ASSERT_EQ(setenv("XDG_DATA_HOME", home.Path().c_str(), 1), 0);
    s_cSockets = 0;
    std::string strSigned;
    for (const std::string& strUri : {Store(), std::string("demo:"), Store() + "?chain=root&list=certificates"}) {
        const ToolkitClient client(strUri);
        EXPECT_TRUE(client.SignP1(kText)) << client.Message();
        const auto strP7 = client.SignP7(kText, 0, 0, 1);
        ASSERT_TRUE(strP7) << client.Message();
        EXPECT_FALSE(HasStamp(*strP7));
        EXPECT_FALSE(client.Records().empty());
        CallEverything(client.Handle());
        EXPECT_TRUE(ToolkitClient(HandleUri(client.Handle())).SignP7(kText, 0, 1, 1));
        strSigned = *strP7;
    }
    EXPECT_TRUE(ToolkitClient("stamp:").SignP7(strSigned, 1, 0, 0)) << "a request is made, and nothing sent";
    EXPECT_EQ(s_cSockets, 0);
    EXPECT_TRUE(ToolkitClient(Stamped()).SignP7(kText, 0, 1, 1));
    EXPECT_GT(s_cSockets, 0) << "the sockets are counted";
}

TEST_F(TimeStampTest, OpeningAStoreAsksNobody) {
    const RunningAuthority authority;
    const ToolkitClient client(Store() + "?tsa=" + authority.Url() + kPatient);
    EXPECT_TRUE(client.SignCertificate());
    EXPECT_EQ(client.Records().size(), 1U);
    EXPECT_FALSE(std::filesystem::exists(authority.Request(1)));
    EXPECT_TRUE(client.SignP7(kText, 0, 1, 1)) << client.Message();
    EXPECT_TRUE(std::filesystem::exists(authority.Request(1)));
}

TEST_F(TimeStampTest, AP1SignatureIsRefused) {
    const ToolkitClient client(Stamped());
    EXPECT_FALSE(client.SignP1(kText));
    EXPECT_EQ(client.LastError(), VCTK_E_TIMESTAMP);
    EXPECT_TRUE(client.Message().starts_with(StampMessage("a P1 signature has no place for a time stamp")))
        << client.Message();
    int nLength = 0;
    EXPECT_EQ(VCTK_GetP1SignResult(client.Handle(), nullptr, &nLength), VCTK_E_NO_SIGNATURE);
}

TEST_F(TimeStampTest, AnotherHandleOfTheStoreStampsAsWell) {
    const ToolkitClient first(Stamped());
    const ToolkitClient second(HandleUri(first.Handle()));
    const auto strP7 = second.SignP7(kText, 0, 0, 1);
    ASSERT_TRUE(strP7) << second.Message();
    ExpectStamped(*strP7);
    EXPECT_FALSE(second.SignP1(kText));
    EXPECT_EQ(second.LastError(), VCTK_E_TIMESTAMP);
}

TEST_F(TimeStampTest, TheSecondAuthorityServesWhenTheFirstIsDead) {
    const auto strP7 =
        ToolkitClient(Store() + "?tsa=" + kDead + "&tsa=" + s_pAuthority->Url() + kPatient).SignP7(kText, 0, 0, 1);
    ASSERT_TRUE(strP7);
    ExpectStamped(*strP7);
    ExpectNotStamped(ToolkitClient(Store() + "?tsa=" + kDead), kDead);
}

TEST_F(TimeStampTest, AnAuthorityThatNobodyCanAskIsRefusedWhenTheStoreIsOpened) {
    for (const char* pszUrl : {"http://localhost:99999", "http://localhost:0/tsa", "http://localhost:3161x/tsa"}) {
        EXPECT_FALSE(ToolkitClient(Store() + "?tsa=" + pszUrl).IsOpen()) << pszUrl;
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_URI_MALFORMED) << pszUrl;
        EXPECT_NE(ErrorMessage(nullptr).find(pszUrl), std::string::npos) << ErrorMessage(nullptr);
    }
}

TEST_F(TimeStampTest, TheSchemeMayBeInUpperCase) {
    const std::string strUrl = "HTTP" + s_pAuthority->Url().substr(4);
    const auto strP7 = ToolkitClient(Store() + "?tsa=" + strUrl + kPatient).SignP7(kText, 0, 0, 1);
    ASSERT_TRUE(strP7) << ErrorMessage(nullptr);
    ExpectStamped(*strP7);
}

TEST_F(TimeStampTest, ThreadsStampAtTheSameTime) {
    const ToolkitClient first(Stamped(Trusted()));
    std::atomic<int> cStamped = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const ToolkitClient mine(HandleUri(first.Handle()));
            for (int n = 0; n < 3; ++n) {
                cStamped += mine.SignP7(kText, 0, 1, 1) ? 1 : 0;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(cStamped, 12);
}

struct Wrong {
    const char* pszFault;
    const char* pszMore = "";
};

class TimeStampFault : public TimeStampTest, public testing::WithParamInterface<Wrong> {};

// The tests with vexsign have all faults.
TEST_P(TimeStampFault, IsAnErrorThatNamesTheAuthority) {
    const auto peekError = reinterpret_cast<unsigned long (*)()>(dlsym(RTLD_DEFAULT, "ERR_peek_error"));
    ASSERT_NE(peekError, nullptr);
    const size_t cBefore = OpenDescriptors();
    {
        const ToolkitClient client(Store() + "?tsa=" + s_pAuthority->Url() + GetParam().pszFault + GetParam().pszMore);
        ExpectNotStamped(client, "127.0.0.1");
        EXPECT_EQ(VCTK_ClearFilter(client.Handle()), 0);
        EXPECT_EQ(client.LastError(), VCTK_OK) << "the object goes on";
    }
    EXPECT_EQ(OpenDescriptors(), cBefore);
    EXPECT_EQ(peekError(), 0U);
}

INSTANTIATE_TEST_SUITE_P(All, TimeStampFault,
                         testing::Values(Wrong{"wrong-nonce"}, Wrong{"wrong-imprint"}, Wrong{"wrong-usage"},
                                         Wrong{"rejected"}, Wrong{"garbage"}, Wrong{"redirect"},
                                         Wrong{"two-gib-announced"}, Wrong{"closed-at-once"},
                                         Wrong{"no-answer", "&tsa-timeout=300"},
                                         Wrong{"byte-a-second", "&tsa-timeout=1500"}),
                         [](const auto& parameter) {
                             std::string strName = parameter.param.pszFault;
                             std::erase(strName, '-');
                             return strName;
                         });

TEST_F(TimeStampTest, ThePathOfTheAuthorityIsCheckedOnRequest) {
    const RunningAuthority other;
    const ToolkitClient client(Store() + "?tsa=" + other.Url() + kPatient + Trusted());
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    ExpectNotStamped(client, "127.0.0.1");
    EXPECT_TRUE(ToolkitClient(Store() + "?tsa=" + other.Url() + kPatient).SignP7(kText, 0, 1, 1)) << "not asked for";
    const ToolkitClient itself(Store() + "?tsa=" + other.Url() + kPatient + "&tsa-ca=" + other.Certificate());
    EXPECT_TRUE(itself.SignP7(kText, 0, 1, 1)) << "the authority's own certificate is trusted: " << itself.Message();
}

TEST_F(TimeStampTest, DigestAndPolicyOfTheRequest) {
    const RunningAuthority authority;
    const ToolkitClient client(Store() + "?tsa=" + authority.Url() + kPatient +
                               "&tsa-digest=SHA-384&tsa-policy=1.2.3.4.5.6&tsa-ca=file:" + authority.Root());
    const auto strP7 = client.SignP7(kText, 0, 0, 1);
    ASSERT_TRUE(strP7) << client.Message();
    ExpectStamped(*strP7, authority);
    const CommandResult query = RunCommand(kShowQuery + authority.Request(1));
    EXPECT_NE(query.strOutput.find("Hash Algorithm: sha384"), std::string::npos) << query.strOutput;
    EXPECT_NE(query.strOutput.find("1.2.3.4.5.6"), std::string::npos) << query.strOutput;
    EXPECT_NE(query.strOutput.find("Certificate required: yes"), std::string::npos) << query.strOutput;
}

struct Unusable {
    std::string strAttributes;
    VCTKError nError;
    std::string strDetail;  // how it begins
};

TEST_F(TimeStampTest, SettingsThatCannotBeUsedAreErrorsOfOpening) {
    const std::string strKey = s_pDirectory->Path("ec.key");
    const std::string strText = s_pDirectory->Write("text", "text");
    const std::vector<Unusable> cases = {
        {"&tsa-ca=/none/ca.pem", VCTK_E_STORE_NOT_FOUND, "tsa-ca: /none/ca.pem: "},
        {"&tsa-ca=" + strText, VCTK_E_STORE_FORMAT, "tsa-ca: " + strText + ": "},
        {"&tsa-ca=" + strKey, VCTK_E_STORE_FORMAT, "tsa-ca: " + strKey + ": it has no certificate"},
        {"&tsa-digest=SHA1", VCTK_E_DIGEST_WEAK, "tsa-digest: "},
        {"&tsa-digest=SHA-224", VCTK_E_DIGEST_UNKNOWN, "tsa-digest: "},
        {"&tsa-digest=none", VCTK_E_DIGEST_UNKNOWN, "tsa-digest: none: "},
        {"&tsa-digest=SHA-256/PSS", VCTK_E_DIGEST_UNKNOWN, "tsa-digest: "},
        {"&tsa-digest=prehashed:SHA-256", VCTK_E_DIGEST_UNKNOWN, "tsa-digest: "},
        {"&tsa-digest=prehashed:NONE", VCTK_E_DIGEST_UNKNOWN, "tsa-digest: "},
    };
    for (const Unusable& unusable : cases) {
        SCOPED_TRACE(unusable.strAttributes);
        const std::string strBegin = VCTKErrorMessage(unusable.nError) + (": " + unusable.strDetail);
        for (const std::string& strUri :
             {Stamped(unusable.strAttributes), "stamp:?errors=handle" + unusable.strAttributes}) {
            const ToolkitClient client(strUri);
            EXPECT_EQ(client.IsOpen(), strUri.starts_with("stamp:"));
            EXPECT_EQ(VCTK_GetLastError(nullptr), unusable.nError);
            EXPECT_TRUE(ErrorMessage(nullptr).starts_with(strBegin)) << ErrorMessage(nullptr);
            if (client.IsOpen()) {
                EXPECT_EQ(client.LastError(), unusable.nError);
                EXPECT_TRUE(client.Message().starts_with(strBegin)) << client.Message();
            }
        }
    }
}

// ---- stamp: ----

class StampStoreTest : public TimeStampTest {
protected:
    // The signature is in the file cms.
    void SetUp() override {
        const ToolkitClient client(Store());
        const auto strP7 = client.SignP7(kText, 0, 0, 1);
        ASSERT_TRUE(strP7) << client.Message();
        m_strP7 = *strP7;
        WriteDecoded(m_work, "cms", m_strP7);
    }

    // Makes the file request.
    void Request(const ToolkitClient& client) const {
        const auto strRequest = client.SignP7(m_strP7, 1, 0, 0);
        ASSERT_TRUE(strRequest) << client.Message();
        WriteDecoded(m_work, "request", *strRequest);
    }

    TempDirectory m_work;
    std::string m_strP7;
};

TEST_F(StampStoreTest, StampsASignatureThatWasMadeEarlier) {
    const ToolkitClient client("stamp:?tsa=" + s_pAuthority->Url() + kPatient + Trusted());
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    const auto strStamped = client.SignP7(m_strP7, 1, 1, 0);
    ASSERT_TRUE(strStamped) << client.Message();
    ExpectStamped(*strStamped);
    const auto strByAnother = ToolkitClient(HandleUri(client.Handle())).SignP7(m_strP7, 1, 0, 1);
    ASSERT_TRUE(strByAnother);
    ExpectStamped(*strByAnother);
}

TEST_F(StampStoreTest, AddsWhatTheCallerFetched) {
    const ToolkitClient client("stamp:?tsa-digest=SHA-512&tsa-policy=1.2.3.4.5.6" + Trusted());
    ASSERT_NO_FATAL_FAILURE(Request(client));
    const CommandResult query = RunCommand(kShowQuery + m_work.Path("request"));
    EXPECT_NE(query.strOutput.find("Hash Algorithm: sha512"), std::string::npos) << query.strOutput;
    EXPECT_NE(query.strOutput.find("1.2.3.4.5.6"), std::string::npos) << query.strOutput;
    Fetch(m_work, *s_pAuthority);
    const auto strStamped = client.SignP7(Join(m_work, "cms request reply"), 1, 0, 0);
    ASSERT_TRUE(strStamped) << client.Message();
    ExpectStamped(*strStamped);
}

TEST_F(StampStoreTest, ChecksWhatTheCallerFetched) {
    const ToolkitClient client("stamp:?" + Trusted().substr(1));
    ASSERT_NO_FATAL_FAILURE(Request(client));
    Fetch(m_work, *s_pAuthority);
    RequireCommand("cd " + m_work.Path() + " && cp request first && printf x > x");
    const auto expectRefused = [&](const std::string& strFiles, const ToolkitClient& by) {
        SCOPED_TRACE(strFiles);
        EXPECT_FALSE(by.SignP7(Join(m_work, strFiles), 1, 0, 0));
        EXPECT_EQ(by.LastError(), VCTK_E_TIMESTAMP) << by.Message();
        int nLength = 0;
        EXPECT_EQ(VCTK_GetP7SignResult(by.Handle(), nullptr, &nLength), VCTK_E_NO_SIGNATURE);
    };
    EXPECT_TRUE(client.SignP7(Join(m_work, "cms request reply"), 1, 0, 0)) << client.Message();
    ASSERT_NO_FATAL_FAILURE(Request(client));
    expectRefused("cms request reply", client);  // the reply to another request
    expectRefused("cms first", client);          // an empty reply
    expectRefused("cms first x", client);
    expectRefused("cms first reply x", client);
    expectRefused("cms first request", client);
    expectRefused("cms reply request", client);
    expectRefused("request first reply", client);
    expectRefused("cms first reply", ToolkitClient("stamp:?tsa-policy=1.2.3.4.5.6"));
    const RunningAuthority other;
    expectRefused("cms first reply", ToolkitClient("stamp:?tsa-ca=" + other.Root()));
    EXPECT_TRUE(ToolkitClient("stamp:").SignP7(Join(m_work, "cms first reply"), 1, 0, 0)) << "the files were right";
}

TEST_F(StampStoreTest, TakesNothingButSignatures) {
    const ToolkitClient client("stamp:");
    for (const auto& [pszText, nForm, nError] :
         {std::tuple<const char*, int, VCTKError>{"", 1, VCTK_E_DATA_EMPTY},
          {"*", 1, VCTK_E_DATA_BASE64},
          {"text", 0, VCTK_E_INVALID_ARGUMENT},
          {"dGV4dA==", 1, VCTK_E_INVALID_ARGUMENT},  // text
          {"BAA=", 1, VCTK_E_INVALID_ARGUMENT},      // an OCTET STRING
          {"MAUCAQE=", 1, VCTK_E_INVALID_ARGUMENT},  // a SEQUENCE that is cut off
          {"MIAwAAAA", 1, VCTK_E_INVALID_ARGUMENT},  // a SEQUENCE of indefinite length
          {"EAMCAQE=", 1, VCTK_E_INVALID_ARGUMENT},  // a SEQUENCE that is not constructed
          {"MAMCAQE=", 1, VCTK_E_TIMESTAMP},         // a SEQUENCE, but not CMS
          {"MAMCAQF4", 1, VCTK_E_INVALID_ARGUMENT},  // the same with a byte behind it
          {"MAMCAQE=", 2, VCTK_E_INVALID_ARGUMENT},
          {nullptr, 1, VCTK_E_INVALID_ARGUMENT}}) {
        SCOPED_TRACE(pszText == nullptr ? "null" : pszText);
        EXPECT_EQ(VCTK_P7Sign(client.Handle(), pszText, nForm, 0, 0), nError) << client.Message();
        EXPECT_EQ(client.LastError(), nError);
    }
}

TEST_F(StampStoreTest, HasNoCertificates) {
    for (const std::string& strUri : {std::string("stamp:"), "stamp:?tsa=" + s_pAuthority->Url() + kPatient}) {
        SCOPED_TRACE(strUri);
        const ToolkitClient client(strUri);
        EXPECT_EQ(VCTK_SetDigestAlg(client.Handle(), "prehashed:SHA-256"), 0);
        EXPECT_TRUE(client.SignP7(m_strP7, 1, 0, 0)) << "settings for signing mean nothing: " << client.Message();
        EXPECT_FALSE(client.SignP1(kText));
        EXPECT_EQ(VCTK_SetDigestAlg(client.Handle(), "SHA-256"), 0);
        EXPECT_FALSE(client.SignP1(kText));
        EXPECT_EQ(client.LastError(), VCTK_E_NO_CERTIFICATE);
        EXPECT_FALSE(client.SignCertificate());
        EXPECT_EQ(client.LastError(), VCTK_E_NO_CERTIFICATE);
        EXPECT_EQ(client.CertificateList(), "");
        EXPECT_EQ(client.LastError(), VCTK_OK);
    }
}

}  // namespace

extern "C" int socket(int nDomain, int nType, int nProtocol) noexcept {
    static auto* const s_pNext = system_calls::Next(socket, "socket");
    ++s_cSockets;
    return s_pNext(nDomain, nType, nProtocol);
}
