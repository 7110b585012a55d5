// A PIN in a file or a pipe.
#pragma once

#include <string>

#include "Secret.h"

namespace vexsign {

// The name of a PIN's file for functions that take "-" for a standard stream: here it is the name of a file.
std::string StreamName(const std::string& strPath);

// Reads the PIN from a pipe, a device, or a descriptor that the process has, such as the shell's <(...) and /dev/stdin:
// the toolkit opens only regular files. One line end after the PIN is ignored. False: the path is for the toolkit,
// because it is another regular file, or because the toolkit says best why it cannot be read. Throws std::runtime_error
// with the path, also if there are too many symbolic links.
bool ReadPinFromPipe(const std::string& strPath, Secret& pin);

// Whether every user of the machine may read the regular file: its mode and those of the directories above it allow
// that.
bool EverybodyMayRead(const std::string& strPath);

}  // namespace vexsign
