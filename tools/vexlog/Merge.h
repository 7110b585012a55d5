// Reads several logs at once and hands over their records in the order of time, such as a rotated log and the current
// one, or the logs of several services.
//
// The records of one log keep their order. What has no time of its own follows the record before it. One record with a
// wrong time does not hold up the records behind it: a log is as early as the earlier of its next two records.
#pragma once

#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "OwnedRecord.h"
#include "RecordParser.h"
#include "Source.h"

namespace vexlog {

// Some 64 KiB for each log, and more if its records are larger. One thread at a time.
class Merge {
public:
    // Opens the logs; the names appear in the records. Throws ReadError.
    explicit Merge(const std::vector<std::string>& names);

    // fnRead is called after each piece that is read, with the log's source. A log that fails ends; the others are read
    // on, and then the first failure is thrown as ReadError.
    void Read(RecordSink& sink, const std::function<void(const Source&)>& fnRead);

    std::uint64_t BytesRead() const;
    // 0: not known, because some log is empty or no regular file.
    std::uint64_t TotalBytes() const;

private:
    class Log : private RecordSink {
    public:
        explicit Log(const std::string& strName) : m_strName(strName), m_source(strName), m_parser(*this) {}

        // Reads until the next records are known. Throws ReadError; call it again then.
        void Fill(const std::function<void(const Source&)>& fnRead);
        bool AtEnd() const { return m_records.empty(); }
        // The time of the next record, for comparison with that of other logs.
        CivilMicroseconds NextTime() const;
        // Hands over the next record. True: the one behind it belongs to it, as it has no time of its own.
        bool HandOver(RecordSink& sink);
        const Source& Input() const { return m_source; }

    private:
        void OnRecord(const Record& record) override;
        static bool HasOwnTime(const OwnedRecord& record);

        std::string m_strName;
        Source m_source;
        RecordParser m_parser;
        std::deque<OwnedRecord> m_records;
        std::size_t m_cTimed = 0;  // of m_records
        std::size_t m_cbRecords = 0;
        bool m_bEnded = false;
    };

    // Fills the log. A failure is kept.
    void Fill(Log& log, const std::function<void(const Source&)>& fnRead);

    std::vector<std::unique_ptr<Log>> m_logs;
    std::exception_ptr m_failure;
};

}  // namespace vexlog
