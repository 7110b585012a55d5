// Tells what to do about a log of blank entries.
#pragma once

#include <cstdint>
#include <string>

#include "Record.h"

namespace vexlog {

// Counts the records of a log and hands them on.
class EmptyEntries : public RecordSink {
public:
    explicit EmptyEntries(RecordSink& next) : m_next(next) {}

    void OnRecord(const Record& record) override {
        m_cRecords += record.kind == Kind::kRecord ? 1 : 0;
        m_cEmpty += record.cEmpty;
        m_next.OnRecord(record);
    }

    // The advice, if at least half of the log's entries are blank; otherwise empty.
    std::string Advice() const {
        if (m_cEmpty == 0 || m_cEmpty < m_cRecords) {
            return "";
        }
        return std::to_string(m_cEmpty) +
               (m_cEmpty == 1 ? " entry of the log is blank" : " entries of the log are blank") +
               ": the locale of the process that wrote them was C, which cannot encode them; start that process with "
               "LC_ALL=C.UTF-8";
    }

private:
    RecordSink& m_next;
    std::uint64_t m_cRecords = 0;
    std::uint64_t m_cEmpty = 0;
};

}  // namespace vexlog
