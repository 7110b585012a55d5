#include "StoreChecks.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <unistd.h>

#include <algorithm>

#include "Require.h"
#include "posix/Utf8.h"

namespace {

using Fields = std::vector<std::string>;

bool Consists(std::string_view text, std::string_view characters) {
    return !text.empty() && text.find_first_not_of(characters) == std::string_view::npos;
}

bool IsTime(const std::string& strText) {
    std::string strForm = strText;
    std::replace_if(
        strForm.begin(), strForm.end(), [](char ch) { return ch >= '0' && ch <= '9'; }, '0');
    return strForm == "0000-00-00T00:00:00Z" || strForm == "unreadable";
}

// The first seven fields, which every list has.
void RequireCertificate(const Fields& fields) {
    constexpr std::string_view kHex = "0123456789ABCDEF";
    const std::string& strSerial = fields[0];
    Require(Consists(strSerial.substr(strSerial.starts_with('-') ? 1 : 0), kHex));
    Require(fields[1].size() == 64 && Consists(fields[1], kHex));
    Require(IsTime(fields[2]) && IsTime(fields[3]));
    Require(IsLine(fields[4]));
    Require(fields[5].empty() || IsLine(fields[5]));
    Require(fields[6].empty() || IsLine(fields[6]));
}

void RequireState(const std::string& strState) {
    const std::string_view state = std::string_view(strState).substr(0, strState.find(':'));
    constexpr std::string_view kStates[] = {"signs",           "expired",         "not-valid-yet",
                                            "not-for-signing", "no-private-key",  "key-cannot-sign",
                                            "key-too-short",   "unsupported-key", "damaged"};
    Require(std::find(std::begin(kStates), std::end(kStates), state) != std::end(kStates));
}

void RequireList(const ToolkitClient& client, bool bAll, bool bCertificates) {
    for (const Fields& fields : client.Records()) {
        Require(fields.size() == 7U + (bAll ? 1U : bCertificates ? 2U : 0U));
        if (bAll && fields[0] == "-") {
            Require(std::all_of(fields.begin(), fields.begin() + 7, [](const auto& field) { return field == "-"; }) &&
                    fields[7] == "damaged");
            continue;
        }
        RequireCertificate(fields);
        if (bAll) {
            RequireState(fields[7]);
        }
    }
}

// The last call failed with one of the numbers, and says why.
void RequireFailure(const ToolkitClient& client, std::initializer_list<VCTKError> allowed) {
    Require(std::find(allowed.begin(), allowed.end(), client.LastError()) != allowed.end());
    Require(IsLine(client.Message()));
}

}  // namespace

StoreFile::StoreFile()
    : m_fd(open(m_directory.Path("store").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
    Require(m_fd >= 0);
}

StoreFile::~StoreFile() {
    close(m_fd);
}

void StoreFile::Write(std::string_view bytes) const {
    Require(pwrite(m_fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    Require(ftruncate(m_fd, static_cast<off_t>(bytes.size())) == 0);
}

std::string StoreFile::Uri(unsigned char uChoice) const {
    constexpr const char* kLists[] = {"?list=all", "?list=certificates&chain=root"};
    const char* const pszPin = PinOf(uChoice);
    return "file:" + m_directory.Path("store") + kLists[uChoice / 4 % 2] +
           (pszPin == nullptr ? "" : std::string("&pin-value=") + pszPin);
}

const char* PinOf(unsigned char uChoice) {
    constexpr const char* kPins[] = {nullptr, "", "1234", "1234"};
    return kPins[uChoice % 4];
}

bool IsLine(std::string_view text) {
    return !text.empty() && vexposix::IsPlainUtf8(text) && std::none_of(text.begin(), text.end(), [](char ch) {
        return static_cast<unsigned char>(ch) < ' ' || ch == '\x7F';
    });
}

void CheckStore(const std::string& strUri, std::initializer_list<VCTKError> mayFailWith,
                const std::function<void(const ToolkitClient&)>& use) {
    const bool bAll = strUri.find("list=all") != std::string::npos;
    const bool bCertificates = strUri.find("list=certificates") != std::string::npos;
    HANDLE hObject = nullptr;
    {
        const ToolkitClient client(strUri);
        hObject = client.Handle();
        if (!client.IsOpen()) {
            RequireFailure(client, mayFailWith);
        } else {
            Require(client.CertificateList().has_value());
            RequireList(client, bAll, bCertificates);
            if (use) {
                use(client);
            }
            const bool bSigned = client.SignP1("text") && client.SignP7("text", 0, 1, 1);
            const INT nError = client.LastError();
            if (!bSigned && nError != VCTK_E_NO_CERTIFICATE && nError != VCTK_E_SIGN_FAILED) {
                RequireFailure(client, mayFailWith);
            }
            Require(IsLine(client.Message()) && (!bSigned || client.SignCertificate()));
        }
    }
    Require(hObject == nullptr || VCTK_Finalize(hObject) == VCTK_E_INVALID_HANDLE);
    Require(ERR_peek_error() == 0);
}

void CheckStoreFile(const std::uint8_t* pbInput, std::size_t cbInput) {
    static const StoreFile s_file;
    if (cbInput == 0) {
        return;
    }
    s_file.Write({reinterpret_cast<const char*>(pbInput) + 1, cbInput - 1});
    CheckStore(s_file.Uri(pbInput[0]), {VCTK_E_STORE_UNREADABLE, VCTK_E_STORE_FORMAT, VCTK_E_STORE_NO_PRIVATE_KEY,
                                        VCTK_E_PIN_REQUIRED, VCTK_E_PIN_WRONG});
}
