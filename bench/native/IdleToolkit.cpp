// A toolkit that does nothing. Every operation succeeds, and every text is as long as an RSA-2048 signature.
#include <cstring>

#include "VCTK.h"

namespace {

constexpr int kTextLength = 344;

INT Answer(char* pszBuffer, int* pnLength) {
    if (pszBuffer != nullptr) {
        std::memset(pszBuffer, 'A', kTextLength);
        pszBuffer[kTextLength] = 0;
    }
    *pnLength = kTextLength + 1;
    return 0;
}

}  // namespace

HANDLE VCTK_Initialize(const char*) {
    static char s_object = 0;
    return &s_object;
}
INT VCTK_SetDigestAlg(HANDLE, const char*) {
    return 0;
}
INT VCTK_SetChooseSingleCert(HANDLE, int) {
    return 0;
}
INT VCTK_AddFilter(HANDLE, ULONG, const char*) {
    return 0;
}
INT VCTK_ClearFilter(HANDLE) {
    return 0;
}
INT VCTK_P1Sign(HANDLE, const char*, int) {
    return 0;
}
INT VCTK_GetP1SignResult(HANDLE, char* pszBuffer, int* pnLength) {
    return Answer(pszBuffer, pnLength);
}
INT VCTK_P7Sign(HANDLE, const char*, int, int, int) {
    return 0;
}
INT VCTK_GetP7SignResult(HANDLE, char* pszBuffer, int* pnLength) {
    return Answer(pszBuffer, pnLength);
}
INT VCTK_Finalize(HANDLE) {
    return 0;
}
INT VCTK_GetSignCert(HANDLE, char* pszBuffer, int* pnLength) {
    return Answer(pszBuffer, pnLength);
}
INT VCTK_GetLastError(HANDLE) {
    return 0;
}
INT VCTK_GetLastErrorMessage(HANDLE, char* pszBuffer, int* pnLength) {
    return Answer(pszBuffer, pnLength);
}
INT VCTK_CallQueueEnable(HANDLE, int, int) {
    return 0;
}
INT VCTK_GetCertList(HANDLE, const char*, const char*, char* pszBuffer, int* pnLength) {
    return Answer(pszBuffer, pnLength);
}
