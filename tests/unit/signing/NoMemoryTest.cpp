// Memory runs out while a store is opened, while it signs, and while a signature is stamped: at each allocation in
// turn. The reason that the caller gets is never about the store, the PIN or the data, and the next call succeeds.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ChildProcess.h"
#include "FaultPoints.h"
#include "OpenSslCrashes.h"
#include "Row.h"
#include "TestChain.h"
#include "ToolkitClient.h"
#include "VCTKFilter.h"

namespace {

// What the store stamp: takes, in Base64: a signature, and a signature with the request and the reply behind it.
std::string g_strSignature;
std::string g_strFetched;

void MakeStamp(const TempDirectory& directory) {
    MakeIdentity(directory,
                 {"tsa", "ec -pkeyopt ec_paramgen_curve:P-256", "/CN=Clock", 30,
                  "-addext extendedKeyUsage=critical,timeStamping -addext keyUsage=critical,digitalSignature"});
    directory.Write("ts.cnf",
                    "[t]\nserial=serial\nsigner_digest=sha256\ndefault_policy=1.2.3.4\ndigests=sha256\n"
                    "ess_cert_id_alg=sha256\nsigner_cert=tsa.crt\nsigner_key=tsa.key\n");
    g_strSignature = ToolkitClient("file:" + directory.Path("rsa.pem")).SignP7("text", 0, 1, 1).value();
    directory.Write("p7", g_strSignature);
    directory.Write("query", ToolkitClient("stamp:").SignP7(g_strSignature, 1, 0, 0).value());
    g_strFetched =
        RunCommand("cd " + directory.Path() +
                   " && echo 01 > serial && base64 -d p7 > all && base64 -d query > query.der"
                   " && openssl ts -reply -config ts.cnf -section t -queryfile query.der -out reply 2> errors"
                   " && cat query.der reply >> all && base64 -w0 all")
            .strOutput;
}

const TempDirectory& Files() {
    static const TempDirectory s_directory;
    static const bool s_bMade = [] {
        MakeChains(s_directory);
        MakeIdentity(s_directory, {"rsa"});
        MakeIdentity(s_directory, {"ed", "ed25519"});
        MakeIdentity(s_directory, {"pss",
                                   "rsa-pss -pkeyopt rsa_keygen_bits:2048 -pkeyopt rsa_pss_keygen_md:sha256 "
                                   "-pkeyopt rsa_pss_keygen_mgf1_md:sha256 -pkeyopt rsa_pss_keygen_saltlen:32"});
        MakeIdentity(s_directory, {"full", "ed25519", "/CN=Test", 30,
                                   "-addext extendedKeyUsage=emailProtection -addext certificatePolicies=1.2.3.4"});
        const std::string strIn = "cd " + s_directory.Path() + " && ";
        RequireCommand(strIn +
                       "cat leaf3.key leaf3.crt ca1.crt root.crt > chain.pem"
                       " && cat rsa.key rsa.crt > rsa.pem && cat ed.key ed.crt > ed.pem && cat full.key full.crt > "
                       "full.pem && cat pss.key pss.crt > pss.pem"
                       " && openssl pkcs8 -topk8 -iter 1 -in leaf2.key -passout pass:1234 -out enc.key"
                       " && openssl ec -aes128 -in leaf4.key -passout pass:1234 -out trad.key"
                       " && cat enc.key leaf2.crt trad.key leaf4.crt > encrypted.pem");
        MakePkcs12Store(s_directory, "leaf3", "-iter 1 -name anna -certfile ca1.crt");
        RequireCommand(strIn +
                       "openssl pkcs12 -export -legacy -iter 1 -inkey rsa.key -in rsa.crt -out old.p12"
                       " -passout pass:1234");
        MakeStamp(s_directory);
        return true;
    }();
    static_cast<void>(s_bMade);
    return s_directory;
}

// Opens the store and signs. Returns the error number; VCTK_OK: all has succeeded.
struct Scenario : Row {
    std::string strStore;
    std::function<INT(HANDLE)> fnSign;
};

INT SignP1(HANDLE h) {
    return VCTK_P1Sign(h, "text", 0);
}

INT SignP7(HANDLE h) {
    return VCTK_P7Sign(h, "text", 0, 1, 1);
}

INT SignP7AndList(HANDLE h) {
    int nLength = 0;
    const INT nResult = VCTK_P7Sign(h, "text", 0, 1, 1);
    return nResult != VCTK_OK ? nResult : VCTK_GetCertList(h, ";", ",", nullptr, &nLength);
}

// The certificate passes them all.
INT FilterAndSign(HANDLE h) {
    for (const auto& [nType, pszValue] : {std::pair{VCTK_FILTER_SUBJECT_NAME, "CN=Test"},
                                          {VCTK_FILTER_ISSUER_NAME, "CN=Test"},
                                          {VCTK_FILTER_EXTENDED_KEY_USAGE, "emailProtection"},
                                          {VCTK_FILTER_POLICY, "1.2.3.4"}}) {
        if (const INT nResult = VCTK_AddFilter(h, nType, pszValue); nResult != VCTK_OK) {
            return nResult;
        }
    }
    return SignP1(h);
}

// With the certificates of two issuers, each of hundreds of characters. The first signature has both; the length of
// others differs by a few.
INT SignWithChain(HANDLE h) {
    constexpr int kTolerance = 20;
    static int s_nWhole = 0;
    if (const INT nResult = SignP7(h); nResult != VCTK_OK) {
        return nResult;
    }
    int nLength = 0;
    if (const INT nResult = VCTK_GetP7SignResult(h, nullptr, &nLength); nResult != VCTK_OK) {
        return nResult;
    }
    s_nWhole = s_nWhole == 0 ? nLength : s_nWhole;
    return nLength < s_nWhole - kTolerance ? VCTK_E_INTERNAL : VCTK_OK;
}

INT MakeStampRequest(HANDLE h) {
    return VCTK_P7Sign(h, g_strSignature.c_str(), 1, 0, 0);
}

INT Stamp(HANDLE h) {
    return VCTK_P7Sign(h, g_strFetched.c_str(), 1, 0, 0);
}

INT AddFilters(HANDLE h) {
    for (const auto& [nType, pszValue] :
         {std::pair{VCTK_FILTER_SUBJECT_NAME, "CN=Test+2.5.4.10=#0C0141"}, {VCTK_FILTER_POLICY, "1.2.3.4"}}) {
        if (const INT nResult = VCTK_AddFilter(h, nType, pszValue); nResult != VCTK_OK) {
            return nResult;
        }
    }
    return VCTK_OK;
}

INT Perform(const Scenario& scenario) {
    const HANDLE h = VCTK_Initialize(scenario.strStore.c_str());
    if (h == nullptr) {
        return VCTK_GetLastError(nullptr);
    }
    const INT nResult = scenario.fnSign(h);
    VCTK_Finalize(h);
    return nResult;
}

// The fault points of the scenario: of all allocations that the same lines of the toolkit lead to, the first two and
// the last one.
std::vector<long> PointsOf(const Scenario& scenario) {
    static std::vector<std::size_t> s_ways(1 << 16);
    fault_points::NoteWays(s_ways.data(), static_cast<long>(s_ways.size()));
    fault_points::Arm(fault_points::Where::kHere, 0);
    Perform(scenario);
    const long nPoints = fault_points::Disarm();
    fault_points::NoteWays(nullptr, 0);
    EXPECT_LE(nPoints, static_cast<long>(s_ways.size()));
    std::map<std::size_t, std::vector<long>> byWay;
    for (long n = 1; n <= nPoints; ++n) {
        byWay[s_ways[static_cast<std::size_t>(n - 1)]].push_back(n);
    }
    std::set<long> chosen;
    for (const auto& [nWay, points] : byWay) {
        chosen.insert({points.front(), points[std::min<std::size_t>(1, points.size() - 1)], points.back()});
    }
    return {chosen.begin(), chosen.end()};
}

// The memory that the processes of a test share.
struct Progress {
    std::size_t nNext;  // the next point
    int cOutOfMemory;
};

class NoMemoryTest : public testing::TestWithParam<Scenario> {
protected:
    NoMemoryTest()
        : m_progress(*static_cast<Progress*>(
              mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~NoMemoryTest() override { munmap(&m_progress, sizeof(Progress)); }

    // The allocation fails. Later calls succeed.
    void TryPoint(const Scenario& scenario, long nPoint) {
        fault_points::Arm(fault_points::Where::kHere, nPoint);
        const INT nResult = Perform(scenario);
        fault_points::Disarm();
        if (fault_points::Failed() == nullptr || std::string_view(fault_points::Failed()).starts_with("VCTK_")) {
            return;
        }
        m_progress.cOutOfMemory += nResult == VCTK_E_OUT_OF_MEMORY ? 1 : 0;
        EXPECT_TRUE(nResult == VCTK_OK || nResult == VCTK_E_OUT_OF_MEMORY)
            << "point " << nPoint << ", called from " << fault_points::Failed() << ": " << nResult << ", "
            << ErrorMessage(nullptr);
        if (nPoint % kPointsPerCheck == 0) {
            EXPECT_EQ(Perform(scenario), VCTK_OK) << "after point " << nPoint << ": " << ErrorMessage(nullptr);
        }
    }

    static constexpr long kPointsPerCheck = 8;

    Progress& m_progress;
};

TEST_P(NoMemoryTest, IsTheReasonThatTheCallerGets) {
    Scenario scenario = GetParam();
    const std::string strPath = Files().Path();
    if (const std::size_t nAt = scenario.strStore.find('@'); nAt != std::string::npos) {
        scenario.strStore.replace(nAt, 1, strPath);
    }
    for (int i = 0; i < 3; ++i) {  // OpenSSL fills its caches
        ASSERT_EQ(Perform(scenario), VCTK_OK) << ErrorMessage(nullptr);
    }
    const std::vector<long> points = PointsOf(scenario);
    int cCrashes = 0;
    while (m_progress.nNext < points.size()) {
        const ChildEnd end = RunChild([&] {
            CatchOpenSslCrashes();
            while (m_progress.nNext < points.size()) {
                TryPoint(scenario, points[m_progress.nNext++]);
            }
        });
        cCrashes += end.nStatus == kOpenSslCrash ? 1 : 0;
        EXPECT_TRUE(end.nStatus == 0 || end.nStatus == kOpenSslCrash) << "before point " << m_progress.nNext;
    }
    EXPECT_GT(m_progress.cOutOfMemory, 0);
    std::printf("%zu fault points, %d out of memory, %d crashes of OpenSSL\n", points.size(), m_progress.cOutOfMemory,
                cCrashes);
}

INSTANTIATE_TEST_SUITE_P(
    , NoMemoryTest,
    testing::Values(Scenario{"PemChain", "file:@/chain.pem?chain=root&list=certificates", SignP7AndList},
                    Scenario{"PemEncrypted", "file:@/encrypted.pem?pin-value=1234", SignP1},
                    Scenario{"Pkcs12", "file:@/leaf3.p12?pin-value=1234", SignP1},
                    Scenario{"OldPkcs12", "file:@/old.p12?pin-value=1234", SignP1},
                    Scenario{"Rsa", "file:@/rsa.pem", SignP1}, Scenario{"Ed25519", "file:@/ed.pem", SignP1},
                    Scenario{"PssP1", "file:@/pss.pem", SignP1}, Scenario{"PssP7", "file:@/pss.pem", SignP7},
                    Scenario{"Filters", "file:@/ed.pem", AddFilters},
                    Scenario{"FilteredSignature", "file:@/full.pem", FilterAndSign},
                    Scenario{"SignatureWithChain", "file:@/chain.pem?chain=root", SignWithChain},
                    Scenario{"StampRequest", "stamp:", MakeStampRequest},
                    Scenario{"Stamp", "stamp:?tsa-ca=@/tsa.crt", Stamp}),
    RowName);

}  // namespace
