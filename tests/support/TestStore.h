// Certificate stores made with the openssl command, for the toolkit to sign with.
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

// Makes a private key and a self-signed certificate as PEM files.
inline void MakeIdentity(const TempDirectory& directory, const TestIdentity& identity) {
    RequireCommand("cd " + directory.Path() + " && openssl req -x509 -nodes -newkey " + identity.strKey + " -keyout " +
                   identity.strName + ".key -out " + identity.strName + ".crt -days " + std::to_string(identity.nDays) +
                   " -utf8 -subj '" + identity.strSubject + "' " + identity.strExtra);
}

// One PEM file with the keys and certificates of the identities named; returns its path.
inline std::string MakePemStore(const TempDirectory& directory, const std::string& strFile,
                                std::initializer_list<const char*> names) {
    std::string strPem;
    for (const char* pszName : names) {
        strPem += ReadWholeFile(directory.Path(std::string(pszName) + ".key"));
        strPem += ReadWholeFile(directory.Path(std::string(pszName) + ".crt"));
    }
    return directory.Write(strFile, strPem);
}

// A PKCS #12 file with kTestPin as its PIN; returns its path.
inline std::string MakePkcs12Store(const TempDirectory& directory, const std::string& strName,
                                   const std::string& strExtra = "") {
    RequireCommand("cd " + directory.Path() + " && openssl pkcs12 -export -inkey " + strName + ".key -in " + strName +
                   ".crt -out " + strName + ".p12 -passout pass:" + kTestPin + " " + strExtra);
    return directory.Path(strName + ".p12");
}
