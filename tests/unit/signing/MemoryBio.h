#pragma once

#include <openssl/bio.h>

#include <string>

namespace vextk {

// The bytes that were written to a memory BIO.
inline std::string MemoryBioText(BIO* pBio) {
    const char* pchData = nullptr;
    const long cbData = BIO_get_mem_data(pBio, &pchData);
    return cbData > 0 ? std::string(pchData, static_cast<size_t>(cbData)) : std::string();
}

}  // namespace vextk
