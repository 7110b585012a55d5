#include "signing/TokenSession.h"

#include <array>

namespace vextk {

std::vector<CK_OBJECT_HANDLE> TokenSession::Find(std::vector<CK_ATTRIBUTE> attributes) const {
    RequireFromToken(Call([&](auto& functions, CK_SESSION_HANDLE h) {
                         return functions.C_FindObjectsInit(h, attributes.data(), attributes.size());
                     }),
                     "C_FindObjectsInit");
    std::vector<CK_OBJECT_HANDLE> objects;
    for (;;) {
        std::array<CK_OBJECT_HANDLE, 64> some{};
        CK_ULONG cSome = 0;
        RequireFromToken(Call([&](auto& functions, CK_SESSION_HANDLE h) {
                             return functions.C_FindObjects(h, some.data(), some.size(), &cSome);
                         }),
                         "C_FindObjects");
        if (cSome == 0) {
            break;
        }
        objects.insert(objects.end(), some.begin(), some.begin() + static_cast<std::ptrdiff_t>(cSome));
    }
    RequireFromToken(Call([](auto& functions, CK_SESSION_HANDLE h) { return functions.C_FindObjectsFinal(h); }),
                     "C_FindObjectsFinal");
    return objects;
}

std::optional<std::string> TokenSession::Attribute(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE nType) const {
    CK_ATTRIBUTE attribute{nType, nullptr, 0};
    const auto get = [&] {
        return Call([&](auto& functions, CK_SESSION_HANDLE h) {
            return functions.C_GetAttributeValue(h, hObject, &attribute, 1);
        });
    };
    std::string strBytes;
    for (const bool bSized : {false, true}) {
        const CK_RV rv = get();
        if (IsTokenLost(rv)) {
            throw TokenLost{rv};
        }
        if (rv != CKR_OK || attribute.ulValueLen == static_cast<CK_ULONG>(-1)) {
            return std::nullopt;
        }
        strBytes.resize(attribute.ulValueLen);
        if (!bSized) {
            attribute.pValue = strBytes.data();
        }
    }
    return strBytes;
}

}  // namespace vextk
