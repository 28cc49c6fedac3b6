// Three hosts in network namespaces of the test's own: the test itself is 10.1.0.2, behind a router (10.1.0.1 and
// 10.2.0.1) is a server, 10.2.0.2. The way from the router to the server is narrower than the others.

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "foundation/FileDescriptor.h"
#include "tests/helper/network/NetworkNamespace.h"

namespace support {

class RoutedNetwork : public NetworkNamespace {
 protected:
  static constexpr std::uint32_t kServer = 0x0a020002;
  static constexpr int kNarrow = 1400;

  void SetUp() override {
    home_.reset(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (!enterNew(router_) || !enterNew(server_) || !enterNew(client_))
      GTEST_SKIP() << "no network namespace of one's own here";
    ASSERT_TRUE(ip({"link", "add", "wire0", "type", "veth", "peer", "name", "near", "netns", pathOf(router_)}));
    ASSERT_TRUE(ip({"link", "set", "wire0", "up"}));
    ASSERT_TRUE(ip({"addr", "add", "10.1.0.2/24", "dev", "wire0"}));
    ASSERT_TRUE(ip({"route", "add", "default", "via", "10.1.0.1"}));
    enter(router_);
    ASSERT_TRUE(ip({"link", "add", "far", "type", "veth", "peer", "name", "wire0", "netns", pathOf(server_)}));
    for (const char *name : {"near", "far"}) ASSERT_TRUE(ip({"link", "set", name, "up"}));
    ASSERT_TRUE(ip({"link", "set", "far", "mtu", std::to_string(kNarrow)}));
    ASSERT_TRUE(ip({"addr", "add", "10.1.0.1/24", "dev", "near"}));
    ASSERT_TRUE(ip({"addr", "add", "10.2.0.1/24", "dev", "far"}));
    set("ip_forward", "1");
    enter(server_);
    for (const char *name : {"lo", "wire0"}) ASSERT_TRUE(ip({"link", "set", name, "up"}));
    ASSERT_TRUE(ip({"addr", "add", "10.2.0.2/24", "dev", "wire0"}));
    ASSERT_TRUE(ip({"route", "add", "default", "via", "10.2.0.1"}));
    enter(client_);
  }

  // What comes after this test finds the network that was there before.
  void TearDown() override {
    if (!IsSkipped()) enter(home_);
  }

  void enterServer() const { enter(server_); }
  // Of the router, or the server, what /proc/sys/net/ipv4 has.
  void setOnRouter(const char *name, const char *value) const { setOn(router_, name, value); }
  void setOnServer(const char *name, const char *value) const { setOn(server_, name, value); }
  void setHere(const char *name, const char *value) const { setOn(client_, name, value); }
  // What the router would report is not sent.
  void silenceRouter() const {
    enter(router_);
    set("icmp_errors_use_inbound_ifaddr", "1");
    EXPECT_TRUE(ip({"rule", "add", "from", "10.1.0.1", "blackhole"}));
    enter(client_);
  }

 private:
  static bool enterNew(vpnctl::FileDescriptor &space) {
    if (::unshare(CLONE_NEWNET) < 0) return false;
    space.reset(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    return static_cast<bool>(space);
  }
  static void enter(const vpnctl::FileDescriptor &space) { ASSERT_EQ(::setns(space.get(), CLONE_NEWNET), 0); }
  static std::string pathOf(const vpnctl::FileDescriptor &space) {
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(space.get());
  }
  static void set(const std::string &name, const char *value) {
    std::ofstream file("/proc/sys/net/ipv4/" + name);
    file << value << std::flush;
    EXPECT_TRUE(file.good()) << name;
  }
  void setOn(const vpnctl::FileDescriptor &space, const char *name, const char *value) const {
    enter(space);
    set(name, value);
    enter(client_);
  }

  vpnctl::FileDescriptor home_, router_, server_, client_;
};

}  // namespace support
