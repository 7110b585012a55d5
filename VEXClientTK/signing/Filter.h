// One certificate filter: a type of VCTKFilter.h and a value.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "VEXType.h"
#include "signing/Identity.h"

namespace vextk {

class Filter {
public:
    // strValue is narrow text. Throws VCTK_E_FILTER_TYPE or VCTK_E_FILTER_VALUE; an empty value is always refused, so
    // that a value lost on its way here never passes every certificate.
    Filter(ULONG ulType, std::string_view strValue);

    bool Passes(const Identity& identity) const;

private:
    ULONG m_ulType;
    std::wstring m_strText;          // issuer, subject: lower case
    std::string m_strHex;            // serial, fingerprint: as Identity writes it
    std::uint32_t m_dwKeyUsage = 0;  // key usage: one of OpenSSL's KU_ bits
    std::string m_strAlgorithm;      // key algorithm: as Identity writes it
};

}  // namespace vextk
