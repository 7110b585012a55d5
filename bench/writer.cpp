// How fast the log's writer is.
//
// Product and floor queue the same lines. The writer of each takes them off the queue and appends them to its file. The
// time on the writer's thread counts from its first look at the file's name until it closes the file after the last
// line. The peer keeps its file open and flushes after every line.
//
// With mode=product or mode=floor one writer only writes lines=N lines, for counting from outside.
#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>

#include <clocale>
#include <fstream>

#include "Bench.h"
#include "DebugLogMgr.h"
#include "RecordFloor.h"
#include "SampleRecord.h"
#include "TempDirectory.h"
#include "WriterFloor.h"
#include "WriterPeers.h"

namespace {

constexpr DWORD kLimit = 0x200000;

// Measures a number of lines. The writer may not begin with the first line until all lines are queued.
class Stretch {
public:
    Stretch() {
        sem_init(&m_go, 0, 0);
        sem_init(&m_done, 0, 0);
    }

    // Call it before the first line is queued.
    void Prepare(int nLines) {
        m_nLeft = nLines;
        m_bBegun = false;
    }
    void Go() { sem_post(&m_go); }
    void Wait() { sem_wait(&m_done); }

    // The writer's thread calls these at the beginning and the end of each line.
    void LineBegins() {
        if (!m_bBegun) {
            sem_wait(&m_go);
            m_bBegun = true;
            m_dWall = bench::WallSeconds();
            m_dCpu = bench::CpuSeconds();
        }
    }
    void LineEnds() {
        if (--m_nLeft == 0) {
            m_dCpu = bench::CpuSeconds() - m_dCpu;
            m_dWall = bench::WallSeconds() - m_dWall;
            sem_post(&m_done);
        }
    }

    // Call it after Wait.
    double Wall() const { return m_dWall; }
    double Cpu() const { return m_dCpu; }

private:
    sem_t m_go;
    sem_t m_done;
    // Only the writer uses these, except between Prepare and Go.
    int m_nLeft = 0;
    bool m_bBegun = false;
    double m_dWall = 0;
    double m_dCpu = 0;
};

Stretch g_stretch;

template <typename Function>
Function* ToolkitFunction(const char* pszName) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, pszName));
}

class Product {
public:
    explicit Product(const std::string& strFile) : m_strFile(strFile) {
        bench::Require(CDebugLogMgr::IsWritten(1), "records of level 1 are written (/var/log.ini)");
        const std::wstring strWide(strFile.begin(), strFile.end());
        CDebugLogMgr::GetInstance()->SetLogFileName(strWide.c_str());
        CDebugLogMgr::GetInstance()->SetTruncate(kLimit, 20);
    }
    const std::string& File() const { return m_strFile; }
    void Queue() { CDebugLogMgr::MacroHelper(kType, 1, kFile, kFunction, kLine)(kFormat, kFunction); }

private:
    std::string m_strFile;
};

class Floor {
public:
    explicit Floor(const std::string& strFile)
        : m_strFile(strFile),
          m_log(std::wstring(strFile.begin(), strFile.end()).c_str()),
          m_writer(m_log.FileName(), kLimit) {
        pthread_t writer = {};
        bench::Require(pthread_create(&writer, nullptr, WriteLines, this) == 0, "a thread");
    }
    const std::string& File() const { return m_strFile; }
    void Queue() { m_log.Record(kType, kFile, kFunction, kLine, kFormat, kFunction); }

private:
    static void* WriteLines(void* pThis) {
        for (Floor& floor = *static_cast<Floor*>(pThis);;) {
            floor.m_log.Queue().Wait();
            while (const auto pLine = floor.m_log.Queue().Take()) {
                g_stretch.LineBegins();
                bench::Require(floor.m_writer.Write(pLine->strText), "the floor writes");
                g_stretch.LineEnds();
            }
        }
    }

    std::string m_strFile;
    bench::FloorLog m_log;
    bench::FloorWriter m_writer;
};

template <typename Log>
void WriteLines(Log& log, int nLines) {
    g_stretch.Prepare(nLines);
    for (int i = 0; i < nLines; ++i) {
        log.Queue();
    }
    g_stretch.Go();
    g_stretch.Wait();
}

// A log that one more line makes longer than its limit.
void FillToTheLimit(const std::string& strFile) {
    std::ofstream stream(strFile, std::ios::binary | std::ios::trunc);
    stream << "\xFF\xFE" << std::string(kLimit - 2, 'x');
    stream.close();
    bench::Require(stream.good(), "room for a log");
}

template <typename Log>
double LinesPerSecond(Log& log, int nLines) {
    std::filesystem::remove(log.File());
    WriteLines(log, nLines);
    return nLines / g_stretch.Wall();
}

template <typename Log>
double CpuOfALine(Log& log, int nLines) {
    std::filesystem::remove(log.File());
    WriteLines(log, nLines);
    return g_stretch.Cpu() / nLines * 1e9;
}

// The best of several runs, because the kernel may write back its page cache during one of them.
template <typename Log>
double CutMicroseconds(Log& log) {
    double dBest = 0;
    for (int i = 0; i < 5; ++i) {
        FillToTheLimit(log.File());
        WriteLines(log, 1);
        bench::Require(std::filesystem::file_size(log.File()) < kLimit * 9 / 10, "the log is cut");
        dBest = i == 0 ? g_stretch.Wall() : std::min(dBest, g_stretch.Wall());
    }
    return dBest * 1e6;
}

}  // namespace

// These replace the toolkit's functions and call them.
BOOL PathIsDirectoryW(LPCWSTR pszPath) {
    static auto* const s_pNext = ToolkitFunction<BOOL(LPCWSTR)>("PathIsDirectoryW");
    g_stretch.LineBegins();
    return s_pNext(pszPath);
}
BOOL CloseHandle(HANDLE hObject) {
    static auto* const s_pNext = ToolkitFunction<BOOL(HANDLE)>("CloseHandle");
    const BOOL bResult = s_pNext(hObject);
    g_stretch.LineEnds();
    return bResult;
}

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    const bench::Amounts amounts(argc, argv);
    bench::Question("How fast is the log's writer?");
    const std::string strMode = amounts.Text("mode", "all");
    const int nLines = amounts.Of("lines", 1000);
    const TempDirectory directory;
    const auto finish = [&] {
        std::filesystem::remove_all(directory.Path());
        std::fflush(stdout);
        _exit(0);  // the log's exit handler waits for a second
    };

    if (strMode == "product") {
        Product product(directory.Path("product.log"));
        WriteLines(product, nLines);
        finish();
    }
    if (strMode == "floor") {
        Floor floor(directory.Path("floor.log"));
        WriteLines(floor, nLines);
        finish();
    }
    bench::Require(strMode == "all", "mode=product or mode=floor");

    const int nRounds = amounts.Of("rounds", 40);
    const int nCutRounds = amounts.Of("cuts", 20);
    Product product(directory.Path("product.log"));
    Floor floor(directory.Path("floor.log"));
    std::vector<bench::Candidate> lines = {
        {"product", [&] { return LinesPerSecond(product, nLines); }},
        {"floor", [&] { return LinesPerSecond(floor, nLines); }},
    };
    WriterPeer peer(directory.Path("spdlog.log"));
    lines.push_back({"spdlog, file kept open", [&] {
                         const double dBegin = bench::WallSeconds();
                         for (int i = 0; i < nLines; ++i) {
                             peer.Write();
                         }
                         return nLines / (bench::WallSeconds() - dBegin);
                     }});
    bench::Interleave("lines of the writer", "lines/s", nRounds, lines);
    bench::Interleave("one line of the writer, CPU time", "ns", nRounds,
                      {{"product", [&] { return CpuOfALine(product, nLines); }},
                       {"floor", [&] { return CpuOfALine(floor, nLines); }}});
    bench::Interleave(
        "one cut at 2 MiB", "us", nCutRounds,
        {{"product", [&] { return CutMicroseconds(product); }}, {"floor", [&] { return CutMicroseconds(floor); }}});
    finish();
}
