// Against the kernel, in a namespace of its own.

#include <net/if_arp.h>

#include "companions/probe/ServerRoute.h"
#include "helper/common/IPv4Address.h"
#include "tests/helper/network/NetworkNamespace.h"

using companions::linkOf;
using companions::ServerRoute;
using Kind = ServerRoute::Kind;
using Link = ServerRoute::Link;

namespace {

class ServerRouteTest : public support::NetworkNamespace {
 protected:
  static ServerRoute to(const char *address) { return ServerRoute::to(helper::addressFrom(address).value()); }
  static std::string text(const std::optional<in_addr> &address) { return address ? helper::textOf(*address) : "none"; }
};

TEST_F(ServerRouteTest, FindsTheDefaultRoute) {
  const ServerRoute route = to("198.51.100.1");
  EXPECT_EQ(route.kind, Kind::way) << route.reason;
  EXPECT_EQ(route.reason, "");
  EXPECT_EQ(route.interface, "wire0");
  EXPECT_EQ(route.interfaceKind, "veth");
  EXPECT_EQ(route.link, Link::ordinary);
  EXPECT_EQ(text(route.source), "10.1.0.2");
  EXPECT_EQ(text(route.gateway), "10.1.0.1");
  EXPECT_EQ(route.interfaceMTU, 1500);
  EXPECT_EQ(route.routeMTU, std::nullopt);
  EXPECT_EQ(route.mtu(), 1500);
}

TEST_F(ServerRouteTest, FindsANeighbourAndARoutesOwnMTU) {
  ASSERT_TRUE(ip({"route", "add", "198.51.100.0/24", "via", "10.1.0.9", "mtu", "1300"}));
  EXPECT_EQ(text(to("10.1.0.7").gateway), "none");
  const ServerRoute route = to("198.51.100.1");
  EXPECT_EQ(text(route.gateway), "10.1.0.9");
  EXPECT_EQ(route.routeMTU, 1300);
  EXPECT_EQ(route.mtu(), 1300);
}

TEST_F(ServerRouteTest, TellsRefusalsApart) {
  for (const auto &[type, kind] : {std::pair{"unreachable", Kind::unreachable}, std::pair{"blackhole", Kind::blackhole},
                                   std::pair{"prohibit", Kind::prohibited}}) {
    ASSERT_TRUE(ip({"route", "replace", type, "198.51.100.1"}));
    EXPECT_EQ(to("198.51.100.1").kind, kind) << type;
  }
  ASSERT_TRUE(ip({"route", "del", "default"}));
  EXPECT_EQ(to("198.51.100.2").kind, Kind::none);
  EXPECT_NE(to("198.51.100.2").reason, "");
}

TEST_F(ServerRouteTest, KnowsThisMachinesOwnAddress) {
  EXPECT_EQ(to("10.1.0.2").kind, Kind::ownAddress);
  EXPECT_EQ(to("127.0.0.1").kind, Kind::ownAddress);
}

TEST_F(ServerRouteTest, SeesATunnelOnTheWay) {
  if (!ip({"tuntap", "add", "dev", "tun7", "mode", "tun"})) GTEST_SKIP() << "no tun devices here";
  ASSERT_TRUE(ip({"link", "set", "tun7", "mtu", "1420", "up"}));
  ASSERT_TRUE(ip({"route", "add", "198.51.100.0/24", "dev", "tun7"}));
  const ServerRoute route = to("198.51.100.1");
  EXPECT_EQ(route.kind, Kind::way) << route.reason;
  EXPECT_EQ(route.interface, "tun7");
  EXPECT_EQ(route.interfaceKind, "tun");
  EXPECT_EQ(route.link, Link::tunnel);
  EXPECT_EQ(route.mtu(), 1420);
}

TEST(LinkOfTest, GoesByKindAndType) {
  EXPECT_EQ(linkOf("", ARPHRD_ETHER), Link::ordinary);
  EXPECT_EQ(linkOf("bridge", ARPHRD_ETHER), Link::ordinary);
  EXPECT_EQ(linkOf("wireguard", ARPHRD_NONE), Link::tunnel);
  EXPECT_EQ(linkOf("", ARPHRD_TUNNEL), Link::tunnel);
  EXPECT_EQ(linkOf("", ARPHRD_PPP), Link::ppp);
  EXPECT_EQ(linkOf("ppp", ARPHRD_PPP), Link::ppp);
}

}  // namespace
