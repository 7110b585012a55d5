#include "signing/SharedIdentities.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "VEXMutex.h"
#include "posix/ForkPhases.h"
#include "signing/Failure.h"
#include "signing/KeyedDigest.h"
#include "signing/Store.h"

namespace vextk {
namespace {

// One reading of some content. The thread that reads holds the mutex meanwhile.
struct Reading {
    static std::uint64_t NextNumber() {
        static std::atomic<std::uint64_t> s_nLast{0};
        return ++s_nLast;
    }

    const std::uint64_t nNumber = NextNumber();  // no other reading ever gets it
    CVEXMutex mutex;
    bool bDone VEX_GUARDED_BY(mutex) = false;
    std::weak_ptr<const Identities> identities VEX_GUARDED_BY(mutex);
    std::optional<Failure> failure VEX_GUARDED_BY(mutex);
};

// The readings of the process whose results are in use or awaited. A thread may hold a reading's mutex when it calls a
// member, never the other way round.
class Readings {
public:
    // Never destroyed: threads may still sign while the process's exit handlers run.
    static Readings& Current() {
        // If another thread forks during the initialisation, the child starts it anew. With a static object, the child
        // would wait for ever.
        static std::once_flag s_once;
        std::call_once(s_once, [] {
            s_pCurrent = new Readings(KeyedDigest(), nullptr);
            // A thread of the parent may be reading. So the child reads all content again.
            vexposix::AddToFork(vexposix::ForkPhase::kStoreFiles, {nullptr, nullptr, [] {
                                                                       Readings* const pWas = s_pCurrent;
                                                                       s_pCurrent = new Readings(pWas->m_digest, pWas);
                                                                   }});
        });
        return *s_pCurrent;
    }

    std::string KeyOf(std::string_view bytes, const SecretText* pPin) const {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        unsigned int cbDigest = 0;
        RequireOpenSsl(EVP_Digest(bytes.data(), bytes.size(), digest.data(), &cbDigest, EVP_sha256(), nullptr) == 1);
        SecretText text(1 + cbDigest + (pPin != nullptr ? pPin->View().size() : 0));
        text.Append(pPin != nullptr ? 'P' : '-');
        for (unsigned int i = 0; i < cbDigest; ++i) {
            text.Append(static_cast<char>(digest[i]));
        }
        for (const char ch : pPin != nullptr ? pPin->View() : std::string_view()) {
            text.Append(ch);
        }
        return m_digest.Of(text.View());
    }

    std::shared_ptr<Reading> Find(const std::string& strKey) {
        const CVEXLock lock(m_mutex);
        std::shared_ptr<Reading>& reading = m_readings[strKey];
        if (!reading) {
            reading = std::make_shared<Reading>();
        }
        return reading;
    }

    void Forget(const std::string& strKey, std::uint64_t nReading) noexcept {
        std::shared_ptr<Reading> forgotten;  // freed after the lock is released
        const CVEXLock lock(m_mutex);
        const auto found = m_readings.find(strKey);
        if (found != m_readings.end() && found->second != nullptr && found->second->nNumber == nReading) {
            forgotten = std::move(found->second);
            m_readings.erase(found);
        }
    }

private:
    Readings(const KeyedDigest& digest, Readings* pParent) : m_digest(digest), m_pParent(pParent) {}

    inline static std::atomic<Readings*> s_pCurrent{nullptr};

    const KeyedDigest m_digest;
    // That of the parent process, so that leak checkers see what it refers to. A child never touches it.
    [[maybe_unused]] Readings* const m_pParent;

    CVEXMutex m_mutex;
    std::map<std::string, std::shared_ptr<Reading>> m_readings VEX_GUARDED_BY(m_mutex);
};

// Deletes a result when its last user has gone.
struct Deleter {
    std::string strKey;
    std::uint64_t nReading;

    void operator()(const Identities* pIdentities) const noexcept {
        delete pIdentities;
        Readings::Current().Forget(strKey, nReading);
    }
};

IdentitiesPtr Read(const std::string& strKey, Reading& reading, std::string_view bytes, const SecretText* pPin)
    VEX_REQUIRES(reading.mutex) {
    try {
        Deleter deleter{strKey, reading.nNumber};
        auto identities = std::make_unique<const Identities>(ReadIdentities(bytes, pPin));
        // If memory runs out here, the constructor calls the deleter.
        IdentitiesPtr shared(identities.release(), std::move(deleter));
        reading.identities = shared;
        reading.bDone = true;
        return shared;
    } catch (const Failure& failure) {
        reading.failure = failure;
        reading.bDone = true;
        Readings::Current().Forget(strKey, reading.nNumber);
        throw;
    } catch (const std::bad_alloc&) {
        Readings::Current().Forget(strKey, reading.nNumber);
        throw;
    }
}

}  // namespace

IdentitiesPtr ReadSharedIdentities(std::string_view bytes, const SecretText* pPin) {
    Readings& readings = Readings::Current();
    const std::string strKey = readings.KeyOf(bytes, pPin);
    for (;;) {
        const std::shared_ptr<Reading> found = readings.Find(strKey);
        Reading& reading = *found;
        const CVEXLock lock(reading.mutex);
        if (!reading.bDone) {
            return Read(strKey, reading, bytes, pPin);
        }
        if (reading.failure) {
            throw Failure(*reading.failure);
        }
        if (IdentitiesPtr identities = reading.identities.lock()) {
            return identities;
        }
        readings.Forget(strKey, reading.nNumber);  // its last user has gone just now
    }
}

}  // namespace vextk
