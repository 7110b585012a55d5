// Whether a record costs more the more of them are queued, and how much memory a queued one takes: the writer is held
// before its first file while records=N of them come.
#include <dlfcn.h>
#include <malloc.h>
#include <semaphore.h>

#include <memory>

#include "Bench.h"
#include "DebugLogMgr.h"
#include "TempDirectory.h"

namespace {

constexpr wchar_t kFunction[] = L"Java_vex_jni_TAVClientJNI_P1SignString";

void QueueRecords(long nRecords) {
    for (long i = 0; i < nRecords; ++i) {
        CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"TAVClientJNI/vex_jni_TAVClientJNI.cpp", kFunction, 274)(L"%s Enter.",
                                                                                                           kFunction);
    }
}

// Has the heap keep so much memory that has been touched: memory that the machine has not given to anybody before can
// cost several times as much as other, above all a virtual machine's, and has nothing to do with the log.
void TouchMemory(std::size_t cb) {
    bench::Require(mallopt(M_MMAP_MAX, 0) == 1 && mallopt(M_TRIM_THRESHOLD, -1) == 1, "a heap that keeps its memory");
    const std::unique_ptr<volatile char[]> pMemory(new volatile char[cb]);
    for (int nPass = 0; nPass < 2; ++nPass) {
        for (std::size_t i = 0; i < cb; i += 4096) {
            pMemory[i] = 1;
        }
    }
}

double AllocatedBytes() {
    return static_cast<double>(mallinfo2().uordblks);
}

}  // namespace

// In place of the toolkit's, which the writer calls first: it does not come further.
BOOL PathIsDirectoryW(LPCWSTR) {
    sem_t never;
    sem_init(&never, 0, 0);
    for (;;) {
        sem_wait(&never);
    }
}

int main(int argc, char** argv) {
    const bench::Amounts amounts(argc, argv);
    bench::Question("Does a record cost more the more of them are queued?");
    const long nMost = amounts.Of("records", 1000000);
    const int nBatches = amounts.Of("rounds", 40);
    constexpr std::size_t kRecordBytes = 900;
    TouchMemory(static_cast<std::size_t>(nMost) * kRecordBytes);
    const TempDirectory directory;
    const std::string strLog = directory.Path("growth.log");
    bench::Require(CDebugLogMgr::IsWritten(1), "records of level 1 are written (/var/log.ini)");
    CDebugLogMgr::GetInstance()->SetLogFileName(std::wstring(strLog.begin(), strLog.end()).c_str());
    const double dBefore = AllocatedBytes();
    long nQueued = 0;
    for (long nMark = 1; nMark <= nMost; nMark *= 10) {
        QueueRecords(nMark - nQueued);
        nQueued = nMark;
        // As many again at most, so that the number is still of that order.
        const long nBatch = std::clamp(nMark / nBatches, 1L, 100L);
        for (int nRound = 0; nRound < nBatches && nQueued + nBatch <= 2 * nMark; ++nRound) {
            const double dBegin = bench::CpuSeconds();
            QueueRecords(nBatch);
            const double dEnd = bench::CpuSeconds();
            nQueued += nBatch;
            bench::Sample("one record, CPU time, by queue", std::to_string(nMark) + " queued", nRound,
                          (dEnd - dBegin) * 1e9 / static_cast<double>(nBatch), "ns");
        }
    }
    bench::Sample("memory of a queued record", "product", 0,
                  (AllocatedBytes() - dBefore) / static_cast<double>(nQueued), "bytes");
    std::filesystem::remove_all(directory.Path());
    std::fflush(stdout);
    _exit(0);
}
