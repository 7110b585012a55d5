// The operations of the client toolkit, libVEXClientTKDll64.so.
//
// A signing object lives behind a handle from a successful VCTK_Initialize to VCTK_Finalize. It holds the settings, the
// filters, the last signature and the last error.
//
// Results: 0 for success, any other value for failure, unless an operation says otherwise; after a failure
// VCTK_GetLastError and VCTK_GetLastErrorMessage on the same handle give the reason.
//
// Input texts are narrow and need to stay valid only for the duration of the call.
//
// Output texts follow the size query. First call: pszBuffer null, *pnLength 0; the toolkit stores the number of bytes
// that the text needs, its terminating NUL included. Second call: a buffer of that size and the same length variable;
// the toolkit writes the text with its NUL. The caller owns the buffer; the toolkit does not keep it.
//
// Any thread may call any operation on any handle; what a toolkit keeps per thread is its own affair.
#pragma once

#include "VEXType.h"

extern "C" {

// Makes a signing object. pszAuxParam says where its certificates come from; its syntax is the toolkit's.
// 0 on failure; there is no handle then whose error could be asked for.
HANDLE VCTK_Initialize(const char* pszAuxParam);

INT VCTK_SetDigestAlg(HANDLE hObject, const char* pszDigestAlg);

// nChoose non-zero: signing needs exactly one certificate that passes the filters.
INT VCTK_SetChooseSingleCert(HANDLE hObject, int nChoose);

// Types and values are the toolkit's. A certificate has to pass every filter added.
INT VCTK_AddFilter(HANDLE hObject, ULONG ulType, const char* pszValue);
INT VCTK_ClearFilter(HANDLE hObject);

// Sign now; the matching Get...Result hands the signature out.
// nInputForm: 1, pszData is Base64 of the data; 0, pszData is the data itself.
INT VCTK_P1Sign(HANDLE hObject, const char* pszData, int nInputForm);
INT VCTK_GetP1SignResult(HANDLE hObject, char* pszBuffer, int* pnLength);
INT VCTK_P7Sign(HANDLE hObject, const char* pszData, int nInputForm, int nDetached, int nIncludeCert);
INT VCTK_GetP7SignResult(HANDLE hObject, char* pszBuffer, int* pnLength);

// Releases the object. The handle is not to be used afterwards.
INT VCTK_Finalize(HANDLE hObject);

INT VCTK_GetSignCert(HANDLE hObject, char* pszBuffer, int* pnLength);

// The error number itself, not a status. May be asked with handle 0.
INT VCTK_GetLastError(HANDLE hObject);
INT VCTK_GetLastErrorMessage(HANDLE hObject, char* pszBuffer, int* pnLength);

// (hObject, 0, 1) switches on the object's call queue: calls on the object then run one after the other.
INT VCTK_CallQueueEnable(HANDLE hObject, int nQueue, int nEnable);

// The certificates that could sign, one record each.
INT VCTK_GetCertList(HANDLE hObject, const char* pszRecordSeparator, const char* pszFieldSeparator, char* pszBuffer,
                     int* pnLength);

}  // extern "C"
