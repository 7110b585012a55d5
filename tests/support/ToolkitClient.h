// A signing object of the toolkit for tests. It releases its handle and returns size queries as texts.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "VCTK.h"
#include "VCTKError.h"

// Makes both calls of a size query. Returns nothing when one of them fails.
inline std::optional<std::string> QueryText(const std::function<INT(char*, int*)>& query) {
    int nLength = 0;
    if (query(nullptr, &nLength) != 0 || nLength <= 0) {
        return std::nullopt;
    }
    std::vector<char> buffer(static_cast<size_t>(nLength));
    if (query(buffer.data(), &nLength) != 0) {
        return std::nullopt;
    }
    return std::string(buffer.data());
}

inline std::string ErrorMessage(HANDLE hObject) {
    return QueryText([=](char* pch, int* pn) { return VCTK_GetLastErrorMessage(hObject, pch, pn); }).value_or("");
}

class ToolkitClient {
public:
    explicit ToolkitClient(const std::string& strUri) : m_hObject(VCTK_Initialize(strUri.c_str())) {
        if (m_hObject != nullptr) {
            VCTK_CallQueueEnable(m_hObject, 0, 1);
        }
    }
    ~ToolkitClient() {
        if (m_hObject != nullptr) {
            VCTK_Finalize(m_hObject);
        }
    }
    ToolkitClient(const ToolkitClient&) = delete;
    ToolkitClient& operator=(const ToolkitClient&) = delete;

    HANDLE Handle() const { return m_hObject; }
    bool IsOpen() const { return m_hObject != nullptr; }
    INT LastError() const { return VCTK_GetLastError(m_hObject); }
    std::string Message() const { return ErrorMessage(m_hObject); }

    std::optional<std::string> SignP1(const std::string& strText, int nInputForm = 0) const {
        if (VCTK_P1Sign(m_hObject, strText.c_str(), nInputForm) != 0) {
            return std::nullopt;
        }
        return QueryText([this](char* pch, int* pn) { return VCTK_GetP1SignResult(m_hObject, pch, pn); });
    }
    std::optional<std::string> SignP7(const std::string& strText, int nInputForm, int nDetached,
                                      int nIncludeCert) const {
        if (VCTK_P7Sign(m_hObject, strText.c_str(), nInputForm, nDetached, nIncludeCert) != 0) {
            return std::nullopt;
        }
        return QueryText([this](char* pch, int* pn) { return VCTK_GetP7SignResult(m_hObject, pch, pn); });
    }
    std::optional<std::string> SignCertificate() const {
        return QueryText([this](char* pch, int* pn) { return VCTK_GetSignCert(m_hObject, pch, pn); });
    }
    std::optional<std::string> CertificateList(const char* pszRecord = "\r\n", const char* pszField = " ") const {
        return QueryText(
            [=, this](char* pch, int* pn) { return VCTK_GetCertList(m_hObject, pszRecord, pszField, pch, pn); });
    }

    // The records of the certificate list, split at the separators that the bridge uses.
    std::vector<std::vector<std::string>> Records() const {
        std::vector<std::vector<std::string>> records;
        for (const std::string& strRecord : Split(CertificateList().value_or(""), "\r\n")) {
            records.push_back(Split(strRecord, " "));
        }
        return records;
    }

private:
    static std::vector<std::string> Split(const std::string& strText, const std::string& strSeparator) {
        std::vector<std::string> parts;
        for (size_t nBegin = 0; !strText.empty();) {
            const size_t nEnd = strText.find(strSeparator, nBegin);
            parts.push_back(strText.substr(nBegin, nEnd - nBegin));
            if (nEnd == std::string::npos) {
                break;
            }
            nBegin = nEnd + strSeparator.size();
        }
        return parts;
    }

    HANDLE m_hObject;
};

// The results of all operations on a handle, except VCTK_Finalize and those that tell the last error.
inline std::vector<INT> CallEverything(HANDLE hObject) {
    char buffer[64] = {};
    // Each call may leave another number of its own: the size that it needs.
    int lengths[] = {sizeof buffer, sizeof buffer, sizeof buffer, sizeof buffer};
    return {VCTK_CallQueueEnable(hObject, 0, 1),
            VCTK_SetDigestAlg(hObject, "SHA256"),
            VCTK_SetDigestAlg(hObject, nullptr),
            VCTK_SetChooseSingleCert(hObject, 1),
            VCTK_AddFilter(hObject, 1, "x"),
            VCTK_ClearFilter(hObject),
            VCTK_P1Sign(hObject, "text", 0),
            VCTK_GetP1SignResult(hObject, buffer, &lengths[0]),
            VCTK_P7Sign(hObject, "text", 0, 1, 1),
            VCTK_GetP7SignResult(hObject, buffer, &lengths[1]),
            VCTK_GetSignCert(hObject, buffer, &lengths[2]),
            VCTK_GetCertList(hObject, "\r\n", " ", buffer, &lengths[3])};
}
