#include <gtest/gtest.h>

#include "helper/isakmp/SecurityAssociation.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

// AES-256 and SHA-1 in the group modp1024... as an initiator offers it, from another implementation.
constexpr const char *kOffer =
    "00000001 00000001 0000002c 01010001 00000024 01010000 80010007 800e0100 80020002 80040002 80030001 800b0001 "
    "800c0e10";

TEST(SecurityAssociation, IsReadAsOthersWriteIt) {
  const auto association = decodeSecurityAssociation(fromHex(kOffer));
  ASSERT_TRUE(association) << association.error().message;
  EXPECT_EQ(*association,
            (SecurityAssociation{{Proposal{
                1, 1, {}, {Transform{1, 1, {{1, 7}, {14, 256}, {2, 2}, {4, 2}, {3, 1}, {11, 1}, {12, 3600}}}}}}}));
  EXPECT_EQ(encode(*association), fromHex(kOffer));
}

TEST(SecurityAssociation, ComesBackAsItWas) {
  const SecurityAssociation association{
      {Proposal{1, 3, {1, 2, 3, 4}, {Transform{1, 12, {{4, 2}, {2, 86400}}}, Transform{2, 3, {}}}},
       Proposal{2, 1, sequence(1, 16), {Transform{1, 1, {{12, 0xffff}, {12, 0x10000}, {12, 0x123456789a}}}}}}};
  const auto decoded = decodeSecurityAssociation(encode(association));
  ASSERT_TRUE(decoded) << decoded.error().message;
  EXPECT_EQ(*decoded, association);
}

TEST(SecurityAssociation, HasNumbersInEitherForm) {
  for (const char *form : {"800c0e10", "000c0002 0e10", "000c0004 00000e10", "000c0008 0000000000000e10"}) {
    const auto attributes = decodeAttributes(fromHex(form));
    ASSERT_TRUE(attributes) << form;
    EXPECT_EQ(*attributes, (std::vector<Attribute>{{12, 3600}})) << form;
  }
}

TEST(SecurityAssociation, IsWholeOrRefused) {
  const Bytes bytes = fromHex(kOffer);
  for (std::size_t size = 0; size < bytes.size(); ++size)
    EXPECT_FALSE(decodeSecurityAssociation(View(bytes).first(size))) << size;
}

struct Row {
  const char *reason;
  const char *bytes;
};

class WrongSecurityAssociation : public testing::TestWithParam<Row> {};

TEST_P(WrongSecurityAssociation, IsRefused) {
  const auto association = decodeSecurityAssociation(fromHex(GetParam().bytes));
  ASSERT_FALSE(association);
  EXPECT_EQ(association.error().message, GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(
    Each, WrongSecurityAssociation,
    testing::Values(
        Row{"an association shorter than its fixed part", "00000001000000"},
        Row{"an association of another domain", "00000000 00000001 00000010 01010001 00000008 01010000"},
        Row{"an association in a strange situation", "00000001 00000003 00000010 01010001 00000008 01010000"},
        Row{"an association without a proposal", "00000001 00000001"},
        Row{"ends within a proposal", "00000001 00000001 00000008 010100"},
        Row{"the impossible length of a proposal", "00000001 00000001 00000007 01010001"},
        Row{"the impossible length of a proposal", "00000001 00000001 00000011 01010001 00000008 01010000"},
        Row{"a reserved byte that is not 0", "00000001 00000001 00010010 01010001 00000008 01010000"},
        Row{"what follows a proposal is none", "00000001 00000001 03000010 01010001 00000008 01010000"},
        Row{"the last proposal is not the last", "00000001 00000001 02000010 01010001 00000008 01010000"},
        Row{"the last proposal is not the last",
            "00000001 00000001 00000010 01010001 00000008 01010000 00000010 01010001 00000008 01010000"},
        Row{"an impossible number of transforms", "00000001 00000001 00000010 01010000 00000008 01010000"},
        Row{"an impossible number of transforms", "00000001 00000001 00000010 01010041 00000008 01010000"},
        Row{"an SPI of an impossible length", "00000001 00000001 00000010 01011101 00000008 01010000"},
        Row{"an SPI of an impossible length", "00000001 00000001 00000010 01010901 00000008 01010000"},
        Row{"ends within a transform", "00000001 00000001 00000010 01010401 00000008 01010000"},
        Row{"the impossible length of a transform", "00000001 00000001 00000010 01010001 00000007 01010000"},
        Row{"the impossible length of a transform", "00000001 00000001 00000010 01010001 00000009 01010000"},
        Row{"a reserved byte that is not 0", "00000001 00000001 00000010 01010001 00010008 01010000"},
        Row{"a reserved byte that is not 0", "00000001 00000001 00000010 01010001 00000008 01010001"},
        Row{"what follows a transform is none", "00000001 00000001 00000010 01010001 02000008 01010000"},
        Row{"the last transform is not the last", "00000001 00000001 00000010 01010001 03000008 01010000"},
        Row{"another number of transforms than it says", "00000001 00000001 00000010 01010002 00000008 01010000"},
        Row{"another number of transforms than it says",
            "00000001 00000001 00000018 01010001 03000008 01010000 00000008 02010000"},
        Row{"another number of transforms than it says", "00000001 00000001 00000008 01010001"},
        Row{"ends within an attribute", "00000001 00000001 00000013 01010001 0000000b 01010000 800100"},
        Row{"ends within an attribute", "00000001 00000001 00000014 01010001 0000000c 01010000 00010004"},
        Row{"ends within an attribute", "00000001 00000001 00000015 01010001 0000000d 01010000 0001ffff 00"},
        Row{"an attribute of a strange length", "00000001 00000001 00000014 01010001 0000000c 01010000 00010000"},
        Row{"an attribute of a strange length",
            "00000001 00000001 0000001d 01010001 00000015 01010000 00010009 000000000000000001"}));

TEST(SecurityAssociation, HasLimits) {
  SecurityAssociation association{{Proposal{1, 1, {}, {Transform{1, 1, {}}}}}};
  Transform &transform = association.proposals[0].transforms[0];
  transform.attributes.resize(16);
  EXPECT_TRUE(decodeSecurityAssociation(encode(association)));
  transform.attributes.resize(17);
  EXPECT_EQ(decodeSecurityAssociation(encode(association)).error().message, "too many attributes");
  transform.attributes.clear();
  association.proposals.resize(16, association.proposals[0]);
  EXPECT_TRUE(decodeSecurityAssociation(encode(association)));
  association.proposals.resize(17, association.proposals[0]);
  EXPECT_EQ(decodeSecurityAssociation(encode(association)).error().message, "too many proposals");
  association.proposals.resize(1);
  association.proposals[0].transforms.resize(64, Transform{1, 1, {}});
  EXPECT_TRUE(decodeSecurityAssociation(encode(association)));
}

}  // namespace
}  // namespace helper::isakmp
