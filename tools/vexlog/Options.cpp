#include "Options.h"

#include <charconv>
#include <cstdint>

#include "UserTime.h"
#include "common/CommandLine.h"

namespace vexlog {
namespace {

constexpr const char* kDescription =
    "Reads the diagnostic log that libTAVClientJNI.so and its minimal logger write.\n"
    "Without a command it prints the records, one a line.";

constexpr const char* kExamples = R"(Examples:
  vexlog                                     print /tmp/PILog.txt
  vexlog --follow --since 10m                the last ten minutes, and new records
  vexlog --function P7Sign --pid 4711        one native in one process
  vexlog --grep 'Leave.' --json old.txt      JSON, one object a line
  zcat PILog.txt.gz | vexlog -               standard input
  vexlog stats                               calls, failures and durations
  vexlog report log.html                     a page with a timeline

Exit status: 0 all was read; 1 reading or writing failed, or an output was refused; 2 the command line is wrong.)";

constexpr const char* kStatsExamples = R"(Examples:
  vexlog stats                               of /tmp/PILog.txt
  vexlog stats --json old.txt                one JSON object
  vexlog stats - < old.txt                   of standard input

A call was refused or failed if its thread goes on without a record of the call's end.
Median and p99 are within half a percent.)";

constexpr const char* kReportExamples = R"(Examples:
  vexlog report log.html                     of /tmp/PILog.txt
  vexlog report log.html --input old.txt     of another file
  vexlog report - --input old.txt            to standard output

The page is one file that needs no other file and no network.)";

// "-1234567", "T-1234567", or the same number without its sign as the minimal logger writes it.
std::int32_t ThreadOf(const std::string& strText) {
    const std::string_view text = std::string_view(strText).substr(strText.starts_with('T') ? 1 : 0);
    std::int64_t nThread = 0;
    const auto [pchEnd, error] = std::from_chars(text.data(), text.data() + text.size(), nThread);
    if (error != std::errc() || pchEnd != text.data() + text.size() || nThread < INT32_MIN || nThread > UINT32_MAX) {
        throw CLI::ValidationError("--thread", "\"" + strText + "\" is not a thread; use a number, such as -1234567");
    }
    return static_cast<std::int32_t>(nThread);
}

std::int64_t ProcessOf(const std::string& strText) {
    const std::string_view text = std::string_view(strText).substr(strText.starts_with('P') ? 1 : 0);
    std::int64_t nProcess = 0;
    const auto [pchEnd, error] = std::from_chars(text.data(), text.data() + text.size(), nProcess);
    if (error != std::errc() || pchEnd != text.data() + text.size() || nProcess < 0) {
        throw CLI::ValidationError("--pid", "\"" + strText + "\" is not a process; use a number, such as 4711");
    }
    return nProcess;
}

CivilMicroseconds TimeOf(const std::string& strOption, const std::string& strText, SystemMicroseconds now) {
    const UserTime time = ParseUserTime(strText, now);
    if (!time.time) {
        throw CLI::ValidationError(strOption, "\"" + strText + "\" is not a time" +
                                                  (time.strFault.empty() ? "" : " (" + time.strFault + ")") +
                                                  "; use 2024-03-05T09:07:02, 2024-03-05, 09:07, yesterday, \"1 hour "
                                                  "ago\", or a time before now: 30s, 10m, 2h, 3d, 1w");
    }
    return *time.time;
}

// Arguments that are not checked yet.
struct Texts {
    std::vector<std::string> threads;
    std::vector<std::string> processes;
    std::string strSince;
    std::string strUntil;
    std::string strColour = "auto";
};

void AddPrintOptions(CLI::App& app, Options& options, Texts& texts) {
    tools::AddFile(app, "FILE", options.strInput, "The log; \"-\" is standard input");
    tools::AddList(app, "--function", options.filter.functions, "NAME",
                   "Only this function, such as ClearFilter or its whole name; may be repeated");
    tools::AddList(app, "--thread", texts.threads, "NUMBER", "Only this thread; may be repeated");
    tools::AddList(app, "--pid", texts.processes, "NUMBER", "Only this process; may be repeated");
    app.add_option("--since", texts.strSince, "Only from this local time on: 2024-03-05T09:07:02, 09:07, 10m (ago)")
        ->type_name("TIME");
    app.add_option("--until", texts.strUntil, "Only up to this local time")->type_name("TIME");
    app.add_option("--grep", options.filter.strText, "Only messages that contain this text (no pattern)")
        ->type_name("TEXT");
    app.add_flag("-i,--ignore-case", options.filter.bIgnoreCase, "--grep ignores the case of the letters A to Z");
    app.add_flag("-f,--follow", options.bFollow, "Print new records as they are written, until interrupted");
    app.add_flag("--json", options.bJson, "One JSON object a line");
    app.add_option("--color,--colour", texts.strColour, "auto: on a terminal, unless NO_COLOR is set")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->type_name("WHEN");
}

void CheckTexts(const Texts& texts, Options& options) {
    const SystemMicroseconds now = SystemNow();
    Filter& filter = options.filter;
    options.colour = texts.strColour == "always"  ? Colour::kAlways
                     : texts.strColour == "never" ? Colour::kNever
                                                  : Colour::kAuto;
    for (const std::string& strThread : texts.threads) {
        filter.threads.push_back(ThreadOf(strThread));
    }
    for (const std::string& strProcess : texts.processes) {
        filter.processes.push_back(ProcessOf(strProcess));
    }
    if (!texts.strSince.empty()) {
        filter.since = TimeOf("--since", texts.strSince, now);
    }
    if (!texts.strUntil.empty()) {
        filter.until = TimeOf("--until", texts.strUntil, now);
    }
}

// A command always reads the whole log.
void RefusePrintOptions(const CLI::App& app) {
    for (const char* const pszName :
         {"--function", "--thread", "--pid", "--since", "--until", "--grep", "--ignore-case", "--follow", "--color"}) {
        if (app.count(pszName) > 0) {
            throw CLI::ValidationError(pszName, "this option is for printing records; leave it out before a command");
        }
    }
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& nExit) {
    Options options;
    Texts texts;
    CLI::App app(kDescription, "vexlog");
    tools::AddCommonOptions(app, VEX_VERSION, kExamples);
    AddPrintOptions(app, options, texts);

    CLI::App* const pStats = app.add_subcommand("stats", "Calls, failures and durations by function");
    pStats->footer(kStatsExamples);
    tools::AddFile(*pStats, "FILE", options.strInput, "The log; \"-\" is standard input");
    pStats->add_flag("--json", options.bJson, "One JSON object");

    CLI::App* const pReport = app.add_subcommand("report", "Write a page with a timeline, durations and failures");
    pReport->footer(kReportExamples);
    tools::AddFile(*pReport, "OUT.html", options.strOutput, "The page; \"-\" is standard output")->required();
    tools::AddFile(*pReport, "--input", options.strInput, "The log; \"-\" is standard input", "FILE");
    app.require_subcommand(0, 1);

    const auto check = [&] {
        CheckTexts(texts, options);
        options.command = pStats->parsed() ? Command::kStats : pReport->parsed() ? Command::kReport : Command::kPrint;
        if (options.command != Command::kPrint) {
            RefusePrintOptions(app);
        }
        if (options.bFollow && options.strInput == "-") {
            throw CLI::ValidationError(
                "--follow", "standard input cannot be followed; leave this option out to print records as they arrive");
        }
    };
    if (!tools::Parse(app, argc, argv, check, nExit)) {
        return std::nullopt;
    }
    return options;
}

}  // namespace vexlog
