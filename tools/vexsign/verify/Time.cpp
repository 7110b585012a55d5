#include "Time.h"

#include <string_view>

#include "OpenSsl.h"

namespace vexsign::verify {

std::optional<std::time_t> ParseMoment(const std::string& strText) {
    constexpr std::string_view kForm = "0000-00-00T00:00:00Z";
    if (strText.size() != kForm.size()) {
        return std::nullopt;
    }
    std::string strDigits;
    for (std::size_t i = 0; i < kForm.size(); ++i) {
        const bool bDigit = strText[i] >= '0' && strText[i] <= '9';
        if (kForm[i] == '0' ? !bDigit : strText[i] != kForm[i]) {
            return std::nullopt;
        }
        strDigits += bDigit ? std::string(1, strText[i]) : "";
    }
    const TimePtr time(RequireMemory(ASN1_TIME_new()));
    if (ASN1_TIME_set_string(time.get(), (strDigits + "Z").c_str()) != 1) {
        ERR_clear_error();
        return std::nullopt;
    }
    return MomentOf(time.get());
}

std::string TextOf(const ASN1_TIME* pTime) {
    const std::optional<std::time_t> moment = MomentOf(pTime);
    return moment ? TextOf(*moment) : "an impossible date";
}

}  // namespace vexsign::verify
