// How an operation of the toolkit fails inside: a number of VCTKError.h, with a detail that the table's message lacks.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "VCTKError.h"

namespace vextk {

class Failure : public std::exception {
public:
    // strDetail is shown to the user: never a PIN, never key material.
    explicit Failure(VCTKError nNumber, std::string strDetail = {})
        : m_nNumber(nNumber), m_strDetail(std::move(strDetail)) {}

    VCTKError Number() const noexcept { return m_nNumber; }
    const std::string& Detail() const noexcept { return m_strDetail; }
    const char* what() const noexcept override { return VCTKErrorMessage(m_nNumber); }

private:
    VCTKError m_nNumber;
    std::string m_strDetail;
};

// The message of an error number with its detail, as the toolkit's user reads it.
inline std::string ErrorText(VCTKError nNumber, const std::string& strDetail) {
    const std::string strMessage = VCTKErrorMessage(nNumber);
    return strDetail.empty() ? strMessage : strMessage + ": " + strDetail;
}

}  // namespace vextk
