// Prints records for people, each on one line whatever it contains.
#pragma once

#include "Record.h"
#include "posix/OutputBuffer.h"

namespace vexlog {

class TextPrinter : public RecordSink {
public:
    struct Style {
        bool bColour = false;
        bool bUtf8 = false;  // print characters beyond ASCII as they are
    };

    // The buffer must outlive the printer. Its owner flushes it.
    TextPrinter(vexposix::OutputBuffer& output, Style style) : m_output(output), m_style(style) {}

    void OnRecord(const Record& record) override;

private:
    void PrintFields(const Record& record);
    void PrintPlace(const Record& record);
    void Colour(std::string_view sequence);
    void Text(std::string_view text);

    vexposix::OutputBuffer& m_output;
    Style m_style;
};

}  // namespace vexlog
