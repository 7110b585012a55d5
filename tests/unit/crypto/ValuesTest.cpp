// Values of ASN.1 of odd kinds. Others are in the tests of those who use them.
#include "crypto/Values.h"

#include <gtest/gtest.h>

#include <string>

#include "crypto/Owned.h"

namespace vexcrypto {
namespace {

using NamePtr = std::unique_ptr<X509_NAME, Deleter<X509_NAME_free>>;

TEST(Values, ThatAreMissingOrEmpty) {
    EXPECT_FALSE(MomentOf(nullptr));
    const NamePtr name(X509_NAME_new());
    EXPECT_EQ(NameText(name.get()), "");
    EXPECT_EQ(DottedText(nullptr), "");
}

std::string TextOfNameWith(const ASN1_OBJECT* pType) {
    const NamePtr name(X509_NAME_new());
    EXPECT_EQ(X509_NAME_add_entry_by_OBJ(name.get(), pType, V_ASN1_UTF8STRING,
                                         reinterpret_cast<const unsigned char*>("a"), 1, -1, 0),
              1);
    return NameText(name.get()).value_or("none");
}

TEST(Names, ALongTypeIsShownWhole) {
    for (const std::size_t nArcs : {35, 40, 300, 580}) {
        std::string strType = "1.2";
        for (std::size_t i = 0; i < nArcs; ++i) {
            strType += ".3";
        }
        const ObjectPtr type(OBJ_txt2obj(strType.c_str(), 1));
        ASSERT_TRUE(type) << nArcs;
        EXPECT_EQ(DottedText(type.get()), strType);
        EXPECT_EQ(TextOfNameWith(type.get()), strType + "=#0C0161");
    }
}

// Names that a host has given OpenSSL.
TEST(Names, ATypeWithoutAShortNameIsShownAsItsOid) {
    ASSERT_NE(OBJ_create("1.2.3.4711.1", "shortName", "long name"), NID_undef);
    ASSERT_NE(OBJ_create("1.2.3.4711.2", nullptr, "another long name"), NID_undef);
    const ObjectPtr named(OBJ_txt2obj("1.2.3.4711.1", 1));
    const ObjectPtr unnamed(OBJ_txt2obj("1.2.3.4711.2", 1));
    EXPECT_EQ(TextOfNameWith(named.get()), "shortName=a");
    EXPECT_EQ(TextOfNameWith(unnamed.get()), "1.2.3.4711.2=#0C0161");
}

}  // namespace
}  // namespace vexcrypto
