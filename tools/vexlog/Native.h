// What the natives of the bridge write: their names and the line numbers of their records.
#pragma once

#include <string_view>

#include "Record.h"

namespace vexlog {

// "ClearFilter" of "Java_vex_jni_TAVClientJNI_ClearFilter"; any other function's name as it is.
std::string_view ShortFunction(std::string_view function);

enum class Event { kNone, kEnter, kLeave };

// Whether a record is the beginning or the end of a call. The natives' line numbers decide; with another line, and in
// functions of other programs, a message that ends in " Enter." or " Leave.".
Event EventOf(const Record& record);

}  // namespace vexlog
