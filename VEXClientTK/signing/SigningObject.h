// The object behind a toolkit handle: certificates, settings, and for each thread its last signatures and last error.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "VCTKError.h"
#include "signing/CallQueue.h"
#include "signing/Digest.h"
#include "signing/Failure.h"
#include "signing/Filter.h"
#include "signing/Identity.h"
#include "signing/MutexPool.h"
#include "signing/OpenSsl.h"
#include "signing/Period.h"
#include "signing/Store.h"
#include "signing/ThreadId.h"

namespace vextk {

// Any thread may call any member. An operation that fails throws a Failure. Call turns it into a number, which becomes
// the calling thread's last error.
class SigningObject {
public:
    explicit SigningObject(OpenedStorePtr store);

    // What this object signs with. Other objects may use it as well.
    const OpenedStorePtr& Store() const { return m_store; }

    // Runs an operation when the call queue lets it. Returns its error number, or VCTK_OK, and keeps that as the
    // calling thread's last error. With a store that could not be opened, runs nothing: the store's error is the last
    // error of every thread.
    template <typename Operation>
    VCTKError Call(Operation operation) {
        if (m_store->failure) {
            return m_store->failure->Number();
        }
        const PerThreadPtr mine = MineOrNone();
        if (!mine) {
            return VCTK_E_OUT_OF_MEMORY;
        }
        try {
            const CallQueue::Turn turn(m_queue);
            const ErrorMark mark;
            BeginOperation();
            mine->queryBefore = std::exchange(mine->query, {});
            operation(*this);
            mine->Note(VCTK_OK, {});
        } catch (const Failure& failure) {
            mine->Note(failure.Number(), failure.Detail());
        } catch (const std::bad_alloc&) {
            mine->Note(VCTK_E_OUT_OF_MEMORY, {});
        }
        return mine->nLastError;
    }

    // The calling thread's last error. Reading it does not change it.
    VCTKError LastError() const noexcept;
    std::string LastErrorMessage() const;

    CallQueue& Queue() { return m_queue; }

    // For the child of a fork; nThread is its only thread. What belongs to the parent's other threads may be half
    // changed, so it is neither used nor freed. The analysis cannot see that the child holds all locks of the pool.
    void ForgetOtherThreads(ThreadId nThread) VEX_NO_THREAD_SAFETY_ANALYSIS;

    // Frees the signatures and the error of a thread that has ended.
    void ForgetThread(ThreadId nThread) noexcept;

    // ---- Operations, for Call ----

    void SetDigest(std::string_view strName);
    void SetChooseSingle(bool bChooseSingle);
    void AddFilter(ULONG ulType, std::string_view strValue);
    void ClearFilters();

    // nInputForm: 0, the bytes of the text are the data; 1, the text is strict Base64 of the data.
    void SignP1(std::string_view text, int nInputForm);
    // Stamped if the store is for that. With a stamp: store, the data are what StampOrRequest (TimeStamp.h) takes, its
    // result takes the place of the signature, and the other two arguments mean nothing.
    // nCertificates: 0, none; kSignerOnly, the signer's; any other, the signer's with the chain that the store is for.
    static constexpr int kSignerOnly = 2;
    void SignP7(std::string_view text, int nInputForm, bool bDetached, int nCertificates);

    // The calling thread's last signature. The reference is valid until this thread signs again.
    const std::string& P1Signature() const;
    const std::string& P7Signature() const;

    // The certificate that the calling thread signed with last, or if it has not signed, the one that it would sign
    // with now. Base64 of its DER.
    std::string SignCertificate() const;

    // One record for each candidate: serial, SHA-256 fingerprint, not before, not after, key algorithm, subject,
    // issuer. Blanks inside names are escaped. With bListAll: one record for each certificate that passes the filters,
    // and StateText as the last field. If a certificate cannot be read, its other fields are "-". With
    // bListCertificates there are two more fields: the name in the store, percent-encoded (RFC 3986 section 2.1); and
    // the certificate and, with a ChainPart, those of its issuers, as the Base64 of their DER, separated by commas.
    std::string CertificateList(std::string_view strRecordSeparator, std::string_view strFieldSeparator) const;

    // For texts that may change with the time between a size query and the fetch: the fetch gets the text of the size
    // query, if that was the calling thread's call directly before. strName: of the text, with all that it depends on.
    // make: makes the text.
    template <typename Make>
    std::shared_ptr<const std::string> Answer(const std::string& strName, bool bFetch, Make make) {
        PerThread& mine = *Mine();
        if (bFetch && mine.queryBefore.text != nullptr && mine.queryBefore.strName == strName) {
            return std::move(mine.queryBefore.text);
        }
        auto text = std::make_shared<const std::string>(make());
        if (!bFetch) {
            mine.query = {strName, text};
        }
        return text;
    }

private:
    struct Settings {
        SigningDigest digest;
        bool bChooseSingle = false;
        std::vector<Filter> filters;
    };
    using SettingsPtr = std::shared_ptr<const Settings>;

    // A size query, and the text that it was about.
    struct Query {
        std::string strName;
        std::shared_ptr<const std::string> text;  // null: there was none
    };

    struct PerThread {
        VCTKError nLastError = VCTK_OK;
        std::string strLastDetail;
        std::optional<std::string> strP1;
        std::optional<std::string> strP7;
        IdentityPtr lastSigner;
        Query query;        // of the call that runs or ran last
        Query queryBefore;  // of the call before it

        // If memory runs out, the detail is dropped: the number matters more.
        void Note(VCTKError nNumber, const std::string& strDetail) noexcept {
            nLastError = nNumber;
            strLastDetail.clear();
            try {
                strLastDetail = strDetail;
            } catch (const std::bad_alloc&) {
            }
        }
    };
    using PerThreadPtr = std::shared_ptr<PerThread>;

    SettingsPtr CurrentSettings() const;
    template <typename Change>
    void ChangeSettings(Change change);

    // The identities that pass, and the period for which this holds. Never changed once made.
    struct Choice {
        SettingsPtr settings;
        Period period;
        Identities candidates;      // in the store's order
        IdentityPtr longest;        // valid longest, the first of equals; null if there is none
        std::string strPassedOver;  // why there is none
    };
    using ChoicePtr = std::shared_ptr<const Choice>;

    // A call reads the clock once and passes the time on. Otherwise the clock could move between its steps: a signature
    // could have a signing time for which its certificate is not valid.

    // Reuses the last choice while it holds.
    ChoicePtr CurrentChoice(const SettingsPtr& settings, std::time_t now) const;
    // The certificates of a signer's issuers that a P7 includes. Reuses the last answer while it holds.
    struct LastChain {
        IdentityPtr signer;
        Period period;
        Identities issuers;
    };
    Identities IssuersOf(const IdentityPtr& signer, std::time_t now) const;
    std::string CertificatesText(const IdentityPtr& identity, std::time_t now) const;
    Choice MakeChoice(const SettingsPtr& settings, std::time_t now) const;
    // The choice with the identity that signs.
    ChoicePtr ChooseIdentity(const SettingsPtr& settings, std::time_t now) const;

    PerThreadPtr Mine();
    PerThreadPtr MineOrNone() noexcept;       // null if memory runs out, which becomes the thread's error
    PerThreadPtr MineIfAny() const noexcept;  // never null in an operation: Call has made it

    const OpenedStorePtr m_store;
    const std::uint64_t m_nObject;  // no other object ever gets it
    CallQueue m_queue;

    CVEXMutex& m_mutex = MutexPool::Next();
    SettingsPtr m_settings VEX_GUARDED_BY(m_mutex);  // replaced, never changed
    mutable ChoicePtr m_lastChoice VEX_GUARDED_BY(m_mutex);
    mutable LastChain m_lastChain VEX_GUARDED_BY(m_mutex);
    // The mutex guards the map. Only its own thread uses an entry.
    std::unordered_map<ThreadId, PerThreadPtr> m_perThread VEX_GUARDED_BY(m_mutex);
};

}  // namespace vextk
