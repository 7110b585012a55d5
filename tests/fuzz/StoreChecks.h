// What holds for every store, whatever is in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

#include "TempDirectory.h"
#include "ToolkitClient.h"
#include "VCTKError.h"

// A file that gets new bytes for each input.
class StoreFile {
public:
    StoreFile();
    ~StoreFile();
    StoreFile(const StoreFile&) = delete;
    StoreFile& operator=(const StoreFile&) = delete;

    void Write(std::string_view bytes) const;
    std::string Uri(unsigned char uChoice) const;

private:
    TempDirectory m_directory;
    int m_fd;
};

// The PIN that an input's first byte chooses; null: none.
const char* PinOf(unsigned char uChoice);

// One line of UTF-8 without control characters, and not empty.
bool IsLine(std::string_view text);

// Opens the store, lists and signs with it, and closes it. It fails with none but the given numbers, and with a reason
// that can be shown; its list has the documented form. use: what else is done with an open store.
void CheckStore(const std::string& strUri, std::initializer_list<VCTKError> mayFailWith,
                const std::function<void(const ToolkitClient&)>& use = nullptr);

// For a file of the input's bytes behind the first one, which chooses the PIN and the list: whatever is in the file, it
// opens or fails with a reason, and what opens can be listed, used and closed.
void CheckStoreFile(const std::uint8_t* pbInput, std::size_t cbInput);
