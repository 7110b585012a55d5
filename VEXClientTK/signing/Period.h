// The time during which an answer about certificates stays the same.
#pragma once

#include <algorithm>
#include <ctime>
#include <limits>

#include "signing/Identity.h"

namespace vextk {

struct Period {
    std::time_t notBefore = std::numeric_limits<std::time_t>::min();
    std::time_t notAfter = std::numeric_limits<std::time_t>::max();

    bool Contains(std::time_t time) const { return notBefore <= time && time <= notAfter; }

    void LimitBy(const Period& other) {
        notBefore = std::max(notBefore, other.notBefore);
        notAfter = std::min(notAfter, other.notAfter);
    }

    // The answer holds between two moments at which the identity's validity begins or ends.
    void LimitBy(const Identity& identity, std::time_t now) {
        if (now < identity.NotBefore()) {
            notAfter = std::min(notAfter, identity.NotBefore() - 1);
        } else if (identity.NotAfter() < now) {
            notBefore = std::max(notBefore, identity.NotAfter() + 1);
        } else {
            LimitBy(Period{identity.NotBefore(), identity.NotAfter()});
        }
    }
};

}  // namespace vextk
