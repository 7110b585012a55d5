// The exception of the toolkit's operations: a number of VCTKError.h, and a detail that its message does not contain.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "VCTKError.h"
#include "posix/VisibleText.h"

namespace vextk {

class Failure : public std::exception {
public:
    // strDetail is shown to the user. It must not contain a PIN or key material.
    explicit Failure(VCTKError nNumber, std::string strDetail = {})
        : m_nNumber(nNumber), m_strDetail(std::move(strDetail)) {}

    VCTKError Number() const noexcept { return m_nNumber; }
    const std::string& Detail() const noexcept { return m_strDetail; }
    // The same, and the detail begins with what it is about, such as a file's path.
    Failure About(const std::string& strThing) const {
        return Failure(m_nNumber, m_strDetail.empty() ? strThing : strThing + ": " + m_strDetail);
    }

    const char* what() const noexcept override { return VCTKErrorMessage(m_nNumber); }

private:
    VCTKError m_nNumber;
    std::string m_strDetail;
};

// The message of an error number with its detail, for the user of the toolkit. It is one line of UTF-8, whatever bytes
// a path or a token's name has.
inline std::string ErrorText(VCTKError nNumber, const std::string& strDetail) {
    const std::string strMessage = VCTKErrorMessage(nNumber);
    return strDetail.empty() ? strMessage : strMessage + ": " + vexposix::Visible(strDetail, true);
}

}  // namespace vextk
