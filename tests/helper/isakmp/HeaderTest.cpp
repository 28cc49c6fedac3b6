#include <gtest/gtest.h>

#include "helper/isakmp/Header.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

Header someHeader() {
  return {{{1, 2, 3, 4, 5, 6, 7, 8}, {9, 10, 11, 12, 13, 14, 15, 16}},
          PayloadType::hash,
          ExchangeType::quick,
          kFlagEncrypted,
          0xa1b2c3d4};
}

TEST(ISAKMPHeader, IsLaidOutAsOnTheWire) {
  EXPECT_EQ(hex(encodeHeader(someHeader(), 28)), "0102030405060708090a0b0c0d0e0f1008102001a1b2c3d40000001c");
}

TEST(ISAKMPHeader, ComesBackAsItWas) {
  for (const ExchangeType exchange :
       {ExchangeType::main, ExchangeType::aggressive, ExchangeType::informational, ExchangeType::quick}) {
    Header header = someHeader();
    header.exchange = exchange;
    const auto decoded = decodeHeader(encodeHeader(header, kHeaderSize));
    ASSERT_TRUE(decoded) << decoded.error().message;
    EXPECT_EQ(*decoded, header);
  }
}

struct Row {
  const char *reason;
  std::size_t at;
  std::uint8_t byte;
};

class WrongISAKMPHeader : public testing::TestWithParam<Row> {};

TEST_P(WrongISAKMPHeader, IsRefused) {
  Bytes bytes = encodeHeader(someHeader(), kHeaderSize);
  bytes[GetParam().at] = GetParam().byte;
  const auto decoded = decodeHeader(bytes);
  ASSERT_FALSE(decoded);
  EXPECT_EQ(decoded.error().message, GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(Each, WrongISAKMPHeader,
                         testing::Values(Row{"another version", 17, 0x20}, Row{"another version", 17, 0x11},
                                         Row{"an unknown exchange", 18, 6}, Row{"an unknown exchange", 18, 33},
                                         Row{"unknown flags", 19, 4}, Row{"unknown flags", 19, 8},
                                         Row{"unknown flags", 19, 0x80},
                                         Row{"a length that is not the datagram's", 27, 27},
                                         Row{"a length that is not the datagram's", 27, 29},
                                         Row{"a length that is not the datagram's", 24, 1}));

TEST(ISAKMPHeader, IsRefusedWhenCutOrOverlong) {
  const Bytes bytes = encodeHeader(someHeader(), kHeaderSize);
  for (std::size_t size = 0; size < bytes.size(); ++size)
    EXPECT_EQ(decodeHeader(View(bytes).first(size)).error().message, "shorter than a header") << size;
  Bytes longest = encodeHeader(someHeader(), kLongestMessage + 1);
  longest.resize(kLongestMessage);
  EXPECT_EQ(decodeHeader(longest).error().message, "a length that is not the datagram's");
  longest.resize(kLongestMessage + 1);
  EXPECT_EQ(decodeHeader(longest).error().message, "too long");
}

TEST(ISAKMPHeader, HasAnInitiator) {
  Header header = someHeader();
  header.cookies.initiator = {};
  EXPECT_EQ(decodeHeader(encodeHeader(header, kHeaderSize)).error().message, "no initiator cookie");
}

}  // namespace
}  // namespace helper::isakmp
