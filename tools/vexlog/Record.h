// What the reader finds in a log. All texts are views that end with the call that hands the record over.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "CivilTime.h"

namespace vexlog {

enum class Kind {
    kRecord,    // of the diagnostic log
    kMinimal,   // of the minimal logger, which writes into the same file
    kFragment,  // what is no record: the rest of a cut one, or something else's bytes
    kEmpty,     // entries without text: records that the locale of their process could not encode
};

struct Record {
    Kind kind = Kind::kFragment;
    std::uint64_t nOffset = 0;  // of its first byte in what was read
    std::uint64_t cbSize = 0;   // with its line ends

    // Cut short by another record, by the end of the file, or too long to be one.
    bool bTorn = false;

    // kRecord and kMinimal
    std::string_view type;                  // "INFO"; empty when there is none
    std::int64_t nProcess = 0;              //
    std::int32_t nThread = 0;               // the low half of the thread's number; the minimal logger's is taken so too
    std::optional<CivilMicroseconds> time;  // none: the minimal logger's, with a month in another language
    std::string_view timeText;              // as it stands in the file

    // kRecord; empty or none when the header is cut or has no such field
    std::string_view file;
    std::string_view function;
    std::optional<int> nLine;

    // kRecord, kMinimal, kFragment: without the line ends behind it. A garbled name in it is decoded (GarbledName.h).
    std::string_view message;
    std::string_view rawMessage;

    std::uint64_t cEmpty = 0;  // kEmpty: how many in a row
};

// Takes what a parser finds.
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
