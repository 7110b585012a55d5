// The initialisation text: which store, and how its PIN gets there.
#pragma once

#include <string>
#include <vector>

#include "Secret.h"

namespace vexsign {

// Whether the text holds a PIN, where every user of the machine could read it from the command line.
bool HasPin(const std::string& strStore);

// A path ("/...", "./...", "../...") as file: URI; everything else as it is.
std::string StoreOf(const std::string& strArgument);

// The files that the text names, as far as it is in the substitute toolkit's syntax: the store, the PIN's file, a
// token's module.
std::vector<std::string> FilesOf(const std::string& strStore);

// The store with the PIN's attribute behind it.
std::string WithPinSource(const std::string& strStore, const std::string& strPath);
void AppendPin(const std::string& strStore, const Secret& pin, Secret& store);

// The substitute toolkit's store whose list shows what cannot sign, too.
std::string WithListAll(const std::string& strStore);

}  // namespace vexsign
