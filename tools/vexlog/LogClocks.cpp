#include "LogClocks.h"

namespace vexlog {

ClockCheck& LogClocks::CheckOf(std::string_view log) {
    if (m_pLast == nullptr || *m_pstrLast != log) {
        auto found = m_checks.find(log);
        if (found == m_checks.end()) {
            found = m_checks.emplace(log, ClockCheck()).first;
        }
        m_pstrLast = &found->first;
        m_pLast = &found->second;
    }
    return *m_pLast;
}

void LogClocks::Add(std::string_view log, CivilMicroseconds time, bool bSelected) {
    CheckOf(log).Add(time);
    if (bSelected) {
        m_selected.Add(time);
    }
}

Periods LogClocks::Judge(CivilMicroseconds now) const {
    std::vector<const ClockCheck*> checks;
    for (const auto& [strLog, check] : m_checks) {
        checks.push_back(&check);
    }
    const Periods all = ClockCheck::Judge(checks, now);
    std::vector<Period> periods = m_selected.Unjudged();
    for (Period& period : periods) {
        period.bWrong = all.IsWrong(period.first);
    }
    return Periods(std::move(periods));
}

}  // namespace vexlog
