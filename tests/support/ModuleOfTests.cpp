// A PKCS #11 module whose functions are those of the program that loads it.
#include <p11-kit/pkcs11.h>

extern "C" {

static CK_FUNCTION_LIST* s_pFunctions = nullptr;

void VexTestSetFunctions(CK_FUNCTION_LIST* pFunctions) {
    s_pFunctions = pFunctions;
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST** ppFunctions) {
    *ppFunctions = s_pFunctions;
    return s_pFunctions != nullptr ? CKR_OK : CKR_GENERAL_ERROR;
}

}  // extern "C"
