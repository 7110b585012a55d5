#include "Filter.h"

#include <algorithm>

#include "Native.h"

namespace vexlog {
namespace {

char Lower(char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + ('a' - 'A')) : ch;
}

bool Contains(std::string_view text, std::string_view wanted, bool bIgnoreCase) {
    if (!bIgnoreCase) {
        return text.find(wanted) != std::string_view::npos;
    }
    return std::search(text.begin(), text.end(), wanted.begin(), wanted.end(),
                       [](char left, char right) { return Lower(left) == Lower(right); }) != text.end();
}

template <typename List, typename Value>
bool Lists(const List& list, const Value& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace

bool Filter::Passes(const Record& record) const {
    if (!(processes.empty() && threads.empty()) && !record.HasThread()) {
        return false;
    }
    return PassesFields(record.function, record.nProcess, record.nThread, record.time) &&
           (strText.empty() || Contains(record.message, strText, bIgnoreCase));
}

bool Filter::PassesFields(std::string_view function, std::int64_t nProcess, std::int32_t nThread,
                          const std::optional<CivilMicroseconds>& time) const {
    if ((!processes.empty() && !Lists(processes, nProcess)) || (!threads.empty() && !Lists(threads, nThread))) {
        return false;
    }
    if ((since || until) && !time) {
        return false;
    }
    if ((since && *time < *since) || (until && *time > *until)) {
        return false;
    }
    return functions.empty() || std::any_of(functions.begin(), functions.end(),
                                            [name = ShortFunction(function)](const std::string& strWanted) {
                                                return !name.empty() && ShortFunction(strWanted) == name;
                                            });
}

}  // namespace vexlog
