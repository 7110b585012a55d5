// Creates certificate stores with the openssl command, for the toolkit to sign with.
#pragma once

#include <stdexcept>
#include <string>

#include "Command.h"
#include "TempDirectory.h"

inline constexpr const char* kTestPin = "1234";

struct TestIdentity {
    std::string strName;              // of the files NAME.key, NAME.crt in the directory
    std::string strKey = "rsa:2048";  // for openssl req -newkey
    std::string strSubject = "/CN=Test";
    int nDays = 30;
    std::string strExtra = {};  // further arguments of openssl req
};

inline void RequireCommand(const std::string& strCommand) {
    const CommandResult result = RunCommand(strCommand);
    if (result.nStatus != 0) {
        throw std::runtime_error(strCommand + "\n" + result.strOutput);
    }
}

// Creates a private key and a self-signed certificate as PEM files.
inline void MakeIdentity(const TempDirectory& directory, const TestIdentity& identity) {
    RequireCommand("cd " + directory.Path() + " && openssl req -x509 -nodes -newkey " + identity.strKey + " -keyout " +
                   identity.strName + ".key -out " + identity.strName + ".crt -days " + std::to_string(identity.nDays) +
                   " -utf8 -subj '" + identity.strSubject + "' " + identity.strExtra);
}

// Creates NAME.crt with the given validity, times as "20260301120000Z", for a private key of the directory. "openssl
// x509" takes dates only since OpenSSL 3.4, so it is not used. Self-signed unless the extra options have "-cert" and
// "-keyfile" of an issuer.
inline void MakeCertificate(const std::string& strDirectory, const std::string& strKeyFile, const std::string& strName,
                            const std::string& strSubject, const std::string& strBegin, const std::string& strEnd,
                            const std::string& strExtra = {}) {
    RequireCommand("cd " + strDirectory + " && openssl req -new -key " + strKeyFile + " -out " + strName +
                   ".csr -utf8 -subj '" + strSubject + "' && : > index && openssl ca -batch -create_serial" +
                   (strExtra.find("-cert ") == std::string::npos ? " -selfsign" : "") +
                   " -notext -md sha256 -policy any -outdir . -keyfile " + strKeyFile + " -in " + strName +
                   ".csr -out " + strName + ".crt -startdate " + strBegin + " -enddate " + strEnd + " " + strExtra +
                   " -config /dev/stdin <<'END'\n[ca]\ndefault_ca=d\n[d]\ndatabase=index\nserial=serial\n" +
                   "[any]\nCN=supplied\nEND\n");
}

// Creates NAME.crt, which expired long ago.
inline void MakeExpiredCertificate(const std::string& strDirectory, const std::string& strKeyFile,
                                   const std::string& strName) {
    MakeCertificate(strDirectory, strKeyFile, strName, "/CN=" + strName, "20200101000000Z", "20200201000000Z");
}

// Creates an identity with the given validity.
inline void MakeIdentity(const TempDirectory& directory, const TestIdentity& identity, const std::string& strBegin,
                         const std::string& strEnd) {
    const std::string strKeyFile = identity.strName + ".key";
    RequireCommand("cd " + directory.Path() + " && openssl req -new -nodes -newkey " + identity.strKey + " -keyout " +
                   strKeyFile + " -out " + identity.strName + ".csr -subj /CN=unused");
    MakeCertificate(directory.Path(), strKeyFile, identity.strName, identity.strSubject, strBegin, strEnd,
                    identity.strExtra);
}

// Creates one PEM file with the keys and certificates of the identities; returns its path.
inline std::string MakePemStore(const TempDirectory& directory, const std::string& strFile,
                                std::initializer_list<const char*> names) {
    std::string strPem;
    for (const char* pszName : names) {
        strPem += ReadWholeFile(directory.Path(std::string(pszName) + ".key"));
        strPem += ReadWholeFile(directory.Path(std::string(pszName) + ".crt"));
    }
    return directory.Write(strFile, strPem);
}

// Creates a PKCS #12 file with the PIN kTestPin; returns its path.
inline std::string MakePkcs12Store(const TempDirectory& directory, const std::string& strName,
                                   const std::string& strExtra = "") {
    RequireCommand("cd " + directory.Path() + " && openssl pkcs12 -export -inkey " + strName + ".key -in " + strName +
                   ".crt -out " + strName + ".p12 -passout pass:" + kTestPin + " " + strExtra);
    return directory.Path(strName + ".p12");
}
