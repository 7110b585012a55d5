// Tokens of a software module in the test's directory. The toolkit reaches them through the shim module, which counts
// calls and can remove the tokens.
#pragma once

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "Pkcs11Shim.h"
#include "TestStore.h"

class TestTokens {
public:
    // Sets the process's environment for the module. One object for each process, because the module reads it once.
    TestTokens() {
        m_directory.Write("softhsm2.conf",
                          "directories.tokendir = " + m_directory.Path("tokens") +
                              "\nobjectstore.backend = file\nlog.level = ERROR\nlibrary.reset_on_fork = true\n");
        // The toolkit may refuse to load modules from the build tree.
        RequireCommand("mkdir " + m_directory.Path("tokens") + " && install -m 0755 " VEX_TEST_PKCS11_SHIM " " +
                       m_directory.Path("libvex_test_pkcs11.so"));
        s_strModule = m_directory.Path("libvex_test_pkcs11.so");
        setenv("SOFTHSM2_CONF", m_directory.Path("softhsm2.conf").c_str(), 1);
        setenv("VEX_TEST_PKCS11_MODULE", VEX_TEST_SOFTHSM, 1);
        RequireCommand(In() + "openssl req -x509 -nodes -newkey rsa:2048 -keyout ca.key -out ca.crt -subj /CN=CA" +
                       " && openssl req -new -nodes -newkey rsa:2048 -keyout csr.key -out some.csr -subj /CN=x");
    }

    const TempDirectory& Directory() const { return m_directory; }
    std::string In() const { return "cd " + m_directory.Path() + " && "; }

    void MakeToken(const std::string& strLabel, const std::string& strPin) const {
        RequireCommand("softhsm2-util --init-token --free --label '" + strLabel + "' --so-pin 87654321 --pin " +
                       strPin);
    }

    // Generates a key pair on the token.
    void MakeKey(const std::string& strToken, const std::string& strPin, const std::string& strType,
                 const std::string& strId, const std::string& strLabel, const std::string& strExtra = "") const {
        RequireCommand(Tool(strToken, strPin) + "--keypairgen --key-type " + strType + " --id " + strId + " --label " +
                       strLabel + " " + strExtra);
    }

    // Creates NAME.crt for the key strKeyId.
    void IssueCertificate(const std::string& strToken, const std::string& strPin, const std::string& strKeyId,
                          const std::string& strName, int nDays) const {
        RequireCommand(In() + Tool(strToken, strPin) + "--read-object --type pubkey --id " + strKeyId + " -o " +
                       strName + ".spki && openssl pkey -pubin -inform DER -in " + strName + ".spki -out " + strName +
                       ".pub && openssl x509 -req -in some.csr -CA ca.crt -CAkey ca.key -days " +
                       std::to_string(nDays) + " -subj /CN=" + strName + " -force_pubkey " + strName + ".pub -out " +
                       strName + ".crt");
    }

    // Creates LABEL.crt for the key strKeyId and stores it on the token under strId.
    void MakeCertificate(const std::string& strToken, const std::string& strPin, const std::string& strKeyId,
                         const std::string& strId, const std::string& strLabel, int nDays) const {
        IssueCertificate(strToken, strPin, strKeyId, strLabel, nDays);
        StoreCertificate(strToken, strPin, strLabel, strId);
    }

    // Stores NAME.crt of the directory on the token, with NAME as its label.
    void StoreCertificate(const std::string& strToken, const std::string& strPin, const std::string& strName,
                          const std::string& strId) const {
        StoreCertificate(strToken, strPin, strName, strId, strName);
    }
    void StoreCertificate(const std::string& strToken, const std::string& strPin, const std::string& strName,
                          const std::string& strId, const std::string& strLabel) const {
        RequireCommand(In() + "openssl x509 -in " + strName + ".crt -outform DER -out " + strName + ".der && " +
                       Tool(strToken, strPin) + "--write-object " + strName + ".der --type cert --id " + strId +
                       (strLabel.empty() ? "" : " --label '" + strLabel + "'"));
    }

    // Stores NAME.key of the directory on the token.
    void StoreKey(const std::string& strToken, const std::string& strPin, const std::string& strName,
                  const std::string& strId, const std::string& strExtra = "") const {
        RequireCommand(In() + "softhsm2-util --import " + strName + ".key --token '" + strToken + "' --label " +
                       strName + " --id " + strId + " --pin " + strPin + " " + strExtra);
    }

    // Initialises the module, like other code in the process that uses it. 0: success.
    static unsigned long InitialiseModule() {
        void* const pLibrary = dlopen(s_strModule.c_str(), RTLD_NOW | RTLD_LOCAL);
        const auto initialise = reinterpret_cast<unsigned long (*)()>(dlsym(pLibrary, "VexTestInitialiseModule"));
        return initialise();
    }

    // The shim between the toolkit and the software module.
    static const std::string& ModulePath() { return s_strModule; }
    static std::string ModuleQuery() { return "module-path=" + s_strModule; }

    static Pkcs11Shim& Shim() {
        void* const pLibrary = dlopen(s_strModule.c_str(), RTLD_NOW | RTLD_LOCAL);
        const auto getShim = pLibrary == nullptr
                                 ? nullptr
                                 : reinterpret_cast<decltype(&VexTestPkcs11Shim)>(dlsym(pLibrary, "VexTestPkcs11Shim"));
        if (getShim == nullptr) {
            throw std::runtime_error("no module for tests");
        }
        return *getShim();
    }

private:
    static std::string Tool(const std::string& strToken, const std::string& strPin) {
        return std::string("pkcs11-tool --module ") + VEX_TEST_SOFTHSM + " --token-label '" + strToken +
               "' --login --pin " + strPin + " ";
    }

    TempDirectory m_directory;
    inline static std::string s_strModule;
};
