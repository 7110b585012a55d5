// Takes DER apart, element by element, without copying. Pure; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

namespace vextimestamp {

using View = std::span<const unsigned char>;

struct Element {
    int nTag = 0;    // without its class
    int nClass = 0;  // V_ASN1_UNIVERSAL, V_ASN1_CONTEXT_SPECIFIC ...
    View whole;      // with the header
    View body;
};

// The first element of bytes, which loses it. Nothing: there is none, or it has no definite length, or it is longer
// than the bytes, or it is a sequence that is not constructed.
std::optional<Element> TakeElement(View& bytes);

// The first element if it is of this universal type.
std::optional<Element> TakeElement(View& bytes, int nTag);

// The only element, which is a sequence.
std::optional<Element> OnlySequence(View bytes);

}  // namespace vextimestamp
