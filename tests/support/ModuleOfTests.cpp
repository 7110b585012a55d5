// A PKCS #11 module whose functions are those of the program that loads it.
#include <p11-kit/pkcs11.h>

extern "C" {

static CK_FUNCTION_LIST* s_pFunctions = nullptr;
static CK_RV s_rv = CKR_GENERAL_ERROR;

void VexTestSetFunctions(CK_FUNCTION_LIST* pFunctions) {
    s_pFunctions = pFunctions;
    s_rv = CKR_OK;
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST** ppFunctions) {
    *ppFunctions = s_pFunctions;
    return s_rv;
}

}  // extern "C"
