// Against the kernel, in a network namespace of the test's own.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "helper/common/IPv4Address.h"
#include "helper/network/RouteTable.h"
#include "linux/ChildProcess.h"
#include "linux/SystemdOwners.h"

using namespace helper;

namespace {

in_addr address(const char *text) { return addressFrom(text).value(); }

class RouteTableTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::unshare(CLONE_NEWNET) < 0) GTEST_SKIP() << "no network namespace of one's own here";
    ASSERT_TRUE(ip({"link", "add", "wire0", "type", "veth", "peer", "name", "wire1"}));
    for (const char *name : {"wire0", "wire1"}) ASSERT_TRUE(ip({"link", "set", name, "up"}));
    ASSERT_TRUE(ip({"addr", "add", "10.1.0.2/24", "dev", "wire0"}));
    ASSERT_TRUE(ip({"route", "add", "default", "via", "10.1.0.1"}));
    auto table = NetlinkRouteTable::open();
    ASSERT_TRUE(table);
    table_ = std::move(*table);
  }
  static bool ip(std::vector<std::string> words) {
    words.insert(words.begin(), "/bin/ip");
    auto process = linux::ChildProcess::spawn(words, {}, {});
    int code = -1;
    linux::EventLoop loop;
    EXPECT_GE(sd_event_new(linux::Out(loop)), 0);
    process->watch(loop.get(), [&](const linux::ChildProcess::End &end) { code = end.code; });
    while (code < 0) EXPECT_GE(sd_event_run(loop.get(), UINT64_MAX), 0);
    return code == 0;
  }

  // From which address the kernel would send to FAR.
  static std::string sourceTo(const char *far) {
    const foundation::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in end{};
    end.sin_family = AF_INET;
    end.sin_addr = address(far);
    end.sin_port = htons(9);
    socklen_t size = sizeof end;
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr *>(&end), sizeof end), 0);
    EXPECT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&end), &size), 0);
    return inet_ntoa(end.sin_addr);
  }

  std::unique_ptr<NetlinkRouteTable> table_;
};

TEST_F(RouteTableTest, LooksUpWaysWithAndWithoutAGateway) {
  const auto far = table_->lookUp(address("192.0.2.7"));
  ASSERT_TRUE(far) << far.error().message;
  EXPECT_EQ(*far, (Route{address("192.0.2.7"), 32, address("10.1.0.1"), address("10.1.0.2"), "wire0"}));
  const auto near = table_->lookUp(address("10.1.0.9"));
  ASSERT_TRUE(near);
  EXPECT_EQ(*near, (Route{address("10.1.0.9"), 32, {}, address("10.1.0.2"), "wire0"}));
}

TEST_F(RouteTableTest, SaysWhenThereIsNoWay) {
  ASSERT_TRUE(ip({"route", "del", "default"}));
  EXPECT_FALSE(table_->lookUp(address("192.0.2.7")));
}

TEST_F(RouteTableTest, AddsOnceAndRemoves) {
  const auto way = table_->lookUp(address("192.0.2.7"));
  ASSERT_TRUE(way);
  const auto first = table_->add(*way);
  ASSERT_TRUE(first) << first.error().message;
  EXPECT_FALSE(table_->add(*way));
  EXPECT_TRUE(table_->remove(*way));
  EXPECT_TRUE(table_->remove(*way)) << "it is gone, which is what was wanted";
  EXPECT_TRUE(table_->add(*way));
}

TEST_F(RouteTableTest, RemovesNobodyElsesRoute) {
  const Route ours{address("192.0.2.7"), 32, address("10.1.0.1"), {}, "wire0", 7};
  Route others = ours;
  others.metric = 8;
  ASSERT_TRUE(ip({"route", "add", "192.0.2.7", "via", "10.1.0.1", "metric", "7"}));
  ASSERT_TRUE(table_->remove(ours));
  ASSERT_FALSE(table_->add(ours)) << "the administrator's of the same metric is there";
  ASSERT_TRUE(ip({"route", "del", "192.0.2.7", "metric", "7"}));
  ASSERT_TRUE(table_->add(ours));
  ASSERT_TRUE(table_->add(others));
  ASSERT_TRUE(table_->remove(ours));
  EXPECT_FALSE(table_->add(others)) << "another link's is still there";
}

TEST_F(RouteTableTest, HalvesTheWorldBeforeTheDefaultRoute) {
  ASSERT_TRUE(ip({"addr", "add", "10.2.0.2/24", "dev", "wire1"}));
  for (const char *half : {"0.0.0.0", "128.0.0.0"}) {
    const auto added = table_->add(Route{address(half), 1, {}, address("10.2.0.2"), "wire1"});
    ASSERT_TRUE(added) << added.error().message;
  }
  for (const char *far : {"12.0.0.1", "192.0.2.7"}) EXPECT_EQ(sourceTo(far), "10.2.0.2") << far;
}

TEST_F(RouteTableTest, LooksPastALinkThatCarriesEverything) {
  const Route before = *table_->lookUp(address("192.0.2.7"));
  ASSERT_TRUE(ip({"route", "add", "198.51.100.0/24", "via", "10.1.0.3"}));
  ASSERT_TRUE(ip({"route", "add", "198.51.100.0/24", "via", "10.1.0.4", "metric", "9"}));
  for (const char *half : {"0.0.0.0", "128.0.0.0"})
    ASSERT_TRUE(table_->add(Route{address(half), 1, {}, address("10.1.0.2"), "wire1"}));
  const auto far = table_->lookUp(address("192.0.2.7"));
  ASSERT_TRUE(far) << far.error().message;
  EXPECT_EQ(far->interface, "wire0");
  EXPECT_EQ(far->gateway.s_addr, before.gateway.s_addr);
  // Not the less exact, not the one of the higher metric.
  EXPECT_EQ(table_->lookUp(address("198.51.100.9"))->gateway.s_addr, address("10.1.0.3").s_addr);
  EXPECT_EQ(table_->lookUp(address("10.1.0.9"))->interface, "wire0");
  // What somebody leads through the other link on purpose stays so.
  ASSERT_TRUE(ip({"route", "add", "192.0.2.0/24", "dev", "wire1"}));
  EXPECT_EQ(table_->lookUp(address("192.0.2.7"))->interface, "wire1");
  // Nor is there any other way here.
  ASSERT_TRUE(ip({"route", "del", "default"}));
  EXPECT_EQ(table_->lookUp(address("203.0.113.7"))->interface, "wire1");
}

TEST_F(RouteTableTest, DetachesAlsoTheKernelsOwnRouteToAPeer) {
  ASSERT_TRUE(ip({"addr", "add", "10.9.0.2", "peer", "192.0.2.7", "dev", "wire1"}));
  ASSERT_EQ(table_->lookUp(address("192.0.2.7"))->interface, "wire1");
  ASSERT_TRUE(table_->detach(address("192.0.2.7"), "wire1"));
  EXPECT_EQ(table_->lookUp(address("192.0.2.7"))->interface, "wire0");
}

TEST_F(RouteTableTest, HasNothingToRemoveOnAnInterfaceThatIsGone) {
  EXPECT_TRUE(table_->remove(Route{address("192.0.2.7"), 32, {}, {}, "ppp77"}));
  EXPECT_TRUE(table_->detach(address("192.0.2.7"), "ppp77"));
  EXPECT_FALSE(table_->add(Route{address("192.0.2.7"), 32, {}, {}, "ppp77"}));
}

}  // namespace
