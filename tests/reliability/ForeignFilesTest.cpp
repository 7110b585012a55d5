// Other users put obstacles at the fixed names that the libraries use. Signing still works, nothing waits, nothing is
// written through a link or into another user's file, and new files are private.
//
// The table combines every name with every obstacle. Each cell is a process that signs, logs in both ways and traces.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jni.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Amount.h"
#include "ChildProcess.h"
#include "FakeJniEnv.h"
#include "LogIdle.h"
#include "Obstacles.h"
#include "OwnMounts.h"
#include "PipeLog.h"
#include "Row.h"
#include "TempDirectory.h"
#include "Users.h"
#include "WriteLog.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

namespace fs = std::filesystem;

constexpr int kRefused = 77;  // exit status of a child that lacks the rights for its preparations

// Signs in all four ways with the user's demo store. False when it cannot be opened.
bool Sign() {
    FakeJniEnv env;
    const jlong handle = Java_vex_jni_TAVClientJNI_Initialize(&env, nullptr, nullptr, env.MakeString("demo:"));
    if (handle == 0) {
        EXPECT_NE(Java_vex_jni_TAVClientJNI_GetLastError(&env, nullptr, 0), 0);
        return false;
    }
    jstring const text = env.MakeString("dGV4dA==");
    EXPECT_NE(Java_vex_jni_TAVClientJNI_P1Sign(&env, nullptr, handle, text), nullptr);
    EXPECT_NE(Java_vex_jni_TAVClientJNI_P1SignString(&env, nullptr, handle, text), nullptr);
    EXPECT_NE(Java_vex_jni_TAVClientJNI_P7Sign(&env, nullptr, handle, text, 1, 1), nullptr);
    EXPECT_NE(Java_vex_jni_TAVClientJNI_P7SignString(&env, nullptr, handle, text, 0, 1), nullptr);
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_Finalize(&env, nullptr, handle), 0);
    return true;
}

void LogAndTrace() {
    pv_log(0, L"a line of the minimal logger");
    pv_logEx("a line of the trace");
    log_idle::Wait();
}

// ---- Places ----

// A directory for all the fixed names and for the targets of the obstacles.
class ForeignFilesTest : public testing::Test {
protected:
    ForeignFilesTest() {
        for (const char* pszName : {"tmp", "cwd", "data", "data/vex-client-toolkit", "elsewhere"}) {
            fs::create_directory(m_directory.Path(pszName));
        }
        m_directory.Write("tmp/testPipe", "");
        fs::copy(MadeStore(), m_directory.Path("data/vex-client-toolkit/demo.pem"));
        GiveTo(kSomebody, {"cwd", "data", "data/vex-client-toolkit", "data/vex-client-toolkit/demo.pem"});
        fs::permissions(m_directory.Path(), fs::perms(0755));
        fs::permissions(m_directory.Path("tmp"), fs::perms(01777));
        fs::permissions(m_directory.Path("elsewhere"), fs::perms(0777));
        fs::permissions(m_directory.Path("data/vex-client-toolkit"), fs::perms(0700));
    }

    static void SetUpTestSuite() { EXPECT_FALSE(MadeStore().empty()); }

    // A demo store, made once for all tests because generating keys takes long.
    static const std::string& MadeStore() {
        static const TempDirectory s_directory;
        static const std::string s_strStore = [] {
            const ChildEnd end = RunChild([] {
                setenv("XDG_DATA_HOME", s_directory.Path().c_str(), 1);
                EXPECT_TRUE(Sign());
                log_idle::Wait();
            });
            return end.Passed() ? s_directory.Path("vex-client-toolkit/demo.pem") : std::string();
        }();
        return s_strStore;
    }

    void GiveTo(uid_t user, const std::vector<std::string>& names) const {
        for (const std::string& strName : names) {
            if (geteuid() == 0) {
                EXPECT_EQ(lchown(m_directory.Path(strName).c_str(), user, user), 0) << strName;
            }
        }
    }

    // Signs and logs as an ordinary user in a child process, which must not hang.
    ChildEnd SignInChild(
        const std::function<bool()>& fnPrepare = [] { return true; }, bool bMustSign = true) const {
        return RunChild([&] {
            setenv("VEX_TEST_LOG_DIR", m_directory.Path("tmp").c_str(), 1);
            setenv("XDG_DATA_HOME", m_directory.Path("data").c_str(), 1);
            setenv("LC_ALL", "C.UTF-8", 1);
            umask(0);
            if (chdir(m_directory.Path("cwd").c_str()) != 0 || !fnPrepare() || !BecomeUser(kSomebody)) {
                _exit(kRefused);
            }
            alarm(60);
            const bool bSigned = Sign();
            EXPECT_TRUE(bSigned || !bMustSign);
            LogAndTrace();
        });
    }

    struct Entry {
        fs::file_type type;
        std::string strContent;  // of a file; for a link, its target
        bool operator==(const Entry&) const = default;
    };

    // All files, by name.
    std::map<std::string, Entry> Everything() const {
        std::map<std::string, Entry> all;
        for (const auto& found : fs::recursive_directory_iterator(m_directory.Path())) {
            Entry entry{found.symlink_status().type(), {}};
            if (entry.type == fs::file_type::regular) {
                entry.strContent = ReadWholeFile(found.path());
            } else if (entry.type == fs::file_type::symlink) {
                entry.strContent = fs::read_symlink(found.path());
            }
            all.emplace(found.path(), std::move(entry));
        }
        return all;
    }

    // New files are accessible to their owner only.
    static void ExpectNewFilesPrivate(const std::map<std::string, Entry>& before,
                                      const std::map<std::string, Entry>& after) {
        for (const auto& [strPath, entry] : after) {
            if (entry.type == fs::file_type::regular && !before.contains(strPath)) {
                EXPECT_EQ(static_cast<unsigned>(fs::status(strPath).permissions()), 0600U) << strPath;
            }
        }
    }

    const TempDirectory m_directory;
};

// ---- The table ----

struct Place : Row {
    std::string strPath;          // in the test's directory
    bool bMayFail = false;        // signing may fail: these are the store's own files
    bool bMayBeReplaced = false;  // by the owner of its directory
};

std::vector<Place> Places() {
    const std::string strStore = "data/vex-client-toolkit";
    return {
        {{"Log"}, "tmp/PILog.txt"},
        {{"Trace"}, "tmp/pipe.log"},
        {{"TraceMarker"}, "tmp/testPipe"},
        {{"Profile"}, "tmp/log.ini"},
        {{"StoreDirectory"}, strStore, true},
        {{"Store"}, strStore + "/demo.pem", true, true},
        {{"StoreLock"}, strStore + "/demo.lock", true},
        {{"NewStore"}, strStore + "/demo.pem.new", true, true},
    };
}

struct Cell : Row {
    Place place;
    Obstacle obstacle;
};

std::vector<Cell> Cells() {
    std::vector<Cell> cells;
    for (const Place& place : Places()) {
        for (const Obstacle& obstacle : Obstacles()) {
            cells.push_back({{place.strName + obstacle.strName}, place, obstacle});
        }
    }
    return cells;
}

class CellTest : public ForeignFilesTest, public testing::WithParamInterface<Cell> {};

TEST_P(CellTest, IsUnchangedAndDelaysNothing) {
    const auto& [place, obstacle] = std::pair(GetParam().place, GetParam().obstacle);
    if (obstacle.bNeedsRoot && geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can give a file to another user";
    }
    const std::string strPath = m_directory.Path(place.strPath);
    const std::string strOther = m_directory.Path("elsewhere/other");
    fs::remove_all(strPath);
    if (place.strPath.ends_with(".new") || place.strPath.ends_with(".lock")) {
        fs::remove(m_directory.Path("data/vex-client-toolkit/demo.pem"));  // the process must create a store
    }
    const int nDescriptor = obstacle.fnMake(strPath, strOther);
    // Everything else belongs to the user, so that no missing right protects it.
    if (!obstacle.bNeedsRoot) {
        GiveTo(kSomebody, {place.strPath});
        if (fs::exists(fs::symlink_status(strOther))) {
            GiveTo(kSomebody, {"elsewhere/other"});
        }
    }
    const auto before = Everything();
    const ChildEnd end = SignInChild([] { return true; }, !place.bMayFail);
    EXPECT_TRUE(end.Passed()) << "signal " << end.nSignal;
    ExpectNothingReceived(nDescriptor);
    const auto after = Everything();
    ExpectNewFilesPrivate(before, after);
    for (const auto& [strName, entry] : before) {
        const auto found = after.find(strName);
        if (place.bMayBeReplaced && strName == strPath) {
            continue;
        }
        ASSERT_NE(found, after.end()) << strName;
        EXPECT_EQ(found->second.strContent, entry.strContent) << strName;
        EXPECT_EQ(found->second.type, entry.type) << strName;
    }
    if (obstacle.strName == "LinkToNothing") {
        EXPECT_FALSE(fs::exists(strOther));
    }
    close(nDescriptor);
}

INSTANTIATE_TEST_SUITE_P(, CellTest, testing::ValuesIn(Cells()), RowName);

// ---- Disks ----

struct Disk : Row {
    bool bFull;
    unsigned long nFlags;
    std::vector<std::string> names;  // of the directories that it is mounted on
};

class DiskTest : public ForeignFilesTest, public testing::WithParamInterface<Disk> {};

TEST_P(DiskTest, SigningGoesOn) {
    const Disk& disk = GetParam();
    const ChildEnd end = SignInChild(
        [&] {
            if (!HaveOwnMounts()) {
                return false;
            }
            for (const std::string& strName : disk.names) {
                const std::string strMount = m_directory.Path(strName);
                if (!MountSmall(strMount)) {
                    return false;
                }
                if (strName == "tmp") {
                    EXPECT_EQ(close(open((strMount + "/testPipe").c_str(), O_CREAT | O_CLOEXEC | O_WRONLY, 0644)), 0);
                }
                if (disk.bFull) {
                    std::ofstream(strMount + "/filler") << std::string(100'000, 'f');
                }
                if (mount("none", strMount.c_str(), "none", MS_REMOUNT | disk.nFlags, nullptr) != 0) {
                    return false;
                }
            }
            return chdir(m_directory.Path("cwd").c_str()) == 0;
        },
        disk.names.front() != "data");
    if (end.nStatus == kRefused) {
        GTEST_SKIP() << "skipped: this process may not mount file systems of its own";
    }
    EXPECT_TRUE(end.Passed()) << "signal " << end.nSignal;
}

INSTANTIATE_TEST_SUITE_P(, DiskTest,
                         testing::Values(Disk{{"FullForLogAndTrace"}, true, 0, {"tmp"}},
                                         Disk{{"FullForAll"}, true, 0, {"tmp", "cwd"}},
                                         Disk{{"FullForTheStore"}, true, 0, {"data"}},
                                         Disk{{"ReadOnlyForLogAndTrace"}, false, MS_RDONLY, {"tmp"}},
                                         Disk{{"ReadOnlyForAll"}, false, MS_RDONLY, {"tmp", "cwd"}},
                                         Disk{{"ReadOnlyForTheStore"}, false, MS_RDONLY, {"data"}}),
                         RowName);

// ---- Users ----

TEST_F(ForeignFilesTest, NewFilesArePrivate) {
    fs::permissions(m_directory.Path("data"), fs::perms(0777));
    fs::remove_all(m_directory.Path("data/vex-client-toolkit"));
    const auto before = Everything();
    EXPECT_TRUE(SignInChild().Passed());
    const auto after = Everything();
    ExpectNewFilesPrivate(before, after);
    for (const char* pszName : {"tmp/PILog.txt", "tmp/pipe.log", "data/vex-client-toolkit/demo.pem"}) {
        EXPECT_TRUE(after.contains(m_directory.Path(pszName))) << pszName;
    }
    EXPECT_EQ(static_cast<unsigned>(fs::status(m_directory.Path("data/vex-client-toolkit")).permissions()), 0700U);
}

// The second user finds the first user's files at the fixed names.
TEST_F(ForeignFilesTest, ASecondUserSignsUnaffected) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can switch between two users";
    }
    EXPECT_TRUE(SignInChild().Passed());
    const auto first = Everything();
    fs::create_directory(m_directory.Path("data2"));
    fs::create_directory(m_directory.Path("cwd2"));
    GiveTo(kSomebodyElse, {"data2", "cwd2"});
    const ChildEnd end = RunChild([&] {
        setenv("VEX_TEST_LOG_DIR", m_directory.Path("tmp").c_str(), 1);
        setenv("XDG_DATA_HOME", m_directory.Path("data2").c_str(), 1);
        ASSERT_EQ(chdir(m_directory.Path("cwd2").c_str()), 0);
        ASSERT_TRUE(BecomeUser(kSomebodyElse));
        alarm(60);
        EXPECT_TRUE(Sign());
        LogAndTrace();
    });
    EXPECT_TRUE(end.Passed()) << "signal " << end.nSignal;
    const auto both = Everything();
    for (const auto& [strName, entry] : first) {
        EXPECT_EQ(both.at(strName), entry) << strName;
    }
    EXPECT_FALSE(fs::is_empty(m_directory.Path("cwd2")));  // which has its log
}

// ---- At any moment ----

// Another user replaces the files again and again while the user signs. As in /tmp, the other user cannot remove the
// user's files. The test therefore puts a hard link to such a file there last.
TEST_F(ForeignFilesTest, ExchangedAtAnyMoment) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can switch between two users";
    }
    const long nRounds = AmountOf("VEX_TEST_FOREIGN_ROUNDS", 10);
    std::mt19937 random(SeedOfRun());
    const std::string strVictim = m_directory.Path("elsewhere/victim");
    MakeFile(strVictim, 0666);
    GiveTo(kSomebody, {"elsewhere/victim"});
    const std::string strNothing = m_directory.Path("elsewhere/nothing");
    const std::vector<std::string> names = {m_directory.Path("tmp/PILog.txt"), m_directory.Path("tmp/pipe.log")};
    void* const pShared = mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pShared, MAP_FAILED);
    long* const pnExchanges = static_cast<long*>(pShared);
    for (long i = 0; i < nRounds; ++i) {
        for (const std::string& strName : names) {
            fs::remove(strName);
        }
        fs::remove(m_directory.Path("tmp/.new"));
        const auto uSeed = static_cast<std::uint32_t>(random());
        // A process and not a thread, because this process forks.
        int over[2];
        ASSERT_EQ(pipe2(over, O_CLOEXEC | O_NONBLOCK), 0);
        const pid_t nOther = fork();
        if (nOther == 0) {
            close(over[1]);
            if (!BecomeUser(kSomebodyElse)) {
                _exit(kRefused);
            }
            std::mt19937 choice(uSeed);
            const std::string strNew = m_directory.Path("tmp/.new");
            char ch = 0;
            alarm(60);
            while (read(over[0], &ch, 1) != 0) {
                const std::string& strName = names[choice() % names.size()];
                std::error_code ignored;
                fs::remove_all(strNew, ignored);
                switch (choice() % 16) {
                    case 0:
                        fs::create_hard_link(strVictim, strNew, ignored);
                        break;
                    case 1:
                    case 2:
                    case 3:
                        fs::remove_all(strName, ignored);
                        continue;
                    case 4:
                    case 5:
                        mkfifo(strNew.c_str(), 0666);
                        break;
                    case 6:
                    case 7:
                    case 8:
                        fs::create_symlink(strNothing, strNew, ignored);
                        break;
                    default:
                        fs::create_symlink(strVictim, strNew, ignored);
                        break;
                }
                fs::rename(strNew, strName, ignored);
                *pnExchanges += ignored ? 0 : 1;
            }
            _exit(0);
        }
        ASSERT_GT(nOther, 0);
        close(over[0]);
        const ChildEnd end = SignInChild();
        EXPECT_TRUE(end.Passed()) << "signal " << end.nSignal << ", seed " << uSeed;
        close(over[1]);
        int nStatus = -1;
        EXPECT_EQ(waitpid(nOther, &nStatus, 0), nOther);
        EXPECT_EQ(nStatus, 0);
        ASSERT_EQ(ReadWholeFile(strVictim), kVictim);
        ASSERT_FALSE(fs::exists(fs::symlink_status(strNothing)));
    }
    EXPECT_GT(*pnExchanges, nRounds);
    std::printf("%ld processes signed while names were exchanged, %ld times\n", nRounds, *pnExchanges);
    munmap(pShared, sizeof(long));
}

}  // namespace
