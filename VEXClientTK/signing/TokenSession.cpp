#include "signing/TokenSession.h"

#include <array>

namespace vextk {
namespace {

// A module's answers do not decide how much memory is taken. Tokens have far less than this.
constexpr size_t kMostObjects = 100'000;
constexpr CK_ULONG kLargestAttribute = 1U << 20U;
constexpr size_t kMostBytes = size_t{64} << 20U;

}  // namespace

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
        if (cSome > some.size() || objects.size() > kMostObjects) {
            throw Failure(VCTK_E_TOKEN_FAILED, cSome > some.size()
                                                   ? "C_FindObjects: it returns more objects than there is room for"
                                                   : "it has more than " + std::to_string(kMostObjects) + " objects");
        }
        objects.insert(objects.end(), some.begin(), some.begin() + static_cast<std::ptrdiff_t>(cSome));
    }
    RequireFromToken(Call([](auto& functions, CK_SESSION_HANDLE h) { return functions.C_FindObjectsFinal(h); }),
                     "C_FindObjectsFinal");
    return objects;
}

std::optional<std::string> TokenSession::Attribute(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE nType) {
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
        // A length of -1 means that there is none. The value cannot be longer than the room for it.
        if (rv != CKR_OK || attribute.ulValueLen > (bSized ? strBytes.size() : kLargestAttribute)) {
            return std::nullopt;
        }
        strBytes.resize(attribute.ulValueLen);
        if (!bSized) {
            attribute.pValue = strBytes.data();
        }
    }
    m_cbRead += strBytes.size();
    if (m_cbRead > kMostBytes) {
        throw Failure(VCTK_E_TOKEN_FAILED, "its objects have more than " + std::to_string(kMostBytes) + " bytes");
    }
    return strBytes;
}

}  // namespace vextk
