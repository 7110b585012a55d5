// Changes the file that VEX_TEST_CHANGING_FILE names when the process has read its first bytes: its first byte becomes
// "!", and "grown" is appended. For LD_PRELOAD.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace {

bool IsChangingFile(int nDescriptor, const char* pszName) {
    struct stat read = {};
    struct stat named = {};
    return pszName != nullptr && fstat(nDescriptor, &read) == 0 && stat(pszName, &named) == 0 &&
           read.st_dev == named.st_dev && read.st_ino == named.st_ino;
}

void Change(const char* pszName) {
    const int nDescriptor = open(pszName, O_WRONLY | O_CLOEXEC);
    struct stat status = {};
    if (fstat(nDescriptor, &status) != 0 || pwrite(nDescriptor, "!", 1, 0) != 1 ||
        pwrite(nDescriptor, "grown", 5, status.st_size) != 5) {
        std::abort();
    }
    close(nDescriptor);
}

}  // namespace

extern "C" ssize_t read(int nDescriptor, void* pBuffer, size_t cbBuffer) {
    static auto* const s_pReal = reinterpret_cast<decltype(&read)>(dlsym(RTLD_NEXT, "read"));
    static bool s_bChanged = false;
    const ssize_t cb = s_pReal(nDescriptor, pBuffer, cbBuffer);
    if (cb > 0 && !s_bChanged && IsChangingFile(nDescriptor, std::getenv("VEX_TEST_CHANGING_FILE"))) {
        s_bChanged = true;
        Change(std::getenv("VEX_TEST_CHANGING_FILE"));
    }
    return cb;
}
