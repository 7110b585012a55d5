// Does a record cost more when more records are queued, and how much memory does a queued record take? The writer is
// held before its first file while records=N records are queued.
#include <dlfcn.h>
#include <malloc.h>
#include <semaphore.h>

#include <memory>

#include "Bench.h"
#include "DebugLogMgr.h"
#include "SampleRecord.h"
#include "TempDirectory.h"

namespace {

void QueueRecords(long nRecords) {
    for (long i = 0; i < nRecords; ++i) {
        CDebugLogMgr::MacroHelper(kType, 1, kFile, kFunction, kLine)(kFormat, kFunction);
    }
}

// Touches this much memory and makes the heap keep it. The first use of memory can cost several times as much, above
// all in a virtual machine, and that is not the log's cost.
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

// Replaces the toolkit's function, which the writer calls first. The writer stops here.
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
        // The rounds at most double the number, so that it keeps its order of magnitude.
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
