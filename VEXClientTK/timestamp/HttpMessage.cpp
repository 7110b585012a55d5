#include "timestamp/HttpMessage.h"

#include <algorithm>
#include <array>
#include <optional>

#include "posix/VisibleText.h"
#include "timestamp/Der.h"

namespace vextimestamp {
namespace {

constexpr std::string_view kScheme = "http://";
constexpr std::size_t kMostHeader = std::size_t{16} * 1024;
constexpr std::size_t kMostStatusLine = 1024;
constexpr std::size_t kMostShown = 100;

std::string TextOf(const MemoryPtr<char>& text) {
    return text ? std::string(text.get()) : std::string();
}

[[noreturn]] void ThrowBadUrl(const std::string& strUrl, const std::string& strReason) {
    throw Fault("\"" + vexposix::Visible(strUrl, true) + "\" is no address of a time-stamp authority: " + strReason);
}

// The path is sent as one word of a line.
bool IsPrintable(char ch) {
    return ch > ' ' && ch < '\x7F';
}

bool IsDigit(char ch) {
    return ch >= '0' && ch <= '9';
}

// Where the empty line ends; npos: not there yet.
std::size_t EndOfHeader(std::string_view bytes) {
    std::size_t nEnd = std::string_view::npos;
    for (const std::string_view end : {"\n\n", "\n\r\n"}) {
        if (const std::size_t nAt = bytes.find(end); nAt != std::string_view::npos) {
            nEnd = std::min(nEnd, nAt + end.size());
        }
    }
    return nEnd;
}

// Without the blanks and line breaks around it.
std::string_view Trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

bool EqualIgnoringCase(std::string_view first, std::string_view second) {
    return first.size() == second.size() && OPENSSL_strncasecmp(first.data(), second.data(), first.size()) == 0;
}

// One line for each field: a line that begins with a blank continues the one before it (RFC 9112 section 5.2). No line
// ends with blanks. The header begins with its status line.
std::string InWholeLines(std::string_view header) {
    std::string strLines;
    while (!header.empty()) {
        const std::string_view line = header.substr(0, header.find('\n'));
        header.remove_prefix(std::min(line.size() + 1, header.size()));
        const std::string_view text = Trimmed(line);
        if (line.starts_with(' ') || line.starts_with('\t')) {
            if (text.empty()) {
                continue;
            }
            strLines.back() = ' ';
        }
        strLines.append(text) += '\n';
    }
    return strLines;
}

// The value of the first field of that name. Nothing: there is none.
std::optional<std::string_view> FieldOf(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        const std::string_view line = header.substr(0, header.find('\n'));
        header.remove_prefix(std::min(line.size() + 1, header.size()));
        const std::size_t nColon = std::min(line.find(':'), line.size());
        if (nColon < line.size() && EqualIgnoringCase(Trimmed(line.substr(0, nColon)), name)) {
            return Trimmed(line.substr(nColon + 1));
        }
    }
    return std::nullopt;
}

}  // namespace

HttpAddress ReadUrl(const std::string& strUrl) {
    const ErrorMark mark;
    if (!strUrl.starts_with(kScheme)) {
        ThrowBadUrl(strUrl, "it does not begin with http://");
    }
    if (!std::all_of(strUrl.begin(), strUrl.end(), IsPrintable)) {
        ThrowBadUrl(strUrl, "it has blanks or other characters that a URL cannot have; write them as %20");
    }
    std::array<char*, 5> texts = {};
    int nPort = 0;
    auto& [pszUser, pszHost, pszPort, pszPath, pszQuery] = texts;
    char* pszFragment = nullptr;
    const int nParsed = OSSL_HTTP_parse_url(strUrl.c_str(), nullptr, &pszUser, &pszHost, &pszPort, &nPort, &pszPath,
                                            &pszQuery, &pszFragment);
    const MemoryPtr<char> user(pszUser), host(pszHost), port(pszPort), path(pszPath), query(pszQuery),
        fragment(pszFragment);
    if (nParsed != 1) {
        ThrowBadUrl(strUrl, LastReason());
    }
    HttpAddress address = {TextOf(host), TextOf(port), strUrl.substr(kScheme.size()), TextOf(path)};
    address.strHostField.resize(std::min(address.strHostField.find_first_of("/?#"), address.strHostField.size()));
    if (address.strHostField.find('@') != std::string::npos) {
        ThrowBadUrl(strUrl, "it has a user name, which is not sent; use an authority that asks for none");
    }
    if (!TextOf(fragment).empty()) {
        ThrowBadUrl(strUrl, "it has a \"#\", which is not sent; leave out what follows it");
    }
    if (address.strHost.size() > 2 && address.strHost.front() == '[' && address.strHost.back() == ']') {
        address.strHost = address.strHost.substr(1, address.strHost.size() - 2);
    }
    constexpr int kLastPort = 65535;
    // OpenSSL takes port 0 for none.
    if (address.strHost.empty() || address.strHostField.ends_with(":0") || nPort < 1 || nPort > kLastPort ||
        !std::all_of(address.strPort.begin(), address.strPort.end(), IsDigit)) {
        ThrowBadUrl(strUrl, "it has no host, or a port that is not in 1 to 65535");
    }
    if (const std::string strQuery = TextOf(query); !strQuery.empty()) {
        address.strPath += "?" + strQuery;
    }
    return address;
}

HttpMessage::HttpMessage(const HttpAddress& address, std::span<const unsigned char> request)
    : m_sent(RequireMemory(BIO_new(BIO_s_mem()))), m_received(RequireMemory(BIO_new(BIO_f_buffer()))) {
    const ErrorMark mark;
    m_pSource = RequireMemory(BIO_new(BIO_s_mem()));
    BIO_push(m_received.get(), m_pSource);
    BIO_set_mem_eof_return(m_pSource, -1);  // more may come
    const unsigned char* pb = request.data();
    const AnyPtr body(OnlySequence(request) ? d2i_ASN1_TYPE(nullptr, &pb, static_cast<long>(request.size())) : nullptr);
    if (!body) {
        throw Fault("the time stamp's request is not one sequence in DER");
    }
    m_exchange.reset(RequireMemory(OSSL_HTTP_REQ_CTX_new(m_sent.get(), m_received.get(), 0)));
    OSSL_HTTP_REQ_CTX* const pExchange = m_exchange.get();
    OSSL_HTTP_REQ_CTX_set_max_response_length(pExchange, kMostReply);
    // The body is read here: OpenSSL would leave open whether bytes behind a reply are noticed. So is the type of the
    // content: OpenSSL 3.0 refuses one with parameters.
    RequireMemory(OSSL_HTTP_REQ_CTX_set_request_line(pExchange, 1, nullptr, nullptr, address.strPath.c_str()) == 1 &&
                  OSSL_HTTP_REQ_CTX_add1_header(pExchange, "Host", address.strHostField.c_str()) == 1 &&
                  OSSL_HTTP_REQ_CTX_set_expected(pExchange, nullptr, 0, 0, 0) == 1 &&
                  OSSL_HTTP_REQ_CTX_set1_req(pExchange, "application/timestamp-query", ASN1_ITEM_rptr(ASN1_ANY),
                                             reinterpret_cast<const ASN1_VALUE*>(body.get())) == 1);
    // It writes the request and stops at the first byte of the answer.
    if (OSSL_HTTP_REQ_CTX_nbio(pExchange) != -1) {
        throw Fault("OpenSSL does not write the time stamp's request: " + LastReason());
    }
    const char* pch = nullptr;
    const long cb = BIO_get_mem_data(m_sent.get(), &pch);
    m_strRequest.assign(pch, static_cast<std::size_t>(cb));
}

// Versions of OpenSSL differ in what they make of other numbers than 200.
void HttpMessage::CheckStatus() {
    const std::size_t nEnd = m_strHeader.find('\n');
    if (std::min(nEnd, m_strHeader.size()) > kMostStatusLine) {
        ThrowNoReply("its first line is too long");
    }
    if (nEnd == std::string::npos) {
        return;
    }
    m_bStatusChecked = true;
    constexpr std::string_view kVersion = "HTTP/1.";
    const std::string_view line = std::string_view(m_strHeader).substr(0, nEnd);
    const std::string_view number = line.size() > kVersion.size() + 2 ? line.substr(kVersion.size() + 2, 3) : "";
    if (!line.starts_with(kVersion) || number.size() != 3 || !std::all_of(number.begin(), number.end(), IsDigit)) {
        ThrowNoReply("it is not HTTP");
    }
    if (number == "200") {
        return;
    }
    const std::string_view shown = line.substr(kVersion.size() + 2, kMostShown);
    const std::string strShown =
        "the answer is HTTP " +
        vexposix::Visible(shown.substr(0, std::min(shown.find_last_not_of("\r ") + 1, shown.size())), true);
    if (number.front() == '3') {
        throw Fault(strShown + ", a redirect, which is not followed; give the address that it leads to");
    }
    throw Fault(strShown + "; check the address, or use another authority");
}

void HttpMessage::CheckFields(std::string_view header) {
    const std::optional<std::string_view> type = FieldOf(header, "Content-Type");
    if (!type) {
        ThrowNoReply("it does not say that it is application/timestamp-reply");
    }
    if (!EqualIgnoringCase(Trimmed(type->substr(0, type->find(';'))), "application/timestamp-reply")) {
        ThrowNoReply("it is " + vexposix::Visible(type->substr(0, kMostShown), true) +
                     ", not application/timestamp-reply");
    }
    // OpenSSL does not tell an announced length of 0 from none.
    m_bLengthAnnounced = FieldOf(header, "Content-Length").has_value();
}

bool HttpMessage::ReadHeader(std::string_view bytes) {
    m_strHeader.append(bytes);
    if (!m_bStatusChecked) {
        CheckStatus();
    }
    const std::size_t nEnd = EndOfHeader(m_strHeader);
    if (std::min(nEnd, m_strHeader.size()) > kMostHeader) {
        ThrowNoReply("its header is too long");
    }
    if (nEnd == std::string::npos) {
        if (bytes.empty()) {
            ThrowNoReply("it ends within its header");
        }
        return false;
    }
    const std::string strLines = InWholeLines(std::string_view(m_strHeader).substr(0, nEnd));
    CheckFields(strLines);
    const int cbLines = static_cast<int>(strLines.size());
    RequireMemory(BIO_write(m_pSource, strLines.data(), cbLines) == cbLines);
    BIO_set_mem_eof_return(m_pSource, 0);
    if (OSSL_HTTP_REQ_CTX_nbio(m_exchange.get()) != 1) {
        ThrowNoReply(LastReason());
    }
    m_strBody = m_strHeader.substr(nEnd);
    return true;
}

bool HttpMessage::Take(std::string_view bytes) {
    const ErrorMark mark;
    const bool bEnd = bytes.empty();
    if (m_bHeaderRead) {
        m_strBody.append(bytes);
    } else {
        m_bHeaderRead = ReadHeader(bytes);
        if (!m_bHeaderRead) {
            return false;
        }
    }
    // OpenSSL has refused a longer one than kMostReply.
    const std::size_t cbAnnounced = OSSL_HTTP_REQ_CTX_get_resp_len(m_exchange.get());
    if (m_bLengthAnnounced && m_strBody.size() >= cbAnnounced) {
        m_strBody.resize(cbAnnounced);
        return true;
    }
    if (m_strBody.size() > kMostReply) {
        ThrowNoReply("it is larger than 64 KiB");
    }
    if (bEnd && m_bLengthAnnounced) {
        ThrowNoReply("it ends after " + std::to_string(m_strBody.size()) + " of " + std::to_string(cbAnnounced) +
                     " bytes");
    }
    return bEnd;
}

}  // namespace vextimestamp
