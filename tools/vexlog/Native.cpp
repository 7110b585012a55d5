#include "Native.h"

#include <algorithm>

namespace vexlog {
namespace {

constexpr std::string_view kPrefix = "Java_vex_jni_TAVClientJNI_";

struct Lines {
    std::string_view name;
    int nEnter;  // 0: no such record
    int nLeave;
};

constexpr Lines kNatives[] = {
    {"Initialize", 101, 112},          {"SetDigestAlg", 0, 141},
    {"SetChooseSingleCert", 149, 164}, {"AddFilter", 171, 195},
    {"ClearFilter", 202, 216},         {"P1Sign", 223, 267},
    {"P1SignString", 274, 318},        {"P7Sign", 325, 368},
    {"P7SignString", 377, 420},        {"Finalize", 428, 442},
    {"GetSignVersion", 449, 454},      {"GetSignCert", 462, 494},
    {"GetLastError", 501, 505},        {"GetLastErrorMessage", 512, 545},
    {"GetCertList", 552, 585},
};

const Lines* LinesOf(std::string_view function) {
    if (!function.starts_with(kPrefix)) {
        return nullptr;
    }
    const auto* const pFound =
        std::find_if(std::begin(kNatives), std::end(kNatives),
                     [name = ShortFunction(function)](const Lines& lines) { return lines.name == name; });
    return pFound == std::end(kNatives) ? nullptr : pFound;
}

}  // namespace

std::string_view ShortFunction(std::string_view function) {
    const bool bNative = function.starts_with(kPrefix) && function.size() > kPrefix.size();
    return bNative ? function.substr(kPrefix.size()) : function;
}

Event EventOf(const Record& record) {
    if (record.kind != Kind::kRecord || record.function.empty()) {
        return Event::kNone;
    }
    const Lines* const pLines = record.nLine ? LinesOf(record.function) : nullptr;
    if (pLines != nullptr && *record.nLine != 0) {
        if (*record.nLine == pLines->nEnter) {
            return Event::kEnter;
        }
        if (*record.nLine == pLines->nLeave) {
            return Event::kLeave;
        }
    }
    if (record.message.ends_with(" Enter.")) {
        return Event::kEnter;
    }
    return record.message.ends_with(" Leave.") ? Event::kLeave : Event::kNone;
}

}  // namespace vexlog
