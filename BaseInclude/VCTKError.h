// Error numbers of the substitute client toolkit and their English messages (UTF-8).
//
// VCTK_GetLastError returns the number. VCTK_GetLastErrorMessage returns the message of this table, followed by
// ": " and a detail if there is one. Message and detail never contain a PIN or key material.
#pragma once

#include "VEXType.h"

enum VCTKError : INT {
    VCTK_OK = 0,

    VCTK_E_INVALID_HANDLE = 1001,
    VCTK_E_INVALID_ARGUMENT = 1002,
    VCTK_E_BUFFER_TOO_SMALL = 1003,
    VCTK_E_OUT_OF_MEMORY = 1004,
    VCTK_E_TOO_LARGE = 1005,
    VCTK_E_INTERNAL = 1006,

    VCTK_E_URI_MALFORMED = 1101,
    VCTK_E_URI_SCHEME = 1102,
    VCTK_E_STORE_NOT_FOUND = 1103,
    VCTK_E_STORE_UNREADABLE = 1104,
    VCTK_E_STORE_FORMAT = 1105,
    VCTK_E_STORE_NO_PRIVATE_KEY = 1106,
    VCTK_E_PIN_REQUIRED = 1107,
    VCTK_E_PIN_WRONG = 1108,
    VCTK_E_PIN_SOURCE = 1109,
    VCTK_E_DEMO_STORE = 1110,
    VCTK_E_TOKEN_MODULE = 1111,
    VCTK_E_TOKEN_NOT_FOUND = 1112,
    VCTK_E_TOKEN_REMOVED = 1113,
    VCTK_E_TOKEN_FAILED = 1114,
    VCTK_E_PIN_LOCKED = 1115,

    VCTK_E_DIGEST_UNKNOWN = 1201,
    VCTK_E_DIGEST_WEAK = 1202,
    VCTK_E_FILTER_TYPE = 1203,
    VCTK_E_FILTER_VALUE = 1204,

    VCTK_E_NO_CERTIFICATE = 1301,
    VCTK_E_SEVERAL_CERTIFICATES = 1302,
    VCTK_E_DATA_EMPTY = 1303,
    VCTK_E_DATA_BASE64 = 1304,
    VCTK_E_SIGN_FAILED = 1305,
    VCTK_E_NO_SIGNATURE = 1306,

    VCTK_E_TIMESTAMP = 1401,
};

struct VCTKErrorEntry {
    VCTKError nNumber;
    const char* pszMessage;
};

inline constexpr VCTKErrorEntry g_aVCTKErrors[] = {
    {VCTK_OK, "No error"},
    {VCTK_E_INVALID_HANDLE, "The handle does not name an open signing object"},
    {VCTK_E_INVALID_ARGUMENT, "An argument is missing or out of range"},
    {VCTK_E_BUFFER_TOO_SMALL, "The buffer is too small for the text"},
    {VCTK_E_OUT_OF_MEMORY, "Out of memory"},
    {VCTK_E_TOO_LARGE, "The data or its result is larger than 2 GiB"},
    {VCTK_E_INTERNAL, "The cryptographic library failed"},

    {VCTK_E_URI_MALFORMED, "The initialisation text is not a well-formed store URI"},
    {VCTK_E_URI_SCHEME, "The initialisation text names an unknown kind of store"},
    {VCTK_E_STORE_NOT_FOUND, "The store file does not exist"},
    {VCTK_E_STORE_UNREADABLE, "The store file cannot be read"},
    {VCTK_E_STORE_FORMAT, "The content of the store file cannot be used"},
    {VCTK_E_STORE_NO_PRIVATE_KEY, "The store has no certificate with a private key for signing"},
    {VCTK_E_PIN_REQUIRED, "The store is protected by a PIN and none was given"},
    {VCTK_E_PIN_WRONG, "The PIN is wrong"},
    {VCTK_E_PIN_SOURCE, "The file that holds the PIN cannot be used"},
    {VCTK_E_DEMO_STORE, "The demo store cannot be made or read"},
    {VCTK_E_TOKEN_MODULE, "The PKCS #11 module cannot be used"},
    {VCTK_E_TOKEN_NOT_FOUND, "The store URI matches no present token, or more than one"},
    {VCTK_E_TOKEN_REMOVED, "The token is not present or has been removed"},
    {VCTK_E_TOKEN_FAILED, "The token failed"},
    {VCTK_E_PIN_LOCKED, "The token's PIN is locked"},

    {VCTK_E_DIGEST_UNKNOWN, "The digest algorithm is unknown"},
    {VCTK_E_DIGEST_WEAK, "The digest algorithm is broken: signatures made with it can be forged"},
    {VCTK_E_FILTER_TYPE, "The filter type is unknown"},
    {VCTK_E_FILTER_VALUE, "The filter value is empty or malformed for its type"},

    {VCTK_E_NO_CERTIFICATE, "No valid certificate with a private key passes the filters"},
    {VCTK_E_SEVERAL_CERTIFICATES, "More than one certificate passes the filters"},
    {VCTK_E_DATA_EMPTY, "There is no data to sign"},
    {VCTK_E_DATA_BASE64, "The data is not strict Base64"},
    {VCTK_E_SIGN_FAILED, "The signature could not be made"},
    {VCTK_E_NO_SIGNATURE, "This thread has made no such signature with this object"},

    {VCTK_E_TIMESTAMP, "The signature could not be time-stamped"},
};

// The message of an error number. A number that is not in the table has the message of VCTK_E_INTERNAL.
constexpr const char* VCTKErrorMessage(INT nNumber) {
    const char* pszInternal = "";
    for (const VCTKErrorEntry& entry : g_aVCTKErrors) {
        if (entry.nNumber == nNumber) {
            return entry.pszMessage;
        }
        if (entry.nNumber == VCTK_E_INTERNAL) {
            pszInternal = entry.pszMessage;
        }
    }
    return pszInternal;
}
