// Integers out of profile files.

#include <fcntl.h>
#include <sys/stat.h>

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

// Returns errno; EACCES for anything but a regular file, EFBIG when the file is larger than kMaxFile.
int ReadProfile(const char* pszName, std::string& strText) {
    FileDescriptor descriptor(open(pszName, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!descriptor.IsOpen()) {
        return errno;
    }
    struct stat status {};
    if (fstat(descriptor.Get(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EACCES;
    }
    if (status.st_size > kMaxFile) {
        return EFBIG;
    }
    strText.resize(static_cast<std::size_t>(status.st_size));
    RegularFile file(std::move(descriptor));
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
