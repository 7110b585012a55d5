#include "Toolkit.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "Base64.h"

namespace vexsign {
namespace {

// Calls query twice: first for the size, then for the text. query: INT(char* pszBuffer, int* pnLength)
template <typename Query>
INT FetchText(Query query, std::string& strText) {
    strText.clear();
    int nLength = 0;
    if (const INT nResult = query(nullptr, &nLength); nResult != 0 || nLength <= 0) {
        return nResult;
    }
    std::vector<char> buffer(static_cast<std::size_t>(nLength) + 1);
    const INT nResult = query(buffer.data(), &nLength);
    if (nResult == 0) {
        strText.assign(buffer.begin(), std::find(buffer.begin(), buffer.end(), '\0'));
    }
    return nResult;
}

// The error of the last operation on the handle; for a null handle, of the initialisation that failed.
ToolkitError LastError(HANDLE hObject) {
    const INT nNumber = VCTK_GetLastError(hObject);
    std::string strText;
    const INT nResult = FetchText(
        [=](char* pszBuffer, int* pnLength) { return VCTK_GetLastErrorMessage(hObject, pszBuffer, pnLength); },
        strText);
    return {nNumber, nResult == 0 && !strText.empty() ? strText : "the toolkit returned no text for this error"};
}

}  // namespace

ToolkitError::ToolkitError(INT nNumber, const std::string& strText)
    : std::runtime_error("error " + std::to_string(nNumber) + ": " + strText), m_nNumber(nNumber) {}

SigningObject::SigningObject(const std::string& strStore) : m_hObject(VCTK_Initialize(strStore.c_str())) {
    if (m_hObject == nullptr) {
        throw LastError(nullptr);
    }
}

SigningObject::~SigningObject() {
    VCTK_Finalize(m_hObject);
}

void SigningObject::Require(INT nResult) {
    if (nResult != 0) {
        throw LastError(m_hObject);
    }
}

template <typename Query>
std::string SigningObject::Fetch(Query query) {
    std::string strText;
    Require(FetchText(query, strText));
    return strText;
}

void SigningObject::SetDigest(const std::string& strName) {
    Require(VCTK_SetDigestAlg(m_hObject, strName.c_str()));
}

bool SigningObject::TrySetDigest(const std::string& strName) {
    return VCTK_SetDigestAlg(m_hObject, strName.c_str()) == 0;
}

void SigningObject::SetChooseSingle() {
    Require(VCTK_SetChooseSingleCert(m_hObject, 1));
}

void SigningObject::AddFilter(ULONG ulType, const std::string& strValue) {
    Require(VCTK_AddFilter(m_hObject, ulType, strValue.c_str()));
}

std::string SigningObject::SignP1(const std::string& strText, int nInputForm) {
    Require(VCTK_P1Sign(m_hObject, strText.c_str(), nInputForm));
    return Fetch(
        [this](char* pszBuffer, int* pnLength) { return VCTK_GetP1SignResult(m_hObject, pszBuffer, pnLength); });
}

std::string SigningObject::SignP7(const std::string& strText, int nInputForm, bool bDetached,
                                  bool bIncludeCertificate) {
    Require(VCTK_P7Sign(m_hObject, strText.c_str(), nInputForm, bDetached ? 1 : 0, bIncludeCertificate ? 1 : 0));
    return Fetch(
        [this](char* pszBuffer, int* pnLength) { return VCTK_GetP7SignResult(m_hObject, pszBuffer, pnLength); });
}

std::string SigningObject::Certificate() {
    return Fetch([this](char* pszBuffer, int* pnLength) { return VCTK_GetSignCert(m_hObject, pszBuffer, pnLength); });
}

std::string SigningObject::CertificateList() {
    return Fetch([this](char* pszBuffer, int* pnLength) {
        return VCTK_GetCertList(m_hObject, "\n", "\t", pszBuffer, pnLength);
    });
}

std::string DecodeAnswer(const std::string& strBase64, const char* pszWhat) {
    std::optional<std::string> bytes = DecodeBase64(strBase64);
    if (!bytes) {
        throw std::runtime_error(std::string("the toolkit's ") + pszWhat + " is not Base64; try another toolkit");
    }
    return std::move(*bytes);
}

}  // namespace vexsign
