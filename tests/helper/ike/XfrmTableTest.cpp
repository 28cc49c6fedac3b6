#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/xfrm.h>
#include <sched.h>
#include <sys/socket.h>

#include <sstream>
#include <thread>

#include "foundation/FileDescriptor.h"
#include "helper/common/IPv4Address.h"
#include "helper/ike/SocketPolicy.h"
#include "helper/ike/XfrmTable.h"
#include "linux/ChildProcess.h"

using foundation::FileDescriptor;
using namespace helper;

namespace {

constexpr std::uint32_t kReqid = 0x01234567;

in_addr address(const char *text) { return addressFrom(text).value(); }

// False: this machine does not let us.
bool ip(const std::string &arguments) {
  std::vector<std::string> words{"/usr/sbin/ip"};
  std::istringstream stream(arguments);
  for (std::string word; stream >> word;) words.push_back(word);
  auto program = linux::ChildProcess::spawn(words, {}, {});
  return program && program->waitFor(std::chrono::seconds(10)) && program->end().exited && program->end().code == 0;
}

std::string policy(const char *direction, const char *from, int fromPort, const char *to, int toPort,
                   std::uint32_t reqid) {
  std::ostringstream text;
  text << "xfrm policy add src " << from << "/32 dst " << to << "/32 proto udp sport " << fromPort << " dport "
       << toPort << " dir " << direction << " tmpl proto esp mode transport reqid " << reqid;
  return text.str();
}

// Each test's body runs in a network of its own.
class XfrmTableTest : public testing::Test {
 protected:
  template <class Body>
  void inNetwork(Body body) {
    bool possible = true;
    std::thread([&] {
      possible = ::unshare(CLONE_NEWNET) == 0 && ip("link set lo up");
      if (!possible) return;
      auto table = NetlinkXfrmTable::open();
      possible = bool(table);
      if (possible) body(**table);
    }).join();
    if (!possible) GTEST_SKIP() << "no network namespace or no IPSec here";
  }

  UDPFlow flow_{address("127.0.0.1"), 40000, address("127.0.0.2"), 1701};
};

TEST_F(XfrmTableTest, NothingThereProtectsNothing) {
  inNetwork([&](XfrmTable &table) {
    const auto status = table.protects(flow_, kReqid);
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().message, "it protects one direction only");
  });
}

TEST_F(XfrmTableTest, ComparesThePoliciesWithTheFlow) {
  inNetwork([&](XfrmTable &table) {
    ASSERT_TRUE(ip(policy("out", "127.0.0.1", 40000, "127.0.0.2", 1701, kReqid)));
    EXPECT_EQ(table.protects(flow_, kReqid).error().message, "it protects one direction only");
    ASSERT_TRUE(ip(policy("in", "127.0.0.2", 1701, "127.0.0.1", 40000, kReqid)));
    // Somebody else's does not matter.
    ASSERT_TRUE(ip(policy("out", "127.0.0.1", 40001, "127.0.0.2", 1701, kReqid + 1)));
    EXPECT_EQ(table.protects(flow_, kReqid).error().message, "it has no keys in the kernel for one direction");
    UDPFlow other = flow_;
    other.localPort = 1701;
    EXPECT_EQ(table.protects(other, kReqid).error().message,
              "it is for other addresses or ports than those of the connection");
  });
}

TEST_F(XfrmTableTest, RemovesItsOwnPoliciesOnly) {
  inNetwork([&](XfrmTable &table) {
    ASSERT_TRUE(ip(policy("out", "127.0.0.1", 40000, "127.0.0.2", 1701, kReqid)));
    ASSERT_TRUE(ip(policy("in", "127.0.0.2", 1701, "127.0.0.1", 40000, kReqid)));
    ASSERT_TRUE(ip(policy("out", "127.0.0.1", 40001, "127.0.0.2", 1701, kReqid + 1)));
    EXPECT_TRUE(table.remove(kReqid));
    EXPECT_FALSE(ip("xfrm policy get src 127.0.0.1/32 dst 127.0.0.2/32 proto udp sport 40000 dport 1701 dir out"));
    EXPECT_FALSE(ip("xfrm policy get src 127.0.0.2/32 dst 127.0.0.1/32 proto udp sport 1701 dport 40000 dir in"));
    EXPECT_TRUE(ip("xfrm policy get src 127.0.0.1/32 dst 127.0.0.2/32 proto udp sport 40001 dport 1701 dir out"));
    EXPECT_TRUE(table.remove(kReqid));
  });
}

std::string state(const char *from, const char *to, const char *verb) {
  return std::string("xfrm state ") + verb + " src " + from + " dst " + to + " proto esp";
}

// Between the two ends of a state that was left; and nowhere else, nor when none was left: then the daemon lives, and
// what it begins is its own.
TEST_F(XfrmTableTest, RemovesWhatADeadDaemonHadBegun) {
  inNetwork([&](XfrmTable &table) {
    const std::string own = " mode transport min 0x1000 max 0x1000 reqid " + std::to_string(kReqid);
    ASSERT_TRUE(ip(state("127.0.0.2", "127.0.0.1", "allocspi") + own));
    ASSERT_TRUE(ip(state("127.0.0.2", "127.0.0.1", "allocspi") + " mode tunnel min 0x2000 max 0x2000"));
    ASSERT_TRUE(ip(state("127.0.0.3", "127.0.0.1", "allocspi") + " mode tunnel min 0x3000 max 0x3000"));
    EXPECT_TRUE(table.remove(kReqid));
    EXPECT_FALSE(ip(state("127.0.0.2", "127.0.0.1", "get") + " spi 0x1000"));
    EXPECT_FALSE(ip(state("127.0.0.2", "127.0.0.1", "get") + " spi 0x2000"));
    EXPECT_TRUE(ip(state("127.0.0.3", "127.0.0.1", "get") + " spi 0x3000"));
    ASSERT_TRUE(ip(state("127.0.0.2", "127.0.0.1", "allocspi") + " mode tunnel min 0x2000 max 0x2000"));
    EXPECT_TRUE(table.remove(kReqid));
    EXPECT_TRUE(ip(state("127.0.0.2", "127.0.0.1", "get") + " spi 0x2000"));
  });
}

// A packet that meets the guard makes the kernel ask whoever listens for an association, and remember that it did.
TEST_F(XfrmTableTest, RemovesWhatWaitsForAnAssociation) {
  inNetwork([&](XfrmTable &table) {
    const FileDescriptor daemon(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_XFRM));
    sockaddr_nl listening{};
    listening.nl_family = AF_NETLINK;
    listening.nl_groups = XFRMGRP_ACQUIRE;
    ASSERT_EQ(::bind(daemon.get(), reinterpret_cast<sockaddr *>(&listening), sizeof listening), 0);
    const FileDescriptor guarded(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(1701);
    server.sin_addr = address("127.0.0.2");
    ASSERT_EQ(::connect(guarded.get(), reinterpret_cast<sockaddr *>(&server), sizeof server), 0);
    ASSERT_TRUE(guardSocket(guarded.get(), kReqid));
    EXPECT_LT(::send(guarded.get(), "x", 1, 0), 0);
    char bytes[4096];
    ASSERT_GT(::recv(daemon.get(), bytes, sizeof bytes, 0), 0) << "the kernel asked nobody";
    EXPECT_TRUE(table.remove(kReqid));
    // Were it still there, the kernel would not ask again.
    EXPECT_LT(::recv(daemon.get(), bytes, sizeof bytes, 0), 0);
    EXPECT_LT(::send(guarded.get(), "x", 1, 0), 0);
    EXPECT_GT(::recv(daemon.get(), bytes, sizeof bytes, 0), 0);
    EXPECT_TRUE(table.remove(kReqid));
  });
}

}  // namespace
