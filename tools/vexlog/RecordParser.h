// Parses a log while it is read, in bounded memory. Finds every complete record, wherever in a line it begins: the file
// may be cut from the front, processes may have written into each other's records, and the minimal logger does not
// always end its line.
//
// A record ends at an empty line (CR LF CR LF; LF LF in a file without CR), at the next record or at the end. A message
// may contain empty lines; what follows one is handed over as kContinued. A record of the minimal logger may stand
// between another record and its end.
// One thread at a time.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "OwnedRecord.h"
#include "RecordCore.h"

namespace vexlog {

// A log begins with these bytes. What follows is UTF-8 all the same.
inline constexpr std::string_view kByteOrderMark = "\xFF\xFE";

class RecordParser {
public:
    // A longer text is no record; it is handed over in pieces, as fragments. The longest record that the loggers write
    // is the minimal logger's, with 32,767 characters of up to six bytes.
    static constexpr std::size_t kLongest = std::size_t{256} * 1024;
    static constexpr std::size_t kLeastBound = 2 * kLongestCore;

    // The sink must outlive the parser. cbLongest: for tests, at least kLeastBound.
    explicit RecordParser(RecordSink& sink, std::size_t cbLongest = kLongest)
        : m_sink(sink), m_cbLongest(std::max(cbLongest, kLeastBound)) {}

    // Takes the next bytes, and hands over the records that are complete.
    void Feed(std::string_view bytes);

    // Hands over the last record if its last line is complete. For a log that is being written, whose last record may
    // lack its empty line: the minimal logger writes none, and a cut removes it.
    void Flush();

    // Call this at the end of the log: hands over the rest. Another log may follow, but its offsets go on from here.
    void Finish();

private:
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    // The beginning of a record in the buffer: its type, then its core.
    struct Found {
        std::size_t nType = 0;
        std::size_t nCore = 0;
        RecordCore core;
    };

    // A record, or other text, in the buffer.
    struct Item {
        std::size_t nBegin = kNone;  // none: there is no item
        std::size_t cbType = 0;      // before its core
        RecordCore core = {};        // a fragment has an empty one

        bool Exists() const { return nBegin != kNone; }
    };

    struct Line {
        std::size_t nBegin = 0;
        std::size_t nEnd = 0;  // without line ends
        bool bFresh = false;   // begins after a line end, not in the middle of an overlong line
    };

    void Scan();
    void ScanOverlongLine();
    void EndIfTooLong();
    void OnLine(Line line, bool bCrLf);
    void OnEmptyLine(std::size_t nBegin, bool bCrLf);
    bool Find(const Line& line, std::size_t nFrom, Found& found) const;
    std::size_t FindType(std::size_t nFrom, std::size_t nCore, bool bEntryBegins) const;

    void Begin(const Found& found);
    void BeginText(std::size_t nBegin, const Line& line);
    bool MayContinue(std::string_view text) const;
    void End(std::size_t nEnd, bool bTorn);
    void Hold(std::size_t nEnd, bool bTorn);
    Record Describe(const Item& item, std::size_t nEnd) const;
    Record DescribeCurrent(std::size_t nEnd, bool bTorn) const;
    bool CompleteRecord(std::string_view rest, std::size_t cbCore, Record& record) const;
    void CompleteMinimal(std::string_view rest, Record& record) const;
    void Decode(Record& record);
    void HandOver(Record& record);
    void HandOverHeld(bool bEnded);
    void HandOverEmpty();

    std::string_view View(std::size_t nBegin, std::size_t nEnd) const {
        return std::string_view(m_strBuffer).substr(nBegin, nEnd - nBegin);
    }

    RecordSink& m_sink;
    const std::size_t m_cbLongest;
    std::string m_strBuffer;          // from the beginning of the current item or line
    std::uint64_t m_nOffset = 0;      // of the buffer's first byte
    std::size_t m_nLine = 0;          // the first line that is not scanned
    std::size_t m_nSearched = 0;      // there is no line end between m_nLine and here
    bool m_bMidLine = false;          // the line is the rest of an overlong line
    Item m_item;                      // the current one
    Item m_last;                      // the complete record that text behind its end continues
    std::size_t m_nLastEnd = 0;       // of m_last
    bool m_bSeenCrLf = false;         // a line has ended in CR LF so far
    bool m_bLastCrLf = false;         // the last line ended in CR LF
    bool m_bEndExpected = false;      // the last record was handed over before its empty line
    std::uint64_t m_cEmptyLines = 0;  // since the last item's end
    std::uint64_t m_nEmptyOffset = 0;
    std::uint64_t m_nEmptyEnd = 0;
    std::string m_strDecoded;
    // A record without its end, and the minimal logger's records behind it. The current item is one of these, too.
    std::vector<OwnedRecord> m_held;
    std::size_t m_cbHeld = 0;
    bool m_bHeldIsWhole = false;  // nothing but its end is missing
};

}  // namespace vexlog
