// Why a store cannot be opened: the message names the file or directory, and never the PIN.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

#include "OpenErrors.h"
#include "TestStore.h"

namespace {

class OpenErrorTest : public testing::TestWithParam<OpenError> {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        MakeIdentity(*s_pDirectory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
        MakePkcs12Store(*s_pDirectory, "ec");
        MakeExpiredCertificate(s_pDirectory->Path(), "ec.key", "old");
        RequireCommand(
            "cd " + s_pDirectory->Path() +
            " && mkdir directory && : >empty && printf none >other && head -c 17000000 /dev/zero >large"
            " && cp other \"$(printf 'a\\033[2J\\nb\\377\\342\\200\\256')\" && cp old.crt '\xC3\x96 old.crt'");
    }
    static void TearDownTestSuite() { delete s_pDirectory; }

    // Replaces "@" by the directory.
    static std::string Expand(std::string strText) {
        for (size_t n = strText.find('@'); n != std::string::npos; n = strText.find('@')) {
            strText.replace(n, 1, s_pDirectory->Path());
        }
        return strText;
    }

    inline static TempDirectory* s_pDirectory = nullptr;
};

TEST_P(OpenErrorTest, NamesTheThingAndNoPin) {
    ExpectOpenError(GetParam(), Expand(GetParam().strUri), Expand(GetParam().strText));
}

const std::string kPin = std::string("pin-value=") + kUnusedPinInUri;

const OpenError kErrors[] = {
    {{"Missing"}, VCTK_E_STORE_NOT_FOUND, "file:@/none.p12?" + kPin, "@/none.p12: No such file or directory"},
    {{"BelowAFile"}, VCTK_E_STORE_NOT_FOUND, "file:@/other/k?" + kPin, "@/other/k: Not a directory"},
    {{"Directory"}, VCTK_E_STORE_UNREADABLE, "file:@/directory", "@/directory: Is a directory"},
    {{"TooLarge"}, VCTK_E_STORE_UNREADABLE, "file:@/large?" + kPin, "@/large: File too large"},
    {{"Empty"}, VCTK_E_STORE_FORMAT, "file:@/empty?" + kPin, "@/empty: it is empty"},
    {{"OtherFormat"}, VCTK_E_STORE_FORMAT, "file:@/other", "@/other: it is neither PKCS #12 nor PEM"},
    {{"HostileName"},
     VCTK_E_STORE_FORMAT,
     "file:@/a%1B[2J%0Ab%FF%E2%80%AE",
     "@/a\\x1b[2J\\nb\\xff\\u{202e}: it is neither PKCS #12 nor PEM"},
    {{"NoKey"},
     VCTK_E_STORE_NO_PRIVATE_KEY,
     "file:@/%C3%96%20old.crt?" + kPin,
     "@/\xC3\x96 old.crt: 1 passed over: 1 without a private key"},
    {{"PinMissing"}, VCTK_E_PIN_REQUIRED, "file:@/ec.p12", "@/ec.p12"},
    {{"PinWrong"}, VCTK_E_PIN_WRONG, "file:@/ec.p12?" + kPin, "@/ec.p12"},
    {{"PinFileMissing"}, VCTK_E_PIN_SOURCE, "file:@/ec.p12?pin-source=@/pin", "@/pin: No such file or directory"},
    {{"PinFileEmpty"}, VCTK_E_PIN_SOURCE, "file:@/ec.p12?pin-source=file:@/empty", "@/empty: it is empty"},
    {{"PinFileADirectory"}, VCTK_E_PIN_SOURCE, "file:@/ec.p12?pin-source=@/directory", "@/directory: Is a directory"},
    {{"ChainSourceMissing"},
     VCTK_E_STORE_NOT_FOUND,
     "file:@/ec.p12?pin-value=1234&chain=root&chain-source=@/none.pem",
     "chain-source: @/none.pem: No such file or directory"},
    {{"ChainSourceFormat"},
     VCTK_E_STORE_FORMAT,
     "file:@/ec.p12?pin-value=1234&chain=root&chain-source=@/other",
     "chain-source: @/other: it is neither PKCS #12 nor PEM"},
    {{"ChainSourceEncrypted"},
     VCTK_E_STORE_FORMAT,
     "file:@/ec.p12?pin-value=1234&chain=root&chain-source=@/ec.p12",
     "chain-source: @/ec.p12: a part of it is encrypted; use a file with certificates alone"},
};

INSTANTIATE_TEST_SUITE_P(Files, OpenErrorTest, testing::ValuesIn(kErrors), RowName);

class DemoErrorTest : public testing::Test {
protected:
    void SetUp() override { unsetenv("XDG_DATA_HOME"); }
    void TearDown() override { unsetenv("XDG_DATA_HOME"); }

    TempDirectory m_directory;
};

TEST_F(DemoErrorTest, NamesTheDirectoryAndTheReason) {
    const std::string strFile = m_directory.Write("file", "");
    setenv("XDG_DATA_HOME", strFile.c_str(), 1);
    const OpenError error{{"Demo"}, VCTK_E_DEMO_STORE, "demo:", {}};
    ExpectOpenError(error, "demo:", strFile + "/vex-client-toolkit: Not a directory");
    RequireCommand("cd " + m_directory.Path() + " && mkdir data && ln -s /tmp data/vex-client-toolkit");
    setenv("XDG_DATA_HOME", m_directory.Path("data").c_str(), 1);
    ExpectOpenError(error, "demo:", "..." + m_directory.Path("data/vex-client-toolkit") + ": Not a directory");
}

// The tests of tokens have the other numbers.
TEST(OpenErrors, EachNumberOfAStoreInAFileHasARow) {
    std::set<int> numbers{VCTK_E_URI_MALFORMED, VCTK_E_URI_SCHEME, VCTK_E_DEMO_STORE};  // the first two give no handle
    for (const OpenError& error : kErrors) {
        numbers.insert(error.nError);
    }
    for (const VCTKErrorEntry& entry : g_aVCTKErrors) {
        if (entry.nNumber > 1100 && entry.nNumber <= VCTK_E_DEMO_STORE) {
            EXPECT_TRUE(numbers.contains(entry.nNumber)) << entry.nNumber;
        }
    }
}

}  // namespace
