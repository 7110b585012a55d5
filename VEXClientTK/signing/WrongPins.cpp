#include "signing/WrongPins.h"

#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <array>
#include <memory>
#include <mutex>
#include <set>

#include "VEXMutex.h"
#include "posix/ForkPhases.h"
#include "signing/OpenSsl.h"

namespace vextk {
namespace {

struct Refused {
    CVEXMutex mutex;
    std::array<unsigned char, 32> key{};
    std::set<std::string> digests VEX_GUARDED_BY(mutex);
};

// Never destroyed: threads may still sign while the process's exit handlers run.
Refused& Known() {
    static Refused* s_pKnown = nullptr;
    // If another thread forks during the initialisation, the child starts it anew. With a static object, the child
    // would wait for ever.
    static std::once_flag s_once;
    std::call_once(s_once, [] {
        auto pRefused = std::make_unique<Refused>();
        RequireOpenSsl(RAND_bytes(pRefused->key.data(), static_cast<int>(pRefused->key.size())) == 1);
        s_pKnown = pRefused.release();
        constexpr auto kLock = []() VEX_ACQUIRE(s_pKnown->mutex) { s_pKnown->mutex.Enter(); };
        constexpr auto kUnlock = []() VEX_RELEASE(s_pKnown->mutex) { s_pKnown->mutex.Leave(); };
        vexposix::AddToFork(vexposix::ForkPhase::kWrongPins, {kLock, kUnlock, kUnlock});
    });
    return *s_pKnown;
}

std::string Digest(const Refused& refused, const std::string& strToken, std::string_view pin) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int cbDigest = 0;
    RequireOpenSsl(HMAC(EVP_sha256(), refused.key.data(), static_cast<int>(refused.key.size()),
                        reinterpret_cast<const unsigned char*>(pin.data()), pin.size(), digest.data(),
                        &cbDigest) != nullptr);
    return strToken + '\0' + std::string(reinterpret_cast<const char*>(digest.data()), cbDigest);
}

}  // namespace

void RememberWrongPin(const std::string& strToken, std::string_view pin) {
    Refused& refused = Known();
    std::string strDigest = Digest(refused, strToken, pin);
    const CVEXLock lock(refused.mutex);
    refused.digests.insert(std::move(strDigest));
}

bool IsKnownWrongPin(const std::string& strToken, std::string_view pin) {
    Refused& refused = Known();
    const std::string strDigest = Digest(refused, strToken, pin);
    const CVEXLock lock(refused.mutex);
    return refused.digests.contains(strDigest);
}

}  // namespace vextk
