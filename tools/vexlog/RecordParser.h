// Takes a log apart while it is read, in bounded memory. It finds every record that stands whole in the bytes, wherever
// in a line it begins: the file may be cut from the front, several processes may have written into each other's
// records, and the minimal logger does not always end its line.
//
// A record ends at an empty line (CR LF CR LF; in a file without CR, LF LF), where another one begins, or at the end.
// One thread at a time.
#pragma once

#include <string>
#include <string_view>

#include "Record.h"

namespace vexlog {

class RecordParser {
public:
    // What is longer than this is no record and comes in pieces, as fragments. The longest record that the loggers
    // write is the minimal logger's, with 32,767 characters of up to six bytes.
    static constexpr std::size_t kLongest = std::size_t{256} * 1024;

    // The sink has to live as long as the parser is used.
    explicit RecordParser(RecordSink& sink) : m_sink(sink) {}

    // The next bytes. Hands over the records that are known to be complete.
    void Feed(std::string_view bytes);

    // Hands over what is complete if nothing is added to its last line. For a log that is being written: the last
    // record of the minimal logger, and that of a file which has just been cut, end without an empty line.
    void Flush();

    // The end of the log: hands over the rest. The parser is as new then, but for the offsets, which go on.
    void Finish();

private:
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    // The beginning of a record, with the fields up to where its kinds part.
    struct Core {
        Kind kind = Kind::kFragment;
        std::size_t nCoreBegin = 0;  // the bracket of its first field; before it stands the type
        std::size_t nTypeBegin = 0;
        std::size_t nEnd = 0;
        std::int64_t nProcess = 0;
        std::int32_t nThread = 0;
        std::optional<CivilMicroseconds> time;
        std::size_t nTimeBegin = 0;
        std::size_t nTimeEnd = 0;
    };

    struct Line {
        std::size_t nBegin = 0;
        std::size_t nEnd = 0;  // without line ends
        bool bFresh = false;   // begins behind a line end, not in the middle of an overlong line
    };

    void Scan();
    void ScanOverlongLine();
    void EndIfTooLong();
    void OnLine(Line line, bool bCrLf);
    void OnEmptyLine(std::size_t nBegin, bool bCrLf);
    bool FindCore(const Line& line, std::size_t nFrom, Core& core) const;
    bool ParseRecordCore(std::size_t nBegin, std::size_t nEnd, Core& core) const;
    bool ParseMinimalCore(std::size_t nBegin, std::size_t nEnd, Core& core) const;
    std::size_t FindType(std::size_t nFrom, std::size_t nCore, bool bEntryBegins) const;

    void Begin(std::size_t nBegin, const Core& core);
    void BeginFragment(std::size_t nBegin);
    void End(std::size_t nEnd, bool bTorn);
    bool CompleteRecord(std::string_view rest, Record& record) const;
    void CompleteMinimal(std::string_view rest, Record& record) const;
    void HandOver(Record& record);
    void HandOverEmpty();

    std::string_view View(std::size_t nBegin, std::size_t nEnd) const {
        return std::string_view(m_strBuffer).substr(nBegin, nEnd - nBegin);
    }

    RecordSink& m_sink;
    std::string m_strBuffer;          // from the current item's, or line's, beginning on
    std::uint64_t m_nOffset = 0;      // of the buffer's first byte
    std::size_t m_nLine = 0;          // the first line that is not scanned yet
    std::size_t m_nSearched = 0;      // no line end between there and here
    bool m_bMidLine = false;          // what is there of it is the rest of an overlong line
    std::size_t m_nItem = kNone;      // where the current item begins
    Core m_core;                      // of the current item
    bool m_bSeenCrLf = false;         // in what was read so far
    bool m_bLastCrLf = false;         // the end of the last line
    bool m_bEndExpected = false;      // the last record was handed over before its empty line
    bool m_bStart = true;             // nothing but empty lines so far
    std::uint64_t m_cEmptyLines = 0;  // since the last item's end
    std::uint64_t m_nEmptyOffset = 0;
    std::uint64_t m_nEmptyEnd = 0;
    std::string m_strDecoded;
};

}  // namespace vexlog
