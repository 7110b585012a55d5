// A reader of log files that shares nothing with the writer: it knows the format from the outside.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The fields of "[INFO] [P4711] [T-12] [2024-03-05 09:07:02:48213] [path-Function(101)]: message".
struct LogRecord {
    std::string strType;  // the text before "[P", with the blank
    long nProcess = 0;
    int nThread = 0;
    std::string strDate;    // 2024-03-05
    std::string strTime;    // 09:07:02
    std::string strMicros;  // as written: at least three digits
    std::string strFile;
    std::optional<std::string> strFunction;  // none when the header has no "-"
    int nLine = 0;
    std::string strMessage;  // to the end of the entry
};

// Returns nothing when the text is not a complete record.
std::optional<LogRecord> ParseLogRecord(std::string_view entry);

struct LogFile {
    bool bHeader = false;              // the two bytes FF FE
    std::vector<std::string> entries;  // without their line ends and without the entry of strCut
    std::string strCut;                // the rest of the first entry after a cut; else empty
    std::string strUnfinished;         // what follows the last end of an entry
};

// An entry ends with CR LF CR LF. A cut drops the last CR LF of the file, so that CR LF alone ends an entry where a
// record's beginning or the end of the file follows.
LogFile ParseLogFile(std::string_view bytes);

// A file that cannot be read counts as empty.
LogFile ReadLogFile(const std::string& strPath);

// The records of ReadLogFile's entries. Throws std::runtime_error for an entry that is not a record, except an empty
// first entry, which a cut can leave.
std::vector<LogRecord> ReadLogRecords(const std::string& strPath);
