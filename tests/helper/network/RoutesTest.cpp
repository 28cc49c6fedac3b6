#include <gtest/gtest.h>

#include <optional>

#include "helper/common/IPv4Address.h"
#include "helper/network/Routes.h"
#include "helper/repair/Undo.h"
#include "tests/helper/network/RecordingRouting.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using Kind = PolicyRule::Kind;

namespace {

in_addr address(const char *text) { return addressFrom(text).value(); }

const RoutePlan kEverything{{IPv4Network{}}, true, true};

class RoutesTest : public testing::Test {
 protected:
  // One link after another, each with a journal of its own.
  struct TestLink {
    explicit TestLink(RoutesTest &test, RoutePlan plan = kEverything)
        : journal(std::move(Journal::create(test.folder_.path("vpnctl")).value())),
          table(7000 + journal.number()),
          routes(test.routing_, journal, std::move(plan)) {}
    Journal journal;
    std::uint32_t table;
    JournalledRoutes routes;
  };

  void undo(TestLink &link) {
    Undo(
        routing_, [](const std::string &sentence) { FAIL() << sentence; })
        .takeBack(link.journal);
  }
  // In their order, as "way 7001" and the like.
  std::vector<std::string> present(bool ipv6 = false) const {
    std::vector<std::string> lines;
    for (const PolicyRule &rule : routing_.present)
      if (rule.ipv6 == ipv6)
        lines.push_back(std::array{"way", "local", "table", "end"}.at(static_cast<std::size_t>(rule.kind)) +
                        (rule.table == 0 ? std::string() : " " + std::to_string(rule.table)));
    return lines;
  }
  using Lines = std::vector<std::string>;

  const support::TemporaryFolder folder_;
  support::RecordingRouting routing_;
};

TEST_F(RoutesTest, KeepTheWayToTheServerAndTakeItBack) {
  TestLink link(*this);
  ASSERT_TRUE(link.routes.keepWay(address("192.0.2.7")));
  EXPECT_EQ(present(), (Lines{"end 7001", "way 7001"}));
  EXPECT_EQ(textOf(routing_.present[1].server), "192.0.2.7");
  undo(link);
  EXPECT_TRUE(routing_.present.empty());
}

TEST_F(RoutesTest, KeepTheWayToOneServerAtATime) {
  TestLink link(*this);
  ASSERT_TRUE(link.routes.keepWay(address("192.0.2.7")));
  ASSERT_TRUE(link.routes.keepWay(address("192.0.2.8")));
  EXPECT_EQ(present(), (Lines{"end 7001", "way 7001"}));
  EXPECT_EQ(textOf(routing_.present[1].server), "192.0.2.8");
  const auto missed = link.routes.putBack();
  ASSERT_TRUE(missed);
  EXPECT_FALSE(*missed);
  undo(link);
  EXPECT_TRUE(routing_.present.empty());
}

TEST_F(RoutesTest, KnowTheNetworkAroundAnAddress) {
  TestLink link(*this);
  routing_.around = {networkFrom("10.0.0.0/8").value(), networkFrom("192.168.1.0/24").value()};
  const auto around = [&](const char *text) {
    const auto network = link.routes.networkAround(address(text), "ppp0");
    return network ? textOf(*network) : std::string("none");
  };
  EXPECT_EQ(around("192.168.1.255"), "192.168.1.0/24");
  EXPECT_EQ(around("10.255.0.1"), "10.0.0.0/8");
  EXPECT_EQ(around("192.168.2.1"), "none");
  routing_.failing = "networks";
  EXPECT_EQ(around("10.255.0.1"), "none");
}

TEST_F(RoutesTest, CarryEverythingAndNoIPv6) {
  TestLink link(*this);
  ASSERT_TRUE(link.routes.carry("ppp0"));
  EXPECT_EQ(present(), (Lines{"local", "table 7001"}));
  EXPECT_EQ(present(true), (Lines{"local", "table 7001"}));
  EXPECT_EQ(routing_.led, (support::RecordingRouting::Routes{{{7001, "0.0.0.0/0"}, "ppp0"}}));
  EXPECT_EQ(routing_.refused.size(), 2U);
  undo(link);
  EXPECT_TRUE(routing_.present.empty());
  EXPECT_TRUE(routing_.led.empty());
  EXPECT_TRUE(routing_.refused.empty());
}

TEST_F(RoutesTest, CarryWhatIsWanted) {
  TestLink link(*this, {{networkFrom("10.0.0.0/8").value(), networkFrom("192.0.2.0/24").value()}, false, true});
  ASSERT_TRUE(link.routes.carry("ppp0"));
  EXPECT_EQ(present(), (Lines{"local", "table 7001"}));
  EXPECT_TRUE(present(true).empty());
  EXPECT_EQ(routing_.led.size(), 2U);
  EXPECT_EQ(routing_.refused.size(), 2U) << "they, too, do not go past the tunnel while it is down for a moment";
  EXPECT_FALSE(routing_.refused.contains({7001, "IPv6"}));
}

TEST_F(RoutesTest, CarryNothing) {
  TestLink link(*this, {});
  ASSERT_TRUE(link.routes.carry("ppp0"));
  EXPECT_TRUE(routing_.present.empty());
  EXPECT_TRUE(link.journal.entries().empty());
}

TEST_F(RoutesTest, PreferTheTunnelToLocalNetworksOnlyForIPv4) {
  TestLink link(*this, {{IPv4Network{}}, true, false});
  ASSERT_TRUE(link.routes.carry("ppp0"));
  EXPECT_EQ(present(), (Lines{"table 7001"}));
  EXPECT_EQ(present(true), (Lines{"local", "table 7001"})) << "there would be no network without neighbours";
}

// The kernel throws routes away when the interface goes down, and nobody else brings them back.
TEST_F(RoutesTest, CarryAgainWithoutNotingItTwice) {
  TestLink link(*this);
  ASSERT_TRUE(link.routes.carry("ppp0"));
  const auto rules = routing_.present;
  const auto entries = link.journal.entries();
  routing_.led.clear();
  ASSERT_TRUE(link.routes.carry("ppp0"));
  EXPECT_EQ(routing_.led.size(), 1U);
  EXPECT_EQ(routing_.present, rules);
  EXPECT_EQ(link.journal.entries(), entries);
}

TEST_F(RoutesTest, RefuseWhatCannotBeLedBecauseTheInterfaceIsDownAgain) {
  TestLink link(*this);
  routing_.interfaceError = ENETDOWN;
  EXPECT_TRUE(link.routes.carry("ppp0"));
  EXPECT_EQ(present(), (Lines{"local", "table 7001"}));
  EXPECT_TRUE(routing_.refused.contains({7001, "0.0.0.0/0"}));
  routing_.interfaceError = ENODEV;
  EXPECT_FALSE(link.routes.carry("ppp0"));
}

TEST_F(RoutesTest, PutAllWaysBeforeAllTablesAndTheNewestTableFirst) {
  TestLink first(*this);
  ASSERT_TRUE(first.routes.keepWay(address("192.0.2.7")));
  ASSERT_TRUE(first.routes.carry("ppp0"));
  TestLink second(*this);
  ASSERT_TRUE(second.routes.keepWay(address("192.0.2.8")));
  EXPECT_EQ(present(), (Lines{"end 7001", "way 7001", "local", "end 7002", "way 7002", "table 7001"}));
  ASSERT_TRUE(second.routes.carry("ppp1"));
  EXPECT_EQ(present(),
            (Lines{"end 7001", "way 7001", "local", "end 7002", "way 7002", "local", "table 7002", "table 7001"}));
  EXPECT_EQ(present(true), (Lines{"local", "local", "table 7002", "table 7001"}));
  TestLink third(*this);
  ASSERT_TRUE(third.routes.keepWay(address("192.0.2.9")));
  const Lines rules = present();
  EXPECT_EQ(Lines(rules.end() - 3, rules.end()), (Lines{"way 7003", "table 7002", "table 7001"}));
  // Each takes its own away, in any order.
  undo(first);
  undo(third);
  EXPECT_EQ(present(), (Lines{"end 7002", "way 7002", "local", "table 7002"}));
  undo(second);
  EXPECT_TRUE(routing_.present.empty());
}

TEST_F(RoutesTest, PutBackWhatOthersThrowAway) {
  TestLink other(*this);
  ASSERT_TRUE(other.routes.carry("ppp1"));
  TestLink link(*this);
  ASSERT_TRUE(link.routes.keepWay(address("192.0.2.7")));
  ASSERT_TRUE(link.routes.carry("ppp0"));
  EXPECT_FALSE(link.routes.putBack().value()) << "nothing is missing";
  const auto before = routing_.present;
  for (const PolicyRule &rule : before) {
    if (rule.table == other.table || rule.kind == Kind::localNetworks) continue;
    routing_.present = before;
    std::erase(routing_.present, rule);
    EXPECT_TRUE(link.routes.putBack().value());
    EXPECT_TRUE(std::ranges::is_permutation(routing_.present, before));
    // Whichever it was: no way stands behind a table.
    const Lines rules = present();
    EXPECT_LT(std::ranges::find(rules, "way 7002"), std::ranges::find(rules, "table 7002"));
    EXPECT_LT(std::ranges::find(rules, "way 7002"), std::ranges::find(rules, "table 7001"));
    EXPECT_LT(std::ranges::find(rules, "table 7002"), std::ranges::find(rules, "table 7001"));
  }
}

TEST_F(RoutesTest, PutBackTheRuleThatAllLinksShare) {
  TestLink link(*this);
  ASSERT_TRUE(link.routes.carry("ppp0"));
  std::erase(routing_.present, PolicyRule{.kind = Kind::localNetworks});
  EXPECT_TRUE(link.routes.putBack().value());
  EXPECT_EQ(present(), (Lines{"local", "table 7001"}));
}

TEST_F(RoutesTest, PutBackRoutesWithoutARuleMissing) {
  TestLink link(*this);
  ASSERT_TRUE(link.routes.carry("ppp0"));
  const auto led = routing_.led;
  const auto refused = routing_.refused;
  routing_.led.clear();
  routing_.refused.clear();
  EXPECT_TRUE(link.routes.putBack());
  EXPECT_EQ(routing_.led, led);
  EXPECT_EQ(routing_.refused, refused);
}

TEST_F(RoutesTest, MissNoIPv6WhereThereIsNone) {
  routing_.hasIPv6 = false;
  TestLink link(*this);
  ASSERT_TRUE(link.routes.carry("ppp0"));
  EXPECT_FALSE(link.routes.putBack().value());
}

class RoutesFailing : public RoutesTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(RoutesFailing, IsToldAndLeavesNothingBehind) {
  TestLink other(*this);
  ASSERT_TRUE(other.routes.carry("ppp1"));
  const auto before = routing_.present;
  TestLink link(*this);
  routing_.failing = GetParam();
  EXPECT_FALSE(link.routes.carry("ppp0"));
  routing_.failing.clear();
  undo(link);
  EXPECT_TRUE(std::ranges::is_permutation(routing_.present, before) || routing_.present.size() == before.size() + 2)
      << "moved twice at worst";
  EXPECT_FALSE(routing_.refused.contains({link.table, "0.0.0.0/0"}));
}

INSTANTIATE_TEST_SUITE_P(Routes, RoutesFailing, ::testing::Values("add", "lead", "refuse", "refuse IPv6", "rules"));

TEST_F(RoutesTest, KeepTheServersAddressOffTheTunnel) {
  TestLink link(*this);
  ASSERT_TRUE(link.routes.keepServerOff("ppp0", address("192.0.2.7")));
  EXPECT_EQ(routing_.detached, (Lines{"192.0.2.7 ppp0"}));
}

}  // namespace
