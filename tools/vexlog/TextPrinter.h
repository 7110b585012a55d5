// Prints records for people: one line each, whatever they contain.
#pragma once

#include "Record.h"
#include "posix/OutputBuffer.h"

namespace vexlog {

class TextPrinter : public RecordSink {
public:
    struct Style {
        bool bColour = false;
        bool bUtf8 = false;  // the reader sees characters beyond ASCII
    };

    // The buffer has to live as long as the printer is used. It is flushed by its owner.
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
