// Certificates that issue one another, created with the openssl command.
#pragma once

#include <string>

#include "TestStore.h"

struct TestCertificate {
    std::string strName;          // of the file NAME.crt in the directory
    std::string strKey;           // NAME of the file NAME.key, which is created if it is missing
    std::string strIssuer;        // NAME of the issuer's files; its own: self-signed
    std::string strSubject = {};  // CN; empty: the name
    std::string strConstraints = "CA:TRUE";
    int nDays = 30;
    bool bKeyIdentifiers = true;
};

inline void MakeIssued(const TempDirectory& directory, const TestCertificate& certificate) {
    const std::string& strName = certificate.strName;
    const std::string strKeyFile = certificate.strKey + ".key";
    const bool bAuthority = certificate.strConstraints.starts_with("CA:TRUE");
    const std::string strIssuer = certificate.strIssuer == strName ? ""
                                                                   : " -CA " + certificate.strIssuer + ".crt -CAkey " +
                                                                         certificate.strIssuer + ".issuer-key";
    directory.Write(strName + ".cnf",
                    std::string("[req]\ndistinguished_name=dn\nprompt=no\nx509_extensions=ext\n") +
                        "[dn]\nCN=" + (certificate.strSubject.empty() ? strName : certificate.strSubject) +
                        "\n[ext]\nbasicConstraints=critical," + certificate.strConstraints + "\nkeyUsage=critical," +
                        (bAuthority ? "keyCertSign,cRLSign" : "digitalSignature,nonRepudiation") +
                        (certificate.bKeyIdentifiers ? "\nsubjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n"
                                                     : "\nsubjectKeyIdentifier=none\nauthorityKeyIdentifier=none\n"));
    RequireCommand("cd " + directory.Path() + " && { [ -e " + strKeyFile + " ] || openssl genpkey -algorithm EC " +
                   "-pkeyopt ec_paramgen_curve:P-256 -out " + strKeyFile + "; } && cp " + strKeyFile + " " + strName +
                   ".issuer-key && openssl req -x509 -new -config " + strName + ".cnf -key " + strKeyFile + " -days " +
                   std::to_string(certificate.nDays) + strIssuer + " -out " + strName + ".crt");
}

// Creates chains of two, three and four certificates: leaf2, leaf3 and leaf4 below "root", through ca1 and ca2. Also a
// cross certificate of ca1, and certificates that belong to no chain: "stranger" has the root's name.
inline void MakeChains(const TempDirectory& directory) {
    const char* const pszLeaf = "CA:FALSE";
    for (const TestCertificate& certificate : {
             TestCertificate{"root", "root", "root", "Root"},
             {"ca1", "ca1", "root"},
             {"ca2", "ca2", "ca1"},
             {"leaf2", "leaf2", "root", "Leaf", pszLeaf},
             {"leaf3", "leaf3", "ca1", "Leaf", pszLeaf},
             {"leaf4", "leaf4", "ca2", "Leaf", pszLeaf},
             {"alone", "alone", "alone", "Leaf", pszLeaf},
             {"other-root", "other-root", "other-root"},
             {"cross", "ca1", "other-root", "ca1"},
             {"stranger", "stranger", "stranger", "Root"},
         }) {
        MakeIssued(directory, certificate);
    }
}
