// libFuzzer's mutator for PKCS #12 files: it changes their DER, and then computes the MAC again or removes it, so that
// the changed file is read behind its check.
#include <openssl/err.h>
#include <openssl/pkcs12.h>

#include <memory>

#include "DerMutation.h"
#include "StoreChecks.h"

namespace {

std::string WithMac(const std::string& strDer, const char* pszPin) {
    const auto* pbDer = reinterpret_cast<const unsigned char*>(strDer.data());
    const std::unique_ptr<PKCS12, decltype(&PKCS12_free)> file(
        d2i_PKCS12(nullptr, &pbDer, static_cast<long>(strDer.size())), PKCS12_free);
    unsigned char* pbNew = nullptr;
    int cbNew = 0;
    if (file && PKCS12_set_mac(file.get(), pszPin, -1, nullptr, 0, 1, EVP_sha256()) == 1) {
        cbNew = i2d_PKCS12(file.get(), &pbNew);
    }
    ERR_clear_error();
    const std::string strNew = cbNew > 0 ? std::string(reinterpret_cast<char*>(pbNew), static_cast<size_t>(cbNew)) : "";
    OPENSSL_free(pbNew);
    return strNew.empty() ? strDer : strNew;
}

std::string WithoutMac(const std::string& strDer) {
    DerNodes nodes = ParseDer(strDer);
    if (!nodes.empty() && nodes[0].children.size() > 2) {
        nodes[0].children.resize(2);
    }
    return WriteDer(nodes);
}

std::string Finish(std::string strDer, unsigned char uChoice, Random& random) {
    switch (Pick(random, 4)) {
        case 0:
            return strDer;
        case 1:
            return WithoutMac(strDer);
        default:
            return WithMac(strDer, PinOf(uChoice));
    }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(unsigned char* pbData, std::size_t cbData, std::size_t cbMost,
                                               unsigned nSeed) {
    return MutateInput(pbData, cbData, cbMost, nSeed, Finish);
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const unsigned char* pbFirst, std::size_t cbFirst,
                                                 const unsigned char* pbSecond, std::size_t cbSecond,
                                                 unsigned char* pbOut, std::size_t cbMost, unsigned nSeed) {
    return CrossInputs({reinterpret_cast<const char*>(pbFirst), cbFirst},
                       {reinterpret_cast<const char*>(pbSecond), cbSecond}, pbOut, cbMost, nSeed, Finish);
}
