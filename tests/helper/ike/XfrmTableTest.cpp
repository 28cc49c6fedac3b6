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
#include "helper/ike/ESPStateWatch.h"
#include "helper/ike/ESPStates.h"
#include "helper/ike/SocketPolicy.h"
#include "helper/ike/XfrmTable.h"
#include "linux/ChildProcess.h"
#include "linux/SystemdOwners.h"

using vpnctl::FileDescriptor;
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
};

std::string state(const char *from, const char *to, const char *verb) {
  return std::string("xfrm state ") + verb + " src " + from + " dst " + to + " proto esp";
}

TEST_F(XfrmTableTest, RemovesItsOwnStatesOnly) {
  inNetwork([&](XfrmTable &table) {
    const auto own = [](std::uint32_t reqid) { return " mode transport reqid " + std::to_string(reqid); };
    ASSERT_TRUE(ip(state("127.0.0.2", "127.0.0.1", "allocspi") + own(kReqid) + " min 0x1000 max 0x1000"));
    ASSERT_TRUE(ip(state("127.0.0.2", "127.0.0.1", "allocspi") + own(kReqid + 1) + " min 0x2000 max 0x2000"));
    EXPECT_TRUE(table.remove(kReqid));
    EXPECT_FALSE(ip(state("127.0.0.2", "127.0.0.1", "get") + " spi 0x1000"));
    EXPECT_TRUE(ip(state("127.0.0.2", "127.0.0.1", "get") + " spi 0x2000"));
    EXPECT_TRUE(table.remove(kReqid));
  });
}

std::string withSPI(std::uint32_t spi) {
  return state("127.0.0.2", "127.0.0.1", "get") + " spi " + std::to_string(spi);
}

TEST_F(XfrmTableTest, KnowsWhetherOthersHaveTheSameServer) {
  inNetwork([&](XfrmTable &table) {
    const in_addr local = address("127.0.0.1"), server = address("127.0.0.2"), third = address("127.0.0.3");
    EXPECT_FALSE(table.hasOthers(local, server, kReqid));
    const auto own = NetlinkESPStates::open(kReqid);
    ASSERT_TRUE(own && (*own)->allocate(server, local));
    EXPECT_FALSE(table.hasOthers(local, server, kReqid));
    EXPECT_TRUE(table.hasOthers(local, server, kReqid + 1)) << "what comes in";
    EXPECT_TRUE(table.hasOthers(server, local, kReqid + 1)) << "what goes out";
    EXPECT_FALSE(table.hasOthers(local, third, kReqid + 1));
    EXPECT_FALSE(table.hasOthers(third, server, kReqid + 1));
  });
}

TEST_F(XfrmTableTest, RemovesWhatESPStatesHasBegun) {
  inNetwork([&](XfrmTable &table) {
    const auto states = NetlinkESPStates::open(kReqid);
    ASSERT_TRUE(states);
    const auto spi = (*states)->allocate(address("127.0.0.2"), address("127.0.0.1"));
    const auto other = (*states)->allocate(address("127.0.0.2"), address("127.0.0.1"));
    ASSERT_TRUE(spi && other);
    EXPECT_NE(*spi, *other);
    EXPECT_GE(*spi, 0xc0000000U);
    EXPECT_TRUE(ip(withSPI(*spi)));
    EXPECT_TRUE((*states)->remove(address("127.0.0.2"), address("127.0.0.1"), *spi));
    EXPECT_TRUE((*states)->remove(address("127.0.0.2"), address("127.0.0.1"), *spi)) << "once is enough";
    EXPECT_FALSE(ip(withSPI(*spi)));
    EXPECT_TRUE(ip(withSPI(*other)));
    EXPECT_TRUE(table.remove(kReqid));
    EXPECT_FALSE(ip(withSPI(*other)));
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

TEST_F(XfrmTableTest, IsHeardOfWhenStatesAreTakenAway) {
  inNetwork([&](XfrmTable &table) {
    linux::EventLoop loop;
    ASSERT_GE(sd_event_new(linux::Out(loop)), 0);
    std::vector<ESPStateWatch::News> news;
    const auto watch = NetlinkESPStateWatch::start(
        loop.get(), [&](const auto &heard) { news.push_back(heard); });
    ASSERT_TRUE(watch) << watch.error().message;
    const auto states = NetlinkESPStates::open(kReqid);
    ASSERT_TRUE(states);
    const auto spi = (*states)->allocate(address("127.0.0.2"), address("127.0.0.1"));
    ASSERT_TRUE(spi);
    EXPECT_TRUE((*states)->has(address("127.0.0.2"), address("127.0.0.1"), *spi));
    ASSERT_TRUE(table.remove(kReqid));
    EXPECT_FALSE((*states)->has(address("127.0.0.2"), address("127.0.0.1"), *spi));
    ASSERT_GE(sd_event_run(loop.get(), 1'000'000), 0);
    ASSERT_EQ(news.size(), 1U);
    ASSERT_EQ(news[0].removed.size(), 1U);
    EXPECT_EQ(news[0].removed[0].spi, *spi);
    EXPECT_EQ(news[0].removed[0].destination.s_addr, address("127.0.0.1").s_addr);
    EXPECT_FALSE(news[0].all);
    ASSERT_TRUE((*states)->allocate(address("127.0.0.2"), address("127.0.0.1")));
    ASSERT_TRUE(ip("xfrm state flush"));
    ASSERT_GE(sd_event_run(loop.get(), 1'000'000), 0);
    ASSERT_EQ(news.size(), 2U);
    EXPECT_TRUE(news[1].all);
  });
}

}  // namespace
