// Verifies signatures with GnuTLS for a test in another language, without a process for each of them. Reads questions
// from standard input and answers each with a line: "accepts CONTENT" or "refuses REASON". Certificates, signatures and
// contents are Base64 of DER or bytes; lists are separated by commas. Questions:
//
//   path ROOT CERTIFICATES                         does the first certificate lead to the root, by way of the others?
//   p1 ALGORITHM CERTIFICATE SIGNATURE CONTENT     is it a bare signature by the certificate's key?
//   p7 ROOT given:CERTIFICATES SIGNATURE attached  is it a CMS signature by somebody whose certificate leads to the
//   p7 ... detached:CONTENT                        root? GIVEN: the signer's certificate and others, none of them
//                                                  trusted; without any, the signature has to have all except the root
#include <gnutls/abstract.h>
#include <gnutls/pkcs7.h>
#include <gnutls/x509.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

void Require(int nResult) {
    if (nResult < 0) {
        throw std::runtime_error(gnutls_strerror_name(nResult));
    }
}

// Frees what GnuTLS has allocated.
class Datum {
public:
    Datum() = default;
    ~Datum() { gnutls_free(m_datum.data); }
    Datum(const Datum&) = delete;
    Datum& operator=(const Datum&) = delete;

    gnutls_datum_t* Out() { return &m_datum; }
    const gnutls_datum_t& Get() const { return m_datum; }
    std::string Text() const { return {reinterpret_cast<const char*>(m_datum.data), m_datum.size}; }

private:
    gnutls_datum_t m_datum{};
};

gnutls_datum_t View(std::string& bytes) {
    return {reinterpret_cast<unsigned char*>(bytes.data()), static_cast<unsigned int>(bytes.size())};
}

std::string Decode(std::string_view base64) {
    if (base64.empty()) {
        return {};
    }
    std::string text(base64);
    const gnutls_datum_t input = View(text);
    Datum bytes;
    Require(gnutls_base64_decode2(&input, bytes.Out()));
    return bytes.Text();
}

std::string Encode(std::string bytes) {
    if (bytes.empty()) {
        return {};
    }
    const gnutls_datum_t input = View(bytes);
    Datum base64;
    Require(gnutls_base64_encode2(&input, base64.Out()));
    return base64.Text();
}

template <typename Handle, void (*Free)(Handle)>
struct Deleter {
    using pointer = Handle;
    void operator()(Handle handle) const { Free(handle); }
};
template <typename Handle, void (*Free)(Handle)>
using Owner = std::unique_ptr<Handle, Deleter<Handle, Free>>;
using Certificate = Owner<gnutls_x509_crt_t, gnutls_x509_crt_deinit>;
using Signature = Owner<gnutls_pkcs7_t, gnutls_pkcs7_deinit>;
using PublicKey = Owner<gnutls_pubkey_t, gnutls_pubkey_deinit>;

void FreeWithContent(gnutls_x509_trust_list_t list) {
    gnutls_x509_trust_list_deinit(list, 1);
}
using TrustList = Owner<gnutls_x509_trust_list_t, FreeWithContent>;

Certificate ReadCertificate(std::string_view base64) {
    std::string der = Decode(base64);
    const gnutls_datum_t input = View(der);
    gnutls_x509_crt_t handle = nullptr;
    Require(gnutls_x509_crt_init(&handle));
    Certificate certificate(handle);
    Require(gnutls_x509_crt_import(handle, &input, GNUTLS_X509_FMT_DER));
    return certificate;
}

std::vector<Certificate> ReadCertificates(const std::string& strList) {
    std::vector<Certificate> certificates;
    std::istringstream list(strList);
    for (std::string strOne; std::getline(list, strOne, ',');) {
        certificates.push_back(ReadCertificate(strOne));
    }
    return certificates;
}

TrustList TrustIn(const std::string& strRoot) {
    gnutls_x509_trust_list_t handle = nullptr;
    Require(gnutls_x509_trust_list_init(&handle, 0));
    TrustList list(handle);
    Certificate root = ReadCertificate(strRoot);
    const gnutls_x509_crt_t added = root.release();  // the list frees it
    Require(gnutls_x509_trust_list_add_cas(handle, &added, 1, 0));
    return list;
}

void RequirePath(const TrustList& trusted, const std::vector<Certificate>& certificates) {
    std::vector<gnutls_x509_crt_t> handles;
    for (const Certificate& certificate : certificates) {
        handles.push_back(certificate.get());
    }
    unsigned int uStatus = 0;
    Require(gnutls_x509_trust_list_verify_crt2(trusted.get(), handles.data(), static_cast<unsigned int>(handles.size()),
                                               nullptr, 0, 0, &uStatus, nullptr));
    if (uStatus != 0) {
        Datum text;
        Require(gnutls_certificate_verification_status_print(uStatus, GNUTLS_CRT_X509, text.Out(), 0));
        throw std::runtime_error(text.Text());
    }
}

std::string OnPath(std::istream& words) {
    std::string strRoot;
    std::string strCertificates;
    words >> strRoot >> strCertificates;
    RequirePath(TrustIn(strRoot), ReadCertificates(strCertificates));
    return {};
}

std::string OnP1(std::istream& words) {
    std::string strAlgorithm;
    std::string strCertificate;
    std::string strSignature;
    std::string strContent;
    words >> strAlgorithm >> strCertificate >> strSignature >> strContent;
    const gnutls_sign_algorithm_t algorithm = gnutls_sign_get_id(strAlgorithm.c_str());
    if (algorithm == GNUTLS_SIGN_UNKNOWN) {
        throw std::runtime_error("GnuTLS has no algorithm " + strAlgorithm);
    }
    gnutls_pubkey_t handle = nullptr;
    Require(gnutls_pubkey_init(&handle));
    const PublicKey key(handle);
    Require(gnutls_pubkey_import_x509(handle, ReadCertificate(strCertificate).get(), 0));
    std::string signature = Decode(strSignature);
    std::string content = Decode(strContent);
    const gnutls_datum_t signatureView = View(signature);
    const gnutls_datum_t contentView = View(content);
    Require(gnutls_pubkey_verify_data2(handle, algorithm, 0, &contentView, &signatureView));
    return content;
}

std::string OnP7(std::istream& words) {
    std::string strRoot;
    std::string strGiven;
    std::string strSignature;
    std::string strContent;
    words >> strRoot >> strGiven >> strSignature >> strContent;
    std::string der = Decode(strSignature);
    const gnutls_datum_t input = View(der);
    gnutls_pkcs7_t handle = nullptr;
    Require(gnutls_pkcs7_init(&handle));
    const Signature signature(handle);
    Require(gnutls_pkcs7_import(handle, &input, GNUTLS_X509_FMT_DER));
    const int nSigners = gnutls_pkcs7_get_signature_count(handle);
    if (nSigners != 1) {
        throw std::runtime_error(std::to_string(nSigners) + " signers");
    }

    const bool bAttached = strContent == "attached";
    std::string content = bAttached ? std::string() : Decode(strContent.substr(strContent.find(':') + 1));
    const gnutls_datum_t contentView = View(content);
    const gnutls_datum_t* const pContent = bAttached ? nullptr : &contentView;
    const TrustList trusted = TrustIn(strRoot);
    const std::vector<Certificate> given = ReadCertificates(strGiven.substr(strGiven.find(':') + 1));
    if (given.empty()) {
        Require(gnutls_pkcs7_verify(handle, trusted.get(), nullptr, 0, 0, pContent, 0));
    } else {
        RequirePath(trusted, given);
        Require(gnutls_pkcs7_verify_direct(handle, given.front().get(), 0, pContent, 0));
    }
    if (pContent != nullptr) {
        return content;
    }
    Datum contained;
    Require(gnutls_pkcs7_get_embedded_data(handle, 0, contained.Out()));
    return contained.Text();
}

std::string Answer(const std::string& strQuestion) {
    std::istringstream words(strQuestion);
    std::string strKind;
    words >> strKind;
    try {
        return "accepts " + Encode(strKind == "path" ? OnPath(words) : strKind == "p1" ? OnP1(words) : OnP7(words));
    } catch (const std::runtime_error& error) {
        return std::string("refuses ") + error.what();
    }
}

}  // namespace

int main() {
    for (std::string strQuestion; std::getline(std::cin, strQuestion);) {
        std::cout << Answer(strQuestion) << std::endl;
    }
    return 0;
}
