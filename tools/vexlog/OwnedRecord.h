// A record with texts of its own, to be kept after OnRecord returns.
#pragma once

#include <string>

#include "Record.h"

namespace vexlog {

class OwnedRecord {
public:
    explicit OwnedRecord(const Record& record)
        : m_record(record), m_bDecoded(record.message.data() != record.rawMessage.data()) {
        // One block for all texts. A message that was not decoded is its raw message.
        m_strTexts.reserve(record.type.size() + record.timeText.size() + record.file.size() + record.function.size() +
                           record.rawMessage.size() + (m_bDecoded ? record.message.size() : 0));
        for (const std::string_view text : {record.type, record.timeText, record.file, record.function,
                                            record.rawMessage, m_bDecoded ? record.message : std::string_view()}) {
            m_strTexts.append(text);
        }
    }

    // Valid until the object is changed, moved or destroyed.
    Record View() const {
        Record record = m_record;
        std::string_view rest = m_strTexts;
        const auto take = [&rest](std::string_view& text) {
            const std::size_t cb = text.size();
            text = rest.substr(0, cb);
            rest.remove_prefix(cb);
        };
        take(record.type);
        take(record.timeText);
        take(record.file);
        take(record.function);
        take(record.rawMessage);
        if (m_bDecoded) {
            take(record.message);
        } else {
            record.message = record.rawMessage;
        }
        return record;
    }

    Kind GetKind() const { return m_record.kind; }
    const std::optional<CivilMicroseconds>& Time() const { return m_record.time; }
    std::size_t Bytes() const { return sizeof *this + m_strTexts.capacity(); }
    void SetTorn(bool bTorn) { m_record.bTorn = bTorn; }

private:
    Record m_record;  // its texts have only their lengths left; "input" stays as it is
    bool m_bDecoded;
    std::string m_strTexts;
};

}  // namespace vexlog
