// Keys and certificates for the tests of "vexsign verify", made once with the openssl command.
#pragma once

#include <ctime>
#include <string>

#include "SignedDataMaker.h"
#include "TestChain.h"
#include "TestStore.h"
#include "vexsign/verify/Certificate.h"
#include "vexsign/verify/Encoding.h"
#include "vexsign/verify/ReportText.h"
#include "vexsign/verify/Time.h"

namespace vexsign::verify {

// What the tests sign.
inline constexpr const char* kContent = "I owe you 100 euros.\n";

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
    const TempDirectory& Directory() const { return m_directory; }

private:
    World() {
        MakeIssued(m_directory, {"root", "root", "root", "Root"});
        MakeIssued(m_directory, {"middle", "middle", "root", "Middle"});
        MakeIssued(m_directory, {"ec", "ec", "root", "Signer", "CA:FALSE"});
        MakeIssued(m_directory, {"below", "below", "middle", "Below", "CA:FALSE"});
        MakeIssued(m_directory, {"twin", "ec", "root", "Twin", "CA:FALSE"});
        RequireCommand("cd " + m_directory.Path() +
                       " && openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out rsa.key"
                       " && openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -out short.key"
                       " && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-384 -out ec384.key"
                       " && openssl genpkey -algorithm ED25519 -out ed.key");
        MakeIssued(m_directory, {"rsa", "rsa", "root", "RSA", "CA:FALSE"});
        MakeIssued(m_directory, {"short", "short", "root", "Short", "CA:FALSE"});
        MakeIssued(m_directory, {"ec384", "ec384", "root", "Long", "CA:FALSE"});
        MakeIssued(m_directory, {"ed", "ed", "root", "Edwards", "CA:FALSE"});
        MakeExpiredCertificate(m_directory.Path(), "ec.key", "expired");
        MakeIdentity(m_directory, {"alone", "ec -pkeyopt ec_paramgen_curve:P-256", "/CN=Alone"});
        MakeIdentity(m_directory, {"server", "ec -pkeyopt ec_paramgen_curve:P-256", "/CN=Server", 30,
                                   "-addext extendedKeyUsage=serverAuth"});
        MakeIdentity(m_directory, {"old", "ec -pkeyopt ec_paramgen_curve:P-256", "/CN=Old", 30,
                                   "-addext keyUsage=digitalSignature -addext nsCertType=server"});
        MakeIdentity(m_directory, {"hostile", "ec -pkeyopt ec_paramgen_curve:P-256",
                                   "/CN=\xE2\x80\xAEgpj\x1b[2J\xC2\x9B\"<b>/O=Gr\xC3\xBC\xC3\x9F"});
        Join("rsa-and-ec", "rsa", "ec");
        Join("below-and-middle", "below", "middle");
    }

    void Join(const std::string& strName, const std::string& strFirst, const std::string& strSecond) const {
        Write(strName + ".crt", ReadWholeFile(File(strFirst + ".crt")) + ReadWholeFile(File(strSecond + ".crt")));
    }

    TempDirectory m_directory;
};

inline TestSigner SignerOf(const std::string& strName, const std::string& strKey = "") {
    return LoadSigner(World::Get().Directory(), strKey.empty() ? strName : strKey, strName);
}

inline CertificatesPtr CertificatesOf(const std::string& strName) {
    return ReadCertificates(ReadWholeFile(World::Get().File(strName + ".crt")), strName);
}

// strTrusted: the name of a certificate; empty: no chain is checked.
inline Settings SettingsFor(const std::string& strTrusted, std::time_t nMoment = std::time(nullptr)) {
    Settings settings;
    settings.trust = strTrusted.empty() ? Trust::kNone : Trust::kFiles;
    if (!strTrusted.empty()) {
        settings.store = StoreOfFiles({World::Get().File(strTrusted + ".crt")});
    }
    settings.nMoment = nMoment;
    return settings;
}

// As a signed attribute has it: "261122170000Z".
inline std::string UtcTime(std::time_t nTime) {
    std::string strDigits;
    for (const char ch : TextOf(nTime)) {
        strDigits += ch >= '0' && ch <= '9' ? std::string(1, ch) : "";
    }
    return strDigits.substr(2) + "Z";
}

inline std::string TextOf(const Report& report) {
    vexposix::OutputBuffer output(-1);
    PrintText(report, true, output);
    return std::string(output.Pending());
}

// The names of the checks that failed, each once and in order: "content signature".
inline std::string FailuresOf(const Report& report) {
    std::string strNames;
    const auto add = [&](const Findings& findings) {
        for (const Check& found : findings.checks) {
            if (found.result == Result::kFailed && (" " + strNames + " ").find(found.pszName) == std::string::npos) {
                strNames += (strNames.empty() ? "" : " ") + std::string(found.pszName);
            }
        }
    };
    add(report);
    for (const SignerReport& signer : report.signers) {
        add(signer);
    }
    return strNames;
}

}  // namespace vexsign::verify
