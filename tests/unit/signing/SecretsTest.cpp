// Searches the process's memory for PINs and keys.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

// The number of places in the process's writable memory that hold the bytes. They are given inverted, so that the
// search itself does not put them there.
size_t CountInMemory(const std::string& strInverted) {
    static std::vector<char> s_chunk(1 << 20);
    const int nMemory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    std::ifstream maps("/proc/self/maps");
    size_t cFound = 0;
    for (std::string strLine; std::getline(maps, strLine);) {
        std::uintptr_t nBegin = 0;
        std::uintptr_t nEnd = 0;
        char chDash = 0;
        std::string strMode;
        std::istringstream(strLine) >> std::hex >> nBegin >> chDash >> nEnd >> strMode;
        if (strMode.substr(0, 2) != "rw") {
            continue;
        }
        const auto nChunk = reinterpret_cast<std::uintptr_t>(s_chunk.data());
        while (nBegin < nEnd) {
            const size_t cb = std::min<size_t>(s_chunk.size(), nEnd - nBegin);
            const ssize_t cbRead = pread(nMemory, s_chunk.data(), cb, static_cast<off_t>(nBegin));
            if (cbRead <= 0) {
                break;
            }
            // memchr, because this program is not optimised, and the memory is large.
            const char* const pEnd = s_chunk.data() + cbRead;
            const char* p = s_chunk.data();
            while ((p = static_cast<const char*>(
                        std::memchr(p, ~strInverted[0] & 0xFF, static_cast<size_t>(pEnd - p)))) != nullptr) {
                size_t n = 0;
                while (n < strInverted.size() && p + n < pEnd && p[n] == static_cast<char>(~strInverted[n])) {
                    ++n;
                }
                const std::uintptr_t nAddress = nBegin + static_cast<size_t>(p - s_chunk.data());
                const bool fOwn = nAddress >= nChunk && nAddress < nChunk + s_chunk.size();
                cFound += n == strInverted.size() && !fOwn ? 1 : 0;
                ++p;
            }
            // Chunks overlap, so that the search misses nothing between them. The copy is overwritten.
            std::memset(s_chunk.data(), 0, static_cast<size_t>(cbRead));
            const size_t cbStep = static_cast<size_t>(cbRead) - strInverted.size() + 1;
            if (static_cast<size_t>(cbRead) < s_chunk.size()) {
                break;
            }
            nBegin += cbStep;
        }
    }
    close(nMemory);
    return cFound;
}

// The inverted bytes of what a command prints in hexadecimal; only the shell sees the bytes themselves.
std::string InvertedBytes(const std::string& strHexCommand) {
    const std::string strHex = RunCommand(strHexCommand + " | tr 0-9a-f fedcba9876543210").strOutput;
    std::string strBytes;
    for (size_t i = 0; i + 1 < strHex.size(); i += 2) {
        strBytes += static_cast<char>(std::stoi(strHex.substr(i, 2), nullptr, 16));
    }
    return strBytes;
}

// The end of the PIN, "Zu0Kmb4Xc9Lh2Vf6Ns1Jd8", in a form that the program itself does not contain. The search leaves
// out the PIN's beginning: the allocator overwrites the first 16 bytes of freed memory.
const char kInvertedPin[] = {~'Z', ~'u', ~'0', ~'K', ~'m', ~'b', ~'4', ~'X', ~'c', ~'9', ~'L', ~'h',
                             ~'2', ~'V', ~'f', ~'6', ~'N', ~'s', ~'1', ~'J', ~'d', ~'8', 0};

class SecretsTest : public testing::Test {
protected:
    void SetUp() override {
        MakeIdentity(m_directory, {"rsa"});
        // The shell makes the PIN, so that this process never holds it.
        RequireCommand(
            "cd " + m_directory.Path() +
            " && printf 'q7RexTyW-pin-83/Zu0K%sVf6Ns1Jd8' mb4Xc9Lh2 > pin"
            " && openssl pkcs12 -export -inkey rsa.key -in rsa.crt -out rsa.p12 -passout file:pin"
            " && openssl pkcs12 -export -legacy -inkey rsa.key -in rsa.crt -out old.p12 -passout file:pin"
            " && openssl pkcs8 -topk8 -in rsa.key -out enc.key -passout file:pin && cat enc.key rsa.crt > enc.pem");
    }

    TempDirectory m_directory;
};

TEST_F(SecretsTest, TheSearchFindsASecretInMemory) {
    const std::string strInverted = kInvertedPin;
    const size_t cBefore = CountInMemory(strInverted);
    std::vector<char> copy(strInverted.size());
    for (size_t i = 0; i < copy.size(); ++i) {
        copy[i] = static_cast<char>(~strInverted[i]);
    }
    EXPECT_EQ(CountInMemory(strInverted), cBefore + 1);
    std::memset(copy.data(), 0, copy.size());
    EXPECT_EQ(CountInMemory(strInverted), cBefore);
}

TEST_F(SecretsTest, ThePinIsGoneAfterUse) {
    const std::string strInverted = kInvertedPin;
    for (const char* pszFile : {"rsa.p12", "old.p12", "enc.pem"}) {
        const ToolkitClient client("file:" + m_directory.Path(pszFile) + "?pin-source=" + m_directory.Path("pin"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_EQ(CountInMemory(strInverted), 0U) << pszFile;
    }
}

TEST_F(SecretsTest, AWrongPinIsNotKeptAndNotInTheMessage) {
    const std::string strInverted = kInvertedPin;
    MakePkcs12Store(m_directory, "rsa", "-name other");
    const ToolkitClient client("file:" + m_directory.Path("rsa.p12") + "?pin-source=" + m_directory.Path("pin"));
    ASSERT_FALSE(client.IsOpen());
    ASSERT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_WRONG);
    EXPECT_EQ(ErrorMessage(nullptr), VCTKErrorMessage(VCTK_E_PIN_WRONG) + (": " + m_directory.Path("rsa.p12")));
    EXPECT_EQ(CountInMemory(strInverted), 0U);
}

TEST_F(SecretsTest, TheKeyFileIsGoneAfterReadingAndTheKeyAfterFinalize) {
    const std::string strIn = "cd " + m_directory.Path() + " && ";
    RequireCommand(strIn + "cat rsa.key rsa.crt > s.pem");
    // 24 bytes from the middle of the private exponent, in the order of a file and in that of memory.
    const std::string strBigEndian =
        InvertedBytes(strIn +
                      "openssl rsa -in rsa.key -noout -text | sed -n '/^privateExponent/,/^prime1/p'"
                      " | grep '^ ' | tr -d ' :\\n' | cut -c101-148 | tr -d '\\n'");
    ASSERT_EQ(strBigEndian.size(), 24U);
    const std::string strLittleEndian(strBigEndian.rbegin(), strBigEndian.rend());
    const std::string strFileLine =
        InvertedBytes(strIn + "sed -n 12p rsa.key | tr -d '\\n' | od -An -v -tx1 | tr -d ' \\n'");
    ASSERT_EQ(strFileLine.size(), 64U);
    {
        const ToolkitClient client("file:" + m_directory.Path("s.pem"));
        ASSERT_TRUE(client.IsOpen());
        ASSERT_TRUE(client.SignP1("text"));
        EXPECT_GE(CountInMemory(strLittleEndian), 1U) << "the search did not find the key in use";
        EXPECT_EQ(CountInMemory(strFileLine), 0U);
        const ToolkitClient second("file:" + m_directory.Path("s.pem"));
        ASSERT_TRUE(second.SignP1("text"));
    }
    EXPECT_EQ(CountInMemory(strLittleEndian), 0U);
    EXPECT_EQ(CountInMemory(strBigEndian), 0U);
}

}  // namespace
