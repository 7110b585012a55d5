// Prints records for programs: one JSON object a line, in valid UTF-8 whatever the log contains.
#pragma once

#include "Record.h"
#include "posix/OutputBuffer.h"

namespace vexlog {

class JsonPrinter : public RecordSink {
public:
    // The buffer must outlive the printer. Its owner flushes it.
    explicit JsonPrinter(vexposix::OutputBuffer& output) : m_output(output) {}

    void OnRecord(const Record& record) override;

private:
    void PrintFields(const Record& record);
    void PrintMessage(const Record& record);
    void Member(std::string_view name, std::string_view text);
    template <typename Integer>
    void Number(std::string_view name, Integer nValue);

    vexposix::OutputBuffer& m_output;
};

}  // namespace vexlog
