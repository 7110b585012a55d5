#include "signing/SecretText.h"

#include <gtest/gtest.h>

#include <string>

#include "Secret.h"
#include "SystemCalls.h"

namespace vextk {
namespace {

// Receives the texts that the thread wipes. Null: they are not recorded.
thread_local std::string* t_pWiped = nullptr;

// While it exists, collects the texts that the thread wipes, in order.
class Wiped {
public:
    Wiped() { t_pWiped = &m_strWiped; }
    ~Wiped() { t_pWiped = nullptr; }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;

    const std::string& Text() const { return m_strWiped; }

private:
    std::string m_strWiped;
};

// A text that moved would leave a copy behind that nobody wipes.
TEST(SecretText, DoesNotMoveWhileItGrowsToItsCapacity) {
    constexpr size_t kCapacity = 100;
    SecretText text(kCapacity);
    text.Append('x');
    const char* const pchText = text.Data();
    while (text.View().size() < kCapacity) {
        text.Append('x');
    }
    EXPECT_EQ(text.Data(), pchText);
}

TEST(SecretText, WipesTheEndThatIsCutOff) {
    SecretText text = Secret("12\n");
    const Wiped wiped;
    text.Truncate(2);
    EXPECT_EQ(text.View(), "12");
    EXPECT_EQ(wiped.Text(), "\n");
}

TEST(SecretText, IsWipedWhenDestroyed) {
    const Wiped wiped;
    { const SecretText text = Secret("1234"); }
    EXPECT_EQ(wiped.Text(), "1234");
}

TEST(SecretText, IsWipedByTheObjectThatItMovedTo) {
    const Wiped wiped;
    {
        SecretText text = Secret("old");
        text = Secret("new");
        EXPECT_EQ(wiped.Text(), "old");
    }
    EXPECT_EQ(wiped.Text(), "oldnew");
}

}  // namespace
}  // namespace vextk

// Intercepts OpenSSL's function and calls it.
void OPENSSL_cleanse(void* pData, size_t cbData) {
    static auto* const s_pNext = system_calls::Next(OPENSSL_cleanse, "OPENSSL_cleanse");
    if (vextk::t_pWiped != nullptr && cbData > 0) {
        vextk::t_pWiped->append(static_cast<const char*>(pData), cbData);
    }
    s_pNext(pData, cbData);
}
