// PEM files.
#include "StoreChecks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    CheckStoreFile(pbData, cbData);
    return 0;
}
