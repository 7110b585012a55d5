// Whom the server serves.
#include "AllowedUsers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "Row.h"

namespace {

using vexfiled::AllowedUsers;
using vexfiled::FindUser;

struct Name : Row {
    std::string strUser;
    std::optional<uid_t> expected;
};

class UserNames : public testing::TestWithParam<Name> {};

TEST_P(UserNames, AreNamesOrNumbers) {
    EXPECT_EQ(FindUser(GetParam().strUser), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    All, UserNames,
    testing::Values(Name{{"Root"}, "root", 0}, Name{{"Zero"}, "0", 0}, Name{{"Number"}, "65534", 65534},
                    Name{{"NumberWithoutName"}, "4294967294", 4294967294}, Name{{"NoUser"}, "4294967295", std::nullopt},
                    Name{{"TooLarge"}, "4294967296", std::nullopt}, Name{{"Empty"}, "", std::nullopt},
                    Name{{"Negative"}, "-1", std::nullopt}, Name{{"Signed"}, "+1", std::nullopt},
                    Name{{"NumberAndMore"}, "0x", std::nullopt}, Name{{"Unknown"}, "nobody at all", std::nullopt}),
    RowName);

TEST(AllowedUsers, ItsOwnUserAndRootAlways) {
    const AllowedUsers users({});
    EXPECT_TRUE(users.Contains(geteuid()));
    EXPECT_TRUE(users.Contains(0));
    EXPECT_FALSE(users.Contains(geteuid() + 4711));
}

TEST(AllowedUsers, AndTheGivenOnes) {
    AllowedUsers users({"4711", "root", "4713"});
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(users.Contains(4711));
        EXPECT_FALSE(users.Contains(4712));
        EXPECT_TRUE(users.Contains(4713));
        users.LookUp();
    }
    EXPECT_THAT(users.Text(), testing::EndsWith(", user 4711, user root (0), user 4713"));
}

TEST(AllowedUsers, RefusesAnUnknownName) {
    EXPECT_THROW(AllowedUsers({"0", "nobody at all"}), std::runtime_error);
}

}  // namespace
