// libFuzzer's mutator for PEM files: it changes the DER inside a block, exchanges labels and copies blocks. The first
// byte of an input chooses how the file is opened and stays.
#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <optional>

#include "DerMutation.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* pbData, std::size_t cbData, std::size_t cbMost);

namespace {

constexpr std::string_view kBegin = "-----BEGIN ";
constexpr std::string_view kEnd = "-----END ";
constexpr std::array<std::string_view, 9> kLabels = {"CERTIFICATE",     "X509 CERTIFICATE",      "TRUSTED CERTIFICATE",
                                                     "PRIVATE KEY",     "ENCRYPTED PRIVATE KEY", "EC PRIVATE KEY",
                                                     "RSA PRIVATE KEY", "EC PARAMETERS",         "CERTIFICATE REQUEST"};
constexpr std::array<std::string_view, 5> kHeaders = {
    "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,000102030405060708090A0B0C0D0E0F\n\n",
    "Proc-Type: 4,ENCRYPTED\nDEK-Info: DES-EDE3-CBC,0001020304050607\n\n", "Proc-Type: 4,ENCRYPTED\n\n",
    "DEK-Info: NONE,\n\n", "Proc-Type: 4,MIC-CLEAR\n\n"};

struct Block {
    std::size_t nBegin;  // of the block in the text
    std::size_t nBody;   // of the line after the label
    std::size_t nTail;   // of the last line
    std::size_t nEnd;    // behind the block
};

std::vector<Block> FindBlocks(const std::string& strText) {
    std::vector<Block> blocks;
    for (std::size_t n = strText.find(kBegin); n != std::string::npos; n = strText.find(kBegin, n + 1)) {
        const std::size_t nLine = strText.find('\n', n);
        const std::size_t nTail = strText.find(kEnd, n);
        const std::size_t nLast = nTail != std::string::npos ? strText.find('\n', nTail) : nTail;
        if (nLine < nTail && nLast != std::string::npos) {
            blocks.push_back({n, nLine + 1, nTail, nLast + 1});
        }
    }
    return blocks;
}

// The DER of a body without header lines.
std::string Decoded(std::string_view body) {
    std::string strPlain;
    for (const char ch : body) {
        if (ch != '\n' && ch != '\r') {
            strPlain += ch;
        }
    }
    std::string strDer(strPlain.size() / 4 * 3 + 3, '\0');
    const int cb =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(strDer.data()),
                        reinterpret_cast<const unsigned char*>(strPlain.data()), static_cast<int>(strPlain.size()));
    strDer.resize(cb > 0 ? static_cast<std::size_t>(cb) : 0);
    return strDer;
}

std::string Encoded(const std::string& strDer) {
    std::string strPlain((strDer.size() + 2) / 3 * 4 + 1, '\0');
    strPlain.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(strPlain.data()),
                                                             reinterpret_cast<const unsigned char*>(strDer.data()),
                                                             static_cast<int>(strDer.size()))));
    std::string strLines;
    for (std::size_t n = 0; n < strPlain.size(); n += 64) {
        strLines.append(strPlain, n, 64).append("\n");
    }
    return strLines;
}

std::string BlockText(std::string_view label, const std::string& strBody) {
    const std::string strLabel(label);
    return "-----BEGIN " + strLabel + "-----\n" + strBody + "-----END " + strLabel + "-----\n";
}

void MutateBlock(std::string& strText, const Block& block, Random& random) {
    const std::string strBody = strText.substr(block.nBody, block.nTail - block.nBody);
    switch (Pick(random, 6)) {
        case 0:  // another label
            strText.replace(block.nBegin, block.nEnd - block.nBegin,
                            BlockText(kLabels[Pick(random, kLabels.size())], strBody));
            return;
        case 1:
            strText.insert(block.nBody, kHeaders[Pick(random, kHeaders.size())]);
            return;
        case 2:
            strText += strText.substr(block.nBegin, block.nEnd - block.nBegin);
            return;
        default: {
            DerNodes nodes = ParseDer(Decoded(strBody));
            MutateDer(nodes, random);
            LimitNumbers(nodes);
            strText.replace(block.nBody, block.nTail - block.nBody, Encoded(WriteDer(nodes)));
            return;
        }
    }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(unsigned char* pbData, std::size_t cbData, std::size_t cbMost,
                                               unsigned nSeed) {
    Random random(nSeed);
    std::string strText(reinterpret_cast<const char*>(pbData), cbData);
    const std::vector<Block> blocks = FindBlocks(strText);
    if (blocks.empty() || Pick(random, 8) == 0) {
        return LLVMFuzzerMutate(pbData, cbData, cbMost);
    }
    MutateBlock(strText, blocks[Pick(random, blocks.size())], random);
    return CopyOut(strText, pbData, cbMost);
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const unsigned char* pbFirst, std::size_t cbFirst,
                                                 const unsigned char* pbSecond, std::size_t cbSecond,
                                                 unsigned char* pbOut, std::size_t cbMost, unsigned nSeed) {
    Random random(nSeed);
    std::string strText(reinterpret_cast<const char*>(pbFirst), cbFirst);
    const std::string strOther(reinterpret_cast<const char*>(pbSecond), cbSecond);
    const std::vector<Block> blocks = FindBlocks(strOther);
    if (blocks.empty()) {
        return 0;
    }
    const Block& block = blocks[Pick(random, blocks.size())];
    return CopyOut(strText + strOther.substr(block.nBegin, block.nEnd - block.nBegin), pbOut, cbMost);
}
