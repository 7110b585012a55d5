// The client toolkit's operations, with exceptions for failures and strings for texts.
#pragma once

#include <stdexcept>
#include <string>

#include "VCTK.h"

namespace vexsign {

// An operation of the toolkit failed. what(): "error <number>: <text>".
class ToolkitError : public std::runtime_error {
public:
    ToolkitError(INT nNumber, const std::string& strText);
    INT Number() const { return m_nNumber; }

private:
    INT m_nNumber;
};

// Owns a signing object of the toolkit. Members throw ToolkitError, or std::bad_alloc.
class SigningObject {
public:
    // strStore: in the toolkit's own syntax.
    explicit SigningObject(const std::string& strStore);
    ~SigningObject();
    SigningObject(const SigningObject&) = delete;
    SigningObject& operator=(const SigningObject&) = delete;

    void SetDigest(const std::string& strName);
    // False: the toolkit refuses the name.
    bool TrySetDigest(const std::string& strName);
    void SetChooseSingle();
    void AddFilter(ULONG ulType, const std::string& strValue);

    // nInputForm: 1, the text is Base64 of the data; 0, it is the data. Returns the toolkit's signature, in Base64.
    std::string SignP1(const std::string& strText, int nInputForm);
    std::string SignP7(const std::string& strText, int nInputForm, bool bDetached, bool bIncludeCertificate);

    // The certificate of the last signature, in Base64.
    std::string Certificate();
    // One line for each certificate that can sign, with fields separated by tabulators. Empty if there is none.
    std::string CertificateList();

private:
    void Require(INT nResult);
    template <typename Query>
    std::string Fetch(Query query);

    HANDLE m_hObject;
};

// The bytes of a text that the toolkit returned; pszWhat is its name for the exception, a std::runtime_error, if it is
// not Base64.
std::string DecodeAnswer(const std::string& strBase64, const char* pszWhat);

}  // namespace vexsign
