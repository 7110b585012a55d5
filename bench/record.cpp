// What one trace record costs the thread that makes it.
//
// Product and floor queue the same record. The writer thread of each takes it off the queue and drops it, so that the
// disk is not measured. The peers are installed loggers, asynchronous and synchronous. They write a record of the same
// length to nowhere and need fewer steps.
//
// With mode=product or mode=floor it only makes records=N records of one kind, for counting from outside.
#include <pthread.h>
#include <sys/stat.h>

#include <barrier>
#include <clocale>
#include <thread>

#include "Allocations.h"
#include "Bench.h"
#include "DebugLogMgr.h"
#include "RecordFloor.h"
#include "RecordPeers.h"
#include "SampleRecord.h"
#include "TempDirectory.h"

namespace {

bench::FloorLog* g_pFloor = nullptr;

// Not inline, so that counting can begin and end with a call of it.
[[gnu::noinline]] void ProductRecord() {
    CDebugLogMgr::MacroHelper(kType, 1, kFile, kFunction, kLine)(kFormat, kFunction);
}

// A record below the log's level, which is not written.
[[gnu::noinline]] void DroppedRecord() {
    CDebugLogMgr::MacroHelper(kType, 0, kFile, kFunction, kLine)(kFormat, kFunction);
}

[[gnu::noinline]] void FloorRecord() {
    g_pFloor->Record(kType, kFile, kFunction, kLine, kFormat, kFunction);
}

void* DropLines(void* pQueue) {
    for (auto& queue = *static_cast<bench::FloorQueue*>(pQueue);;) {
        queue.Wait();
        while (queue.Take() != nullptr) {
        }
    }
}

using Record = void (*)();

void Repeat(Record record, int nRecords) {
    for (int i = 0; i < nRecords; ++i) {
        record();
    }
}

double CpuNanoseconds(Record record, int nRecords) {
    const double dBegin = bench::CpuSeconds();
    Repeat(record, nRecords);
    return (bench::CpuSeconds() - dBegin) * 1e9 / nRecords;
}

// Time from the start of the first of nThreads threads to the end of the last one, per record of each thread.
double WallNanoseconds(Record record, int nRecords, int nThreads) {
    struct Stretch {
        double dBegin = 0;
        double dEnd = 0;
    };
    std::barrier together(nThreads);
    std::vector<Stretch> stretches(static_cast<std::size_t>(nThreads));
    std::vector<std::thread> threads;
    for (Stretch& stretch : stretches) {
        threads.emplace_back([&] {
            together.arrive_and_wait();
            stretch.dBegin = bench::WallSeconds();
            Repeat(record, nRecords);
            stretch.dEnd = bench::WallSeconds();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    Stretch all = stretches.front();
    for (const Stretch& stretch : stretches) {
        all = {std::min(all.dBegin, stretch.dBegin), std::max(all.dEnd, stretch.dEnd)};
    }
    return (all.dEnd - all.dBegin) * 1e9 / nRecords;
}

double Allocations(Record record) {
    constexpr int kRecords = 100;
    const unsigned long nBegin = bench::t_nAllocations;
    Repeat(record, kRecords);
    return static_cast<double>(bench::t_nAllocations - nBegin) / kRecords;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    const bench::Amounts amounts(argc, argv);
    bench::Question("What does one trace record cost the thread that makes it?");
    const std::string strMode = amounts.Text("mode", "all");
    const TempDirectory directory;
    const std::string strLog = directory.Path("record.log");
    const std::wstring strWideLog(strLog.begin(), strLog.end());

    CDebugLogMgr* const pLog = CDebugLogMgr::GetInstance();
    bench::Require(CDebugLogMgr::IsWritten(1), "records of level 1 are written (/var/log.ini)");
    pLog->SetLogFileName(strWideLog.c_str());
    pLog->EnableOutput(FALSE);
    bench::FloorLog floor(strWideLog.c_str());
    g_pFloor = &floor;
    pthread_t writer = {};
    bench::Require(pthread_create(&writer, nullptr, DropLines, &floor.Queue()) == 0, "a thread");

    if (strMode != "all") {
        bench::Require(strMode == "product" || strMode == "floor", "mode=product or mode=floor");
        Repeat(strMode == "product" ? ProductRecord : FloorRecord, amounts.Of("records", 100));
        std::fflush(stdout);
        std::filesystem::remove_all(directory.Path());
        _exit(0);
    }

    const char* const pszTimeZone = std::getenv("TZ");
    bench::Setting("TZ", pszTimeZone != nullptr ? pszTimeZone : "(unset)");
    bench::Setting("locale", std::setlocale(LC_CTYPE, nullptr));
    const int nRounds = amounts.Of("rounds", 100);
    const int nRecords = amounts.Of("records", 1000);
    const int nThreads = amounts.Of("threads", 8);

    std::vector<bench::Candidate> one = {
        {"product", [=] { return CpuNanoseconds(ProductRecord, nRecords); }},
        {"floor", [=] { return CpuNanoseconds(FloorRecord, nRecords); }},
    };
    RecordPeers peers(directory.Path());
    one.push_back({"spdlog, asynchronous", [=] { return CpuNanoseconds(RecordPeers::Spdlog, nRecords); }});
    one.push_back({"glog", [=] { return CpuNanoseconds(RecordPeers::Glog, nRecords); }});
    bench::Interleave("one record, CPU time", "ns", nRounds, one);
    bench::Interleave("eight threads, wall time for one record of each", "ns", nRounds,
                      {{"product", [=] { return WallNanoseconds(ProductRecord, nRecords, nThreads); }},
                       {"floor", [=] { return WallNanoseconds(FloorRecord, nRecords, nThreads); }}});
    bench::Interleave("one dropped record, CPU time", "ns", nRounds,
                      {{"product", [=] { return CpuNanoseconds(DroppedRecord, 1000 * nRecords); }}});
    bench::Interleave(
        "allocations of one record", "allocations", 1,
        {{"product", [] { return Allocations(ProductRecord); }}, {"floor", [] { return Allocations(FloorRecord); }}});
    std::filesystem::remove_all(directory.Path());
    std::fflush(stdout);
    _exit(0);  // the log's exit handler waits for a second
}
