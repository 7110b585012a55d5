#include "ReadFile.h"

#include <algorithm>
#include <stdexcept>

#include "vexsign/Input.h"

namespace vexsign::verify {

std::string ReadWhole(const std::string& strName, std::size_t cbMost) {
    constexpr std::size_t kLeastStep = std::size_t{1024} * 1024;
    Input input(strName);
    const auto refuse = [&] {
        throw std::runtime_error(input.Name() + ": larger than " + std::to_string(cbMost) +
                                 " bytes; is it a signature or a certificate?");
    };
    if (input.BytesLeft() > cbMost) {
        refuse();
    }
    std::string strBytes;
    for (;;) {
        const std::size_t cbBefore = strBytes.size();
        // One piece, or all that a regular file has, so that a large one is not copied again and again.
        const std::size_t cbStep = std::max(kLeastStep, static_cast<std::size_t>(input.BytesLeft()) + 1);
        const std::size_t cbWanted = std::min(cbStep, cbMost - cbBefore + 1);
        strBytes.resize(cbBefore + cbWanted);
        strBytes.resize(cbBefore + input.Read(strBytes.data() + cbBefore, cbWanted));
        if (strBytes.size() > cbMost) {
            refuse();
        }
        if (strBytes.size() < cbBefore + cbWanted) {
            return strBytes;
        }
    }
}

}  // namespace vexsign::verify
