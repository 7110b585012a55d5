// Hands on only the last records of a log.
#pragma once

#include <cstddef>
#include <deque>

#include "OwnedRecord.h"

namespace vexlog {

// Keeps the last records until Release, then hands on every record at once.
class LastRecords : public RecordSink {
public:
    LastRecords(std::size_t cMost, RecordSink& next) : m_cMost(cMost), m_next(next) {}

    void OnRecord(const Record& record) override {
        if (m_bReleased) {
            m_next.OnRecord(record);
            return;
        }
        if (m_cMost == 0) {
            return;
        }
        if (m_records.size() == m_cMost) {
            m_records.pop_front();
        }
        m_records.emplace_back(record);
    }

    void Release() {
        m_bReleased = true;
        for (; !m_records.empty(); m_records.pop_front()) {
            m_next.OnRecord(m_records.front().View());
        }
    }

private:
    const std::size_t m_cMost;
    RecordSink& m_next;
    std::deque<OwnedRecord> m_records;
    bool m_bReleased = false;
};

}  // namespace vexlog
