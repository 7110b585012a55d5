// A record that the reader finds in a log. Its texts are valid until OnRecord returns.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "CivilTime.h"

namespace vexlog {

enum class Kind {
    kRecord,     // of the diagnostic log
    kMinimal,    // of the minimal logger, which writes into the same file
    kContinued,  // text behind the empty line that ended a kRecord: more of its message, or the rest of another record
    kFragment,   // no record: the rest of a cut record, or other bytes
    kEmpty,      // entries without text: records that the locale of their process could not encode
};

struct Record {
    Kind kind = Kind::kFragment;
    std::string_view input = {};  // the name of the log, if several are read
    std::uint64_t nOffset = 0;    // of its first byte in the input
    std::uint64_t cbSize = 0;     // including its line ends

    // Its end is missing: another record or the end of the file follows, or it is too long for a record.
    bool bTorn = false;

    // kRecord, kMinimal and kContinued, which has the fields of the record before it
    std::string_view type;                  // "INFO"; empty if there is none
    std::int64_t nProcess = 0;              //
    std::int32_t nThread = 0;               // the low half of the thread's number, for both loggers
    std::optional<CivilMicroseconds> time;  // none: the minimal logger wrote the month in another language
    std::string_view timeText;              // as in the file

    // kRecord and kContinued; empty or none if the header is cut or has no such field
    std::string_view file;
    std::string_view function;
    std::optional<int> nLine;

    // All but kEmpty: without its last line ends. Garbled names are decoded (GarbledName.h).
    std::string_view message;
    std::string_view rawMessage;

    // kEmpty: the number of entries in a row, at least. The blank lines at the end of a message and the end of an entry
    // that was cut cannot be told from each other, so half an entry does not count.
    std::uint64_t cEmpty = 0;

    // Whether it has a process and a thread.
    bool HasThread() const { return kind == Kind::kRecord || kind == Kind::kMinimal || kind == Kind::kContinued; }
};

// Receives the records of a parser.
class RecordSink {
public:
    virtual ~RecordSink() = default;
    virtual void OnRecord(const Record& record) = 0;

protected:
    RecordSink() = default;
    RecordSink(const RecordSink&) = default;
    RecordSink& operator=(const RecordSink&) = default;
};

}  // namespace vexlog
