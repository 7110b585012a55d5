#include "JsonPrinter.h"

#include "Native.h"
#include "posix/Hexadecimal.h"
#include "posix/VisibleText.h"

namespace vexlog {
namespace {

constexpr std::string_view KindName(Kind kind) {
    switch (kind) {
        case Kind::kRecord:
            return "record";
        case Kind::kMinimal:
            return "minimal";
        case Kind::kContinued:
            return "continued";
        case Kind::kFragment:
            return "fragment";
        case Kind::kEmpty:
            break;
    }
    return "empty";
}

void AppendHexBytes(vexposix::OutputBuffer& output, std::string_view bytes) {
    for (const char ch : bytes) {
        const auto nByte = static_cast<unsigned char>(ch);
        output.Append(vexposix::kLowerHexDigits[nByte >> 4]);
        output.Append(vexposix::kLowerHexDigits[nByte & 0xF]);
    }
}

}  // namespace

void JsonPrinter::OnRecord(const Record& record) {
    m_output.Append("{\"kind\":\"");
    m_output.Append(KindName(record.kind));
    m_output.Append('"');
    if (!record.input.empty()) {
        Member("input", record.input);
    }
    Number("offset", record.nOffset);
    Number("size", record.cbSize);
    if (record.kind == Kind::kEmpty) {
        Number("count", record.cEmpty);
    } else {
        if (record.HasThread()) {
            PrintFields(record);
        }
        PrintMessage(record);
        if (record.bTorn) {
            m_output.Append(",\"torn\":true");
        }
    }
    m_output.Append("}\n");
    m_output.WriteWhenFull();
}

void JsonPrinter::PrintFields(const Record& record) {
    if (record.kind != Kind::kMinimal) {
        // The parser has checked the layout of the fields.
        m_output.Append(",\"time\":\"");
        m_output.Append(record.timeText.substr(0, 10));
        m_output.Append('T');
        m_output.Append(record.timeText.substr(11, 8));
        m_output.Append('.');
        m_output.AppendPadded(MicrosecondOf(*record.time), 6, '0');
        m_output.Append('"');
    } else {
        if (record.time) {
            Member("time", FormatCivilSeconds(*record.time));
        }
        Member("time_text", record.timeText);
    }
    Number("pid", record.nProcess);
    Number("thread", record.nThread);
    if (!record.type.empty()) {
        Member("type", record.type);
    }
    if (!record.file.empty()) {
        Member("file", record.file);
    }
    if (!record.function.empty()) {
        Member("function", record.function);
    }
    if (record.nLine) {
        Number("line", *record.nLine);
    }
    const Event event = EventOf(record);
    if (event != Event::kNone) {
        Member("event", event == Event::kEnter ? "enter" : "leave");
    }
}

void JsonPrinter::PrintMessage(const Record& record) {
    m_output.Append(",\"message\":");
    if (!vexposix::AppendJsonString(m_output, record.message)) {
        m_output.Append(",\"message_hex\":\"");
        AppendHexBytes(m_output, record.rawMessage);
        m_output.Append('"');
    }
}

void JsonPrinter::Member(std::string_view name, std::string_view text) {
    m_output.Append(",\"");
    m_output.Append(name);
    m_output.Append("\":");
    vexposix::AppendJsonString(m_output, text);
}

template <typename Integer>
void JsonPrinter::Number(std::string_view name, Integer nValue) {
    m_output.Append(",\"");
    m_output.Append(name);
    m_output.Append("\":");
    m_output.AppendNumber(nValue);
}

}  // namespace vexlog
