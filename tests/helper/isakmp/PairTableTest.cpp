#include <gtest/gtest.h>

#include "helper/isakmp/PairTable.h"

namespace helper::isakmp {
namespace {

using std::chrono::seconds;

Pair pair(PairID id, Instant expires) {
  return {id, 0xc1000000 + id, 0xcc000000 + id, expires - seconds(10), std::nullopt, expires};
}

TEST(PairTable, KeepsAReplacedPairForAWhile) {
  PairTable pairs;
  EXPECT_TRUE(pairs.empty());
  EXPECT_FALSE(pairs.nextEnd());
  EXPECT_FALSE(pairs.rekeyAt());
  pairs.add(pair(1, seconds(100)), {}, seconds(0));
  EXPECT_EQ(pairs.rekeyAt(), seconds(90));
  EXPECT_EQ(pairs.nextEnd(), seconds(100));
  pairs.add(pair(2, seconds(200)), {1}, seconds(50));
  EXPECT_EQ(pairs.rekeyAt(), seconds(190));
  EXPECT_EQ(pairs.nextEnd(), seconds(50));
  EXPECT_FALSE(pairs.ended(Instant(49999)));
  EXPECT_EQ(pairs.ended(seconds(50)), 1U);
  EXPECT_EQ(pairs.remove(1)->inboundSPI, 0xc1000001U);
  EXPECT_FALSE(pairs.remove(1));
  EXPECT_EQ(pairs.ids(), (std::vector<PairID>{2}));
}

// Two were agreed on at once: neither replaced the other.
TEST(PairTable, KeepsPairsOfOneTime) {
  PairTable pairs;
  pairs.add(pair(1, seconds(100)), {}, seconds(0));
  pairs.add(pair(2, seconds(200)), {1}, seconds(50));
  pairs.add(pair(3, seconds(201)), {1}, seconds(60));
  EXPECT_EQ(pairs.ended(seconds(50)), 1U);  // not later because of the second
  pairs.remove(1);
  EXPECT_EQ(pairs.nextEnd(), seconds(200));
  EXPECT_EQ(pairs.rekeyAt(), seconds(191));
  // Their successor ends both.
  pairs.add(pair(4, seconds(400)), {2, 3}, seconds(195));
  EXPECT_EQ(pairs.nextEnd(), seconds(195));
}

TEST(PairTable, EndsNoPairLaterThanItsLifetime) {
  PairTable pairs;
  pairs.add(pair(1, seconds(100)), {}, seconds(0));
  pairs.add(pair(2, seconds(200)), {1}, seconds(130));
  EXPECT_EQ(pairs.ended(seconds(100)), 1U);
}

TEST(PairTable, FindsAPairByEitherSPI) {
  PairTable pairs;
  pairs.add(pair(1, seconds(100)), {}, seconds(0));
  pairs.add(pair(2, seconds(200)), {}, seconds(0));
  EXPECT_EQ(pairs.find(0xc1000002), 2U);
  EXPECT_EQ(pairs.find(0xcc000001), 1U);
  EXPECT_FALSE(pairs.find(0xc1000003));
}

}  // namespace
}  // namespace helper::isakmp
