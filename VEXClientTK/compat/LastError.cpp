#include "compat/LastError.h"

namespace vextk {
namespace {

thread_local DWORD t_dwLastError = ERROR_SUCCESS;

}  // namespace

void SetLastErrorNumber(DWORD dwError) noexcept {
    t_dwLastError = dwError;
}

}  // namespace vextk

DWORD GetLastError() {
    return vextk::t_dwLastError;
}
