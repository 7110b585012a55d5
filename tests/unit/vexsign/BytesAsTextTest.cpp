#include <gtest/gtest.h>

#include <string>

#include "vexsign/Base64.h"

namespace vexsign {
namespace {

std::string InPieces(const std::string& bytes, std::size_t cbPiece) {
    Base64Encoder encoder;
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += cbPiece) {
        encoder.Append(std::string_view(bytes).substr(i, cbPiece), text);
        encoder.Append("", text);
    }
    encoder.Finish(text);
    return text;
}

// RFC 4648 section 10.
TEST(BytesAsText, HasTheStandardsExamples) {
    const char* const aExamples[][2] = {{"", ""},
                                        {"f", "Zg=="},
                                        {"fo", "Zm8="},
                                        {"foo", "Zm9v"},
                                        {"foob", "Zm9vYg=="},
                                        {"fooba", "Zm9vYmE="},
                                        {"foobar", "Zm9vYmFy"}};
    for (const auto& [pszBytes, pszText] : aExamples) {
        EXPECT_EQ(EncodeBase64(pszBytes), pszText);
        EXPECT_EQ(DecodeBase64(pszText), pszBytes);
    }
}

TEST(BytesAsText, DoesNotDependOnThePieces) {
    for (const std::size_t cb : {1, 2, 3, 4, 100, 257}) {
        std::string bytes;
        for (std::size_t i = 0; i < cb; ++i) {
            bytes += static_cast<char>(i * 37);
        }
        const std::string text = EncodeBase64(bytes);
        EXPECT_EQ(DecodeBase64(text), bytes);
        for (std::size_t cbPiece = 1; cbPiece < 10; ++cbPiece) {
            EXPECT_EQ(InPieces(bytes, cbPiece), text) << cb << " bytes in pieces of " << cbPiece;
        }
    }
}

TEST(BytesAsText, LargeInputIsEncodedWhole) {
    const std::string bytes(5'000'000, '\xA5');
    EXPECT_EQ(DecodeBase64(EncodeBase64(bytes)), bytes);
    EXPECT_EQ(InPieces(bytes, 1'000'000), EncodeBase64(bytes));
}

TEST(BytesAsText, AnEncoderIsAsNewAfterItsEnd) {
    Base64Encoder encoder;
    std::string text;
    for (int i = 0; i < 2; ++i) {
        encoder.Append("f", text);
        encoder.Finish(text);
    }
    EXPECT_EQ(text, "Zg==Zg==");
}

}  // namespace
}  // namespace vexsign
