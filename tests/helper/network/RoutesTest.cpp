#include <gtest/gtest.h>

#include <optional>

#include "helper/common/IPv4Address.h"
#include "helper/network/Routes.h"
#include "helper/repair/Undo.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;

namespace {

in_addr address(const char *text) { return addressFrom(text).value(); }

class RecordingTable : public RouteTable {
 public:
  foundation::Result<Route> lookUp(in_addr) override {
    if (!found) return foundation::Error{"Netlink", 0, "there is none"};
    return *found;
  }
  foundation::Status add(const Route &route) override {
    if (failing) return foundation::Error{"Netlink", 0, "not today"};
    present.push_back(route);
    return {};
  }
  foundation::Status remove(const Route &route) override {
    std::erase(present, route);
    return {};
  }
  foundation::Status detach(in_addr destination, const std::string &interface) override {
    Route route;
    route.destination = destination;
    route.interface = interface;
    detached.push_back(route);
    return {};
  }

  std::optional<Route> found;
  bool failing = false;
  std::vector<Route> present;
  std::vector<Route> detached;
};

class RoutesTest : public testing::Test {
 protected:
  RoutesTest() {
    auto journal = Journal::create(folder_.path("vpnctl"));
    EXPECT_TRUE(journal);
    journal_.emplace(std::move(*journal));
  }

  static constexpr std::uint32_t kMetric = 4711;
  JournalledRoutes routes() { return JournalledRoutes(table_, *journal_, kMetric); }
  void undo() {
    Undo(
        table_, [](const std::string &sentence) { FAIL() << sentence; })
        .takeBack(*journal_);
  }

  const support::TemporaryFolder folder_;
  std::optional<Journal> journal_;
  RecordingTable table_;
  Route way_{address("192.0.2.7"), 32, address("10.0.0.1"), address("10.0.0.2"), "eth0"};
};

TEST_F(RoutesTest, PinTheServerAndTakeThePinBack) {
  table_.found = way_;
  ASSERT_TRUE(routes().pinServer(address("192.0.2.7")));
  Route pin = way_;
  pin.metric = kMetric;
  EXPECT_EQ(table_.present, std::vector<Route>{pin});
  undo();
  EXPECT_TRUE(table_.present.empty());
}

TEST_F(RoutesTest, LeaveAHostRouteThatWasThere) {
  table_.found = way_;
  table_.present = {way_};
  ASSERT_TRUE(routes().pinServer(address("192.0.2.7")));
  EXPECT_EQ(table_.present.size(), 2U);
  undo();
  EXPECT_EQ(table_.present, std::vector<Route>{way_});
}

TEST_F(RoutesTest, LeaveThePinOfAnotherLinkToTheSameServer) {
  table_.found = way_;
  Route others = way_;
  others.metric = kMetric + 1;
  table_.present = {others};
  ASSERT_TRUE(routes().pinServer(address("192.0.2.7")));
  undo();
  EXPECT_EQ(table_.present, std::vector<Route>{others});
}

TEST_F(RoutesTest, PinNothingWhereThereIsNoWay) {
  EXPECT_TRUE(routes().pinServer(address("192.0.2.7")));
  EXPECT_TRUE(table_.present.empty());
  EXPECT_TRUE(journal_->entries().empty());
}

TEST_F(RoutesTest, NoteNothingThatFailed) {
  table_.found = way_;
  table_.failing = true;
  EXPECT_FALSE(routes().pinServer(address("192.0.2.7")));
  EXPECT_TRUE(journal_->entries().empty());
}

TEST_F(RoutesTest, CarryEverythingInTwoHalves) {
  ASSERT_TRUE(routes().carryEverything("ppp0", address("10.9.0.2")));
  ASSERT_EQ(table_.present.size(), 2U);
  EXPECT_EQ(table_.present[0], (Route{address("0.0.0.0"), 1, {}, address("10.9.0.2"), "ppp0", kMetric}));
  EXPECT_EQ(table_.present[1], (Route{address("128.0.0.0"), 1, {}, address("10.9.0.2"), "ppp0", kMetric}));
  EXPECT_EQ(journal_->entries().size(), 2U);
}

// The kernel throws them away when the interface goes down, and nobody else brings them back.
TEST_F(RoutesTest, CarryEverythingAgainWithoutNotingItTwice) {
  ASSERT_TRUE(routes().carryEverything("ppp0", address("10.9.0.2")));
  const std::vector<Route> before = table_.present;
  table_.present.clear();
  ASSERT_TRUE(routes().carryEverythingAgain("ppp0", address("10.9.0.2")));
  EXPECT_EQ(table_.present, before);
  EXPECT_EQ(journal_->entries().size(), 2U);
  undo();
  EXPECT_TRUE(table_.present.empty());
  table_.failing = true;
  EXPECT_FALSE(routes().carryEverythingAgain("ppp0", address("10.9.0.2")));
}

TEST_F(RoutesTest, KeepTheServersAddressOffTheTunnel) {
  ASSERT_TRUE(routes().keepServerOff("ppp0", address("192.0.2.7")));
  ASSERT_EQ(table_.detached.size(), 1U);
  EXPECT_EQ(table_.detached[0], (Route{address("192.0.2.7"), 32, {}, {}, "ppp0"}));
}

}  // namespace
