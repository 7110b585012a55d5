// The operations of the client toolkit, libVEXClientTKDll64.so.
//
// A handle names a signing object, from a successful VCTK_Initialize until VCTK_Finalize. The object holds the
// settings, the filters, the last signature and the last error.
//
// Results: 0 for success, any other value for failure, unless an operation says otherwise; after a failure
// VCTK_GetLastError and VCTK_GetLastErrorMessage on the same handle give the reason.
//
// Input texts are narrow and must stay valid during the call only.
//
// Output texts take two calls. First call: pszBuffer null, *pnLength 0; the toolkit stores the number of bytes that the
// text needs, with its terminating NUL. Second call: a buffer of that size and the same length variable; the toolkit
// writes the text with its NUL. The caller owns the buffer; the toolkit does not keep the pointer.
//
// Any thread may call any operation on any handle. A toolkit decides what it keeps for each thread.
#pragma once

#include "VEXType.h"

extern "C" {

// Creates a signing object. pszAuxParam says where its certificates come from; the toolkit defines its syntax.
// Returns 0 on failure: then no handle exists to ask for the error.
HANDLE VCTK_Initialize(const char* pszAuxParam);

INT VCTK_SetDigestAlg(HANDLE hObject, const char* pszDigestAlg);

// nChoose non-zero: signing needs exactly one certificate that passes the filters.
INT VCTK_SetChooseSingleCert(HANDLE hObject, int nChoose);

// The toolkit defines types and values. A certificate must pass every filter added.
INT VCTK_AddFilter(HANDLE hObject, ULONG ulType, const char* pszValue);
INT VCTK_ClearFilter(HANDLE hObject);

// Sign now; the matching Get...Result returns the signature.
// nInputForm: 1 when pszData is Base64 of the data; 0 when it is the data itself.
INT VCTK_P1Sign(HANDLE hObject, const char* pszData, int nInputForm);
INT VCTK_GetP1SignResult(HANDLE hObject, char* pszBuffer, int* pnLength);
INT VCTK_P7Sign(HANDLE hObject, const char* pszData, int nInputForm, int nDetached, int nIncludeCert);
INT VCTK_GetP7SignResult(HANDLE hObject, char* pszBuffer, int* pnLength);

// Releases the object. Do not use the handle afterwards.
INT VCTK_Finalize(HANDLE hObject);

INT VCTK_GetSignCert(HANDLE hObject, char* pszBuffer, int* pnLength);

// Returns the error number itself, not a status. Accepts handle 0.
INT VCTK_GetLastError(HANDLE hObject);
INT VCTK_GetLastErrorMessage(HANDLE hObject, char* pszBuffer, int* pnLength);

// (hObject, 0, 1) switches on the object's call queue: from then on, calls on the object run one after the other.
INT VCTK_CallQueueEnable(HANDLE hObject, int nQueue, int nEnable);

// The certificates that could sign, one record for each.
INT VCTK_GetCertList(HANDLE hObject, const char* pszRecordSeparator, const char* pszFieldSeparator, char* pszBuffer,
                     int* pnLength);

}  // extern "C"
