#include "vexsign/StoreText.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <utility>

namespace vexsign {
namespace {

TEST(StoreText, AsksForTheChainOnce) {
    const struct {
        const char* pszStore;
        const char* pszSource;
        const char* pszExpected;
    } rows[] = {
        {"demo:", "", "demo:?chain=store"},
        {"file:/a?pin-value=1", "", "file:/a?pin-value=1&chain=store"},
        {"file:/a", "/b c", "file:/a?chain=store&chain-source=file:/b%20c"},
        {"file:/a?chain=store", "", "file:/a?chain=store"},
        {"file:/a?chain=root&pin-value=1", "", "file:/a?chain=root&pin-value=1"},
        {"file:/a?chain=root", "/b", "file:/a?chain=root&chain-source=file:/b"},
        {"file:/a?chain-source=/b", "", "file:/a?chain-source=/b&chain=store"},
        {"pkcs11:token=chain=1?pin-value=chain=", "", "pkcs11:token=chain=1?pin-value=chain=&chain=store"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(WithChain(row.pszStore, row.pszSource), row.pszExpected);
    }
}

TEST(StoreText, AsksForTimeStampsInOrder) {
    const TimeStamps none;
    EXPECT_EQ(WithTimeStamps("demo:", none), "demo:");
    TimeStamps one;
    one.authorities = {"http://tsa.example/a?b=c&d"};
    EXPECT_EQ(WithTimeStamps("demo:", one), "demo:?tsa=http%3A//tsa.example/a%3Fb%3Dc%26d&tsa-timeout=10000");
    const TimeStamps all = {{"http://a:1/", "http://b/"}, "SHA512", "1.2.3", 5, "/r t.pem"};
    EXPECT_EQ(WithTimeStamps("file:/a?pin-value=1", all),
              "file:/a?pin-value=1&tsa=http%3A//a%3A1/&tsa=http%3A//b/&tsa-timeout=5&tsa-digest=SHA512"
              "&tsa-policy=1.2.3&tsa-ca=file:/r%20t.pem");
}

TEST(StoreText, KeepsWhatAPathMeans) {
    const std::string strHere = "file:" + std::filesystem::current_path().string();
    const std::pair<std::string, std::string> rows[] = {
        {"/a", "file:/a"},
        {"//a//b", "file:/a/b"},
        {"/a/./b/./", "file:/a/b/"},
        {"/a/.", "file:/a/"},
        {"/link/../a", "file:/link/../a"},
        {"./a", strHere + "/a"},
        {"./link/../a", strHere + "/link/../a"},
        {"../a", strHere + "/../a"},
        {"a", "a"},
        {"file:/link/../a", "file:/link/../a"},
    };
    for (const auto& [strPath, strStore] : rows) {
        EXPECT_EQ(StoreOf(strPath), strStore);
    }
    EXPECT_EQ(WithPinSource("demo:", "link/../a"), "demo:?pin-source=" + strHere + "/link/../a");
    EXPECT_EQ(WithChain("demo:", "link/../a"), "demo:?chain=store&chain-source=" + strHere + "/link/../a");
    TimeStamps stamps;
    stamps.authorities = {"http://a/"};
    stamps.strTrusted = "link/../a";
    EXPECT_TRUE(WithTimeStamps("demo:", stamps).ends_with("&tsa-ca=" + strHere + "/link/../a"));
}

TEST(StoreText, NamesItsFiles) {
    using Files = std::vector<std::string>;
    EXPECT_EQ(FilesOf("file:/a%20b?pin-source=file:/pin&list=all&chain-source=/c"), (Files{"/a b", "/pin", "/c"}));
    EXPECT_EQ(FilesOf("file:/a?tsa=http%3A//t/&tsa-ca=file:/t%20a"), (Files{"/a", "/t a"}));
    EXPECT_EQ(FilesOf("pkcs11:token=x?module-path=/m"), Files{"/m"});
    EXPECT_EQ(FilesOf("FILE:///a?"), Files{"/a"});
    EXPECT_EQ(FilesOf("whatever it takes"), Files{});
    EXPECT_EQ(PinFilesOf("file:/a?pin-source=file:/p%20n&chain-source=/c"), Files{"/p n"});
    EXPECT_EQ(PinFilesOf("file:/pin-source=/a?pin-value=1"), Files{});
}

// Sets a variable of the environment for a test; null removes it.
class Variable {
public:
    Variable(const char* pszName, const char* pszValue) : m_pszName(pszName) {
        const char* const pszOld = std::getenv(pszName);
        m_old = pszOld == nullptr ? std::nullopt : std::optional<std::string>(pszOld);
        Set(pszValue);
    }
    ~Variable() { Set(m_old ? m_old->c_str() : nullptr); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    void Set(const char* pszValue) const { pszValue == nullptr ? unsetenv(m_pszName) : setenv(m_pszName, pszValue, 1); }

    const char* m_pszName;
    std::optional<std::string> m_old;
};

TEST(StoreText, FindsTheDemoStoreAsTheToolkitDoes) {
    const std::string strAccount = getpwuid(geteuid())->pw_dir;
    const struct {
        const char* pszData;
        const char* pszHome;
        std::string strDirectory;
    } rows[] = {
        {"/data", "/home", "/data"},
        {nullptr, "/home", "/home/.local/share"},
        {"", "/home", "/home/.local/share"},
        {"data", "/home", "/home/.local/share"},
        {nullptr, nullptr, strAccount + "/.local/share"},
        {nullptr, "home", strAccount + "/.local/share"},
    };
    for (const auto& row : rows) {
        const Variable data("XDG_DATA_HOME", row.pszData);
        const Variable home("HOME", row.pszHome);
        EXPECT_EQ(FilesOf("demo:?list=all"),
                  std::vector<std::string>{row.strDirectory + "/vex-client-toolkit/demo.pem"});
    }
}

TEST(StoreText, KnowsANameThatMayBeAFiles) {
    for (const char* const pszText : {"keys.p12", "folder/keys.p12", "letter", "~/keys.p12", "..keys"}) {
        EXPECT_TRUE(LacksScheme(pszText)) << pszText;
    }
    for (const char* const pszText : {"demo:", "file:/a", "./keys.p12", "../keys.p12", "/keys.p12", "FILE:x"}) {
        EXPECT_FALSE(LacksScheme(pszText)) << pszText;
    }
}

}  // namespace
}  // namespace vexsign
