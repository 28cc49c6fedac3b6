#include <gtest/gtest.h>

#include "helper/isakmp/Payloads.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

using enum PayloadType;
using Padding = PayloadChain::Padding;

PayloadWriter written(std::initializer_list<PayloadType> types) {
  PayloadWriter writer;
  for (const PayloadType type : types) writer.add(type, sequence(static_cast<unsigned>(type), 3));
  return writer;
}

TEST(Payloads, AreLaidOutAsOnTheWire) {
  PayloadWriter writer;
  writer.add(hash, fromHex("aabb"));
  writer.add(nonce, {});
  EXPECT_EQ(writer.first(), hash);
  EXPECT_EQ(hex(writer.bytes()), "0a000006aabb00000004");
}

TEST(Payloads, ComeBackAsTheyWere) {
  const PayloadWriter writer = written({hash, securityAssociation, nonce, keyExchange, identification, identification,
                                        natOriginalAddress, natOriginalAddressDraft, notification, notification});
  const auto chain = PayloadChain::decode(writer.first(), writer.bytes(), Padding::none);
  ASSERT_TRUE(chain) << chain.error().message;
  PayloadWriter again;
  for (const Payload &payload : chain->payloads()) again.add(payload.type, payload.body);
  EXPECT_EQ(again.bytes(), writer.bytes());
  EXPECT_TRUE(sameBytes(chain->bytes(), writer.bytes()));
  EXPECT_TRUE(sameBytes(chain->rest(), View(writer.bytes()).subspan(7)));
  EXPECT_EQ(chain->all(identification).size(), 2U);
  EXPECT_TRUE(sameBytes(*chain->find(nonce), sequence(10, 3)));
  EXPECT_FALSE(chain->find(deletion));
}

TEST(Payloads, MayBePaddedWithAnythingWhereTheyWereEncrypted) {
  const PayloadWriter writer = written({hash, deletion});
  Bytes padded = writer.bytes();
  append(padded, fromHex("ff00ff00ff"));
  EXPECT_EQ(PayloadChain::decode(hash, padded, Padding::none).error().message, "bytes after the last payload");
  const auto chain = PayloadChain::decode(hash, padded, Padding::allowed);
  ASSERT_TRUE(chain);
  EXPECT_TRUE(sameBytes(chain->bytes(), writer.bytes()));
  EXPECT_TRUE(sameBytes(chain->rest(), View(writer.bytes()).subspan(7)));
}

TEST(Payloads, AreWholeOrRefused) {
  const PayloadWriter writer = written({securityAssociation, vendorID, vendorID});
  for (std::size_t size = 0; size < writer.bytes().size(); ++size)
    EXPECT_FALSE(PayloadChain::decode(writer.first(), View(writer.bytes()).first(size), Padding::allowed)) << size;
}

struct Row {
  const char *reason;
  std::uint8_t first;
  const char *bytes;
};

class WrongPayloads : public testing::TestWithParam<Row> {};

TEST_P(WrongPayloads, AreRefused) {
  const Bytes bytes = fromHex(GetParam().bytes);
  for (const Padding padding : {Padding::none, Padding::allowed}) {
    const auto chain = PayloadChain::decode(static_cast<PayloadType>(GetParam().first), bytes, padding);
    ASSERT_FALSE(chain);
    EXPECT_EQ(chain.error().message, GetParam().reason);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Each, WrongPayloads,
    testing::Values(Row{"no payload", 0, ""}, Row{"no payload", 0, "00000004"}, Row{"ends before a payload", 13, ""},
                    Row{"ends before a payload", 13, "000000"}, Row{"ends before a payload", 13, "0d000004"},
                    Row{"a payload with an impossible length", 13, "00000000"},
                    Row{"a payload with an impossible length", 13, "00000003"},
                    Row{"a payload with an impossible length", 13, "00000005"},
                    Row{"a payload with an impossible length", 13, "0000ffff00"},
                    Row{"a reserved byte that is not 0", 13, "00010004"},
                    Row{"unknown payload type 2", 2, "00000004"},      // a proposal stands inside of an association
                    Row{"unknown payload type 14", 14, "00000004"},    // mode configuration
                    Row{"unknown payload type 33", 33, "00000004"},    // of the other version of IKE
                    Row{"unknown payload type 132", 132, "00000004"},  // a fragment
                    Row{"unknown payload type 255", 13, "ff00000400000004"},
                    Row{"twice payload type 1", 1, "0100000400000004"},
                    Row{"twice payload type 4", 4, "0400000400000004"},
                    Row{"twice payload type 8", 8, "0800000400000004"},
                    Row{"twice payload type 10", 10, "0d0000040a00000400000004"},
                    Row{"twice payload type 12", 12, "0c00000400000004"}));

TEST(Payloads, AreNotTooMany) {
  PayloadWriter writer;
  for (std::size_t i = 0; i < PayloadChain::kMost; ++i) writer.add(vendorID, {});
  EXPECT_TRUE(PayloadChain::decode(vendorID, writer.bytes(), Padding::none));
  writer.add(vendorID, {});
  EXPECT_EQ(PayloadChain::decode(vendorID, writer.bytes(), Padding::none).error().message, "too many payloads");
}

TEST(Payloads, AreThoseThatAnExchangeExpects) {
  const PayloadWriter writer = written({hash, nonce, vendorID});
  const auto chain = PayloadChain::decode(hash, writer.bytes(), Padding::none);
  EXPECT_TRUE(chain->expect({hash, nonce}, {vendorID, notification}));
  EXPECT_EQ(chain->expect({hash, nonce, keyExchange}, {vendorID}).error().message, "without payload type 4");
  EXPECT_EQ(chain->expect({hash}, {vendorID}).error().message, "unexpected payload type 10");
}

}  // namespace
}  // namespace helper::isakmp
