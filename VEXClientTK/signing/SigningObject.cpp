#include "signing/SigningObject.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>

#include "posix/Hexadecimal.h"
#include "signing/AsciiCase.h"
#include "signing/Base64.h"
#include "signing/Candidates.h"
#include "signing/Chain.h"
#include "signing/Signer.h"
#include "signing/SignerP7.h"
#include "signing/TimeStamp.h"

namespace vextk {
namespace {

constexpr std::string_view kDefaultDigest = "SHA-256";

Bytes DecodeInput(std::string_view text, int nInputForm, const SigningDigest& digest) {
    if (nInputForm != 0 && nInputForm != 1) {
        throw Failure(VCTK_E_INVALID_ARGUMENT, "unknown input form; use 0 for text or 1 for Base64");
    }
    if (text.empty()) {
        throw Failure(VCTK_E_DATA_EMPTY, "the text is empty, or the process locale cannot encode it");
    }
    if (nInputForm == 0 && digest.bPrehashed) {
        throw Failure(VCTK_E_INVALID_ARGUMENT,
                      "with \"prehashed:\", the input is a digest in Base64; use input form 1");
    }
    if (nInputForm == 0) {
        const auto* const pbText = reinterpret_cast<const unsigned char*>(text.data());
        return Bytes(pbText, pbText + text.size());
    }
    std::optional<Bytes> data = DecodeBase64(text);
    if (!data) {
        throw Failure(VCTK_E_DATA_BASE64);
    }
    const EVP_MD* const pDigest = digest.algorithm.get();
    if (digest.bPrehashed && pDigest != nullptr && data->size() != static_cast<size_t>(EVP_MD_get_size(pDigest))) {
        throw Failure(VCTK_E_INVALID_ARGUMENT, "a digest of " + DigestName(pDigest) + " has " +
                                                   std::to_string(EVP_MD_get_size(pDigest)) + " bytes, not " +
                                                   std::to_string(data->size()));
    }
    return std::move(*data);
}

// Writes blanks as "\20", so that none looks like the field separator. A blank that is already escaped, "\ ", becomes
// "\20" as well.
std::string EscapeBlanks(const std::string& strName) {
    std::string escaped;
    for (size_t i = 0; i < strName.size(); ++i) {
        const bool bEscape = strName[i] == '\\' && i + 1 < strName.size();
        if (bEscape && strName[i + 1] != ' ') {
            escaped.append(strName, i, 2);
            ++i;
        } else if (bEscape) {
            escaped += "\\20";
            ++i;
        } else if (strName[i] == ' ') {
            escaped += "\\20";
        } else {
            escaped += strName[i];
        }
    }
    return escaped;
}

// RFC 3986: all bytes except those of unreserved characters are encoded.
std::string PercentEncode(const std::string& strText) {
    std::string encoded;
    for (const char ch : strText) {
        if (IsAsciiLetterOrDigit(ch) || ch == '-' || ch == '.' || ch == '_' || ch == '~') {
            encoded += ch;
        } else {
            encoded += '%';
            vexposix::AppendHexByte(encoded, static_cast<unsigned char>(ch));
        }
    }
    return encoded;
}

// A damaged certificate passes only if there is no filter.
bool PassesFilters(const Identity& identity, const std::vector<Filter>& filters) {
    return std::all_of(filters.begin(), filters.end(), [&](const Filter& filter) {
        return identity.Certificate() != nullptr && filter.Passes(identity);
    });
}

std::vector<std::string> ListFields(const Identity& identity) {
    if (identity.Certificate() == nullptr) {
        return std::vector<std::string>(7, "-");
    }
    return {identity.SerialHex(),           identity.FingerprintHex(), identity.NotBeforeText(),
            identity.NotAfterText(),        identity.KeyAlgorithm(),   EscapeBlanks(identity.Subject()),
            EscapeBlanks(identity.Issuer())};
}

std::string Join(const std::vector<std::string>& parts, std::string_view strSeparator) {
    std::string joined;
    for (size_t i = 0; i < parts.size(); ++i) {
        joined.append(i == 0 ? std::string_view() : strSeparator).append(parts[i]);
    }
    return joined;
}

// The objects that could not keep the thread's last error, because memory had run out. Of fixed size, so that adding
// one needs no memory. When it is full, the oldest entry is overwritten.
class RefusingObjects {
public:
    void Add(std::uint64_t nObject) noexcept {
        if (!Contains(nObject)) {
            m_objects[m_cAdded++ % m_objects.size()] = nObject;
        }
    }
    bool Contains(std::uint64_t nObject) const noexcept {
        return std::find(m_objects.begin(), m_objects.end(), nObject) != m_objects.end();
    }

private:
    std::array<std::uint64_t, 16> m_objects{};  // 0: a free entry
    size_t m_cAdded = 0;
};
constinit thread_local RefusingObjects t_refusing;

std::uint64_t NextObjectNumber() {
    static std::atomic<std::uint64_t> s_nLast{0};
    return ++s_nLast;
}

}  // namespace

SigningObject::SigningObject(OpenedStorePtr store)
    : m_store(std::move(store)),
      m_nObject(NextObjectNumber()),
      m_settings(std::make_shared<const Settings>(Settings{FindDigest(kDefaultDigest), false, {}})) {}

SigningObject::PerThreadPtr SigningObject::Mine() {
    const ThreadId nThread = CurrentThreadId();
    const CVEXLock lock(m_mutex);
    if (const auto found = m_perThread.find(nThread); found != m_perThread.end()) {
        return found->second;
    }
    return m_perThread.emplace(nThread, std::make_shared<PerThread>()).first->second;
}

SigningObject::PerThreadPtr SigningObject::MineOrNone() noexcept {
    try {
        return Mine();
    } catch (const std::bad_alloc&) {
        t_refusing.Add(m_nObject);
        return nullptr;
    }
}

SigningObject::PerThreadPtr SigningObject::MineIfAny() const noexcept {
    const ThreadId nThread = CurrentThreadIdIfAny();
    const CVEXLock lock(m_mutex);
    const auto found = m_perThread.find(nThread);
    return found == m_perThread.end() ? nullptr : found->second;
}

void SigningObject::ForgetOtherThreads(ThreadId nThread) {
    m_queue.ForgetOtherThreads();
    auto* const pOthers = new (std::nothrow) decltype(m_perThread)(std::move(m_perThread));
    m_perThread.clear();
    if (pOthers != nullptr) {
        if (auto mine = pOthers->extract(nThread)) {
            m_perThread.insert(std::move(mine));
        }
    }
}

void SigningObject::ForgetThread(ThreadId nThread) noexcept {
    PerThreadPtr gone;  // freed after the lock is released
    const CVEXLock lock(m_mutex);
    if (const auto found = m_perThread.find(nThread); found != m_perThread.end()) {
        gone = std::move(found->second);
        m_perThread.erase(found);
    }
}

VCTKError SigningObject::LastError() const noexcept {
    if (m_store->failure) {
        return m_store->failure->Number();
    }
    if (const PerThreadPtr mine = MineIfAny()) {
        return mine->nLastError;
    }
    return t_refusing.Contains(m_nObject) ? VCTK_E_OUT_OF_MEMORY : VCTK_OK;
}

std::string SigningObject::LastErrorMessage() const {
    if (m_store->failure) {
        return ErrorText(m_store->failure->Number(), m_store->failure->Detail());
    }
    const PerThreadPtr mine = MineIfAny();
    return mine ? ErrorText(mine->nLastError, mine->strLastDetail) : ErrorText(LastError(), {});
}

SigningObject::SettingsPtr SigningObject::CurrentSettings() const {
    const CVEXLock lock(m_mutex);
    return m_settings;
}

template <typename Change>
void SigningObject::ChangeSettings(Change change) {
    const CVEXLock lock(m_mutex);
    auto changed = std::make_shared<Settings>(*m_settings);
    change(*changed);
    m_settings = std::move(changed);
}

void SigningObject::SetDigest(std::string_view strName) {
    ChangeSettings([digest = FindDigest(strName)](Settings& settings) { settings.digest = digest; });
}

void SigningObject::SetChooseSingle(bool bChooseSingle) {
    ChangeSettings([bChooseSingle](Settings& settings) { settings.bChooseSingle = bChooseSingle; });
}

void SigningObject::AddFilter(ULONG ulType, std::string_view strValue) {
    ChangeSettings([filter = Filter(ulType, strValue)](Settings& settings) { settings.filters.push_back(filter); });
}

void SigningObject::ClearFilters() {
    ChangeSettings([](Settings& settings) { settings.filters.clear(); });
}

SigningObject::Choice SigningObject::MakeChoice(const SettingsPtr& settings, std::time_t now) const {
    Choice choice{settings, {}, {}, nullptr, {}};
    Identities passedOver;
    size_t cFiltered = 0;
    for (const IdentityPtr& identity : *m_store->identities) {
        if (!PassesFilters(*identity, settings->filters)) {
            ++cFiltered;
            continue;
        }
        const Flaw flaw = identity->FlawAt(now);
        if (flaw == Flaw::kNone || flaw == Flaw::kNotYetValid || flaw == Flaw::kExpired) {
            choice.period.LimitBy(*identity, now);
        }
        (flaw == Flaw::kNone ? choice.candidates : passedOver).push_back(identity);
    }
    const auto longest =
        std::max_element(choice.candidates.begin(), choice.candidates.end(),
                         [](const IdentityPtr& a, const IdentityPtr& b) { return a->NotAfter() < b->NotAfter(); });
    if (longest != choice.candidates.end()) {
        choice.longest = *longest;
    } else {
        choice.strPassedOver = PassedOverText(passedOver, cFiltered, now);
    }
    return choice;
}

Identities SigningObject::IssuersOf(const IdentityPtr& signer, std::time_t now) const {
    if (m_store->chain == ChainPart::kNone) {
        return {};
    }
    {
        const CVEXLock lock(m_mutex);
        if (m_lastChain.signer == signer && m_lastChain.period.Contains(now)) {
            return m_lastChain.issuers;
        }
    }
    Chain chain = FindChain(signer, m_store->authorities, now);
    if (m_store->chain == ChainPart::kWithoutRoot && chain.bHasRoot) {
        chain.issuers.pop_back();
    }
    const CVEXLock lock(m_mutex);
    m_lastChain = {signer, chain.period, chain.issuers};
    return std::move(chain.issuers);
}

SigningObject::ChoicePtr SigningObject::CurrentChoice(const SettingsPtr& settings, std::time_t now) const {
    {
        const CVEXLock lock(m_mutex);
        if (m_lastChoice && m_lastChoice->settings == settings && m_lastChoice->period.Contains(now)) {
            return m_lastChoice;
        }
    }
    auto choice = std::make_shared<const Choice>(MakeChoice(settings, now));
    const CVEXLock lock(m_mutex);
    return m_lastChoice = std::move(choice);
}

SigningObject::ChoicePtr SigningObject::ChooseIdentity(const SettingsPtr& settings, std::time_t now) const {
    ChoicePtr choice = CurrentChoice(settings, now);
    if (!choice->longest) {
        throw Failure(VCTK_E_NO_CERTIFICATE, choice->strPassedOver);
    }
    if (settings->bChooseSingle && choice->candidates.size() > 1) {
        throw Failure(VCTK_E_SEVERAL_CERTIFICATES, std::to_string(choice->candidates.size()) + " certificates pass");
    }
    return choice;
}

void SigningObject::SignP1(std::string_view text, int nInputForm) {
    const PerThreadPtr mine = Mine();
    mine->strP1.reset();  // if this call fails, nobody can mistake an older signature for its result
    if (m_store->stamp && !m_store->bStampsOnly) {
        throw Failure(
            VCTK_E_TIMESTAMP,
            "a P1 signature has no place for a time stamp; make a P7 signature, or open the store without tsa");
    }
    const SettingsPtr settings = CurrentSettings();
    const Bytes data = DecodeInput(text, nInputForm, settings->digest);
    const IdentityPtr identity = ChooseIdentity(settings, std::time(nullptr))->longest;
    mine->strP1 = vextk::SignP1(*identity, settings->digest, data);
    mine->lastSigner = identity;
}

void SigningObject::SignP7(std::string_view text, int nInputForm, bool bDetached, int nCertificates) {
    const PerThreadPtr mine = Mine();
    mine->strP7.reset();
    if (m_store->bStampsOnly) {
        const Bytes result = StampOrRequest(DecodeInput(text, nInputForm, {}), *m_store->stamp);
        mine->strP7 = EncodeBase64(result.data(), result.size());
        return;
    }
    const SettingsPtr settings = CurrentSettings();
    const Bytes data = DecodeInput(text, nInputForm, settings->digest);
    const std::time_t now = std::time(nullptr);
    const ChoicePtr choice = ChooseIdentity(settings, now);
    Identities certificates;
    if (nCertificates != 0) {
        certificates.push_back(choice->longest);
    }
    if (nCertificates != 0 && nCertificates != kSignerOnly) {
        const Identities issuers = IssuersOf(choice->longest, now);
        certificates.insert(certificates.end(), issuers.begin(), issuers.end());
    }
    mine->strP7 = vextk::SignP7(*choice->longest, settings->digest, data, bDetached, certificates, now,
                                m_store->stamp ? &*m_store->stamp : nullptr);
    mine->lastSigner = choice->longest;
}

const std::string& SigningObject::P1Signature() const {
    const PerThread& mine = *MineIfAny();
    if (!mine.strP1) {
        throw Failure(VCTK_E_NO_SIGNATURE);
    }
    return *mine.strP1;
}

const std::string& SigningObject::P7Signature() const {
    const PerThread& mine = *MineIfAny();
    if (!mine.strP7) {
        throw Failure(VCTK_E_NO_SIGNATURE);
    }
    return *mine.strP7;
}

std::string SigningObject::SignCertificate() const {
    const IdentityPtr& last = MineIfAny()->lastSigner;
    return (last ? last : ChooseIdentity(CurrentSettings(), std::time(nullptr))->longest)->CertificateBase64();
}

std::string SigningObject::CertificatesText(const IdentityPtr& identity, std::time_t now) const {
    std::vector<std::string> texts = {identity->CertificateBase64()};
    for (const IdentityPtr& issuer : IssuersOf(identity, now)) {
        texts.push_back(issuer->CertificateBase64());
    }
    return Join(texts, ",");
}

std::string SigningObject::CertificateList(std::string_view strRecordSeparator,
                                           std::string_view strFieldSeparator) const {
    std::vector<std::string> records;
    const SettingsPtr settings = CurrentSettings();
    const std::time_t now = std::time(nullptr);
    if (m_store->bListAll) {
        for (const IdentityPtr& identity : *m_store->identities) {
            if (PassesFilters(*identity, settings->filters)) {
                std::vector<std::string> fields = ListFields(*identity);
                fields.push_back(StateText(*identity, now));
                records.push_back(Join(fields, strFieldSeparator));
            }
        }
        return Join(records, strRecordSeparator);
    }
    const ChoicePtr choice = CurrentChoice(settings, now);
    for (const IdentityPtr& identity : choice->candidates) {
        std::vector<std::string> fields = ListFields(*identity);
        if (m_store->bListCertificates) {
            fields.push_back(PercentEncode(identity->Name()));
            fields.push_back(CertificatesText(identity, now));
        }
        records.push_back(Join(fields, strFieldSeparator));
    }
    return Join(records, strRecordSeparator);
}

}  // namespace vextk
