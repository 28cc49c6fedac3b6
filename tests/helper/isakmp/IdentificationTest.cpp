#include <gtest/gtest.h>

#include "helper/isakmp/Identification.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

struct Row {
  const char *text;
  std::uint8_t type;
  const char *data;
  const char *written = nullptr;  // where it differs
};

class IdentificationText : public testing::TestWithParam<Row> {};

TEST_P(IdentificationText, IsUnderstood) {
  const Row &row = GetParam();
  const auto identification = Identification::fromText(row.text);
  ASSERT_TRUE(identification);
  EXPECT_EQ(identification->type, row.type);
  EXPECT_EQ(hex(identification->data), row.data);
  EXPECT_EQ(identification->text(), row.written != nullptr ? row.written : row.text);
  const auto decoded = decodeIdentification(encode(*identification));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(*decoded, *identification);
}

INSTANTIATE_TEST_SUITE_P(Each, IdentificationText,
                         testing::Values(Row{"10.9.0.2", 1, "0a090002"}, Row{"255.255.255.255", 1, "ffffffff"},
                                         Row{"vpn.example.org", 2, "76706e2e6578616d706c652e6f7267"},
                                         Row{"10.9.0.256", 2, "31302e392e302e323536"}, Row{"10.9.0", 2, "31302e392e30"},
                                         Row{"10.9.0.2.", 2, "31302e392e302e322e"}, Row{"10..0.2", 2, "31302e2e302e32"},
                                         Row{"u@n", 3, "75406e"}, Row{"@group", 11, "67726f7570"},
                                         Row{"@a@b", 11, "614062"}, Row{"\x01", 2, "01", "?"}));

TEST(Identification, IsSomebody) {
  EXPECT_FALSE(Identification::fromText(""));
  EXPECT_FALSE(Identification::fromText("@"));
  EXPECT_TRUE(Identification::fromText(std::string(256, 'a')));
  EXPECT_FALSE(Identification::fromText(std::string(257, 'a')));
}

TEST(Identification, IsLaidOutAsOnTheWire) {
  EXPECT_EQ(hex(encode(Identification::of({10, 9, 0, 2}, 17, 1701))), "011106a50a090002");
}

TEST(Identification, IsTheSameNameWhateverThePort) {
  const auto first = Identification::of({10, 9, 0, 2});
  EXPECT_TRUE(first.sameName(Identification::of({10, 9, 0, 2}, 17, 500)));
  EXPECT_FALSE(first.sameName(Identification::of({10, 9, 0, 3})));
  // Equal bytes of another type, and a beginning of the other's.
  EXPECT_FALSE(first.sameName(Identification{Identification::keyID, 0, 0, {10, 9, 0, 2}}));
  EXPECT_FALSE(Identification::fromText("@ab")->sameName(*Identification::fromText("@abc")));
}

TEST(Identification, IsRefused) {
  const auto reason = [](const char *bytes) { return decodeIdentification(fromHex(bytes)).error().message; };
  EXPECT_EQ(reason("010000"), "an identification shorter than its fixed part");
  EXPECT_EQ(reason("0b000000"), "an identification of nobody");
  EXPECT_EQ(reason("01000000 0a0900"), "an address of the wrong length");
  EXPECT_EQ(reason("01000000 0a09000201"), "an address of the wrong length");
  Bytes bytes = fromHex("0b000000");
  bytes.resize(4 + 257);
  EXPECT_EQ(decodeIdentification(bytes).error().message, "an identification that is too long");
}

// What an identification of a kind that we do not know holds is nobody's address.
TEST(Identification, OfAnyOtherKindIsKept) {
  const auto subnet = decodeIdentification(fromHex("04000000 0a090000 ffffff00"));
  ASSERT_TRUE(subnet);
  EXPECT_FALSE(subnet->address());
  EXPECT_EQ(hex(encode(*subnet)), "040000000a090000ffffff00");
}

}  // namespace
}  // namespace helper::isakmp
