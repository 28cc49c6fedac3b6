#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "helper/link/Routes.h"
#include "helper/link/Undo.h"

using namespace helper;

namespace {

in_addr address(const char *text) {
  in_addr result{};
  EXPECT_EQ(inet_pton(AF_INET, text, &result), 1);
  return result;
}

class RecordingTable : public RouteTable {
 public:
  foundation::Result<Route> lookUp(in_addr) override {
    if (!found) return foundation::Error{"Netlink", 0, "there is none"};
    return *found;
  }
  foundation::Result<bool> add(const Route &route) override {
    if (failing) return foundation::Error{"Netlink", 0, "not today"};
    if (std::find(present.begin(), present.end(), route) != present.end()) return false;
    present.push_back(route);
    return true;
  }
  foundation::Status remove(const Route &route) override {
    removed.push_back(route);
    std::erase(present, route);
    return {};
  }

  std::optional<Route> found;
  bool failing = false;
  std::vector<Route> present;
  std::vector<Route> removed;
};

class RoutesTest : public testing::Test {
 protected:
  RoutesTest() {
    std::string name = testing::TempDir() + "routes.XXXXXX";
    EXPECT_NE(::mkdtemp(name.data()), nullptr);
    base_ = name;
    auto journal = Journal::create(base_ + "/vpnctl");
    EXPECT_TRUE(journal);
    journal_.emplace(std::move(*journal));
  }
  ~RoutesTest() override { std::filesystem::remove_all(base_); }

  std::string base_;
  std::optional<Journal> journal_;
  RecordingTable table_;
  Route way_{address("192.0.2.7"), 32, address("10.0.0.1"), address("10.0.0.2"), "eth0"};
};

TEST_F(RoutesTest, PinTheServerAndTakeThePinBack) {
  table_.found = way_;
  ASSERT_TRUE(Routes(table_, *journal_).pinServer(address("192.0.2.7")));
  EXPECT_EQ(table_.present, std::vector<Route>{way_});
  Undo(table_, [](const std::string &sentence) { FAIL() << sentence; }).finish(*journal_);
  EXPECT_TRUE(table_.present.empty());
}

TEST_F(RoutesTest, LeaveAHostRouteThatWasThere) {
  table_.found = way_;
  table_.present = {way_};
  ASSERT_TRUE(Routes(table_, *journal_).pinServer(address("192.0.2.7")));
  EXPECT_TRUE(journal_->entries().empty());
  Undo(table_, [](const std::string &sentence) { FAIL() << sentence; }).finish(*journal_);
  EXPECT_EQ(table_.present, std::vector<Route>{way_});
}

TEST_F(RoutesTest, SayWhenThereIsNoWay) { EXPECT_FALSE(Routes(table_, *journal_).pinServer(address("192.0.2.7"))); }

TEST_F(RoutesTest, NoteNothingThatFailed) {
  table_.found = way_;
  table_.failing = true;
  EXPECT_FALSE(Routes(table_, *journal_).pinServer(address("192.0.2.7")));
  EXPECT_TRUE(journal_->entries().empty());
}

TEST_F(RoutesTest, CarryEverythingInTwoHalves) {
  ASSERT_TRUE(Routes(table_, *journal_).carryEverything("ppp0", address("10.9.0.2")));
  ASSERT_EQ(table_.present.size(), 2U);
  EXPECT_EQ(table_.present[0], (Route{address("0.0.0.0"), 1, {}, address("10.9.0.2"), "ppp0"}));
  EXPECT_EQ(table_.present[1], (Route{address("128.0.0.0"), 1, {}, address("10.9.0.2"), "ppp0"}));
  EXPECT_EQ(journal_->entries().size(), 2U);
}

TEST_F(RoutesTest, KeepTheServersAddressOffTheTunnel) {
  ASSERT_TRUE(Routes(table_, *journal_).keepServerOff("ppp0", address("192.0.2.7")));
  ASSERT_EQ(table_.removed.size(), 1U);
  EXPECT_EQ(table_.removed[0], (Route{address("192.0.2.7"), 32, {}, {}, "ppp0"}));
}

}  // namespace
