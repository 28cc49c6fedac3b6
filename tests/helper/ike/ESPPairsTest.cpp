#include <gtest/gtest.h>

#include <functional>

#include "helper/common/IPv4Address.h"
#include "helper/ike/ESPPairs.h"
#include "tests/helper/ike/RecordingStates.h"

using namespace helper;
using helper::testing::KernelRecord;
using helper::testing::RecordingStates;
using isakmp::Direction;
using isakmp::InstallState;
using isakmp::NeedSPI;
using isakmp::RemoveStates;
using std::chrono::seconds;
using vpnctl::Secret;

namespace {

constexpr std::uint32_t kTheirs = 0xaabbccdd;

class ESPPairsTest : public ::testing::Test {
 protected:
  ESPPairsTest() : pairs(make(false)) {}

  std::unique_ptr<ESPPairs> make(bool encapsulated) {
    return std::make_unique<ESPPairs>(std::make_unique<RecordingStates>(record),
                                      ESPPairs::Terms{*addressFrom("10.0.0.2"), *addressFrom("192.0.2.1"), 40000,
                                                      isakmp::fewESPProposals(), encapsulated, seconds(3600)});
  }
  InstallState keys(Direction direction) const {
    return {1,
            direction,
            direction == Direction::inbound ? 0xc0000001 : kTheirs,
            isakmp::fewESPProposals().front(),
            Secret::ofSize(32),
            Secret::ofSize(20),
            true,
            seconds(3600)};
  }
  void comeUp() {
    ASSERT_TRUE(pairs->allocate({1}));
    ASSERT_TRUE(pairs->install(keys(Direction::inbound)));
    ASSERT_TRUE(pairs->install(keys(Direction::outbound)));
  }
  // Nothing reaches the kernel.
  void expectForbidden(const InstallState &state, const std::string &what) {
    const auto before = record.calls;
    const auto order = pairs->install(state);
    ASSERT_FALSE(order) << what;
    EXPECT_EQ(order.error().message, what);
    EXPECT_EQ(record.calls, before);
  }

  KernelRecord record;
  std::unique_ptr<ESPPairs> pairs;
};

TEST_F(ESPPairsTest, GivesTheKernelBothHalves) {
  const auto allocated = pairs->allocate({1});
  ASSERT_TRUE(allocated);
  EXPECT_EQ(std::get<IKEAllocated>(*allocated).spi, 0xc0000001U);
  EXPECT_FALSE(pairs->anyStands());
  const auto inbound = pairs->install(keys(Direction::inbound));
  ASSERT_TRUE(inbound);
  EXPECT_EQ(std::get<IKEInstalled>(*inbound).direction, Direction::inbound);
  EXPECT_FALSE(pairs->stands(1));
  ASSERT_TRUE(pairs->install(keys(Direction::outbound)));
  EXPECT_TRUE(pairs->stands(1));
  EXPECT_TRUE(pairs->anyStands());
  EXPECT_EQ(record.calls, (std::vector<std::string>{"allocate from 192.0.2.1", "install in", "install out"}));
  const ESPState &in = record.installed.at(0);
  EXPECT_EQ(textOf(in.source), "192.0.2.1");
  EXPECT_EQ(textOf(in.destination), "10.0.0.2");
  EXPECT_EQ(in.encapsulation->source, 4500);
  EXPECT_EQ(in.encapsulation->destination, 40000);
  const ESPState &out = record.installed.at(1);
  EXPECT_EQ(textOf(out.source), "10.0.0.2");
  EXPECT_EQ(out.spi, kTheirs);
  EXPECT_EQ(out.encapsulation->source, 40000);
  EXPECT_EQ(out.encapsulation->destination, 4500);
}

TEST_F(ESPPairsTest, RemovesWhatIsSentByFirst) {
  comeUp();
  ASSERT_TRUE(pairs->remove({1, 0xc0000001, kTheirs}));
  EXPECT_EQ(record.calls.at(3), "remove " + std::to_string(kTheirs) + " to 192.0.2.1");
  EXPECT_EQ(record.calls.at(4), "remove " + std::to_string(0xc0000001U) + " to 10.0.0.2");
  EXPECT_FALSE(pairs->anyStands());
  EXPECT_TRUE(pairs->remove({1, 0xc0000001, kTheirs})) << "the second time nothing is left to do";
  EXPECT_EQ(record.calls.size(), 5U);
}

TEST_F(ESPPairsTest, TellsWhatTheKernelRefuses) {
  record.refuses = true;
  const auto spi = pairs->allocate({1});
  ASSERT_TRUE(spi);
  EXPECT_EQ(std::get<IKENotInstalled>(*spi).pair, 1U);
  EXPECT_EQ(pairs->refusal(), "the kernel has no room");
  record.refuses = false;
  ASSERT_TRUE(pairs->allocate({1}));
  record.refuses = true;
  const auto installed = pairs->install(keys(Direction::inbound));
  ASSERT_TRUE(installed);
  EXPECT_TRUE(std::holds_alternative<IKENotInstalled>(*installed));
}

TEST_F(ESPPairsTest, OnlyForAPairThatHasAnSPI) {
  expectForbidden(keys(Direction::inbound), "keys for a pair without an SPI");
  ASSERT_TRUE(pairs->allocate({1}));
  EXPECT_EQ(pairs->allocate({1}).error().message, "an SPI for a pair that has one");
  expectForbidden(keys(Direction::outbound), "outbound keys before inbound ones");
}

struct Change {
  const char *name;
  Direction direction;
  const char *objection;
  void (*change)(InstallState &);
};

class ForbiddenKeys : public ESPPairsTest, public ::testing::WithParamInterface<Change> {};

TEST_P(ForbiddenKeys, DoNotReachTheKernel) {
  ASSERT_TRUE(pairs->allocate({1}));
  if (GetParam().direction == Direction::outbound) ASSERT_TRUE(pairs->install(keys(Direction::inbound)));
  InstallState state = keys(GetParam().direction);
  GetParam().change(state);
  expectForbidden(state, GetParam().objection);
}

INSTANTIATE_TEST_SUITE_P(
    ESPPairs, ForbiddenKeys,
    ::testing::Values(Change{"foreignAlgorithms", Direction::inbound, "keys for algorithms that were not offered",
                             [](InstallState &state) { state.algorithms.integrity = isakmp::HashAlgorithm::md5; }},
                      Change{"anotherGroup", Direction::inbound, "keys for algorithms that were not offered",
                             [](InstallState &state) { state.algorithms.group = isakmp::Group::modp1024; }},
                      Change{"aShortKey", Direction::inbound, "keys of a wrong size",
                             [](InstallState &state) { state.cipherKey = Secret::ofSize(16); }},
                      Change{"aLongProof", Direction::inbound, "keys of a wrong size",
                             [](InstallState &state) { state.integrityKey = Secret::ofSize(32); }},
                      Change{"aForeignSPI", Direction::inbound, "another SPI than the one that it got",
                             [](InstallState &state) { ++state.spi; }},
                      Change{"noTime", Direction::inbound, "keys for a time that was not offered",
                             [](InstallState &state) { state.lifetime = seconds(0); }},
                      Change{"tooLong", Direction::inbound, "keys for a time that was not offered",
                             [](InstallState &state) { state.lifetime = seconds(3601); }},
                      Change{"aSmallSPI", Direction::outbound, "an SPI that cannot be",
                             [](InstallState &state) { state.spi = 255; }},
                      Change{"otherAlgorithms", Direction::outbound, "a pair whose halves differ",
                             [](InstallState &state) {
                               state.algorithms.cipher = isakmp::CipherAlgorithm::aes128;
                               state.cipherKey = Secret::ofSize(16);
                             }},
                      Change{"anotherWay", Direction::outbound, "a pair whose halves differ",
                             [](InstallState &state) { state.encapsulated = false; }}),
    [](const auto &test) { return test.param.name; });

TEST_F(ESPPairsTest, NothingTwice) {
  comeUp();
  expectForbidden(keys(Direction::inbound), "inbound keys for the second time");
  expectForbidden(keys(Direction::outbound), "outbound keys for the second time");
}

TEST_F(ESPPairsTest, InsideUDPWhereThatWasOrdered) {
  pairs = make(true);
  ASSERT_TRUE(pairs->allocate({1}));
  InstallState state = keys(Direction::inbound);
  state.encapsulated = false;
  expectForbidden(state, "ESP that is not inside UDP");
}

TEST_F(ESPPairsTest, OnlyAsManyAsAreNeeded) {
  for (isakmp::PairID pair = 1; pair <= 16; ++pair) ASSERT_TRUE(pairs->allocate({pair}));
  EXPECT_EQ(pairs->allocate({17}).error().message, "an SPI for one pair too many");
  ASSERT_TRUE(pairs->remove({1, 0xc0000001, 0}));
  EXPECT_TRUE(pairs->allocate({17}));
}

TEST_F(ESPPairsTest, RemovesNobodyElses) {
  comeUp();
  EXPECT_FALSE(pairs->remove({1, 0xc0000002, kTheirs}));
  EXPECT_FALSE(pairs->remove({1, 0xc0000001, kTheirs + 1}));
  EXPECT_EQ(record.calls.size(), 3U);
}

TEST_F(ESPPairsTest, MissesEachHalfThatIsTakenAway) {
  const in_addr ours = *addressFrom("10.0.0.2");
  const in_addr server = *addressFrom("192.0.2.1");
  const auto removed = [](in_addr destination, std::uint32_t spi) {
    return ESPStateWatch::News{{{destination, spi}}, false};
  };
  ASSERT_TRUE(pairs->allocate({1}));
  EXPECT_FALSE(pairs->misses(removed(ours, 0xc0000001))) << "it can be made once more";
  ASSERT_TRUE(pairs->install(keys(Direction::inbound)));
  EXPECT_TRUE(pairs->misses(removed(ours, 0xc0000001)));
  EXPECT_FALSE(pairs->misses(removed(server, kTheirs)));
  ASSERT_TRUE(pairs->install(keys(Direction::outbound)));
  EXPECT_TRUE(pairs->misses(removed(server, kTheirs)));
  EXPECT_FALSE(pairs->misses(removed(ours, kTheirs))) << "an SPI is the receiver's";
  ASSERT_TRUE(pairs->remove({1, 0xc0000001, kTheirs}));
  EXPECT_FALSE(pairs->misses(removed(server, kTheirs)));
}

// Some are flushed by their protocol, and the kernel may have more news than it keeps.
TEST_F(ESPPairsTest, LooksForItsHalvesWhereAllMayBeGone) {
  comeUp();
  EXPECT_FALSE(pairs->misses({{}, true}));
  for (const std::uint32_t spi : {0xc0000001U, kTheirs}) {
    record.missing = {spi};
    EXPECT_TRUE(pairs->misses({{}, true}));
    EXPECT_FALSE(pairs->misses({})) << "nobody asks without a reason";
  }
}

}  // namespace
