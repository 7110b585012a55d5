#include "signing/Base64.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <climits>
#include <random>

#include "signing/Failure.h"

namespace vextk {
namespace {

std::string Encode(std::string_view text) {
    return EncodeBase64(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

struct Vector {
    const char* pszData;
    const char* pszBase64;
};

// RFC 4648 section 10.
class Base64Vectors : public testing::TestWithParam<Vector> {};

TEST_P(Base64Vectors, EncodeAndDecode) {
    const std::string_view data = GetParam().pszData;
    EXPECT_EQ(Encode(data), GetParam().pszBase64);
    const auto decoded = DecodeBase64(GetParam().pszBase64);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(std::string(decoded->begin(), decoded->end()), data);
}

INSTANTIATE_TEST_SUITE_P(Rfc4648, Base64Vectors,
                         testing::Values(Vector{"", ""}, Vector{"f", "Zg=="}, Vector{"fo", "Zm8="},
                                         Vector{"foo", "Zm9v"}, Vector{"foob", "Zm9vYg=="}, Vector{"fooba", "Zm9vYmE="},
                                         Vector{"foobar", "Zm9vYmFy"}));

class Base64Refused : public testing::TestWithParam<const char*> {};

TEST_P(Base64Refused, Decode) {
    EXPECT_FALSE(DecodeBase64(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Malformed, Base64Refused,
                         testing::Values("Z", "Zg", "Zg=", "Zm9", "=", "====", "Z===", "=Zm9", "Zg==Zg==", "Zm9v\n",
                                         " Zm9v", "Zm9v ", "Zm\n9v", "Zm9v====", "Zh==", "Zi==", "Zk==", "Zo==", "Zm9=",
                                         "Zm+=", "Zm-_", "Zm9!", "Zm9vY=mE", "Zm9vYg=A", "\x80m9v"));

// OpenSSL counts in int. Nobody reads the text, so it takes no memory.
TEST(Base64, ATextOfTwoGibibytesIsTooLarge) {
    constexpr size_t kLength = size_t{INT_MAX} + 1;
    void* const pText = mmap(nullptr, kLength, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(pText, MAP_FAILED);
    try {
        DecodeBase64({static_cast<const char*>(pText), kLength});
        ADD_FAILURE() << "decoded";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Number(), VCTK_E_TOO_LARGE);
    }
    munmap(pText, kLength);
}

TEST(Base64, RandomBytesComeBackInOneLine) {
    std::mt19937 random(42);
    for (size_t cb = 0; cb < 300; ++cb) {
        std::vector<unsigned char> data(cb);
        for (unsigned char& byte : data) {
            byte = static_cast<unsigned char>(random());
        }
        const std::string strText = EncodeBase64(data.data(), data.size());
        EXPECT_EQ(strText.size(), (cb + 2) / 3 * 4);
        EXPECT_EQ(strText.find_first_of("\r\n "), std::string::npos);
        EXPECT_EQ(DecodeBase64(strText), data);
    }
}

}  // namespace
}  // namespace vextk
