// One certificate filter: a type of VCTKFilter.h and a value.
#pragma once

#include <functional>
#include <string_view>

#include "VEXType.h"
#include "signing/Identity.h"

namespace vextk {

// Immutable; any thread may use it.
class Filter {
public:
    // strValue is narrow text. Throws VCTK_E_FILTER_TYPE or VCTK_E_FILTER_VALUE. An empty value is always refused: a
    // conversion may have lost the value, and the filter would pass every certificate.
    Filter(ULONG ulType, std::string_view strValue);

    bool Passes(const Identity& identity) const { return m_passes(identity); }

private:
    std::function<bool(const Identity&)> m_passes;
};

}  // namespace vextk
