// A host forks while its threads use the libraries. In the child, threads that exist only in the parent hold no lock
// and no turn, also before the child runs another program. The child can use the open objects.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <deque>
#include <thread>
#include <vector>

#include "Amount.h"
#include "ChildProcess.h"
#include "DebugLogMgr.h"
#include "LogTest.h"
#include "TempDirectory.h"
#include "TestStore.h"
#include "ToolkitClient.h"
#include "VEXCompat.h"

namespace {

constexpr int kThreads = 6;
constexpr int kObjects = 2;
constexpr unsigned kMaxSeconds = 30;

// Calls everything that takes a lock, except signing: OpenSSL does not prepare its locks for a fork.
void CallAll(HANDLE hObject, const std::string& strFile) {
    VCTK_SetDigestAlg(hObject, "MD5");  // refused, which sets the thread's last error
    VCTK_SetChooseSingleCert(hObject, 0);
    VCTK_AddFilter(hObject, 2, "CN");
    VCTK_ClearFilter(hObject);
    VCTK_GetLastError(hObject);
    ErrorMessage(hObject);
    const HANDLE hFile = VexCreateFile(strFile.c_str());
    DWORD cb = 0;
    WriteFile(hFile, "x", 1, &cb, nullptr);
    CloseHandle(hFile);
}

class ForksTest : public LogTest {
protected:
    ForksTest() { MakeIdentity(m_store, {.strName = "key", .strKey = "rsa:2048"}); }

    std::string Store() const { return "file:" + MakePemStore(m_store, "store.pem", {"key"}); }

    // Forks again and again while the threads call, in a child process of this test. SIGALRM ends a grandchild that
    // hangs, and the test fails.
    void ForkWhileThreadsCall(const std::function<void(const std::vector<HANDLE>&)>& fnChild) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "skipped: a forked child may find the sanitizer's own allocator locked";
#endif
        const long nForks = AmountOf("VEX_TEST_FORKS", 60);
        const std::string strStore = Store();
        InChild([&] {
            Trace(L"first");
            std::deque<ToolkitClient> clients;
            std::vector<HANDLE> handles;
            for (int i = 0; i < kObjects; ++i) {
                handles.push_back(clients.emplace_back(strStore).Handle());
                ASSERT_NE(handles.back(), nullptr);
            }
            std::atomic<bool> bEnd = false;
            std::vector<std::thread> threads;
            for (int nThread = 0; nThread < kThreads; ++nThread) {
                threads.emplace_back([&, nThread] { CallUntil(bEnd, nThread, clients, strStore); });
            }
            for (long nFork = 0; nFork < nForks; ++nFork) {
                const pid_t nChild = fork();
                ASSERT_GE(nChild, 0);
                if (nChild == 0) {
                    alarm(kMaxSeconds);
                    fnChild(handles);
                    _exit(0);
                }
                int nStatus = -1;
                ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
                if (nStatus != 0) {
                    ADD_FAILURE() << "fork " << nFork << (WIFSIGNALED(nStatus) ? ": signal " : ": status ")
                                  << (WIFSIGNALED(nStatus) ? WTERMSIG(nStatus) : WEXITSTATUS(nStatus));
                    break;
                }
            }
            bEnd = true;
            for (std::thread& thread : threads) {
                thread.join();
            }
        });
    }

    const TempDirectory m_store;

private:
    // A third of the threads sign, which takes turns of a millisecond; a third make and release objects.
    void CallUntil(const std::atomic<bool>& bEnd, int nThread, const std::deque<ToolkitClient>& clients,
                   const std::string& strStore) const {
        const ToolkitClient& client = clients.at(static_cast<std::size_t>(nThread % kObjects));
        const std::string strFile = m_store.Path("file" + std::to_string(nThread));
        while (!bEnd) {
            switch (nThread % 3) {
                case 0:
                    EXPECT_TRUE(client.SignP1("text"));
                    break;
                case 1:
                    EXPECT_TRUE(ToolkitClient(strStore).IsOpen());
                    break;
                default:
                    CallAll(client.Handle(), strFile);
                    Trace(L"more");
                    break;
            }
        }
    }
};

TEST_F(ForksTest, AnotherProgramRuns) {
    ForkWhileThreadsCall([](const std::vector<HANDLE>&) {
        execlp("true", "true", nullptr);
        _exit(1);
    });
}

TEST_F(ForksTest, TheChildCallsWhatItsParentHasOpen) {
    const std::string strFile = m_store.Path("of the child");
    ForkWhileThreadsCall([&](const std::vector<HANDLE>& handles) {
        for (HANDLE hObject : handles) {
            if (VCTK_SetChooseSingleCert(hObject, 1) != 0) {
                _exit(2);
            }
            CallAll(hObject, strFile);
            if (VCTK_Finalize(hObject) != 0 || VCTK_Finalize(hObject) == 0) {
                _exit(3);
            }
        }
        Trace(L"child");
    });
}

// If the parent has only one thread, like a server that opens a store and then forks, the child can also sign.
TEST_F(ForksTest, AChildOfAProcessWithOneThreadSigns) {
    const ToolkitClient client(Store());
    ASSERT_TRUE(client.IsOpen());
    ASSERT_TRUE(client.SignP1("parent"));
    ExpectChildPasses([&] {
        EXPECT_TRUE(client.SignP1("child"));
        EXPECT_EQ(client.LastError(), 0);
        EXPECT_TRUE(client.SignP7("child", 0, 1, 1));
    });
    EXPECT_TRUE(client.SignP1("parent again"));
}

}  // namespace
