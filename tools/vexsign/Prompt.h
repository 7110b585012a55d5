// Asks for a PIN on the terminal.
#pragma once

#include "Secret.h"

namespace vexsign {

// Asks on the process's terminal, wherever its standard streams lead, with the echo off. Before a signal ends the
// process, the echo is on again. Throws std::runtime_error if there is no terminal, or no line end after the PIN.
void AskPin(const char* pszPrompt, Secret& pin);

}  // namespace vexsign
