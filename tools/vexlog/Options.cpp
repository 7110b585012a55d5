#include "Options.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "UserTime.h"
#include "common/CommandLine.h"
#include "common/FileIdentity.h"

namespace vexlog {
namespace {

constexpr const char* kDescription =
    "Reads the diagnostic log that libTAVClientJNI.so and its minimal logger write.\n"
    "Without a command it prints the records, one a line.";

constexpr const char* kDefaultInput = "/tmp/PILog.txt";

constexpr const char* kExamples =
    R"(Times are local, as in the log: "2024-03-05 09:07:02", 2024-03-05, 09:07 (today), now, today,
yesterday, tomorrow, "1 hour ago", -1h30min, +5min, and without a sign before now: 30s, 10m, 2h, 3d, 1w.

Examples:
  vexlog                                     print /tmp/PILog.txt
  vexlog --follow --since 10m                the last ten minutes, and new records
  vexlog -n 20 --since yesterday             the last twenty records since yesterday
  vexlog --function P7Sign --pid 4711        one native in one process
  vexlog --grep 'Leave.' --json old.txt      JSON, one object a line
  vexlog PILog.txt PILog.txt.1.gz            a log and its older part, in the order of time
  xzcat PILog.txt.xz | vexlog -              standard input
  vexlog stats                               calls, failures and durations
  vexlog report log.html                     a page with a timeline

Exit status: 0 all was read; 1 reading or writing failed, or an output was refused; 2 the command line is wrong.)";

constexpr const char* kStatsExamples = R"(Examples:
  vexlog stats                               of /tmp/PILog.txt
  vexlog stats --since -1h --pid 4711        of one process in the last hour
  vexlog stats --json old.txt                one JSON object
  vexlog stats PILog.txt PILog.txt.1.gz      of a log and its older part

A call counts if it began at the time that is asked for. It was refused or failed if its thread goes on without a record
of the call's end. Median and p99 are within half a percent. "vexlog --help" lists the forms of TIME.)";

constexpr const char* kReportExamples = R"(Examples:
  vexlog report log.html                     of /tmp/PILog.txt
  vexlog report log.html --since today       of the calls that began today
  vexlog report log.html --input old.txt     of another file
  vexlog report - --input old.txt            to standard output

The page is one file that needs no other file and no network. "vexlog --help" lists the forms of TIME.)";

// "-1234567", "T-1234567", or the same 32 bits without a sign, "4293732729", as the minimal logger writes them.
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

CivilMicroseconds TimeOf(const std::string& strOption, const std::string& strText, SystemMicroseconds now,
                         TimeUse use) {
    const UserTime time = ParseUserTime(strText, now, use);
    if (!time.time) {
        throw CLI::ValidationError(strOption, "\"" + strText + "\" is not a time" +
                                                  (time.strFault.empty() ? "" : " (" + time.strFault + ")") +
                                                  "; use 2024-03-05T09:07:02, 2024-03-05, 09:07, yesterday, \"1 hour "
                                                  "ago\", or a time before now: 30s, 10m, 2h, 3d, 1w");
    }
    return *time.time;
}

std::size_t CountOf(const std::string& strText) {
    std::size_t nCount = 0;
    const auto [pchEnd, error] = std::from_chars(strText.data(), strText.data() + strText.size(), nCount);
    if (error != std::errc() || pchEnd != strText.data() + strText.size()) {
        throw CLI::ValidationError("--lines", "\"" + strText + "\" is not a number of records; use one such as 100");
    }
    return nCount;
}

// Arguments that are not checked yet.
struct Texts {
    std::vector<std::string> functions;
    std::vector<std::string> threads;
    std::vector<std::string> processes;
    std::string strSince;
    std::string strUntil;
    std::string strLines;
    std::string strColour = "auto";
    std::vector<std::string> inputs;
};

// Refuses an empty text, such as that of an empty shell variable.
CLI::Validator NotEmpty(const char* pszAdvice) {
    return CLI::Validator([pszAdvice](std::string& strGiven) { return strGiven.empty() ? pszAdvice : std::string(); },
                          "");
}

CLI::Option* AddInputs(CLI::App& app, const std::string& strName, std::vector<std::string>& inputs) {
    return tools::AddFiles(
               app, strName, inputs,
               "The log, also as gzip leaves it; \"-\" is standard input; several are read in the order of time")
        ->default_str(kDefaultInput);
}

// The conditions that printing and the commands share.
void AddSelection(CLI::App& app, Texts& texts) {
    tools::AddList(app, "--function", texts.functions, "NAME",
                   "Only this function, such as ClearFilter or its whole name; may be repeated")
        ->check(NotEmpty("the name is empty; leave the option out, or name a function"));
    tools::AddList(app, "--thread", texts.threads, "NUMBER", "Only this thread; may be repeated");
    tools::AddList(app, "--pid", texts.processes, "NUMBER", "Only this process; may be repeated");
    const CLI::Validator notEmpty = NotEmpty("the time is empty; leave the option out, or give a time");
    app.add_option("-S,--since", texts.strSince, "Only from this time on: 2024-03-05T09:07:02, 09:07, 10m (ago)")
        ->check(notEmpty)
        ->type_name("TIME");
    app.add_option("-U,--until", texts.strUntil, "Only up to this time")->check(notEmpty)->type_name("TIME");
}

void AddPrintOptions(CLI::App& app, Options& options, Texts& texts) {
    AddInputs(app, "FILE", texts.inputs);
    AddSelection(app, texts);
    app.add_option("--grep", options.filter.strText, "Only messages that contain this text (no pattern)")
        ->type_name("TEXT");
    app.add_flag("-i,--ignore-case", options.filter.bIgnoreCase, "--grep ignores the case of the letters A to Z");
    app.add_option("-n,--lines", texts.strLines, "Only the last NUMBER records of those")
        ->check(NotEmpty("the number is empty; give one such as 100"))
        ->type_name("NUMBER");
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
    filter.functions = texts.functions;
    for (const std::string& strThread : texts.threads) {
        filter.threads.push_back(ThreadOf(strThread));
    }
    for (const std::string& strProcess : texts.processes) {
        filter.processes.push_back(ProcessOf(strProcess));
    }
    if (!texts.strSince.empty()) {
        filter.since = TimeOf("--since", texts.strSince, now, TimeUse::kFrom);
    }
    if (!texts.strUntil.empty()) {
        filter.until = TimeOf("--until", texts.strUntil, now, TimeUse::kUpTo);
    }
    if (filter.since && filter.until && *filter.since > *filter.until) {
        throw CLI::ValidationError("--since", "this time is later than that of --until, so no record can match");
    }
    if (!texts.strLines.empty()) {
        options.cLast = CountOf(texts.strLines);
    }
    options.inputs = texts.inputs.empty() ? std::vector<std::string>{kDefaultInput} : texts.inputs;
    if (std::count_if(options.inputs.begin(), options.inputs.end(), tools::IsStandardInput) > 1) {
        throw CLI::ValidationError("FILE", "standard input (\"-\") is given twice; it can be read only once");
    }
}

void CheckFollow(const Options& options) {
    if (options.inputs.size() > 1) {
        throw CLI::ValidationError("--follow", "only one file can be followed; name the current log alone");
    }
    if (options.inputs.front() == "-") {
        throw CLI::ValidationError(
            "--follow", "standard input cannot be followed; leave this option out to print records as they arrive");
    }
}

// A command counts calls, which have no text and no order. A report is always a page.
void RefusePrintOptions(const CLI::App& app, Command command) {
    for (const char* const pszName : {"--grep", "--ignore-case", "--lines", "--follow", "--color"}) {
        if (app.count(pszName) > 0) {
            throw CLI::ValidationError(pszName, "this option is for printing records; leave it out before a command");
        }
    }
    if (command == Command::kReport && app.count("--json") > 0) {
        throw CLI::ValidationError("--json", "a report is a page; leave this option out, or use stats");
    }
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& nExit) {
    Options options;
    Texts texts;
    std::vector<std::string> commandInputs;
    CLI::App app(kDescription, "vexlog");
    tools::AddCommonOptions(app, VEX_VERSION, kExamples);
    AddPrintOptions(app, options, texts);

    CLI::App* const pStats = app.add_subcommand("stats", "Calls, failures and durations by function");
    pStats->footer(kStatsExamples);
    AddInputs(*pStats, "FILE", commandInputs);
    AddSelection(*pStats, texts);
    pStats->add_flag("--json", options.bJson, "One JSON object");

    CLI::App* const pReport = app.add_subcommand("report", "Write a page with a timeline, durations and failures");
    pReport->footer(kReportExamples);
    tools::AddFile(*pReport, "OUT.html", options.strOutput, "The page; \"-\" is standard output")->required();
    AddInputs(*pReport, "--input", commandInputs)
        ->type_name("FILE")
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    AddSelection(*pReport, texts);
    app.require_subcommand(0, 1);

    const auto check = [&] {
        texts.inputs.insert(texts.inputs.end(), commandInputs.begin(), commandInputs.end());
        CheckTexts(texts, options);
        options.command = pStats->parsed() ? Command::kStats : pReport->parsed() ? Command::kReport : Command::kPrint;
        if (options.command != Command::kPrint) {
            RefusePrintOptions(app, options.command);
        }
        if (options.bFollow) {
            CheckFollow(options);
        }
    };
    if (!tools::Parse(app, tools::Arguments(argc, argv, {"--grep"}), check, nExit)) {
        return std::nullopt;
    }
    return options;
}

}  // namespace vexlog
