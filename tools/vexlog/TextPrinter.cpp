#include "TextPrinter.h"

#include "Native.h"
#include "posix/VisibleText.h"

namespace vexlog {
namespace {

constexpr std::string_view kDim = "\x1b[2m";
constexpr std::string_view kBlue = "\x1b[34m";
constexpr std::string_view kYellow = "\x1b[33m";
constexpr std::string_view kPlain = "\x1b[0m";

constexpr std::size_t kTypeWidth = 5;
constexpr std::size_t kProcessWidth = 8;
constexpr std::size_t kThreadWidth = 13;
constexpr std::size_t kPlaceWidth = 25;

// "2024-03-05 09:07:02.048213" from "2024-03-05 09:07:02:48213".
void AppendTime(vexposix::OutputBuffer& output, std::string_view timeText, CivilMicroseconds time) {
    constexpr std::size_t kSeconds = 19;
    output.Append(timeText.substr(0, kSeconds));
    output.Append('.');
    output.AppendPadded(MicrosecondOf(time), 6, '0');
}

}  // namespace

void TextPrinter::OnRecord(const Record& record) {
    switch (record.kind) {
        case Kind::kRecord:
        case Kind::kMinimal:
            PrintFields(record);
            Text(record.message);
            if (record.bTorn) {
                Colour(kYellow);
                m_output.Append(" (torn)");
                Colour(kPlain);
            }
            break;
        case Kind::kContinued:
        case Kind::kFragment:
            Colour(kYellow);
            m_output.Append(record.kind == Kind::kContinued ? "-- continued: " : "-- fragment: ");
            Colour(kPlain);
            Text(record.message);
            break;
        case Kind::kEmpty:
            Colour(kYellow);
            m_output.Append("-- ");
            m_output.AppendNumber(record.cEmpty);
            m_output.Append(record.cEmpty == 1 ? " empty entry" : " empty entries");
            Colour(kPlain);
            break;
    }
    m_output.Append('\n');
    m_output.WriteWhenFull();
}

void TextPrinter::PrintFields(const Record& record) {
    Colour(kDim);
    if (record.kind == Kind::kRecord) {
        AppendTime(m_output, record.timeText, *record.time);
    } else if (record.time) {
        m_output.Append(FormatCivilSeconds(*record.time, ' '));
        m_output.Append("       ");
    } else {
        Text(record.timeText);
    }
    Colour(kPlain);
    m_output.Append(' ');
    std::size_t nColumn = m_output.Length();
    Text(record.type);
    m_output.PadTo(nColumn + kTypeWidth);
    nColumn = m_output.Length();
    m_output.Append('P');
    m_output.AppendNumber(record.nProcess);
    m_output.PadTo(nColumn + kProcessWidth);
    nColumn = m_output.Length();
    m_output.Append('T');
    m_output.AppendNumber(record.nThread);
    m_output.PadTo(nColumn + kThreadWidth - 1);
    m_output.Append(' ');
    PrintPlace(record);
}

// Prints the function, or the file if there is none, and the line number.
void TextPrinter::PrintPlace(const Record& record) {
    const std::string_view place = record.function.empty() ? record.file : ShortFunction(record.function);
    if (record.kind == Kind::kMinimal) {
        return;
    }
    Colour(kBlue);
    const std::size_t nColumn = m_output.Length();
    Text(place);
    if (record.nLine) {
        m_output.Append(':');
        m_output.AppendNumber(*record.nLine);
    }
    m_output.PadTo(nColumn + kPlaceWidth - 1);
    Colour(kPlain);
    m_output.Append(' ');
}

void TextPrinter::Colour(std::string_view sequence) {
    if (m_style.bColour) {
        m_output.Append(sequence);
    }
}

void TextPrinter::Text(std::string_view text) {
    vexposix::AppendVisible(m_output, text, m_style.bUtf8);
}

}  // namespace vexlog
