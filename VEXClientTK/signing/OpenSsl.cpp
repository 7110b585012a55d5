#include "signing/OpenSsl.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <new>

#include "signing/Failure.h"
#include "signing/KeyTypes.h"
#include "signing/WipingMemory.h"

namespace vextk {
namespace {

// What RefusedAllocations() was when this thread's operation began.
constinit thread_local std::uint64_t t_cRefusedBefore = 0;

// If two threads use a key type for the first time at the same moment, OpenSSL 3.0 may give each thread its own
// implementation. It never finds keys of different implementations equal, so a certificate would not match its private
// key. While one implementation is kept, every thread gets it. It is never freed: threads may sign when the process
// ends.
[[gnu::used]] std::array<EVP_KEYMGMT*, kKeyTypes.size()> s_kept = {};

void KeepKeyTypes() {
    const ErrorMark mark;
    std::transform(kKeyTypes.begin(), kKeyTypes.end(), s_kept.begin(), [](const KeyType& type) {
        EVP_KEYMGMT* const pType = EVP_KEYMGMT_fetch(nullptr, type.pszName, nullptr);
        RequireMemory();
        return pType;  // null: the configured providers do not have it
    });
}

}  // namespace

void InitialiseOpenSsl() {
    static std::once_flag s_once;
    std::call_once(s_once, [] {
        WipeWhatOpenSslFrees();
        RequireOpenSsl(OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1);
        KeepKeyTypes();
    });
}

std::string LastOpenSslReason() {
    const char* pszReason = ERR_reason_error_string(ERR_peek_last_error());
    return pszReason != nullptr ? pszReason : "";
}

void RequireOpenSsl(bool bSucceeded) {
    if (!bSucceeded) {
        RequireMemory();
        throw Failure(VCTK_E_INTERNAL, LastOpenSslReason());
    }
}

void BeginOperation() noexcept {
    t_cRefusedBefore = RefusedAllocations();
}

void RequireMemory() {
    if (RefusedAllocations() != t_cRefusedBefore || ERR_GET_REASON(ERR_peek_last_error()) == ERR_R_MALLOC_FAILURE) {
        throw std::bad_alloc();
    }
}

ObjectPtr FindDottedOid(const std::string& strText) {
    // OpenSSL's time grows with the square of the length. DottedText shows none that is as long as this.
    constexpr size_t kLongest = 4096;
    if (strText.size() > kLongest) {
        return nullptr;
    }
    const ErrorMark mark;
    ObjectPtr object(OBJ_txt2obj(strText.c_str(), 1));
    // OpenSSL reads blanks as dots, and ignores a dot at the end.
    if (!object) {
        RequireMemory();
    }
    return object && DottedText(object.get()) == strText ? std::move(object) : nullptr;
}

}  // namespace vextk
