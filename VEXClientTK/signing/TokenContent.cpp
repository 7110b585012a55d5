#include "signing/TokenContent.h"

#include <algorithm>

namespace vextk {
namespace {

// Far more than there are. A module's answer does not decide how much memory is taken, or how often it is asked.
constexpr CK_ULONG kMostSlots = 4096;
constexpr int kMostInsertions = 16;

// Whether the list is complete. False: a token was inserted while it was read.
bool ReadSlots(const Pkcs11Module& module, std::vector<CK_SLOT_ID>& slots) {
    // When it is asked for the number alone, a module looks for new readers and tokens.
    CK_ULONG cSlots = 0;
    CK_RV rv = module.Call([&](auto& functions) { return functions.C_GetSlotList(CK_TRUE, nullptr, &cSlots); });
    if (rv == CKR_OK && cSlots > kMostSlots) {
        throw Failure(VCTK_E_TOKEN_FAILED, "C_GetSlotList: it announces " + std::to_string(cSlots) + " slots");
    }
    if (rv == CKR_OK) {
        slots.resize(cSlots);
        rv = module.Call([&](auto& functions) {
            return cSlots == 0 ? CKR_OK : functions.C_GetSlotList(CK_TRUE, slots.data(), &cSlots);
        });
        slots.resize(std::min<size_t>(cSlots, slots.size()));
    }
    if (rv != CKR_OK && rv != CKR_BUFFER_TOO_SMALL) {
        throw Failure(VCTK_E_TOKEN_FAILED, "C_GetSlotList: " + Pkcs11ResultText(rv));
    }
    return rv == CKR_OK;
}

}  // namespace

std::vector<TokenSlot> ListTokens(const Pkcs11Module& module) {
    std::vector<CK_SLOT_ID> slots;
    for (int nTry = 0; !ReadSlots(module, slots); ++nTry) {
        if (nTry == kMostInsertions) {
            throw Failure(VCTK_E_TOKEN_FAILED, "C_GetSlotList: " + Pkcs11ResultText(CKR_BUFFER_TOO_SMALL));
        }
    }
    std::vector<TokenSlot> tokens;
    for (const CK_SLOT_ID nSlot : slots) {
        CK_TOKEN_INFO token{};
        CK_SLOT_INFO slot{};
        if (module.Call([&](auto& functions) { return functions.C_GetTokenInfo(nSlot, &token); }) == CKR_OK &&
            module.Call([&](auto& functions) { return functions.C_GetSlotInfo(nSlot, &slot); }) == CKR_OK &&
            (token.flags & CKF_TOKEN_INITIALIZED) != 0) {
            tokens.push_back({nSlot,
                              {Pkcs11Text(token.label), Pkcs11Text(token.manufacturerID), Pkcs11Text(token.model),
                               Pkcs11Text(token.serialNumber)},
                              Pkcs11Text(slot.slotDescription),
                              Pkcs11Text(slot.manufacturerID),
                              token.flags});
        }
    }
    return tokens;
}

void RequireDistinct(const std::vector<TokenSlot>& tokens, const TokenName& name) {
    const auto cTokens =
        std::count_if(tokens.begin(), tokens.end(), [&](const TokenSlot& slot) { return slot.name == name; });
    if (cTokens > 1) {
        throw Failure(
            VCTK_E_TOKEN_NOT_FOUND,
            std::to_string(cTokens) +
                " tokens have the same label, manufacturer, model and serial number; leave only one inserted");
    }
}

}  // namespace vextk
