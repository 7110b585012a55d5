// Error numbers and messages, and the errors of size queries.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <set>

#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

class ErrorTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        MakeIdentity(*s_pDirectory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
        MakePemStore(*s_pDirectory, "s.pem", {"ec"});
    }
    static void TearDownTestSuite() { delete s_pDirectory; }

    static TempDirectory* s_pDirectory;
    const ToolkitClient m_client{"file:" + s_pDirectory->Path("s.pem")};
};
TempDirectory* ErrorTest::s_pDirectory = nullptr;

TEST(ErrorTable, NumbersAndMessagesAreUnique) {
    std::set<int> numbers;
    std::set<std::string> messages;
    for (const VCTKErrorEntry& entry : g_aVCTKErrors) {
        EXPECT_TRUE(numbers.insert(entry.nNumber).second) << entry.nNumber;
        EXPECT_TRUE(messages.insert(entry.pszMessage).second) << entry.pszMessage;
        EXPECT_STREQ(VCTKErrorMessage(entry.nNumber), entry.pszMessage);
    }
    EXPECT_STREQ(VCTKErrorMessage(-1), VCTKErrorMessage(VCTK_E_INTERNAL));
}

// A host that also uses OpenSSL finds no errors of the toolkit in its thread's queue.
TEST_F(ErrorTest, LeavesOpenSslsErrorQueueToTheHost) {
    const auto peekError = reinterpret_cast<unsigned long (*)()>(dlsym(RTLD_DEFAULT, "ERR_peek_error"));
    ASSERT_NE(peekError, nullptr);
    EXPECT_EQ(VCTK_SetDigestAlg(m_client.Handle(), "none"), VCTK_E_DIGEST_UNKNOWN);
    EXPECT_EQ(peekError(), 0U);
    EXPECT_FALSE(ToolkitClient("file:" + s_pDirectory->Write("junk.p12", "\x30\x03\x02\x01\x07")).IsOpen());
    EXPECT_EQ(peekError(), 0U);
}

TEST_F(ErrorTest, ANewObjectHasNone) {
    EXPECT_EQ(m_client.LastError(), VCTK_OK);
    EXPECT_EQ(m_client.Message(), VCTKErrorMessage(VCTK_OK));
}

TEST_F(ErrorTest, IsTheNumberThatTheCallReturnedAndSuccessClearsIt) {
    EXPECT_EQ(VCTK_SetDigestAlg(m_client.Handle(), "none"), VCTK_E_DIGEST_UNKNOWN);
    EXPECT_EQ(m_client.LastError(), VCTK_E_DIGEST_UNKNOWN);
    EXPECT_EQ(m_client.LastError(), VCTK_E_DIGEST_UNKNOWN) << "asking changes nothing";
    EXPECT_EQ(m_client.Message().find(VCTKErrorMessage(VCTK_E_DIGEST_UNKNOWN)), 0U);
    EXPECT_EQ(VCTK_ClearFilter(m_client.Handle()), 0);
    EXPECT_EQ(m_client.LastError(), VCTK_OK);
}

struct Input {
    const char* pszText;
    int nForm;
    VCTKError nError;
};

class ErrorOfInput : public ErrorTest, public testing::WithParamInterface<Input> {};

TEST_P(ErrorOfInput, NothingIsSigned) {
    const Input& input = GetParam();
    EXPECT_EQ(VCTK_P1Sign(m_client.Handle(), input.pszText, input.nForm), input.nError);
    EXPECT_EQ(m_client.LastError(), input.nError);
    EXPECT_EQ(VCTK_P7Sign(m_client.Handle(), input.pszText, input.nForm, 0, 1), input.nError);
    EXPECT_EQ(m_client.LastError(), input.nError);
    int nLength = 0;
    EXPECT_EQ(VCTK_GetP1SignResult(m_client.Handle(), nullptr, &nLength), VCTK_E_NO_SIGNATURE);
    EXPECT_EQ(VCTK_GetP7SignResult(m_client.Handle(), nullptr, &nLength), VCTK_E_NO_SIGNATURE);
}

INSTANTIATE_TEST_SUITE_P(All, ErrorOfInput,
                         testing::Values(Input{"", 0, VCTK_E_DATA_EMPTY}, Input{"", 1, VCTK_E_DATA_EMPTY},
                                         Input{"Zg=", 1, VCTK_E_DATA_BASE64}, Input{"Zm9v\n", 1, VCTK_E_DATA_BASE64},
                                         Input{nullptr, 0, VCTK_E_INVALID_ARGUMENT},
                                         Input{"text", 2, VCTK_E_INVALID_ARGUMENT},
                                         Input{"text", -1, VCTK_E_INVALID_ARGUMENT}));

TEST_F(ErrorTest, AFailedCallLeavesNoOlderSignature) {
    ASSERT_TRUE(m_client.SignP1("text"));
    ASSERT_TRUE(m_client.SignP7("text", 0, 0, 0));
    EXPECT_NE(VCTK_P1Sign(m_client.Handle(), "*", 1), 0);
    EXPECT_NE(VCTK_P7Sign(m_client.Handle(), "*", 1, 0, 0), 0);
    int nLength = 0;
    EXPECT_EQ(VCTK_GetP1SignResult(m_client.Handle(), nullptr, &nLength), VCTK_E_NO_SIGNATURE);
    EXPECT_EQ(VCTK_GetP7SignResult(m_client.Handle(), nullptr, &nLength), VCTK_E_NO_SIGNATURE);
}

TEST_F(ErrorTest, SizeQuery) {
    ASSERT_EQ(VCTK_P1Sign(m_client.Handle(), "text", 0), 0);
    int nLength = 0;
    ASSERT_EQ(VCTK_GetP1SignResult(m_client.Handle(), nullptr, &nLength), 0);
    const int nNeeded = nLength;
    ASSERT_GT(nNeeded, 1);

    std::string strBuffer(static_cast<size_t>(nNeeded) + 8, '#');
    nLength = nNeeded - 1;
    EXPECT_EQ(VCTK_GetP1SignResult(m_client.Handle(), strBuffer.data(), &nLength), VCTK_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(nLength, nNeeded);
    EXPECT_EQ(strBuffer.find_first_not_of('#'), std::string::npos) << "nothing is written";

    nLength = INT_MIN;
    EXPECT_EQ(VCTK_GetP1SignResult(m_client.Handle(), strBuffer.data(), &nLength), VCTK_E_BUFFER_TOO_SMALL);

    nLength = nNeeded + 8;
    ASSERT_EQ(VCTK_GetP1SignResult(m_client.Handle(), strBuffer.data(), &nLength), 0);
    EXPECT_EQ(nLength, nNeeded);
    EXPECT_EQ(strBuffer[static_cast<size_t>(nNeeded) - 1], '\0');
    EXPECT_EQ(strBuffer.find('#'), static_cast<size_t>(nNeeded)) << "nothing is written behind the terminator";
    EXPECT_EQ(strBuffer.find('\0'), static_cast<size_t>(nNeeded) - 1);

    EXPECT_EQ(VCTK_GetP1SignResult(m_client.Handle(), strBuffer.data(), nullptr), VCTK_E_INVALID_ARGUMENT);
    EXPECT_EQ(VCTK_GetLastErrorMessage(m_client.Handle(), strBuffer.data(), nullptr), VCTK_E_INVALID_ARGUMENT);
}

TEST_F(ErrorTest, CallQueueHasOneNumber) {
    EXPECT_EQ(VCTK_CallQueueEnable(m_client.Handle(), 1, 1), VCTK_E_INVALID_ARGUMENT);
    EXPECT_EQ(VCTK_CallQueueEnable(m_client.Handle(), 0, 0), 0);
    EXPECT_EQ(VCTK_CallQueueEnable(m_client.Handle(), 0, 1), 0);
    EXPECT_TRUE(m_client.SignP1("text"));
}

}  // namespace
