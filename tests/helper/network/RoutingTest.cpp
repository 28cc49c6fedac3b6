// Against the kernel.

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <thread>

#include "foundation/FileDescriptor.h"
#include "helper/common/IPv4Address.h"
#include "helper/network/Routing.h"
#include "tests/helper/network/NetworkNamespace.h"

using namespace helper;
using Kind = PolicyRule::Kind;

namespace {

in_addr address(const char *text) { return addressFrom(text).value(); }

class RoutingTest : public support::NetworkNamespace {
 protected:
  static constexpr std::uint32_t kTable = 7001;

  void SetUp() override {
    NetworkNamespace::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(ip({"addr", "add", "10.2.0.2/24", "dev", "wire1"}));
    auto routing = NetlinkRouting::open();
    ASSERT_TRUE(routing);
    routing_ = std::move(*routing);
  }
  void carryEverything(std::uint32_t table = kTable) {
    ASSERT_TRUE(routing_->refuse(table, {}));
    ASSERT_TRUE(routing_->refuseIPv6(table));
    const auto led = routing_->lead(table, {}, "wire1");
    ASSERT_TRUE(led) << led.error().message;
    for (const bool ipv6 : {false, true}) {
      ASSERT_TRUE(routing_->add({.kind = Kind::localNetworks, .ipv6 = ipv6}));
      ASSERT_TRUE(routing_->add({.kind = Kind::ownTable, .ipv6 = ipv6, .table = table}));
    }
  }
  void keepWay(const char *server) {
    ASSERT_TRUE(routing_->add({.kind = Kind::end, .table = kTable}));
    const auto added = routing_->add({.kind = Kind::wayToServer, .server = address(server), .table = kTable});
    ASSERT_TRUE(added) << added.error().message;
  }

  // From which address the kernel would send to FAR; what it says when it would not.
  static std::string sourceTo(const char *far, unsigned mark = 0) {
    const vpnctl::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);
    sockaddr_in end{};
    end.sin_family = AF_INET;
    end.sin_addr = address(far);
    end.sin_port = htons(9);
    socklen_t size = sizeof end;
    if (::connect(socket.get(), reinterpret_cast<sockaddr *>(&end), sizeof end) < 0) return std::to_string(errno);
    EXPECT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&end), &size), 0);
    return textOf(end.sin_addr);
  }
  static int errorOfIPv6To(const char *far) {
    const vpnctl::FileDescriptor socket(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 end{};
    end.sin6_family = AF_INET6;
    end.sin6_port = htons(9);
    EXPECT_EQ(inet_pton(AF_INET6, far, &end.sin6_addr), 1);
    return ::connect(socket.get(), reinterpret_cast<sockaddr *>(&end), sizeof end) < 0 ? errno : 0;
  }

  std::unique_ptr<NetlinkRouting> routing_;
};

TEST_F(RoutingTest, LeadsEverythingButTheLocalNetworksAndTheWayToTheServer) {
  carryEverything();
  keepWay("192.0.2.7");
  for (const char *far : {"12.0.0.1", "198.51.100.7"}) EXPECT_EQ(sourceTo(far), "10.2.0.2") << far;
  EXPECT_EQ(sourceTo("10.1.0.9"), "10.1.0.2");
  // Rules come in the order of their adding: the way stands behind the table, until that is moved.
  EXPECT_EQ(sourceTo("192.0.2.7"), "10.2.0.2");
  const PolicyRule table{.kind = Kind::ownTable, .table = kTable};
  ASSERT_TRUE(routing_->add(table));
  ASSERT_TRUE(routing_->remove(table));
  EXPECT_EQ(sourceTo("192.0.2.7"), "10.1.0.2");
  EXPECT_EQ(sourceTo("12.0.0.1"), "10.2.0.2");
}

TEST_F(RoutingTest, ServesTheWayToTheServerByTheMachinesOwnRules) {
  ASSERT_TRUE(ip({"addr", "add", "10.1.0.3/24", "dev", "wire0"}));
  ASSERT_TRUE(ip({"route", "add", "default", "via", "10.1.0.1", "src", "10.1.0.3", "table", "50"}));
  ASSERT_TRUE(ip({"rule", "add", "lookup", "50"}));
  keepWay("192.0.2.7");
  carryEverything();
  EXPECT_EQ(sourceTo("192.0.2.7"), "10.1.0.3");
  EXPECT_EQ(sourceTo("12.0.0.1"), "10.2.0.2");
}

TEST_F(RoutingTest, StandsBeforeARuleThatSomebodyAddsLater) {
  keepWay("192.0.2.7");
  carryEverything();
  ASSERT_TRUE(ip({"route", "add", "default", "via", "10.1.0.1", "table", "50"}));
  ASSERT_TRUE(ip({"rule", "add", "lookup", "50"}));
  EXPECT_EQ(sourceTo("12.0.0.1"), "10.2.0.2");
}

// As some VPNs do, and some DHCP servers that want to read along.
TEST_F(RoutingTest, TakesRoutesOfHalfTheWorldForADefaultRoute) {
  for (const char *half : {"0.0.0.0/1", "128.0.0.0/1"}) ASSERT_TRUE(ip({"route", "add", half, "via", "10.1.0.9"}));
  keepWay("192.0.2.7");
  carryEverything();
  for (const char *far : {"12.0.0.1", "198.51.100.7"}) EXPECT_EQ(sourceTo(far), "10.2.0.2") << far;
  EXPECT_EQ(sourceTo("192.0.2.7"), "10.1.0.2");
}

// wg-quick, when its tunnel ends.
TEST_F(RoutingTest, IsNotWhatOthersMeanByARuleForTheMainTable) {
  ASSERT_TRUE(ip({"rule", "add", "table", "main", "suppress_prefixlength", "0"}));
  carryEverything();
  ASSERT_TRUE(ip({"rule", "del", "table", "main", "suppress_prefixlength", "0"}));
  EXPECT_EQ(routing_->rules()->size(), 4U);
}

TEST_F(RoutingTest, LeavesMarkedPacketsToWhoMarkedThem) {
  keepWay("192.0.2.7");
  carryEverything();
  EXPECT_EQ(sourceTo("12.0.0.1", 51820), "10.1.0.2");
}

TEST_F(RoutingTest, RefusesWhatItLedWhenTheInterfaceIsDown) {
  keepWay("192.0.2.7");
  carryEverything();
  ASSERT_TRUE(ip({"link", "set", "wire1", "down"}));
  EXPECT_EQ(sourceTo("12.0.0.1"), std::to_string(EHOSTUNREACH));
  EXPECT_EQ(routing_->lead(kTable, {}, "wire1").error().code, ENETDOWN);
  ASSERT_TRUE(ip({"link", "set", "wire1", "up"}));
  EXPECT_TRUE(routing_->lead(kTable, {}, "wire1"));
  EXPECT_TRUE(routing_->lead(kTable, {}, "wire1")) << "as often as one likes";
  EXPECT_EQ(sourceTo("12.0.0.1"), "10.2.0.2");
  EXPECT_EQ(routing_->lead(kTable, {}, "ppp77").error().code, ENODEV);
}

TEST_F(RoutingTest, RefusesIPv6OutsideTheMachinesOwnNetworks) {
  ASSERT_TRUE(ip({"addr", "add", "2001:db8:1::2/64", "dev", "wire0", "nodad"}));
  ASSERT_TRUE(ip({"-6", "route", "add", "default", "via", "2001:db8:1::1"}));
  ASSERT_EQ(errorOfIPv6To("2001:db8:2::1"), 0);
  carryEverything();
  EXPECT_EQ(errorOfIPv6To("2001:db8:2::1"), EHOSTUNREACH);
  EXPECT_EQ(errorOfIPv6To("2001:db8:1::9"), 0);
}

TEST_F(RoutingTest, ReadsItsRulesAsItAddedThemAndNobodyElses) {
  ASSERT_TRUE(ip({"rule", "add", "to", "192.0.2.7", "goto", "32766"}));
  keepWay("192.0.2.7");
  carryEverything();
  const auto rules = routing_->rules();
  ASSERT_TRUE(rules);
  std::vector<PolicyRule> expected{{.kind = Kind::wayToServer, .server = address("192.0.2.7"), .table = kTable},
                                   {.kind = Kind::localNetworks},
                                   {.kind = Kind::ownTable, .table = kTable},
                                   {.kind = Kind::end, .table = kTable}};
  std::vector<PolicyRule> found;
  std::ranges::copy_if(*rules, std::back_inserter(found), [](const PolicyRule &rule) { return !rule.ipv6; });
  EXPECT_EQ(found, expected);
  EXPECT_EQ(rules->size(), 6U) << "and two of IPv6";
}

TEST_F(RoutingTest, TakesEverythingBackAndNobodyElses) {
  ASSERT_TRUE(
      ip({"rule", "add", "pref", "0", "fwmark", "0/0xffffffff", "lookup", "main", "suppress_prefixlength", "1"}));
  ASSERT_TRUE(ip({"route", "add", "203.0.113.0/24", "dev", "wire1", "table", "7001"}));
  keepWay("192.0.2.7");
  carryEverything();
  const auto rules = routing_->rules();
  ASSERT_TRUE(rules);
  for (const PolicyRule &rule : *rules) EXPECT_TRUE(routing_->remove(rule));
  for (const PolicyRule &rule : *rules) EXPECT_TRUE(routing_->remove(rule)) << "it is gone, which is what was wanted";
  EXPECT_TRUE(routing_->rules()->empty());
  EXPECT_TRUE(routing_->clear({kTable, {IPv4Network{}}}));
  EXPECT_TRUE(routing_->clear({kTable, {IPv4Network{}}}));
  EXPECT_TRUE(
      ip({"rule", "del", "pref", "0", "fwmark", "0/0xffffffff", "lookup", "main", "suppress_prefixlength", "1"}))
      << "the administrator's";
  EXPECT_TRUE(ip({"route", "del", "203.0.113.0/24", "table", "7001"})) << "the administrator's";
  EXPECT_FALSE(ip({"route", "del", "default", "table", "7001"})) << "it should be gone";
  EXPECT_FALSE(ip({"-6", "route", "del", "default", "table", "7001"})) << "it should be gone";
}

TEST_F(RoutingTest, RemovesOneOfTwoLinksWayToTheSameServer) {
  keepWay("192.0.2.7");
  PolicyRule other{.kind = Kind::wayToServer, .server = address("192.0.2.7"), .table = kTable + 1};
  ASSERT_TRUE(routing_->add(other));
  other.table = kTable;
  ASSERT_TRUE(routing_->remove(other));
  const auto rules = routing_->rules();
  ASSERT_TRUE(rules);
  EXPECT_EQ(rules->front().table, kTable + 1);
}

TEST_F(RoutingTest, DetachesAlsoTheKernelsOwnRouteToAPeer) {
  ASSERT_TRUE(ip({"addr", "add", "10.9.0.2", "peer", "192.0.2.7", "dev", "wire1"}));
  ASSERT_EQ(sourceTo("192.0.2.7"), "10.9.0.2");
  ASSERT_TRUE(routing_->detach(address("192.0.2.7"), "wire1"));
  EXPECT_EQ(sourceTo("192.0.2.7"), "10.1.0.2");
  EXPECT_TRUE(routing_->detach(address("192.0.2.7"), "wire1"));
  EXPECT_TRUE(routing_->detach(address("192.0.2.7"), "ppp77"));
}

TEST_F(RoutingTest, KnowsTheNetworksThatTheMachineIsIn) {
  const auto networks = [this](const std::string &besides) {
    std::vector<std::string> texts;
    const auto found = routing_->networks(besides);
    for (const IPv4Network &network : found.value()) texts.push_back(textOf(network));
    std::ranges::sort(texts);
    return texts;
  };
  using Texts = std::vector<std::string>;
  ASSERT_TRUE(ip({"addr", "add", "10.3.0.2/32", "dev", "wire0"}));
  ASSERT_TRUE(ip({"route", "add", "10.4.0.0/24", "via", "10.1.0.1"}));
  EXPECT_EQ(networks("ppp0"), (Texts{"10.1.0.0/24", "10.2.0.0/24"}));
  EXPECT_EQ(networks("wire1"), Texts{"10.1.0.0/24"});
  // Nobody is at its other end any more, which the kernel notes a little later.
  ASSERT_TRUE(ip({"link", "set", "wire1", "down"}));
  for (int i = 0; i < 100 && !networks("ppp0").empty(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(networks("ppp0"), Texts());
}

}  // namespace
