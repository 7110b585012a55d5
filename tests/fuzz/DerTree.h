// DER as a tree that can be changed and written again, with lengths that fit.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct DerNode {
    unsigned char uTag = 0;  // 0: bytes that are no DER, written as they are
    std::string strBody;     // what stands before the children; without children: the whole content
    std::vector<DerNode> children;
};
using DerNodes = std::vector<DerNode>;

// The elements, one behind the other. Strings that contain DER, such as the parts of a PKCS #12 file, have children.
// From the first byte that is no DER on, all is one last node with tag 0.
DerNodes ParseDer(std::string_view bytes);

std::string WriteDer(const DerNodes& nodes);
