// PEM files: whatever is in one, it opens or fails with a reason, and what opens can be listed, used and closed. The
// first byte of the input chooses the PIN and the list; the text follows.
#include <cstdint>

#include "StoreChecks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    static const StoreFile s_file;
    if (cbData == 0) {
        return 0;
    }
    s_file.Write({reinterpret_cast<const char*>(pbData) + 1, cbData - 1});
    CheckStore(s_file.Uri(pbData[0]), {VCTK_E_STORE_UNREADABLE, VCTK_E_STORE_FORMAT, VCTK_E_STORE_NO_PRIVATE_KEY,
                                       VCTK_E_PIN_REQUIRED, VCTK_E_PIN_WRONG});
    return 0;
}
