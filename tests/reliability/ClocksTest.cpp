// The wall clock jumps, over the ends of certificates, DST changes and the limits of number formats. The certificate
// that is valid at that moment signs, the signing time and the log's records have that moment, and waits take as long
// as ever. The openssl and date commands are the judges.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jni.h>
#include <sys/file.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Amount.h"
#include "FakeClock.h"
#include "FakeJniEnv.h"
#include "FileServerFixture.h"
#include "LogFile.h"
#include "LogIdle.h"
#include "PipeIPC.h"
#include "ScriptedPeer.h"
#include "TestStore.h"
#include "ToolkitClient.h"
#include "posix/FileDescriptor.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

using vexposix::FileDescriptor;
using Random = std::mt19937_64;
using Seconds = std::chrono::duration<double>;

constexpr std::time_t kFirstMoment = -599'616'000;       // 1951-01-01
constexpr std::time_t kLastMoment = 253'300'000'000;     // in the year 9996
constexpr std::time_t kEndOf32Bits = 2'147'483'647;      // 2038-01-19
constexpr std::time_t kYear2050 = 2'524'608'000;         // from here on GeneralizedTime
constexpr std::time_t kLeapSecond = 1'483'228'800;       // the second after 2016-12-31T23:59:60
constexpr std::time_t kSummerTime = 1'774'746'000;       // 2026-03-29T01:00:00Z in Europe
constexpr std::time_t kEndOfSummerTime = 1'792'890'000;  // 2026-10-25T01:00:00Z

// The log's records are in this encoding.
[[maybe_unused]] const int g_nLocale = setenv("LC_ALL", "C.UTF-8", 1);

// Made before main, because the clock asks for it.
const TempDirectory& ClockDirectory() {
    static const TempDirectory s_directory;
    return s_directory;
}
[[maybe_unused]] const int g_nClockFile = setenv("VEX_TEST_CLOCK_FILE", ClockDirectory().Path("clock").c_str(), 1);

struct Certificate {
    std::string strName;
    std::string strBegin;
    std::string strEnd;
    std::time_t nFirst;
    std::time_t nLast;
};

// Some seconds have two certificates, others none.
const std::vector<Certificate>& Certificates() {
    static const std::vector<Certificate> s_all = {
        {"old", "19510101000000Z", "19691231235959Z", kFirstMoment, -1},
        {"epoch", "19690101000000Z", "19700101000100Z", -31'536'000, 60},
        {"winter", "20160101000000Z", "20260329010000Z", 1'451'606'400, kSummerTime},
        {"summer", "20260329010001Z", "20380119031407Z", kSummerTime + 1, kEndOf32Bits},
        {"later", "20380119031408Z", "20491231235959Z", kEndOf32Bits + 1, kYear2050 - 1},
        {"second", "20491231235959Z", "20500101000000Z", kYear2050 - 1, kYear2050},
        {"after", "20500101000000Z", "20991231235959Z", kYear2050, 4'102'444'799},
        {"last", "21050101000000Z", "99991231235959Z", 4'260'211'200, 253'402'300'799},
    };
    return s_all;
}

std::time_t Between(Random& random, std::time_t first, std::time_t last) {
    return first + static_cast<std::time_t>(random() % static_cast<std::uint64_t>(last - first + 1));
}

std::time_t AnyMomentAtAll(Random& random) {
    const Certificate& certificate = Certificates()[random() % Certificates().size()];
    switch (random() % 5) {
        case 0:
            return certificate.nFirst + Between(random, -1, 1);
        case 1:
            return certificate.nLast + Between(random, -1, 1);
        case 2: {
            constexpr std::time_t kSpecial[] = {0, kEndOf32Bits, kYear2050, kLeapSecond, kSummerTime, kEndOfSummerTime};
            return kSpecial[random() % std::size(kSpecial)] + Between(random, -2, 2) + 3600 * Between(random, -1, 1);
        }
        case 3:
            return Between(random, kFirstMoment, 4'400'000'000);
        default:
            return Between(random, kFirstMoment, kLastMoment);
    }
}

std::time_t AnyMoment(Random& random) {
    return std::clamp(AnyMomentAtAll(random), kFirstMoment, kLastMoment);
}

// The name of the certificate that has to sign; empty if none can.
std::string SignerAt(std::time_t moment) {
    std::string strName;
    std::time_t nLast = 0;
    for (const Certificate& certificate : Certificates()) {
        if (certificate.nFirst <= moment && moment <= certificate.nLast &&
            (strName.empty() || certificate.nLast > nLast)) {
            strName = certificate.strName;
            nLast = certificate.nLast;
        }
    }
    return strName;
}

std::string Output(const std::string& strCommand) {
    const CommandResult result = RunCommand(strCommand);
    EXPECT_EQ(result.nStatus, 0) << strCommand << "\n" << result.strOutput;
    return result.strOutput.substr(0, result.strOutput.find('\n'));
}

class ClocksTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        RequireCommand("cd " + s_pDirectory->Path() +
                       " && openssl ecparam -name prime256v1 -genkey -noout -out key && printf text >content");
        for (const Certificate& certificate : Certificates()) {
            MakeCertificate(s_pDirectory->Path(), "key", certificate.strName, "/CN=" + certificate.strName,
                            certificate.strBegin, certificate.strEnd);
        }
        RequireCommand("cd " + s_pDirectory->Path() + " && cat *.crt >all.pem && cat key all.pem >store.pem");
    }
    static void TearDownTestSuite() { delete std::exchange(s_pDirectory, nullptr); }
    ~ClocksTest() override { MoveFakeTime(0); }

    static std::string Store() { return "file:" + s_pDirectory->Path("store.pem"); }
    static std::string In(const std::string& strCommand) { return "cd " + s_pDirectory->Path() + " && " + strCommand; }

    // openssl verifies a detached P7 for the moment, and finds the signer and the signing time in it.
    static void Judge(const std::string& strSignature, const std::string& strSigner, std::time_t moment) {
        s_pDirectory->Write("p7", strSignature);
        const std::string strMoment = std::to_string(moment);
        // To openssl a certificate's last second is after its end; RFC 5280 section 4.1.2.5 includes it.
        const bool bLast =
            std::any_of(Certificates().begin(), Certificates().end(), [&](const Certificate& certificate) {
                return certificate.strName == strSigner && certificate.nLast == moment;
            });
        EXPECT_EQ(
            Output(In("base64 -d p7 >p7.der && openssl cms -verify -binary -inform DER -in p7.der -content content"
                      " -CAfile all.pem -purpose any -attime " +
                      std::to_string(bLast ? moment - 1 : moment) +
                      " -signer signer.pem -out /dev/null 2>&1 && openssl x509 -in signer.pem -noout -subject"
                      " | sed 's/.*CN *= *//' >subject; cat subject")),
            "CMS Verification successful")
            << strMoment;
        EXPECT_EQ(ReadWholeFile(s_pDirectory->Path("subject")), strSigner + "\n");
        // RFC 5652 section 11.3: UTCTime from 1950 to 2049.
        EXPECT_EQ(Output(In("openssl cms -cmsout -print -inform DER -in p7.der -out printed;"
                            " grep -A3 'object: signingTime' printed | grep -o '[A-Z]*TIME:.*'")),
                  Output("LC_ALL=C TZ=UTC0 date -d @" + strMoment + " '+" +
                         (moment < kYear2050 ? "UTCTIME:" : "GENERALIZEDTIME:") + "%b %e %H:%M:%S %Y GMT'"));
    }

    static inline const TempDirectory* s_pDirectory = nullptr;
};

// ---- Signatures and records ----

TEST_F(ClocksTest, TheCertificateOfTheMomentSigns) {
    const long nJumps = AmountOf("VEX_TEST_CLOCK_JUMPS", 40);
    Random random(SeedOfRun());
    const ToolkitClient client(Store());
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    long nSigned = 0;
    for (long n = 0; n < nJumps; ++n) {
        const std::time_t moment = AnyMoment(random);
        SCOPED_TRACE("jump " + std::to_string(n) + " to " + std::to_string(moment));
        SetFakeTime(moment);
        const std::string strSigner = SignerAt(moment);
        const auto strSignature = client.SignP7("text", 0, 1, 1);
        const auto strP1 = client.SignP1("text");
        EXPECT_EQ(strSignature.has_value(), !strSigner.empty()) << client.Message();
        EXPECT_EQ(strP1.has_value(), !strSigner.empty());
        if (!strSignature) {
            EXPECT_EQ(client.LastError(), VCTK_E_NO_CERTIFICATE);
            EXPECT_TRUE(client.Records().empty());
            continue;
        }
        ++nSigned;
        Judge(*strSignature, strSigner, moment);
        const auto names = client.Records();
        EXPECT_TRUE(std::any_of(names.begin(), names.end(), [&](const auto& fields) {
            return fields.size() > 5 && fields[5] == "CN=" + strSigner;
        }));
        // The clock jumps between the size query and the fetch.
        int cbList = 0;
        EXPECT_EQ(VCTK_GetCertList(client.Handle(), "\r\n", " ", nullptr, &cbList), 0);
        SetFakeTime(AnyMoment(random));
        std::string strList(static_cast<size_t>(cbList), '\0');
        EXPECT_EQ(VCTK_GetCertList(client.Handle(), "\r\n", " ", strList.data(), &cbList), 0);
        EXPECT_NE(strList.find("CN=" + strSigner), std::string::npos);
    }
    std::printf("%ld jumps, %ld with a signature\n", nJumps, nSigned);
    EXPECT_GT(nSigned, nJumps / 3);
}

// Each record has the local time of its moment, and the log is cut as often as it grows.
TEST_F(ClocksTest, RecordsHaveTheLocalTimeOfTheMoment) {
    const long nJumps = AmountOf("VEX_TEST_CLOCK_JUMPS", 40);
    Random random(SeedOfRun());
    const std::string strLog = std::string(std::getenv("VEX_TEST_LOG_DIR")) + "/PILog.txt";
    constexpr const char* kZones[] = {"Europe/Berlin", "America/New_York", "Australia/Lord_Howe",
                                      "UTC0",          "Pacific/Apia",     "Asia/Kathmandu"};
    ASSERT_TRUE(std::filesystem::exists("/usr/share/zoneinfo/Europe/Berlin")) << "without tzdata all zones are UTC";
    FakeJniEnv env;
    for (long n = 0; n < nJumps; ++n) {
        const std::time_t moment = AnyMoment(random);
        const char* const pszZone = kZones[random() % std::size(kZones)];
        SCOPED_TRACE(std::string(pszZone) + ", " + std::to_string(moment));
        SetFakeTime(moment);
        setenv("TZ", pszZone, 1);
        Java_vex_jni_TAVClientJNI_GetSignVersion(&env, nullptr, 0);
        log_idle::Wait();
        unsetenv("TZ");
        const std::string strBytes = ReadWholeFile(strLog);
        const LogFile file = ParseLogFile(std::string_view(strBytes).substr(strBytes.size() / 2));
        ASSERT_FALSE(file.entries.empty());
        const auto record = ParseLogRecord(file.entries.back());
        ASSERT_TRUE(record.has_value()) << file.entries.back();
        EXPECT_EQ(record->strDate + " " + record->strTime, Output("TZ=" + std::string(pszZone) + " date -d @" +
                                                                  std::to_string(moment) + " '+%Y-%m-%d %H:%M:%S'"));
        EXPECT_NE(record->strTime.substr(6), "60");
    }
    EXPECT_GE(ReadLogRecords(strLog).size(), static_cast<size_t>(std::min(nJumps, 2000L)));
}

// ---- The command line ----

// Programs see the same clock through LD_PRELOAD.
TEST_F(ClocksTest, VexsignSignsAndVerifiesAtTheMoment) {
    const std::string strWithClock = "LD_PRELOAD=" VEX_FAKE_CLOCK_LIBRARY " " VEXSIGN_PROGRAM " ";
    Random random(SeedOfRun());
    for (long n = AmountOf("VEX_TEST_CLOCK_JUMPS", 40) / 10; n > 0; --n) {
        std::time_t moment = AnyMoment(random);
        while (SignerAt(moment).empty()) {
            moment = AnyMoment(random);
        }
        SCOPED_TRACE(moment);
        SetFakeTime(moment);
        ASSERT_EQ(RunCommand(In(strWithClock + "p7 ./store.pem content -o vexsign.p7")).nStatus, 0);
        Judge(ReadWholeFile(s_pDirectory->Path("vexsign.p7")), SignerAt(moment), moment);
        const std::string strVerify = strWithClock + "verify vexsign.p7 content --ca all.pem";
        const CommandResult now = RunCommand(In(strVerify));
        EXPECT_EQ(now.nStatus, 0) << now.strOutput;
        // Outside of its certificate's validity it is not good, unless somebody says when it existed.
        SetFakeTime(SignerAt(moment) == "last" ? kFirstMoment : kLastMoment);
        EXPECT_EQ(RunCommand(In(strVerify)).nStatus, 1);
        const CommandResult then =
            RunCommand(In(strVerify + " --at $(TZ=UTC0 date -d @" + std::to_string(moment) + " +%FT%TZ)"));
        EXPECT_EQ(then.nStatus, 0) << then.strOutput;
    }
}

// ---- Waits ----

// Sets the clock to and fro while it exists.
class JumpingClock {
public:
    JumpingClock()
        : m_thread([this] {
              Random random(SeedOfRun());
              while (!m_bEnd) {
                  constexpr std::time_t kYears = std::time_t{50} * 365 * 24 * 3600;
                  const auto uJump = static_cast<std::time_t>(random() % (2 * kYears));
                  MoveFakeTime(random() % 2 == 0 ? uJump - kYears : uJump % 7200 - 3600);
                  ++m_nJumps;
                  std::this_thread::sleep_for(std::chrono::milliseconds(1));
              }
          }) {}
    JumpingClock(const JumpingClock&) = delete;
    JumpingClock& operator=(const JumpingClock&) = delete;
    ~JumpingClock() {
        m_bEnd = true;
        m_thread.join();
        MoveFakeTime(0);
    }

    long Jumps() const { return m_nJumps; }

private:
    std::atomic<bool> m_bEnd{false};
    std::atomic<long> m_nJumps{0};
    std::thread m_thread;
};

// Expects that the call takes that long, and not much longer: a busy machine delays it.
void ExpectDuration(double dLeast, const std::function<void()>& fnCall) {
    const JumpingClock clock;
    const auto begin = std::chrono::steady_clock::now();
    fnCall();
    const double dTook = Seconds(std::chrono::steady_clock::now() - begin).count();
    EXPECT_GE(dTook, dLeast);
    EXPECT_LT(dTook, dLeast + 20);
    EXPECT_GT(clock.Jumps(), 0);
}

TEST_F(ClocksTest, AReplyIsAwaitedForItsTime) {
    ScriptedPeer silent([](PeerConnection& connection) {
        connection.AcceptRequest();
        connection.ReceiveToEnd();
    });
    ExpectDuration(0.2, [&] {
        CPipeIPC client;
        CSmartBuffer reply;
        BYTE request[] = {1};
        EXPECT_NE(client.SendMessageAndWait(0, silent.Object(), request, sizeof request, reply, 200), 0);
    });
}

TEST_F(ClocksTest, ATimeStampIsAwaitedForItsTime) {
    const TempDirectory directory;
    MakeIdentity(directory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256", "/CN=ec", 365 * 70});
    ScriptedPeer silent([](PeerConnection& connection) { connection.ReceiveToEnd(); });
    const ToolkitClient client("file:" + MakePemStore(directory, "s.pem", {"ec"}) +
                               "?tsa=http%3A//127.0.0.1:" + std::to_string(silent.Port()) + "/&tsa-timeout=300");
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    ExpectDuration(0.3, [&] {
        // When the clock is before the certificate's begin, there is no signature to be stamped.
        while (!client.SignP7("text", 0, 1, 1) && client.LastError() == VCTK_E_NO_CERTIFICATE) {
        }
        EXPECT_EQ(client.LastError(), VCTK_E_TIMESTAMP);
    });
}

TEST_F(ClocksTest, ALockedLogIsAwaitedForItsTime) {
    const std::string strLog = std::string(std::getenv("VEX_TEST_LOG_DIR")) + "/PILog.txt";
    FakeJniEnv env;
    Java_vex_jni_TAVClientJNI_GetSignVersion(&env, nullptr, 0);
    log_idle::Wait();
    const FileDescriptor locked(open(strLog.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(locked.Get(), LOCK_EX), 0);
    const size_t cBefore = ReadLogRecords(strLog).size();
    ExpectDuration(1.9, [&] {
        Java_vex_jni_TAVClientJNI_GetSignVersion(&env, nullptr, 0);
        log_idle::Wait();
    });
    EXPECT_EQ(ReadLogRecords(strLog).size(), cBefore + 2);
}

// The server neither closes files nor ends connections before their time, and not later either.
using ClocksFileServer = FileServerFixture;

TEST_F(ClocksFileServer, TimeoutsAreThoseOfTheOptions) {
    setenv("LD_PRELOAD", VEX_FAKE_CLOCK_LIBRARY, 1);
    Start({"--idle-seconds", "2", "--client-timeout-seconds", "2"});
    unsetenv("LD_PRELOAD");
    std::uint64_t uId = Open("file");
    ASSERT_NE(uId, 0U);
    ExpectDuration(0.5, [&] {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
        while (std::chrono::steady_clock::now() < end) {
            EXPECT_EQ(NumberAt(Ask(WriteRequest(uId, "line\n")), 0, 4), 1U);
        }
    });
    FileServerClient silent(m_uPort);
    ExpectDuration(1.5, [&] { EXPECT_TRUE(silent.IsClosedByServer()); });
    m_server->Signal(SIGTERM);
    EXPECT_EQ(m_server->Wait().nStatus, 0);
}

}  // namespace
