// Asks for a PIN on the terminal.
#pragma once

#include "Secret.h"

namespace vexsign {

// Without echo, on the terminal of the process wherever its standard streams lead; a signal that ends the process finds
// the terminal as it was. Throws std::runtime_error without a terminal, or when the PIN does not end in a line end.
void AskPin(const char* pszPrompt, Secret& pin);

}  // namespace vexsign
