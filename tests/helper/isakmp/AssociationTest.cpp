#include <gtest/gtest.h>

#include "helper/isakmp/Association.h"
#include "tests/helper/isakmp/CountingRandomness.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// The same byte, always.
class ConstantRandomness : public Randomness {
 public:
  explicit ConstantRandomness(std::uint8_t byte) : byte_(byte) {}
  void fill(std::span<std::uint8_t> bytes) override {
    for (std::uint8_t &byte : bytes) byte = byte_;
  }

 private:
  std::uint8_t byte_;
};

TEST(TimeToRekey, IsBeforeTheEndAndNotAlwaysTheSame) {
  struct Row {
    seconds lifetime;
    milliseconds latest;
    milliseconds earliest;
  };
  ConstantRandomness least(0);
  ConstantRandomness most(0xff);
  for (const Row &row : {Row{seconds(3600), seconds(3240), seconds(3060)},
                         // A minute is left for a server that answers late.
                         Row{seconds(400), seconds(340), seconds(340)}, Row{seconds(1000), seconds(900), seconds(850)},
                         Row{seconds(120), seconds(90), seconds(90)}, Row{seconds(60), seconds(45), seconds(45)},
                         Row{seconds(10), milliseconds(7500), milliseconds(7500)}}) {
    EXPECT_EQ(timeToRekey(row.lifetime, least), row.latest) << row.lifetime.count();
    EXPECT_EQ(timeToRekey(row.lifetime, most), row.earliest) << row.lifetime.count();
  }
}

TEST(AgreedLifetime, IsTheShorterButNotTooShort) {
  EXPECT_EQ(agreedLifetime(seconds(3600), std::nullopt), seconds(3600));
  EXPECT_EQ(agreedLifetime(seconds(3600), seconds(600)), seconds(600));
  EXPECT_EQ(agreedLifetime(seconds(3600), seconds(7200)), seconds(3600));
  EXPECT_EQ(agreedLifetime(seconds(3600), seconds(0)), seconds(120));
  EXPECT_EQ(agreedLifetime(seconds(60), seconds(1)), seconds(60));  // our own wish
}

Association::Terms someTerms(NATTraversal version, bool encapsulated) {
  Association::Terms terms;
  terms.cookies = {{1, 2, 3, 4, 5, 6, 7, 8}, {9, 10, 11, 12, 13, 14, 15, 16}};
  terms.keys.authentication = vpnctl::Secret("authentication");
  terms.keys.encryption = vpnctl::Secret::ofSize(32);
  terms.lastBlock = sequence(0, 16);
  terms.extensions.natTraversal = version;
  terms.encapsulated = encapsulated;
  terms.lifetime = seconds(1000);
  return terms;
}

TEST(Association, HasAMode) {
  CountingRandomness random;
  EXPECT_EQ(Association(someTerms(NATTraversal::rfc3947, false), {}, random).mode(), 2);
  EXPECT_EQ(Association(someTerms(NATTraversal::rfc3947, true), {}, random).mode(), 4);
  EXPECT_EQ(Association(someTerms(NATTraversal::draft02, true), {}, random).mode(), 61444);
  EXPECT_EQ(Association(someTerms(NATTraversal::draft03, true), {}, random).mode(), 61444);
}

TEST(Association, UsesAMessageIDOnce) {
  CountingRandomness random;
  Association association(someTerms(NATTraversal::none, false), seconds(5), random);
  EXPECT_EQ(association.expires(), seconds(1005));
  EXPECT_FALSE(association.takeMessageID(0));
  EXPECT_TRUE(association.takeMessageID(7));
  EXPECT_FALSE(association.takeMessageID(7));
  // The peer may not come with one of ours, nor we with one of its.
  CountingRandomness ours(5);
  const std::uint32_t chosen = association.chooseMessageID(ours);
  EXPECT_FALSE(association.takeMessageID(chosen));
  CountingRandomness same(5);
  EXPECT_NE(association.chooseMessageID(same), chosen);
}

TEST(Association, SaysThingsThatOnlyItCanHaveSaid) {
  CountingRandomness random;
  Association association(someTerms(NATTraversal::none, false), {}, random);
  const Bytes message = association.tell(random, association.farewell());
  const auto header = decodeHeader(message);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->exchange, ExchangeType::informational);
  EXPECT_EQ(header->flags, kFlagEncrypted);
  EXPECT_NE(header->messageID, 0U);
  const auto opened = openSealed(*header, message, association.cipher(), association.keys().encryption,
                                 association.ivFor(header->messageID));
  ASSERT_TRUE(opened);
  EXPECT_EQ(hex(opened->chain.payloads()[0].body),
            hex(hash1(association.hash(), association.keys(), header->messageID, opened->chain.rest())));
  const auto deletion = decodeDeletion(*opened->chain.find(PayloadType::deletion));
  ASSERT_TRUE(deletion);
  EXPECT_EQ(*deletion, (Deletion{kProtocolISAKMP, {sequence(1, 16)}}));
  // And never the same twice.
  EXPECT_NE(association.tell(random, association.farewell()), message);
}

}  // namespace
}  // namespace helper::isakmp
