#include "RecordingToolkit.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>

#include "CallText.h"

namespace {

using recording_toolkit::Text;

struct Script {
    std::uint64_t nHandle = recording_toolkit::kHandle;
    std::map<std::string, std::int32_t, std::less<>> results = {
        {"VCTK_SetDigestAlg", 0},   {"VCTK_SetChooseSingleCert", 0},
        {"VCTK_AddFilter", 0},      {"VCTK_ClearFilter", 0},
        {"VCTK_P1Sign", 0},         {"VCTK_P7Sign", 0},
        {"VCTK_Finalize", 0},       {"VCTK_GetLastError", 0},
        {"VCTK_CallQueueEnable", 0}};
    std::map<std::string, Text, std::less<>> texts = {{"VCTK_GetP1SignResult", {}},
                                                      {"VCTK_GetP7SignResult", {}},
                                                      {"VCTK_GetSignCert", {}},
                                                      {"VCTK_GetLastErrorMessage", {}},
                                                      {"VCTK_GetCertList", {}}};
};

std::mutex g_mutex;
Script g_script;                   // guarded by g_mutex
std::vector<std::string> g_calls;  // guarded by g_mutex

template <typename Map>
auto& Entry(Map& map, std::string_view operation) {
    const auto found = map.find(operation);
    if (found == map.end()) {
        throw std::invalid_argument("no such answer to set: " + std::string(operation));
    }
    return found->second;
}

std::string Address(const void* p) {
    return Hexadecimal(reinterpret_cast<std::uintptr_t>(p));
}

std::int32_t Answer(const char* pszOperation, const std::string& strArguments) {
    const std::lock_guard lock(g_mutex);
    g_calls.push_back(pszOperation + ("(" + strArguments + ")"));
    return Entry(g_script.results, pszOperation);
}

std::int32_t AnswerText(const char* pszOperation, const std::string& strArguments, char* pszBuffer,
                        std::int32_t* pnLength) {
    const std::lock_guard lock(g_mutex);
    const Text& text = Entry(g_script.texts, pszOperation);
    const std::int32_t nLength = *pnLength;
    std::string strBuffer = "null";
    if (pszBuffer != nullptr) {
        const bool bZero = std::all_of(pszBuffer, pszBuffer + nLength, [](char ch) { return ch == 0; });
        strBuffer = "[" + std::to_string(nLength) + (bZero ? " zero bytes]" : " bytes]");
    }
    g_calls.push_back(pszOperation + ("(" + strArguments) + ", " + strBuffer + ", &" + std::to_string(nLength) + ")");

    if (pszBuffer == nullptr) {
        *pnLength = text.nSize.value_or(static_cast<std::int32_t>(text.bytes.size() + 1));
        return text.nSizeResult;
    }
    std::memcpy(pszBuffer, text.bytes.c_str(), std::min(text.bytes.size() + 1, static_cast<size_t>(nLength)));
    *pnLength = text.nSizeAfterFetch.value_or(nLength);
    return text.nFetchResult;
}

}  // namespace

namespace recording_toolkit {

void Reset() {
    const std::lock_guard lock(g_mutex);
    g_script = Script();
    g_calls.clear();
}

std::vector<std::string> Calls() {
    const std::lock_guard lock(g_mutex);
    return g_calls;
}

void Record(std::string strCall) {
    const std::lock_guard lock(g_mutex);
    g_calls.push_back(std::move(strCall));
}

void SetHandle(std::uint64_t nHandle) {
    const std::lock_guard lock(g_mutex);
    g_script.nHandle = nHandle;
}

void SetResult(std::string_view operation, std::int32_t nResult) {
    const std::lock_guard lock(g_mutex);
    Entry(g_script.results, operation) = nResult;
}

void SetText(std::string_view operation, Text text) {
    const std::lock_guard lock(g_mutex);
    Entry(g_script.texts, operation) = std::move(text);
}

}  // namespace recording_toolkit

// The operations with explicit widths. VCTK.h is not included, so that a wrong width there shows as a wrong value here.
extern "C" {

void* VCTK_Initialize(const char* pszAuxParam) {
    const std::lock_guard lock(g_mutex);
    g_calls.push_back("VCTK_Initialize(" + Quoted(pszAuxParam) + ")");
    return reinterpret_cast<void*>(g_script.nHandle);
}

std::int32_t VCTK_SetDigestAlg(void* hObject, const char* pszDigestAlg) {
    return Answer("VCTK_SetDigestAlg", Address(hObject) + ", " + Quoted(pszDigestAlg));
}

std::int32_t VCTK_SetChooseSingleCert(void* hObject, std::int32_t nChoose) {
    return Answer("VCTK_SetChooseSingleCert", Address(hObject) + ", " + std::to_string(nChoose));
}

std::int32_t VCTK_AddFilter(void* hObject, std::uint64_t ulType, const char* pszValue) {
    return Answer("VCTK_AddFilter", Address(hObject) + ", " + Hexadecimal(ulType) + ", " + Quoted(pszValue));
}

std::int32_t VCTK_ClearFilter(void* hObject) {
    return Answer("VCTK_ClearFilter", Address(hObject));
}

std::int32_t VCTK_P1Sign(void* hObject, const char* pszData, std::int32_t nInputForm) {
    return Answer("VCTK_P1Sign", Address(hObject) + ", " + Quoted(pszData) + ", " + std::to_string(nInputForm));
}

std::int32_t VCTK_GetP1SignResult(void* hObject, char* pszBuffer, std::int32_t* pnLength) {
    return AnswerText("VCTK_GetP1SignResult", Address(hObject), pszBuffer, pnLength);
}

std::int32_t VCTK_P7Sign(void* hObject, const char* pszData, std::int32_t nInputForm, std::int32_t nDetached,
                         std::int32_t nIncludeCert) {
    return Answer("VCTK_P7Sign", Address(hObject) + ", " + Quoted(pszData) + ", " + std::to_string(nInputForm) + ", " +
                                     std::to_string(nDetached) + ", " + std::to_string(nIncludeCert));
}

std::int32_t VCTK_GetP7SignResult(void* hObject, char* pszBuffer, std::int32_t* pnLength) {
    return AnswerText("VCTK_GetP7SignResult", Address(hObject), pszBuffer, pnLength);
}

std::int32_t VCTK_Finalize(void* hObject) {
    return Answer("VCTK_Finalize", Address(hObject));
}

std::int32_t VCTK_GetSignCert(void* hObject, char* pszBuffer, std::int32_t* pnLength) {
    return AnswerText("VCTK_GetSignCert", Address(hObject), pszBuffer, pnLength);
}

std::int32_t VCTK_GetLastError(void* hObject) {
    return Answer("VCTK_GetLastError", Address(hObject));
}

std::int32_t VCTK_GetLastErrorMessage(void* hObject, char* pszBuffer, std::int32_t* pnLength) {
    return AnswerText("VCTK_GetLastErrorMessage", Address(hObject), pszBuffer, pnLength);
}

std::int32_t VCTK_CallQueueEnable(void* hObject, std::int32_t nQueue, std::int32_t nEnable) {
    return Answer("VCTK_CallQueueEnable",
                  Address(hObject) + ", " + std::to_string(nQueue) + ", " + std::to_string(nEnable));
}

std::int32_t VCTK_GetCertList(void* hObject, const char* pszRecordSeparator, const char* pszFieldSeparator,
                              char* pszBuffer, std::int32_t* pnLength) {
    return AnswerText("VCTK_GetCertList",
                      Address(hObject) + ", " + Quoted(pszRecordSeparator) + ", " + Quoted(pszFieldSeparator),
                      pszBuffer, pnLength);
}

}  // extern "C"
