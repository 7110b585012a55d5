// Writes files with hostile names for tests in other languages:
//
//   hostile_names SEED COUNT DIRECTORY
//
//   keys.pem, keys.p12  the key and all certificates; without a PIN
//   certificates.txt    a line for each: serial number, "readable" or "damaged", "valid" or "expired", the friendly
//   name
//                       (UTF-8), the subject and the issuer. A name is a list of relative names with "," between them,
//                       the least significant first; "+" stands between attributes, and an attribute is OID:DER:UTF-8
//   texts.txt           COUNT texts
//
// Names and texts are in hexadecimal; "-" stands for an empty one, "?" for one that is malformed. If VEX_TEST_LOG_DIR
// is set, each text is also the message of a record in the log, and of each tenth record the source file and the
// function.
#include <openssl/x509.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "DebugLogMgr.h"
#include "FileCalls.h"
#include "HostileNames.h"
#include "VisibleLine.h"

namespace {

std::string Hex(const std::optional<std::string>& bytes) {
    if (!bytes) {
        return "?";
    }
    std::string strHex;
    for (const char ch : *bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(ch));
        strHex += digits;
    }
    return strHex.empty() ? "-" : strHex;
}

std::string NameText(const HostileName& name) {
    std::string strText;
    for (auto relative = name.relativeNames.rbegin(); relative != name.relativeNames.rend(); ++relative) {
        strText += relative == name.relativeNames.rbegin() ? "" : ",";
        for (std::size_t i = 0; i < relative->size(); ++i) {
            const HostileValue& value = (*relative)[i];
            strText += (i == 0 ? "" : "+") + value.strOid + ":" + Hex(value.strDer) + ":" + Hex(value.strUtf8);
        }
    }
    return strText.empty() ? "-" : strText;
}

bool IsReadable(const std::string& strDer) {
    const auto* pbDer = reinterpret_cast<const unsigned char*>(strDer.data());
    X509* const pCertificate = d2i_X509(nullptr, &pbDer, static_cast<long>(strDer.size()));
    X509_free(pCertificate);
    return pCertificate != nullptr;
}

std::wstring Wide(const std::string& strText) {
    std::vector<wchar_t> characters;
    DecodeText(strText, characters);
    return {characters.begin(), characters.end()};
}

void Trace(const std::string& strText, bool bEverywhere) {
    const std::wstring text = Wide(strText);
    const wchar_t* const pszFile = bEverywhere ? text.c_str() : L"TAVClientJNI/vex_jni_TAVClientJNI.cpp";
    const wchar_t* const pszFunction = bEverywhere ? text.c_str() : L"Java_vex_jni_TAVClientJNI_P7Sign";
    CDebugLogMgr::MacroHelper(L"[INFO] ", 1, pszFile, pszFunction, 325)(L"%s", text.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    std::setlocale(LC_ALL, "");
    HostileNames names(static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10)));
    const long nCount = std::strtol(argv[2], nullptr, 10);
    const std::string strDirectory = argv[3];
    std::vector<HostileCertificate> certificates;
    std::string strPem = names.KeyPem();
    std::ofstream list(strDirectory + "/certificates.txt");
    for (long i = 0; i < nCount; ++i) {
        certificates.push_back(names.Next());
        const HostileCertificate& certificate = certificates.back();
        strPem += HostileNames::CertificatePem(certificate.strDer);
        list << certificate.strSerialHex << (IsReadable(certificate.strDer) ? " readable " : " damaged ")
             << (certificate.bExpired ? "expired " : "valid ") << Hex(certificate.strFriendlyUtf8) << ' '
             << NameText(certificate.subject) << ' ' << NameText(certificate.issuer) << '\n';
    }
    std::ofstream(strDirectory + "/keys.pem", std::ios::binary) << strPem;
    std::ofstream(strDirectory + "/keys.p12", std::ios::binary) << names.Pkcs12(certificates);
    std::ofstream texts(strDirectory + "/texts.txt");
    const bool bLog = std::getenv("VEX_TEST_LOG_DIR") != nullptr;
    if (bLog) {
        CDebugLogMgr::GetInstance()->SetTruncate(0, 0);
    }
    for (long i = 0; i < nCount; ++i) {
        const std::string strText = names.Text();
        texts << Hex(strText) << '\n';
        if (bLog) {
            Trace(strText, i % 10 == 0);
        }
    }
    if (bLog) {
        file_calls::WaitFor("CloseHandle", static_cast<int>(nCount));
    }
    return list.flush() && texts.flush() ? 0 : 1;
}
