// vexlog: prints, measures and draws the diagnostic log.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <vector>

#include "EmptyEntries.h"
#include "Follow.h"
#include "Input.h"
#include "JsonPrinter.h"
#include "LastRecords.h"
#include "Options.h"
#include "OutputGuard.h"
#include "Progress.h"
#include "Report.h"
#include "ReportFile.h"
#include "Stats.h"
#include "TextPrinter.h"
#include "common/Exit.h"
#include "common/FileIdentity.h"
#include "common/Message.h"
#include "common/Process.h"

namespace vexlog {
namespace {

constexpr int kPollMilliseconds = 200;

volatile std::sig_atomic_t s_nInterrupted = 0;

void OnInterrupt(int) {
    s_nInterrupted = 1;
}

// Hands on the records that pass the filter.
class FilterSink : public RecordSink {
public:
    FilterSink(const Filter& filter, RecordSink& next) : m_filter(filter), m_next(next) {}
    void OnRecord(const Record& record) override {
        if (m_filter.Passes(record)) {
            m_next.OnRecord(record);
        }
    }

private:
    const Filter& m_filter;
    RecordSink& m_next;
};

bool WantsColour(Colour colour) {
    const char* const pszNoColour = std::getenv("NO_COLOR");
    const bool bRefused = pszNoColour != nullptr && *pszNoColour != '\0';
    return colour == Colour::kAlways || (colour == Colour::kAuto && !bRefused && isatty(STDOUT_FILENO) != 0);
}

std::unique_ptr<RecordSink> MakePrinter(const Options& options, vexposix::OutputBuffer& output) {
    if (options.bJson) {
        return std::make_unique<JsonPrinter>(output);
    }
    return std::make_unique<TextPrinter>(output,
                                         TextPrinter::Style{WantsColour(options.colour), tools::LocaleIsUtf8()});
}

// False: the reader of the output has ended. A pipe then reports an error, a socket a hang-up.
bool Wait() {
    pollfd output = {STDOUT_FILENO, 0, 0};
    return poll(&output, 1, kPollMilliseconds) <= 0 || (output.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
}

bool PollOrFinish(Follower& follower) {
    try {
        return follower.Poll();
    } catch (const ReadError&) {
        follower.Finish();
        throw;
    }
}

void Advise(const EmptyEntries& entries) {
    if (const std::string strAdvice = entries.Advice(); !strAdvice.empty()) {
        tools::Complain("vexlog", strAdvice);
    }
}

// fnOldRead is called once, when the records that were there before have been read.
void FollowLog(const std::string& strPath, RecordSink& sink, const std::function<void()>& fnOldRead,
               vexposix::OutputBuffer& output) {
    // The second look without new bytes hands over a last record without its empty line.
    constexpr int kLooks = 2;
    // SA_RESETHAND: a second signal ends a program that hangs.
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    Follower follower(strPath, sink);
    bool bTold = false;
    int nQuiet = 0;
    while (s_nInterrupted == 0) {
        const bool bNew = PollOrFinish(follower);
        if (follower.TakeLost()) {
            output.Flush();
            tools::Complain("vexlog", "the log was cut or emptied; records may be missing");
        }
        if (!follower.HasFile() && !bTold) {
            bTold = true;
            tools::Complain("vexlog", strPath + " does not exist yet; waiting for it");
        }
        if (!bNew) {
            if (++nQuiet == kLooks) {
                fnOldRead();
            }
            nQuiet = std::min(nQuiet, kLooks);
            output.Flush();
            if (!Wait()) {
                throw vexposix::OutputClosed();
            }
        }
    }
    follower.Finish();
    if (nQuiet < kLooks) {
        fnOldRead();
    }
}

void Print(const Options& options) {
    vexposix::OutputBuffer output(STDOUT_FILENO);
    const std::unique_ptr<RecordSink> printer = MakePrinter(options, output);
    LastRecords last(options.cLast.value_or(0), *printer);
    FilterSink filter(options.filter, options.cLast ? last : *printer);
    EmptyEntries entries(filter);
    const auto finish = [&] {
        last.Release();
        output.Flush();
        Advise(entries);
    };
    try {
        if (options.bFollow) {
            FollowLog(options.inputs.front(), entries, finish, output);
        } else {
            Progress progress(output, isatty(STDERR_FILENO) != 0 && isatty(STDOUT_FILENO) == 0);
            ReadLogs(options.inputs, entries, progress);
        }
    } catch (const ReadError&) {
        // What was read before is printed.
        last.Release();
        output.Flush();
        throw;
    }
    if (!options.bFollow) {
        finish();
    }
    output.Finish();
}

void ReadQuietly(const std::vector<std::string>& paths, RecordSink& sink) {
    vexposix::OutputBuffer nothing(STDOUT_FILENO);
    EmptyEntries entries(sink);
    {
        Progress progress(nothing, isatty(STDERR_FILENO) != 0);
        ReadLogs(paths, entries, progress);
    }
    Advise(entries);
}

void PrintStats(const Options& options) {
    Stats stats(nullptr, options.filter);
    std::exception_ptr failure;
    try {
        ReadQuietly(options.inputs, stats);
    } catch (const ReadError&) {
        failure = std::current_exception();
    }
    stats.Finish();
    if (failure && stats.Log().cRecords + stats.Log().cMinimal + stats.Log().cFragments == 0) {
        std::rethrow_exception(failure);
    }
    vexposix::OutputBuffer output(STDOUT_FILENO);
    if (options.bJson) {
        PrintStatsJson(stats, output);
    } else {
        PrintStatsText(stats, tools::LocaleIsUtf8(), output);
    }
    output.Finish();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

// An old page is replaced only if the whole log was read.
void WriteReport(const Options& options) {
    RefuseLogAsOutput(options.strOutput);
    Report report(options.filter);
    ReadQuietly(options.inputs, report);
    report.Finish();
    std::string strSource;
    for (const std::string& strInput : options.inputs) {
        strSource += (strSource.empty() ? "" : ", ") + tools::ShownName(strInput, "standard input");
    }
    const ReportOrigin origin = OriginHere(strSource);
    WriteReportFile(options.strOutput, [&](vexposix::OutputBuffer& output) { report.Print(origin, output); });
}

int Run(int argc, char** argv) {
    tools::SetUpProcess();
    int nExit = tools::kExitOk;
    const std::optional<Options> options = ParseOptions(argc, argv, nExit);
    if (!options) {
        return nExit;
    }
    try {
        for (const std::string& strInput : options->inputs) {
            RefuseInputAsOutput(options->command == Command::kReport ? options->strOutput : "-", strInput);
        }
        switch (options->command) {
            case Command::kPrint:
                Print(*options);
                break;
            case Command::kStats:
                PrintStats(*options);
                break;
            case Command::kReport:
                WriteReport(*options);
                break;
        }
    } catch (const vexposix::OutputClosed&) {
        // No error: the reader has seen enough.
    } catch (const std::bad_alloc&) {
        tools::Complain("vexlog", "out of memory");
        return tools::kExitError;
    } catch (const std::exception& error) {
        tools::Complain("vexlog", error.what());
        return tools::kExitError;
    }
    return tools::kExitOk;
}

}  // namespace
}  // namespace vexlog

int main(int argc, char** argv) {
    return vexlog::Run(argc, argv);
}
