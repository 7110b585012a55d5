#include "signing/StoreUri.h"

#include <gtest/gtest.h>

#include "signing/Failure.h"

namespace vextk {
namespace {

constexpr const char* kNone = nullptr;

struct Accepted {
    const char* pszText;
    const char* pszPath;
    const char* pszPin;
    const char* pszPinSource;
};

class StoreUriAccepted : public testing::TestWithParam<Accepted> {};

TEST_P(StoreUriAccepted, Parts) {
    const StoreUri uri = ParseStoreUri(GetParam().pszText);
    EXPECT_EQ(uri.kind, StoreUri::Kind::File);
    EXPECT_EQ(uri.strPath, GetParam().pszPath);
    ASSERT_EQ(uri.pin.has_value(), GetParam().pszPin != kNone);
    if (uri.pin) {
        EXPECT_EQ(uri.pin->View(), GetParam().pszPin);
    }
    ASSERT_EQ(uri.strPinSource.has_value(), GetParam().pszPinSource != kNone);
    if (uri.strPinSource) {
        EXPECT_EQ(*uri.strPinSource, GetParam().pszPinSource);
    }
}

INSTANTIATE_TEST_SUITE_P(File, StoreUriAccepted,
                         testing::Values(Accepted{"file:/k.p12", "/k.p12", kNone, kNone},
                                         Accepted{"FILE:/k.p12", "/k.p12", kNone, kNone},
                                         Accepted{"file:///d/k.p12", "/d/k.p12", kNone, kNone},
                                         Accepted{"file://localhost/k", "/k", kNone, kNone},
                                         Accepted{"file://LocalHost/k", "/k", kNone, kNone},
                                         Accepted{"file:/a%20b%2F%3f%23", "/a b/?#", kNone, kNone},
                                         Accepted{"file:/a b/\xE9\x8D\xB5", "/a b/\xE9\x8D\xB5", kNone, kNone},
                                         Accepted{"file:/k?pin-value=1234", "/k", "1234", kNone},
                                         Accepted{"file:/k?pin-value=", "/k", "", kNone},
                                         Accepted{"file:/k?pin-value=a%26b%25=?+", "/k", "a&b%=?+", kNone},
                                         Accepted{"file:/k?pin-source=file:/p", "/k", kNone, "/p"},
                                         Accepted{"file:/k?pin-source=file:///p%20q", "/k", kNone, "/p q"},
                                         Accepted{"file:/k?pin-source=/p", "/k", kNone, "/p"}));

TEST(StoreUri, Demo) {
    EXPECT_EQ(ParseStoreUri("demo:").kind, StoreUri::Kind::Demo);
    EXPECT_EQ(ParseStoreUri("Demo:").kind, StoreUri::Kind::Demo);
}

struct Refused {
    const char* pszText;
    VCTKError nError;
};

class StoreUriRefused : public testing::TestWithParam<Refused> {};

TEST_P(StoreUriRefused, WithoutQuotingWhatCouldBeSecret) {
    try {
        ParseStoreUri(GetParam().pszText);
        FAIL() << "accepted " << GetParam().pszText;
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.Number(), GetParam().nError);
        EXPECT_FALSE(failure.Detail().empty());
        EXPECT_EQ(failure.Detail().find("sEcReT"), std::string::npos) << failure.Detail();
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, StoreUriRefused,
    testing::Values(
        Refused{"", VCTK_E_URI_MALFORMED}, Refused{"/k.p12", VCTK_E_URI_MALFORMED}, Refused{":", VCTK_E_URI_MALFORMED},
        Refused{":/k", VCTK_E_URI_MALFORMED}, Refused{"1file:/k", VCTK_E_URI_MALFORMED},
        Refused{"fi le:/k", VCTK_E_URI_MALFORMED}, Refused{"demo:x", VCTK_E_URI_MALFORMED},
        Refused{"demo:?pin-value=sEcReT", VCTK_E_URI_MALFORMED}, Refused{"file:", VCTK_E_URI_MALFORMED},
        Refused{"file:k.p12", VCTK_E_URI_MALFORMED}, Refused{"file:/", VCTK_E_URI_MALFORMED},
        Refused{"file://host/k", VCTK_E_URI_MALFORMED}, Refused{"file://localhost", VCTK_E_URI_MALFORMED},
        Refused{"file:/k#f", VCTK_E_URI_MALFORMED}, Refused{"file:/k?pin-value=sEcReT#", VCTK_E_URI_MALFORMED},
        Refused{"file:/%", VCTK_E_URI_MALFORMED}, Refused{"file:/%4", VCTK_E_URI_MALFORMED},
        Refused{"file:/%4g", VCTK_E_URI_MALFORMED}, Refused{"file:/%00", VCTK_E_URI_MALFORMED},
        Refused{"file:/k?", VCTK_E_URI_MALFORMED}, Refused{"file:/k?sEcReT", VCTK_E_URI_MALFORMED},
        Refused{"file:/k?pin=sEcReT", VCTK_E_URI_MALFORMED}, Refused{"file:/k?pin-value=sEcReT&", VCTK_E_URI_MALFORMED},
        Refused{"file:/k?pin-value=sEcReT%0", VCTK_E_URI_MALFORMED},
        Refused{"file:/k?pin-value=sEcReT%00", VCTK_E_URI_MALFORMED},
        Refused{"file:/k?pin-value=sEcReT&pin-value=1", VCTK_E_URI_MALFORMED},
        Refused{"file:/k?pin-value=sEcReT&pin-source=file:/p", VCTK_E_URI_MALFORMED},
        Refused{"file:/k?pin-source=", VCTK_E_URI_MALFORMED}, Refused{"file:/k?pin-source=p", VCTK_E_URI_MALFORMED},
        Refused{"file:/k?pin-source=|cat", VCTK_E_URI_MALFORMED}, Refused{"http://host/sEcReT", VCTK_E_URI_SCHEME},
        Refused{"pkcs12:/k?pin-value=sEcReT", VCTK_E_URI_SCHEME}));

}  // namespace
}  // namespace vextk
