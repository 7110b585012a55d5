// How long a trace record holds up the thread that makes it: not the usual time, but that of the slowest records.
//
// Many threads make a record of the product and one of the floor in turns, with a pause before each. So a disturbance
// of the machine affects both, and the threads meet at the log's locks as in a server. Both writers write their lines
// to files. A round gives quantiles of the times by the clock.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <clocale>
#include <thread>

#include "Bench.h"
#include "DebugLogMgr.h"
#include "RecordFloor.h"
#include "SampleRecord.h"
#include "TempDirectory.h"
#include "WriterFloor.h"

namespace {

constexpr DWORD kLimit = 0x200000;

class Floor {
public:
    explicit Floor(const std::wstring& strFile) : m_log(strFile.c_str()), m_writer(strFile, kLimit) {
        pthread_t writer = {};
        bench::Require(pthread_create(&writer, nullptr, Write, this) == 0, "a thread");
    }
    void Record() {
        m_log.Record(kType, kFile, kFunction, kLine, kFormat, kFunction);
        m_nRecords.fetch_add(1, std::memory_order_relaxed);
    }
    // Until all records are written.
    void Wait() const {
        while (m_nWritten.load() != m_nRecords.load()) {
            std::this_thread::yield();
        }
    }

private:
    static void* Write(void* pThis) {
        for (Floor& floor = *static_cast<Floor*>(pThis);;) {
            floor.m_log.Queue().Wait();
            while (const auto pLine = floor.m_log.Queue().Take()) {
                bench::Require(floor.m_writer.Write(pLine->strText), "the floor writes");
                floor.m_nWritten.fetch_add(1);
            }
        }
    }

    bench::FloorLog m_log;
    bench::FloorWriter m_writer;
    std::atomic<long> m_nRecords{0};
    std::atomic<long> m_nWritten{0};
};

using Times = std::vector<double>;  // in microseconds

struct Both {
    Times product;
    Times floor;
};

template <typename Record>
void Measure(Times& times, int nPause, Record record) {
    const timespec pause = {0, nPause * 1000L};
    nanosleep(&pause, nullptr);
    const double dBegin = bench::WallSeconds();
    record();
    times.push_back((bench::WallSeconds() - dBegin) * 1e6);
}

Both Run(Floor& floor, int nThreads, int nRecords, int nPause) {
    std::vector<Both> all(static_cast<std::size_t>(nThreads));
    std::vector<std::jthread> threads;
    for (std::size_t iThread = 0; iThread < all.size(); ++iThread) {
        threads.emplace_back([&, iThread] {
            Both& own = all[iThread];
            own.product.reserve(static_cast<std::size_t>(nRecords));
            own.floor.reserve(static_cast<std::size_t>(nRecords));
            const auto product = [&] {
                Measure(own.product, nPause,
                        [] { CDebugLogMgr::MacroHelper(kType, 1, kFile, kFunction, kLine)(kFormat, kFunction); });
            };
            for (int i = 0; i < nRecords; ++i) {
                const bool bProductFirst = (static_cast<int>(iThread) + i) % 2 == 0;
                if (bProductFirst) {
                    product();
                }
                Measure(own.floor, nPause, [&] { floor.Record(); });
                if (!bProductFirst) {
                    product();
                }
            }
        });
    }
    threads.clear();
    Both together;
    for (const Both& own : all) {
        together.product.insert(together.product.end(), own.product.begin(), own.product.end());
        together.floor.insert(together.floor.end(), own.floor.begin(), own.floor.end());
    }
    return together;
}

double Quantile(Times& times, double dPart) {
    const auto iWanted = static_cast<std::ptrdiff_t>(dPart * static_cast<double>(times.size() - 1));
    std::nth_element(times.begin(), times.begin() + iWanted, times.end());
    return times[static_cast<std::size_t>(iWanted)];
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    const bench::Amounts amounts(argc, argv);
    bench::Question("How long do the slowest records hold up the thread that makes them?");
    const int nThreads = amounts.Of("threads", 16);
    const int nRecords = amounts.Of("records", 1000);
    const int nPause = amounts.Of("pause", 500);
    const int nRounds = amounts.Of("rounds", 20);
    const TempDirectory directory;
    const std::string strProduct = directory.Path("product.log");
    const std::string strFloor = directory.Path("floor.log");
    bench::Require(CDebugLogMgr::IsWritten(1), "records of level 1 are written (/var/log.ini)");
    CDebugLogMgr::GetInstance()->SetLogFileName(std::wstring(strProduct.begin(), strProduct.end()).c_str());
    CDebugLogMgr::GetInstance()->SetTruncate(kLimit, 20);
    Floor floor(std::wstring(strFloor.begin(), strFloor.end()));

    for (int nRound = -1; nRound < nRounds; ++nRound) {
        Both both = Run(floor, nThreads, nRecords, nPause);
        for (const auto& [pszPart, dPart] :
             {std::pair("half", 0.5), std::pair("99 %", 0.99), std::pair("99.9 %", 0.999)}) {
            if (nRound >= 0) {
                const std::string strRow = std::string(pszPart) + " of the records take at most";
                bench::Sample(strRow, "product", nRound, Quantile(both.product, dPart), "us");
                bench::Sample(strRow, "floor", nRound, Quantile(both.floor, dPart), "us");
            }
        }
        std::fflush(stdout);
    }
    floor.Wait();
    CDebugLogMgr::GetInstance()->EnableOutput(FALSE);
    std::filesystem::remove_all(directory.Path());
    _exit(0);  // the log's exit handler waits for a second
}
