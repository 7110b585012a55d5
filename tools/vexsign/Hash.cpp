#include "Hash.h"

#include <stdexcept>

#include "DigestName.h"

namespace vexsign {
namespace {

void Require(bool bSucceeded) {
    if (!bSucceeded) {
        throw std::runtime_error("OpenSSL cannot compute the digest");
    }
}

struct FreeAlgorithm {
    void operator()(EVP_MD* pAlgorithm) const { EVP_MD_free(pAlgorithm); }
};

}  // namespace

std::optional<Hash> Hash::Find(std::string_view strDigest) {
    const std::unique_ptr<EVP_MD, FreeAlgorithm> algorithm(
        EVP_MD_fetch(nullptr, DigestName(strDigest).OpenSsl().c_str(), nullptr));
    if (!algorithm) {
        return std::nullopt;
    }
    return Hash(algorithm.get());
}

Hash::Hash(const EVP_MD* pAlgorithm) : m_context(EVP_MD_CTX_new()) {
    Require(m_context && EVP_DigestInit_ex2(m_context.get(), pAlgorithm, nullptr) == 1);
}

void Hash::Add(std::string_view bytes) {
    Require(EVP_DigestUpdate(m_context.get(), bytes.data(), bytes.size()) == 1);
}

std::string Hash::Finish() {
    std::string strDigest(EVP_MAX_MD_SIZE, '\0');
    unsigned int cbDigest = 0;
    Require(EVP_DigestFinal_ex(m_context.get(), reinterpret_cast<unsigned char*>(strDigest.data()), &cbDigest) == 1);
    strDigest.resize(cbDigest);
    return strDigest;
}

}  // namespace vexsign
