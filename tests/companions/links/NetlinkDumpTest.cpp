#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/errno.h>

#include <cerrno>

#include "companions/links/KernelAnswers.h"
#include "companions/links/NetlinkDump.h"
#include "tests/companions/links/NetlinkBytes.h"

using namespace companions;
using support::attribute;
using support::Bytes;

namespace {

TEST(NetlinkDump, AttributesStandBehindTheFixedPart) {
  Bytes body{0, 0, 0, 0};
  for (const Bytes &each : {attribute(3, Bytes{'a'}), attribute(NLA_F_NESTED | 4, Bytes{1, 2, 3, 4})})
    body.insert(body.end(), each.begin(), each.end());
  const NetlinkMessage read{20, body};
  EXPECT_EQ(read.attribute(4, 3).size(), 1U);
  EXPECT_EQ(read.valueOf<std::uint32_t>(4, 4).value_or(0), 0x04030201U);
  EXPECT_FALSE(read.valueOf<std::uint16_t>(4, 4)) << "another size";
  EXPECT_TRUE(read.attribute(4, 5).empty());
  EXPECT_TRUE(read.attribute(400, 3).empty());
  // Cut off anywhere, there are fewer.
  for (std::size_t size = 0; size < body.size(); ++size)
    EXPECT_FALSE((NetlinkMessage{20, std::span(body).first(size)}.valueOf<std::uint32_t>(4, 4)));
}

TEST(NetlinkDump, TheKernelAnswers) {
  const auto interfaces = NetlinkDump(NETLINK_ROUTE, RTM_GETLINK, ifinfomsg{}).take(interfaceIn, "read the interfaces");
  ASSERT_TRUE(interfaces) << interfaces.error().message;
  const auto loopback = std::ranges::find(*interfaces, static_cast<int>(::if_nametoindex("lo")), &Interface::index);
  ASSERT_NE(loopback, interfaces->end());
  EXPECT_EQ(loopback->name, "lo");
  EXPECT_GT(loopback->mtu, 0U);
}

TEST(NetlinkDump, AFailureOfTheWayToTheKernelIsItsErrno) {
  EXPECT_EQ(errnoOf(-NLE_DUMP_INTR), EINTR) << "a list that has changed meanwhile is asked for again";
  EXPECT_EQ(errnoOf(-NLE_AGAIN), ETIMEDOUT);
  EXPECT_EQ(errnoOf(-NLE_PROTO_MISMATCH), EPROTONOSUPPORT) << "a kernel without IPSec has none";
  EXPECT_EQ(errnoOf(-NLE_PERM), EPERM) << "root may ask";
  EXPECT_EQ(errnoOf(-NLE_NOACCESS), EACCES);
  EXPECT_EQ(errnoOf(-NLE_AF_NOSUPPORT), EAFNOSUPPORT);
  EXPECT_EQ(errnoOf(-NLE_FAILURE), EIO);
}

TEST(NetlinkDump, ARefusalIsItsErrno) {
  const auto refused = NetlinkDump(NETLINK_ROUTE, RTM_GETLINK, std::uint8_t{}).take(interfaceIn, "ask for something");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().domain, vpnctl::kPOSIXErrorDomain);
  EXPECT_EQ(refused.error().code, EINVAL);
  EXPECT_TRUE(refused.error().message.starts_with("ask for something: ")) << refused.error().message;
}

}  // namespace
