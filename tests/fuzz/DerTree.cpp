#include "DerTree.h"

#include <cstddef>
#include <optional>
#include <utility>

#include "Tlv.h"

namespace {

constexpr int kDeepest = 24;
constexpr unsigned char kBitString = 0x03;
constexpr unsigned char kOctetString = 0x04;
constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kConstructed = 0x20;
constexpr unsigned char kLongTag = 0x1F;

DerNodes Parse(std::string_view bytes, int nDepth);

// Takes one element off the bytes. Nothing: there is none.
std::optional<std::pair<unsigned char, std::string_view>> TakeElement(std::string_view& bytes) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    if (bytes.size() < 2 || byteAt(0) == 0 || (byteAt(0) & kLongTag) == kLongTag) {
        return std::nullopt;
    }
    std::size_t cb = byteAt(1);
    std::size_t cbHeader = 2;
    if (cb >= 0x80) {
        const std::size_t cbLength = cb - 0x80;
        if (cbLength == 0 || cbLength > 4 || bytes.size() < 2 + cbLength) {
            return std::nullopt;
        }
        cb = 0;
        for (; cbHeader < 2 + cbLength; ++cbHeader) {
            cb = cb << 8U | byteAt(cbHeader);
        }
    }
    if (cb > bytes.size() - cbHeader) {
        return std::nullopt;
    }
    const std::pair element(byteAt(0), bytes.substr(cbHeader, cb));
    bytes.remove_prefix(cbHeader + cb);
    return element;
}

// Adds the children of an element, if its content is DER from cbBefore on.
void AddChildren(DerNode& node, std::size_t cbBefore, int nDepth) {
    DerNodes children = Parse(std::string_view(node.strBody).substr(cbBefore), nDepth + 1);
    if (!children.empty() && children.back().uTag != 0) {
        node.children = std::move(children);
        node.strBody.resize(cbBefore);
    }
}

DerNodes Parse(std::string_view bytes, int nDepth) {
    DerNodes nodes;
    while (const auto element = nDepth < kDeepest ? TakeElement(bytes) : std::nullopt) {
        DerNode node{element->first, std::string(element->second), {}};
        const std::string& strBody = node.strBody;
        if ((node.uTag & kConstructed) != 0) {
            AddChildren(node, 0, nDepth);
        } else if (node.uTag == kOctetString && strBody.size() > 1 && strBody[0] == kSequence) {
            AddChildren(node, 0, nDepth);
        } else if (node.uTag == kBitString && strBody.size() > 2 && strBody[0] == 0 && strBody[1] == kSequence) {
            AddChildren(node, 1, nDepth);
        }
        nodes.push_back(std::move(node));
    }
    if (!bytes.empty()) {
        nodes.push_back({0, std::string(bytes), {}});
    }
    return nodes;
}

}  // namespace

DerNodes ParseDer(std::string_view bytes) {
    return Parse(bytes, 0);
}

std::string WriteDer(const DerNodes& nodes) {
    std::string strBytes;
    for (const DerNode& node : nodes) {
        const std::string strBody = node.strBody + WriteDer(node.children);
        strBytes += node.uTag == 0 ? strBody : Tlv(node.uTag, strBody);
    }
    return strBytes;
}
