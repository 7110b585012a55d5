#include "signing/WrongPins.h"

#include <mutex>
#include <set>

#include "VEXMutex.h"
#include "posix/ForkPhases.h"
#include "signing/KeyedDigest.h"

namespace vextk {
namespace {

struct Refused {
    CVEXMutex mutex;
    const KeyedDigest digest;
    std::set<std::string> digests VEX_GUARDED_BY(mutex);
};

// Never destroyed: threads may still sign while the process's exit handlers run.
Refused& Known() {
    static Refused* s_pKnown = nullptr;
    // If another thread forks during the initialisation, the child starts it anew. With a static object, the child
    // would wait for ever.
    static std::once_flag s_once;
    std::call_once(s_once, [] {
        s_pKnown = new Refused;
        constexpr auto kLock = []() VEX_ACQUIRE(s_pKnown->mutex) { s_pKnown->mutex.Enter(); };
        constexpr auto kUnlock = []() VEX_RELEASE(s_pKnown->mutex) { s_pKnown->mutex.Leave(); };
        vexposix::AddToFork(vexposix::ForkPhase::kWrongPins, {kLock, kUnlock, kUnlock});
    });
    return *s_pKnown;
}

std::string DigestOf(const Refused& refused, const std::string& strWholeName, std::string_view pin) {
    return strWholeName + '\0' + refused.digest.Of(pin);
}

}  // namespace

void RememberWrongPin(const std::string& strWholeName, std::string_view pin) {
    Refused& refused = Known();
    std::string strDigest = DigestOf(refused, strWholeName, pin);
    const CVEXLock lock(refused.mutex);
    refused.digests.insert(std::move(strDigest));
}

bool IsKnownWrongPin(const std::string& strWholeName, std::string_view pin) {
    Refused& refused = Known();
    const std::string strDigest = DigestOf(refused, strWholeName, pin);
    const CVEXLock lock(refused.mutex);
    return refused.digests.contains(strDigest);
}

}  // namespace vextk
