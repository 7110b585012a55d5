// Integers out of profile files.

#include <fcntl.h>

#include <cerrno>
#include <new>
#include <string>

#include "compat/LastError.h"
#include "compat/ProfileText.h"
#include "compat/RegularFile.h"

namespace vextk {
namespace {

// Far above any file that people keep; bounds what a wrong file can cost.
constexpr off_t kMaxFile = off_t{1024} * 1024;

// Returns errno; EFBIG when the file is larger than kMaxFile.
int ReadProfile(const char* pszName, std::string& strText) {
    FileDescriptor descriptor(open(pszName, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!descriptor.IsOpen()) {
        return errno;
    }
    RegularFile file(std::move(descriptor));
    off_t cbSize = 0;
    const int nErrno = file.GetSize(cbSize);
    if (nErrno != 0) {
        return nErrno;
    }
    if (cbSize > kMaxFile) {
        return EFBIG;
    }
    strText.resize(static_cast<std::size_t>(cbSize));
    const RegularFile::Transfer transfer = file.Read(strText.data(), strText.size());
    strText.resize(transfer.cb);
    return transfer.nErrno;
}

}  // namespace
}  // namespace vextk

using namespace vextk;

UINT GetPrivateProfileIntA(LPCSTR lpAppName, LPCSTR lpKeyName, INT nDefault, LPCSTR lpFileName) {
    const auto uDefault = static_cast<UINT>(nDefault);
    if (lpAppName == nullptr || lpKeyName == nullptr || lpFileName == nullptr) {
        SetLastErrorNumber(ERROR_INVALID_PARAMETER);
        return uDefault;
    }
    try {
        std::string strText;
        const int nErrno = ReadProfile(lpFileName, strText);
        if (nErrno != 0) {
            SetLastErrorNumber(ErrorFromErrno(nErrno));
            return uDefault;
        }
        const std::optional<UINT> uValue = FindProfileInteger(strText, lpAppName, lpKeyName);
        if (!uValue) {
            SetLastErrorNumber(ERROR_FILE_NOT_FOUND);
        }
        return uValue.value_or(uDefault);
    } catch (const std::bad_alloc&) {
        SetLastErrorNumber(ERROR_NOT_ENOUGH_MEMORY);
        return uDefault;
    }
}
