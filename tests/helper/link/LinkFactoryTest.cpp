#include <gtest/gtest.h>

#include <filesystem>

#include "helper/link/LinkFactory.h"
#include "tests/support/TemporaryFolder.h"

using vpnctl::Value;
using namespace helper;

namespace {

using SourcePort = EngineSettings::SourcePort;

class LinkFactoryTest : public ::testing::Test {
 protected:
  // Makes a link of KIND with SETTINGS as the machine's file; its plan is plan().
  vpnctl::Result<std::unique_ptr<Link>> make(const std::string &kind, const std::string &settings = {},
                                             const Value &startOptions = {}) {
    support::writeFile(folder.path("engine.conf"), settings);
    const Value service = Value::Dictionary{{"Interface", Value::Dictionary{{"Type", "PPP"}, {"SubType", kind}}},
                                            {"PPP", Value::Dictionary{{"CommRemoteAddress", server}}}};
    const Value root = Value::Dictionary{{"NetworkServices", Value::Dictionary{{"ID", service}}}};
    const LinkMaker maker = [this](LinkPlan made, Link::StatusHandler) {
      plan = std::move(made);
      return std::unique_ptr<Link>();
    };
    return plannedLinks(*log, serversNotTold, maker, folder.path("."))(root, {"ID", startOptions}, {});
  }
  std::string logged() const { return support::contentsOf(folder.path("ppp.log")).value_or(""); }

  support::TemporaryFolder folder;
  vpnctl::Result<PPPLog> log = PPPLog::open(folder.path("ppp.log"));
  std::set<std::string> serversNotTold;
  std::optional<LinkPlan> plan;
  std::string server = "192.0.2.7";
};

TEST_F(LinkFactoryTest, MakesAPlanWithTheMachinesSettings) {
  ASSERT_TRUE(make("L2TP", "ppp = { mtu = 1234; };"));
  EXPECT_EQ(plan->ppp.mtu, 1234);
  EXPECT_EQ(logged(), "");
}

TEST_F(LinkFactoryTest, ReadsTheSettingsForEachLinkAnew) {
  ASSERT_TRUE(make("L2TP", "ppp = { mtu = 1234; };"));
  ASSERT_TRUE(make("L2TP", "ppp = { mtu = 1235; };"));
  EXPECT_EQ(plan->ppp.mtu, 1235);
}

TEST_F(LinkFactoryTest, ReadsTheServersOwnSettings) {
  std::filesystem::create_directory(folder.path("engine.d"));
  support::writeFile(folder.path("engine.d/192.0.2.7.conf"), "ppp = { mtu = 1300; };");
  ASSERT_TRUE(make("L2TP", "ppp = { mtu = 1234; mru = 1235; };"));
  EXPECT_EQ(plan->ppp.mtu, 1300);
  EXPECT_EQ(plan->ppp.mru, 1235);
  server = "192.0.2.70";
  ASSERT_TRUE(make("L2TP", "ppp = { mtu = 1234; mru = 1235; };"));
  EXPECT_EQ(plan->ppp.mtu, 1234);
}

TEST_F(LinkFactoryTest, ComplaintsAboutTheSettingsGoToTheLog) {
  ASSERT_TRUE(make("L2TP", "ppp = { mut = 1234; };"));
  EXPECT_NE(logged().find("engine.conf:1: there is no setting ppp.mut"), std::string::npos) << logged();
}

TEST_F(LinkFactoryTest, AServiceThatIsNoneIsAnError) {
  EXPECT_FALSE(make("PPPoE"));
  EXPECT_FALSE(plan);
}

TEST_F(LinkFactoryTest, L2TPAvoidsItsPortWhileAServerMayRememberIt) {
  ASSERT_TRUE(make("L2TP"));
  EXPECT_EQ(plan->l2tp.sourcePort, SourcePort::automatic);
  serversNotTold = {"192.0.2.7"};
  ASSERT_TRUE(make("L2TP"));
  EXPECT_EQ(plan->l2tp.sourcePort, SourcePort::any);
  EXPECT_NE(logged().find("L2TP goes out from another port than 1701"), std::string::npos) << logged();
}

TEST_F(LinkFactoryTest, AnotherServerRemembersNothingButANameMayBeAnybodys) {
  serversNotTold = {"192.0.2.7"};
  server = "192.0.2.70";
  ASSERT_TRUE(make("L2TP"));
  EXPECT_EQ(plan->l2tp.sourcePort, SourcePort::automatic);
  server = "vpn.example.org";
  ASSERT_TRUE(make("L2TP"));
  EXPECT_EQ(plan->l2tp.sourcePort, SourcePort::any);
}

TEST_F(LinkFactoryTest, ASourcePortThatIsSetStays) {
  serversNotTold = {"192.0.2.7"};
  ASSERT_TRUE(make("L2TP", "l2tp = { source_port = \"1701\"; };"));
  EXPECT_EQ(plan->l2tp.sourcePort, SourcePort::wellKnown) << logged();
}

TEST_F(LinkFactoryTest, WhereMuchIsToBeLoggedThePlanIsToo) {
  ASSERT_TRUE(make("L2TP", {}, Value::Dictionary{{"PPP", Value::Dictionary{{"VerboseLogging", 1}}}}));
  EXPECT_NE(logged().find("The connection that is asked for: L2TP to "), std::string::npos) << logged();
}

TEST_F(LinkFactoryTest, PPTPHasNoPortToAvoid) {
  serversNotTold = {"192.0.2.7"};
  ASSERT_TRUE(make("PPTP"));
  EXPECT_EQ(logged(), "");
}

TEST_F(LinkFactoryTest, ALinkInClearIsToldOf) {
  ASSERT_TRUE(make("PPTP", "pptp = { mppe = \"none\"; };"));
  EXPECT_NE(logged().find("Nothing in this connection is encrypted, because pptp.mppe is \"none\" in the settings in " +
                          folder.path(".") + "."),
            std::string::npos)
      << logged();
}

}  // namespace
