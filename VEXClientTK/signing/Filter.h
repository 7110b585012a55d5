// One certificate filter: a type of VCTKFilter.h and a value.
#pragma once

#include <functional>
#include <string_view>

#include "VEXType.h"
#include "signing/Identity.h"

namespace vextk {

// Unchanging once made; any thread may use it.
class Filter {
public:
    // strValue is narrow text. Throws VCTK_E_FILTER_TYPE or VCTK_E_FILTER_VALUE; an empty value is always refused, so
    // that a value lost on its way here never passes every certificate.
    Filter(ULONG ulType, std::string_view strValue);

    bool Passes(const Identity& identity) const { return m_passes(identity); }

private:
    std::function<bool(const Identity&)> m_passes;
};

}  // namespace vextk
