// Takes a log apart while it is read, in bounded memory. It finds every record that stands whole in the bytes, wherever
// in a line it begins: the file may be cut from the front, several processes may have written into each other's
// records, and the minimal logger does not always end its line.
//
// A record ends at an empty line (CR LF CR LF; in a file without CR, LF LF), where another one begins, or at the end.
// One thread at a time.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "Record.h"
#include "RecordCore.h"

namespace vexlog {

class RecordParser {
public:
    // What is longer than this is no record and comes in pieces, as fragments. The longest record that the loggers
    // write is the minimal logger's, with 32,767 characters of up to six bytes.
    static constexpr std::size_t kLongest = std::size_t{256} * 1024;
    static constexpr std::size_t kLeastBound = 2 * kLongestCore;

    // The sink has to live as long as the parser is used. A test gives another bound, of kLeastBound or more.
    explicit RecordParser(RecordSink& sink, std::size_t cbLongest = kLongest)
        : m_sink(sink), m_cbLongest(std::max(cbLongest, kLeastBound)) {}

    // The next bytes. Hands over the records that are known to be complete.
    void Feed(std::string_view bytes);

    // Hands over what is complete if nothing is added to its last line. For a log that is being written: the last
    // record of the minimal logger, and that of a file which has just been cut, end without an empty line.
    void Flush();

    // The end of the log: hands over the rest. The parser is as new then, but for the offsets, which go on.
    void Finish();

private:
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    // A record's beginning in the buffer: its type, and behind that its core.
    struct Found {
        std::size_t nType = 0;
        std::size_t nCore = 0;
        RecordCore core;
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
    bool Find(const Line& line, std::size_t nFrom, Found& found) const;
    std::size_t FindType(std::size_t nFrom, std::size_t nCore, bool bEntryBegins) const;

    void Begin(const Found& found);
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
    const std::size_t m_cbLongest;
    std::string m_strBuffer;          // from the current item's, or line's, beginning on
    std::uint64_t m_nOffset = 0;      // of the buffer's first byte
    std::size_t m_nLine = 0;          // the first line that is not scanned yet
    std::size_t m_nSearched = 0;      // no line end between there and here
    bool m_bMidLine = false;          // what is there of it is the rest of an overlong line
    std::size_t m_nItem = kNone;      // where the current item begins
    std::size_t m_cbType = 0;         // of the current item, before its core
    RecordCore m_core;                // of the current item; a fragment has an empty one
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
