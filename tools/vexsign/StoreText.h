// The toolkit's initialisation text: the store, and where its PIN comes from.
#pragma once

#include <string>
#include <vector>

#include "Secret.h"
#include "TimeStamps.h"

namespace vexsign {

// Whether the text holds a PIN. Every user of the machine can see the command line.
bool HasPin(const std::string& strStore);

// A path ("/...", "./...", "../...") becomes a file: URI; any other text stays as it is.
std::string StoreOf(const std::string& strArgument);

// The files that the text names in the substitute toolkit's syntax: the store, those of its PIN, of issuers and of
// time-stamping authorities, a token's module.
std::vector<std::string> FilesOf(const std::string& strStore);

// Those of them that hold a PIN.
std::vector<std::string> PinFilesOf(const std::string& strStore);

// Whether the text may be a store's file that the user named without "./": it has no scheme and is no path for StoreOf.
bool LacksScheme(const std::string& strArgument);

// Both add an attribute for the PIN to the store's text.
std::string WithPinSource(const std::string& strStore, const std::string& strPath);
void AppendPin(const std::string& strStore, const Secret& pin, Secret& store);

// Adds the attribute that makes the substitute toolkit list every certificate.
std::string WithListAll(const std::string& strStore);

// Adds the attributes that make it include the certificates of issuers, unless the text already says which ones.
// strSource: a file with more; empty: none.
std::string WithChain(const std::string& strStore, const std::string& strSource);

// Adds the attributes that make it have its P7 signatures stamped. Without an authority the text stays as it is.
std::string WithTimeStamps(const std::string& strStore, const TimeStamps& timeStamps);

}  // namespace vexsign
