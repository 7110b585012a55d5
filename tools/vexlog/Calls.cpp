#include "Calls.h"

namespace vexlog {

void CallMatcher::OnRecord(const Record& record) {
    const Event event = EventOf(record);
    if (event == Event::kNone) {
        return;
    }
    const std::uint32_t nFunction = FunctionNumber(ShortFunction(record.function));
    const Thread thread{record.nProcess, record.nThread};
    const auto open = m_open.find(thread);
    if (event == Event::kEnter) {
        if (open != m_open.end()) {
            Close(*open, Outcome::kFailed);
            open->second = {nFunction, *record.time};
            return;
        }
        if (m_open.size() >= kMostOpen) {
            Close(*m_open.begin(), Outcome::kOpen);
            m_open.erase(m_open.begin());
        }
        m_open.emplace(thread, Open{nFunction, *record.time});
        return;
    }
    Call call{nFunction, record.nProcess, record.nThread, Outcome::kWithoutBegin, *record.time, 0};
    if (open != m_open.end()) {
        if (open->second.nFunction == nFunction) {
            call.outcome = Outcome::kDone;
            call.nBegin = open->second.nBegin;
            call.nDuration = *record.time - call.nBegin;
        } else {
            Close(*open, Outcome::kFailed);
        }
        m_open.erase(open);
    }
    m_sink.OnCall(call);
}

void CallMatcher::Finish() {
    for (const auto& open : m_open) {
        Close(open, Outcome::kOpen);
    }
    m_open.clear();
}

std::uint32_t CallMatcher::FunctionNumber(std::string_view function) {
    const auto found = m_numbers.find(function);
    if (found != m_numbers.end()) {
        return found->second;
    }
    if (m_functions.size() >= kMostFunctions) {
        return static_cast<std::uint32_t>(kMostFunctions - 1);
    }
    const auto nNumber = static_cast<std::uint32_t>(m_functions.size());
    if (nNumber == kMostFunctions - 1) {
        m_functions.emplace_back("(others)");
        return nNumber;
    }
    m_functions.emplace_back(function);
    m_numbers.emplace(function, nNumber);
    return nNumber;
}

void CallMatcher::Close(const OpenCalls::value_type& open, Outcome outcome) {
    const auto [nProcess, nThread] = open.first;
    m_sink.OnCall({open.second.nFunction, nProcess, nThread, outcome, open.second.nBegin, 0});
}

}  // namespace vexlog
