// Authorities, requests and tokens for the tests of time stamps, made with the openssl command.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <atomic>
#include <memory>
#include <regex>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "KnownText.h"
#include "TestChain.h"
#include "TestStore.h"
#include "Tlv.h"
#include "timestamp/Fault.h"

namespace vextimestamp {

inline Bytes BytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

inline std::string TextOf(std::span<const unsigned char> bytes) {
    return {bytes.begin(), bytes.end()};
}

inline const Bytes kValue = BytesOf("a signature value");

// What the Fault of the call says; empty: there was none. It has to be one of the known texts, in which "<port>",
// "<reason>" and "<moment>" stand for what differs.
template <typename Call>
std::string FaultOf(const Call& call) {
    try {
        call();
    } catch (const Fault& fault) {
        static const std::regex s_port(":[0-9]{4,5}/");
        static const std::regex s_resolver("is found: [^;]*;");
        static const std::regex s_moment("20(2[5-9]|[34][0-9])-[0-9-]{5}T[0-9:]{8}Z");
        std::string strText = std::regex_replace(fault.what(), s_port, ":<port>/");
        strText = std::regex_replace(strText, s_resolver, "is found: <reason>;");
        ExpectKnownLine(VEX_KNOWN_TEXTS "/Faults.txt", std::regex_replace(strText, s_moment, "<moment>"));
        return fault.what();
    }
    return "";
}

inline constexpr unsigned char kInteger = 0x02;
inline constexpr unsigned char kBitString = 0x03;
inline constexpr unsigned char kOctets = 0x04;
inline constexpr unsigned char kNull = 0x05;
inline constexpr unsigned char kObject = 0x06;
inline constexpr unsigned char kUtf8 = 0x0C;
inline constexpr unsigned char kGeneralizedTime = 0x18;
inline constexpr unsigned char kSequenceTag = 0x30;

inline const std::string kRequest = Tlv(kSequenceTag, "request");

// The policies of the authority.
inline constexpr const char* kPolicy = "1.2.3.4.1";
inline constexpr const char* kOtherPolicy = "1.2.3.4.5";

class World {
public:
    static const World& Get() {
        static const World s_world;
        return s_world;
    }

    std::string File(const std::string& strName) const { return m_directory.Path(strName); }
    std::string Write(const std::string& strName, std::string_view bytes) const {
        return m_directory.Write(strName, bytes);
    }

    // Runs a command in the directory. IN and OUT in it stand for new files. Returns what OUT has.
    Bytes Run(std::string strCommand, std::span<const unsigned char> input) const {
        static std::atomic<int> s_nFile = 0;
        const std::string strNumber = std::to_string(++s_nFile);
        Write("in" + strNumber, TextOf(input));
        for (const std::string strWord : {"IN", "OUT"}) {
            if (const std::size_t nAt = strCommand.find(strWord); nAt != std::string::npos) {
                strCommand.replace(nAt, strWord.size(), (strWord == "IN" ? "in" : "out") + strNumber);
            }
        }
        RequireCommand("cd " + m_directory.Path() + " && " + strCommand);
        return BytesOf(ReadWholeFile(File("out" + strNumber)));
    }

    // The reply that the openssl command gives as an authority.
    Bytes Reply(std::span<const unsigned char> request, const std::string& strSection = "good") const {
        return Run("openssl ts -reply -config ts.cnf -section " + strSection + " -queryfile IN -out OUT", request);
    }

    // Signs a TSTInfo, or anything. strOptions: further ones of openssl cms.
    Bytes Token(std::string_view info, const std::string& strSigner = "tsa",
                const std::string& strOptions = "-cades -econtent_type 1.2.840.113549.1.9.16.1.4") const {
        return Run("openssl cms -sign -nodetach -binary -nosmimecap -md sha256 -signer " + strSigner + ".crt -inkey " +
                       strSigner + ".key " + strOptions + " -in IN -outform DER -out OUT",
                   BytesOf(info));
    }

    // A CMS signature of "text" by a signer that is no authority.
    Bytes Signature(const std::string& strOptions = "") const {
        return Run("openssl cms -sign -binary -nosmimecap -signer signer.crt -inkey signer.key -in IN -outform DER " +
                       strOptions + " -out OUT",
                   BytesOf("text"));
    }

private:
    World() {
        MakeIssued(m_directory, {"root", "root", "root", "Root"});
        MakeIssued(m_directory, {"stranger", "stranger", "stranger", "Stranger"});
        MakeIssued(m_directory, {"signer", "signer", "root", "Signer", "CA:FALSE"});
        MakeAuthority("tsa", "critical,timeStamping");
        MakeAuthority("second", "critical,timeStamping");
        MakeAuthority("uncritical", "timeStamping");
        MakeAuthority("several", "critical,timeStamping,emailProtection");
        MakeAuthority("server", "critical,serverAuth");
        MakeAuthority("unlimited", "");
        MakeAuthority("encrypts", "critical,timeStamping", "keyEncipherment");
        MakeAuthority("both", "critical,timeStamping", "digitalSignature,keyEncipherment");
        Write("expired.ext", "extendedKeyUsage=critical,timeStamping\nkeyUsage=critical,digitalSignature\n");
        RequireCommand("cd " + m_directory.Path() + " && cp tsa.key expired.key");
        MakeCertificate(m_directory.Path(), "expired.key", "expired", "/CN=Expired", "20200101000000Z",
                        "20200201000000Z", "-cert root.crt -keyfile root.key -extfile expired.ext");
        const std::string strCommon =
            "serial=serial\nsigner_key=tsa.key\nsigner_digest=sha256\ndefault_policy=" + std::string(kPolicy) +
            "\nother_policies=" + kOtherPolicy + "\nordering=no\ntsa_name=yes\ness_cert_id_chain=no\n";
        Write("ts.cnf",
              "[good]\nsigner_cert=tsa.crt\ncerts=root.crt\ndigests=sha256,sha384,sha512\n"
              "ess_cert_id_alg=sha256\n" +
                  strCommon + "[old-attribute]\nsigner_cert=tsa.crt\ndigests=sha256\ness_cert_id_alg=sha1\n" +
                  strCommon + "[only-sha384]\nsigner_cert=tsa.crt\ndigests=sha384\ness_cert_id_alg=sha256\n" +
                  strCommon);
        Write("serial", "01\n");
    }

    void MakeAuthority(const std::string& strName, const std::string& strUsage,
                       const std::string& strKeyUsage = "digitalSignature") const {
        Write(strName + ".cnf", "[req]\ndistinguished_name=dn\nprompt=no\nx509_extensions=ext\n[dn]\nCN=Authority " +
                                    strName + "\nO=Clocks\n[ext]\nbasicConstraints=critical,CA:FALSE\n" +
                                    "keyUsage=critical," + strKeyUsage + "\n" +
                                    (strUsage.empty() ? "" : "extendedKeyUsage=" + strUsage + "\n"));
        RequireCommand("cd " + m_directory.Path() +
                       " && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " + strName +
                       ".key && openssl req -x509 -new -config " + strName + ".cnf -key " + strName +
                       ".key -days 30 -CA root.crt -CAkey root.key -out " + strName + ".crt");
    }

    TempDirectory m_directory;
};

// Trusts this certificate alone.
inline std::shared_ptr<X509_STORE> StoreOf(const std::string& strName) {
    std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
    if (X509_STORE_load_file(store.get(), World::Get().File(strName + ".crt").c_str()) != 1) {
        throw std::runtime_error("no certificate " + strName);
    }
    return store;
}

}  // namespace vextimestamp
