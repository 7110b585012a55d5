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
    const bool bHasThread = record.HasThread();
    if (!processes.empty() && !(bHasThread && Lists(processes, record.nProcess))) {
        return false;
    }
    if (!threads.empty() && !(bHasThread && Lists(threads, record.nThread))) {
        return false;
    }
    if ((since || until) && !record.time) {
        return false;
    }
    if ((since && *record.time < *since) || (until && *record.time > *until)) {
        return false;
    }
    if (!functions.empty() && (record.function.empty() || !(Lists(functions, record.function) ||
                                                            Lists(functions, ShortFunction(record.function))))) {
        return false;
    }
    return strText.empty() || Contains(record.message, strText, bIgnoreCase);
}

}  // namespace vexlog
