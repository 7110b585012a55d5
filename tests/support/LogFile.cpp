#include "LogFile.h"

#include <charconv>
#include <stdexcept>

#include "TempDirectory.h"

namespace {

constexpr std::string_view kHeader = "\xFF\xFE";
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kEntryEnd = "\r\n\r\n";

// Takes parts from the front of a text.
class Scanner {
public:
    explicit Scanner(std::string_view text) : m_rest(text) {}

    bool Skip(std::string_view literal) {
        const bool bFound = m_rest.starts_with(literal);
        m_rest.remove_prefix(bFound ? literal.size() : 0);
        return bFound;
    }

    // At least nMin and at most nMax digits.
    std::optional<std::string> Digits(size_t nMin, size_t nMax) {
        size_t n = 0;
        while (n < m_rest.size() && n < nMax && m_rest[n] >= '0' && m_rest[n] <= '9') {
            ++n;
        }
        return n < nMin ? std::nullopt : std::optional(Take(n));
    }

    template <typename Integer>
    bool Number(Integer& nResult) {
        const auto [pchEnd, error] = std::from_chars(m_rest.data(), m_rest.data() + m_rest.size(), nResult);
        const bool bFound = error == std::errc();
        m_rest.remove_prefix(bFound ? static_cast<size_t>(pchEnd - m_rest.data()) : 0);
        return bFound;
    }

    // Numbers are padded with zeroes to four characters, the sign included.
    template <typename Integer>
    bool PaddedNumber(Integer& nResult) {
        const std::string_view before = m_rest;
        return Number(nResult) && before.size() - m_rest.size() >= 4;
    }

    // Digits with a fixed layout, "dddd-dd-dd".
    std::optional<std::string> Pattern(std::string_view pattern) {
        if (m_rest.size() < pattern.size()) {
            return std::nullopt;
        }
        for (size_t i = 0; i < pattern.size(); ++i) {
            const bool bDigit = m_rest[i] >= '0' && m_rest[i] <= '9';
            if (pattern[i] == 'd' ? !bDigit : m_rest[i] != pattern[i]) {
                return std::nullopt;
            }
        }
        return Take(pattern.size());
    }

    std::optional<std::string> Until(std::string_view end) {
        const size_t n = m_rest.find(end);
        return n == std::string_view::npos ? std::nullopt : std::optional(Take(n));
    }

    std::string Rest() const { return std::string(m_rest); }

private:
    std::string Take(size_t n) {
        std::string strTaken(m_rest.substr(0, n));
        m_rest.remove_prefix(n);
        return strTaken;
    }

    std::string_view m_rest;
};

// "path-Function(101)" or "path(101)".
bool ParseSource(std::string_view source, LogRecord& record) {
    const size_t nOpen = source.rfind('(');
    if (nOpen == std::string_view::npos || !source.ends_with(')')) {
        return false;
    }
    Scanner number(source.substr(nOpen + 1));
    if (!number.Number(record.nLine) || number.Rest() != ")") {
        return false;
    }
    const std::string_view place = source.substr(0, nOpen);
    const size_t nDash = place.rfind('-');
    record.strFile = place.substr(0, nDash);
    if (nDash != std::string_view::npos) {
        record.strFunction = place.substr(nDash + 1);
    }
    return true;
}

}  // namespace

std::optional<LogRecord> ParseLogRecord(std::string_view entry) {
    LogRecord record;
    Scanner scanner(entry);
    const auto type = scanner.Until("[P");
    if (!type || !scanner.Skip("[P") || !scanner.PaddedNumber(record.nProcess) || !scanner.Skip("] [T") ||
        !scanner.PaddedNumber(record.nThread) || !scanner.Skip("] [")) {
        return std::nullopt;
    }
    record.strType = *type;
    const auto date = scanner.Pattern("dddd-dd-dd");
    const bool bBlank = date && scanner.Skip(" ");
    const auto time = bBlank ? scanner.Pattern("dd:dd:dd") : std::nullopt;
    const bool bColon = time && scanner.Skip(":");
    const auto micros = bColon ? scanner.Digits(3, 6) : std::nullopt;
    if (!micros || !scanner.Skip("] [")) {
        return std::nullopt;
    }
    record.strDate = *date;
    record.strTime = *time;
    record.strMicros = *micros;
    const auto source = scanner.Until("]: ");
    if (!source || !ParseSource(*source, record)) {
        return std::nullopt;
    }
    scanner.Skip("]: ");
    record.strMessage = scanner.Rest();
    return record;
}

LogFile ParseLogFile(std::string_view bytes) {
    LogFile file;
    file.bHeader = bytes.starts_with(kHeader);
    bytes.remove_prefix(file.bHeader ? kHeader.size() : 0);

    bool bFirst = true;
    const auto add = [&](std::string_view entry) {
        const bool bCut = bFirst && !entry.empty() && !ParseLogRecord(entry);
        if (bCut) {
            file.strCut = entry;
        } else {
            file.entries.emplace_back(entry);
        }
        bFirst = false;
    };
    for (size_t nFrom = 0; !bytes.empty();) {
        const size_t nEnd = bytes.find(kLineEnd, nFrom);
        if (nEnd == std::string_view::npos) {
            file.strUnfinished = bytes;
            break;
        }
        const std::string_view after = bytes.substr(nEnd + kLineEnd.size());
        if (bytes.substr(nEnd).starts_with(kEntryEnd)) {
            add(bytes.substr(0, nEnd));
            bytes.remove_prefix(nEnd + kEntryEnd.size());
            nFrom = 0;
        } else if (after.empty() || ParseLogRecord(after.substr(0, after.find(kLineEnd)))) {
            add(bytes.substr(0, nEnd));
            bytes.remove_prefix(nEnd + kLineEnd.size());
            nFrom = 0;
        } else {
            nFrom = nEnd + kLineEnd.size();
        }
    }
    return file;
}

LogFile ReadLogFile(const std::string& strPath) {
    return ParseLogFile(ReadWholeFile(strPath));
}

std::vector<LogRecord> ReadLogRecords(const std::string& strPath) {
    std::vector<LogRecord> records;
    const LogFile file = ReadLogFile(strPath);
    for (const std::string& strEntry : file.entries) {
        if (strEntry.empty() && &strEntry == &file.entries.front()) {
            continue;
        }
        std::optional<LogRecord> record = ParseLogRecord(strEntry);
        if (!record) {
            throw std::runtime_error("no record: " + strEntry.substr(0, 200));
        }
        records.push_back(std::move(*record));
    }
    return records;
}
