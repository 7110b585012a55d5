// The elements of BER and DER (X.690). OpenSSL reads both and does not tell which it was.
#pragma once

#include <optional>
#include <string_view>

namespace vexsign::verify {

struct Element {
    int nTag = 0;
    int nClass = 0;  // V_ASN1_UNIVERSAL, V_ASN1_CONTEXT_SPECIFIC
    bool bConstructed = false;
    std::string_view whole;
    std::string_view body;

    bool Is(int nOtherTag, int nOtherClass) const { return nTag == nOtherTag && nClass == nOtherClass; }
};

// Removes the first element, in BER, from the text. Returns nothing if the text does not begin with a whole element.
std::optional<Element> TakeElement(std::string_view& text);

// Whether the text is a series of elements whose tags, lengths and nesting are those of DER.
bool IsDer(std::string_view text);

// Whether the elements, in DER, have the order that DER demands of a SET OF.
bool IsSorted(std::string_view elements);

}  // namespace vexsign::verify
