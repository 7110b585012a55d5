#include "Merge.h"

#include <algorithm>
#include <array>
#include <limits>

namespace vexlog {
namespace {

// A log of records without a time is handed over without knowing the next time.
constexpr std::size_t kMostBytes = std::size_t{1024} * 1024;
constexpr std::size_t kLookAhead = 2;

}  // namespace

void Merge::Log::OnRecord(const Record& record) {
    m_records.emplace_back(record);
    m_cTimed += HasOwnTime(m_records.back()) ? 1 : 0;
    m_cbRecords += m_records.back().Bytes();
}

bool Merge::Log::HasOwnTime(const OwnedRecord& record) {
    return (record.GetKind() == Kind::kRecord || record.GetKind() == Kind::kMinimal) && record.Time();
}

void Merge::Log::Fill(const std::function<void(const Source&)>& fnRead) {
    while (!m_bEnded && m_cTimed < kLookAhead && (m_records.empty() || m_cbRecords < kMostBytes)) {
        std::array<char, std::size_t{64} * 1024> piece;
        std::size_t cb = 0;
        try {
            cb = m_source.Read(piece.data(), piece.size());
        } catch (const ReadError&) {
            m_bEnded = true;
            m_parser.Finish();
            throw;
        }
        if (cb == 0) {
            m_bEnded = true;
            m_parser.Finish();
            return;
        }
        m_parser.Feed({piece.data(), cb});
        fnRead(m_source);
    }
}

CivilMicroseconds Merge::Log::NextTime() const {
    CivilMicroseconds earliest = std::numeric_limits<CivilMicroseconds>::max();
    std::size_t cTimed = 0;
    for (const OwnedRecord& record : m_records) {
        if (!HasOwnTime(record)) {
            continue;
        }
        // The minimal logger's times are whole seconds, so they say nothing about the record before them.
        if (cTimed == 0 || record.GetKind() == Kind::kRecord) {
            earliest = std::min(earliest, *record.Time());
        }
        if (++cTimed == kLookAhead) {
            break;
        }
    }
    return cTimed == 0 ? std::numeric_limits<CivilMicroseconds>::min() : earliest;
}

bool Merge::Log::HandOver(RecordSink& sink) {
    Record record = m_records.front().View();
    record.input = m_strName;
    sink.OnRecord(record);
    m_cTimed -= HasOwnTime(m_records.front()) ? 1 : 0;
    m_cbRecords -= m_records.front().Bytes();
    m_records.pop_front();
    return !m_records.empty() && !HasOwnTime(m_records.front());
}

Merge::Merge(const std::vector<std::string>& names) {
    for (const std::string& strName : names) {
        m_logs.push_back(std::make_unique<Log>(strName));
    }
}

void Merge::Fill(Log& log, const std::function<void(const Source&)>& fnRead) {
    try {
        log.Fill(fnRead);
    } catch (const ReadError&) {
        if (!m_failure) {
            m_failure = std::current_exception();
        }
    }
}

void Merge::Read(RecordSink& sink, const std::function<void(const Source&)>& fnRead) {
    for (;;) {
        Log* pNext = nullptr;
        CivilMicroseconds next = 0;
        for (const std::unique_ptr<Log>& log : m_logs) {
            Fill(*log, fnRead);
            if (log->AtEnd()) {
                continue;
            }
            const CivilMicroseconds time = log->NextTime();
            if (pNext == nullptr || time < next) {
                pNext = log.get();
                next = time;
            }
        }
        if (pNext == nullptr) {
            break;
        }
        while (pNext->HandOver(sink)) {
        }
    }
    if (m_failure) {
        std::rethrow_exception(m_failure);
    }
}

std::uint64_t Merge::BytesRead() const {
    std::uint64_t cb = 0;
    for (const std::unique_ptr<Log>& log : m_logs) {
        cb += log->Input().BytesRead();
    }
    return cb;
}

std::uint64_t Merge::TotalBytes() const {
    std::uint64_t cb = 0;
    for (const std::unique_ptr<Log>& log : m_logs) {
        if (log->Input().TotalBytes() == 0) {
            return 0;
        }
        cb += log->Input().TotalBytes();
    }
    return cb;
}

}  // namespace vexlog
