#include "timestamp/Der.h"

#include <climits>

#include "timestamp/OpenSsl.h"

namespace vextimestamp {

std::optional<Element> TakeElement(View& bytes) {
    if (bytes.empty() || bytes.size() > INT_MAX) {
        return std::nullopt;
    }
    const ErrorMark mark;
    const unsigned char* pb = bytes.data();
    long cbBody = 0;
    Element element;
    constexpr int kError = 0x80;
    constexpr int kIndefinite = 1;
    const int nForm = ASN1_get_object(&pb, &cbBody, &element.nTag, &element.nClass, static_cast<long>(bytes.size()));
    const bool bSequence = element.nClass == V_ASN1_UNIVERSAL && element.nTag == V_ASN1_SEQUENCE;
    if ((nForm & (kError | kIndefinite)) != 0 || (bSequence && (nForm & V_ASN1_CONSTRUCTED) == 0)) {
        return std::nullopt;
    }
    const auto cbHeader = static_cast<std::size_t>(pb - bytes.data());
    const auto cb = static_cast<std::size_t>(cbBody);
    element.whole = bytes.first(cbHeader + cb);
    element.body = bytes.subspan(cbHeader, cb);
    bytes = bytes.subspan(cbHeader + cb);
    return element;
}

std::optional<Element> TakeElement(View& bytes, int nTag) {
    View rest = bytes;
    const std::optional<Element> element = TakeElement(rest);
    if (!element || element->nClass != V_ASN1_UNIVERSAL || element->nTag != nTag) {
        return std::nullopt;
    }
    bytes = rest;
    return element;
}

std::optional<Element> OnlySequence(View bytes) {
    const std::optional<Element> element = TakeElement(bytes, V_ASN1_SEQUENCE);
    return bytes.empty() ? element : std::nullopt;
}

}  // namespace vextimestamp
