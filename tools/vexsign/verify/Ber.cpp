#include "Ber.h"

#include <openssl/asn1.h>

#include <cstddef>

namespace vexsign::verify {
namespace {

using namespace std::string_view_literals;

// More than any signature needs.
constexpr int kMostNesting = 40;
constexpr std::string_view kEndOfContents = "\0\0"sv;

std::optional<Element> Take(std::string_view& text, int nNesting) {
    const auto* const pbBegin = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* pb = pbBegin;
    long cbBody = 0;
    Element element;
    const int nFlags = ASN1_get_object(&pb, &cbBody, &element.nTag, &element.nClass, static_cast<long>(text.size()));
    constexpr int kError = 0x80;
    constexpr int kIndefiniteLength = 0x01;
    if ((nFlags & kError) != 0 || nNesting > kMostNesting) {
        return std::nullopt;
    }
    element.bConstructed = (nFlags & V_ASN1_CONSTRUCTED) != 0;
    const auto cbHeader = static_cast<std::size_t>(pb - pbBegin);
    if ((nFlags & kIndefiniteLength) == 0) {
        element.whole = text.substr(0, cbHeader + static_cast<std::size_t>(cbBody));
        element.body = element.whole.substr(cbHeader);
    } else {
        std::string_view rest = text.substr(cbHeader);
        while (!rest.starts_with(kEndOfContents)) {
            if (!Take(rest, nNesting + 1)) {
                return std::nullopt;
            }
        }
        element.body = text.substr(cbHeader, text.size() - cbHeader - rest.size());
        element.whole = text.substr(0, cbHeader + element.body.size() + kEndOfContents.size());
    }
    text.remove_prefix(element.whole.size());
    return element;
}

bool IsDerElement(const Element& element) {
    // OpenSSL computes the size with the shortest length; the indefinite form and needless zeroes differ from it.
    const auto cbShortest =
        ASN1_object_size(element.bConstructed ? 1 : 0, static_cast<int>(element.body.size()), element.nTag);
    if (cbShortest < 0 || static_cast<std::size_t>(cbShortest) != element.whole.size()) {
        return false;
    }
    const bool bSeries = element.nTag == V_ASN1_SEQUENCE || element.nTag == V_ASN1_SET;
    return element.nClass != V_ASN1_UNIVERSAL || element.bConstructed == bSeries;
}

bool IsDer(std::string_view text, int nNesting) {
    while (!text.empty()) {
        const std::optional<Element> element = Take(text, nNesting);
        if (!element || !IsDerElement(*element) || (element->bConstructed && !IsDer(element->body, nNesting + 1))) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<Element> TakeElement(std::string_view& text) {
    return Take(text, 0);
}

bool IsDer(std::string_view text) {
    return IsDer(text, 0);
}

bool IsSorted(std::string_view elements) {
    std::string_view before;
    while (!elements.empty()) {
        const std::optional<Element> element = TakeElement(elements);
        // No element is the beginning of another one, so the order of the bytes is that of DER.
        if (!element || element->whole < before) {
            return false;
        }
        before = element->whole;
    }
    return true;
}

}  // namespace vexsign::verify
