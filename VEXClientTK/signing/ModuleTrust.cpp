#include "signing/ModuleTrust.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "posix/ErrnoText.h"
#include "signing/Failure.h"

namespace vextk {
namespace {

[[noreturn]] void Refuse(const std::string& strPath, const std::string& strWhy) {
    throw Failure(VCTK_E_TOKEN_MODULE, strPath + ": " + strWhy);
}

[[noreturn]] void RefuseErrno(const std::string& strPath, int nErrno) {
    Refuse(strPath, vexposix::ErrnoText(nErrno));
}

std::string OctalText(mode_t mode) {
    std::array<char, 16> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned int>(mode & 07777U)));
    return text.data();
}

struct stat StatusOf(const std::string& strPath) {
    struct stat status {};
    if (lstat(strPath.c_str(), &status) != 0) {
        RefuseErrno(strPath, errno);
    }
    return status;
}

void RequireOwnOnly(const std::string& strPath, const struct stat& status, bool bMayBeSticky) {
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        Refuse(strPath, "not loaded, because it belongs to user " + std::to_string(status.st_uid) +
                            "; a module and its directories must belong to root or to user " +
                            std::to_string(geteuid()));
    }
    const bool bSticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !(bSticky && bMayBeSticky)) {
        Refuse(strPath, "not loaded, because others may write to it (mode " + OctalText(status.st_mode) +
                            "); to correct this, use: chmod go-w");
    }
}

}  // namespace

std::string RequireTrustedModule(const std::string& strPath) {
    struct Freer {
        void operator()(char* psz) const { std::free(psz); }
    };
    const std::unique_ptr<char, Freer> real(realpath(strPath.c_str(), nullptr));
    if (!real) {
        if (errno == ENOMEM) {
            throw std::bad_alloc();
        }
        RefuseErrno(strPath, errno);
    }
    std::string strReal = real.get();
    const struct stat file = StatusOf(strReal);
    if (!S_ISREG(file.st_mode)) {
        Refuse(strReal, "not loaded, because it is not a regular file");  // the linker would wait for a pipe's writer
    }
    RequireOwnOnly(strReal, file, false);
    bool bMayBeSticky = false;  // the module's own directory: other files in it may be loaded as well
    for (size_t nSlash = strReal.rfind('/'); nSlash != 0; nSlash = strReal.rfind('/', nSlash - 1)) {
        const std::string strDirectory = strReal.substr(0, nSlash);
        RequireOwnOnly(strDirectory, StatusOf(strDirectory), bMayBeSticky);
        bMayBeSticky = true;
    }
    RequireOwnOnly("/", StatusOf("/"), bMayBeSticky);
    return strReal;
}

}  // namespace vextk
