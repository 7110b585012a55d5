// The natives of the bridge: their names and the line numbers of their records.
#pragma once

#include <string_view>

#include "Record.h"

namespace vexlog {

// "ClearFilter" of "Java_vex_jni_TAVClientJNI_ClearFilter"; any other name stays as it is.
std::string_view ShortFunction(std::string_view function);

enum class Event { kNone, kEnter, kLeave };

// Whether a record is the beginning or the end of a call. A native's line number decides. For other line numbers and
// other functions it is the end of the message: " Enter." or " Leave.".
Event EventOf(const Record& record);

}  // namespace vexlog
