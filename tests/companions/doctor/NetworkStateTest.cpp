#include <gtest/gtest.h>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <net/if.h>

#include "companions/doctor/NetworkState.h"
#include "tests/companions/links/NetlinkBytes.h"

using namespace companions;
using support::attribute;
using support::bodyOf;
using support::Bytes;
using support::bytesOf;

namespace {

TEST(Rule, IsReadWithItsMark) {
  fib_rule_hdr header{};
  header.table = RT_TABLE_COMPAT;
  header.flags = FIB_RULE_INVERT;
  const Bytes whole = bodyOf(
      header, {attribute(FRA_PRIORITY, bytesOf(std::uint32_t{7})), attribute(FRA_TABLE, bytesOf(std::uint32_t{51820})),
               attribute(FRA_PROTOCOL, Bytes{118}), attribute(FRA_FWMARK, bytesOf(std::uint32_t{51820}))});
  const auto rule = ruleIn({RTM_NEWRULE, whole});
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->preference, 7U);
  EXPECT_EQ(rule->table, 51820U) << "tables beyond 255 are in an attribute";
  EXPECT_EQ(rule->maker, 118);
  EXPECT_TRUE(rule->hasMark);
  EXPECT_TRUE(rule->isInverted);
  EXPECT_FALSE(ruleIn({RTM_NEWROUTE, whole}));
}

TEST(Rule, HasWhatItDoesNotSay) {
  fib_rule_hdr header{};
  header.table = RT_TABLE_MAIN;
  const Bytes bare = bodyOf(header, {});
  const auto rule = ruleIn({RTM_NEWRULE, bare});
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->preference, 0U);
  EXPECT_EQ(rule->table, std::uint32_t{RT_TABLE_MAIN});
  EXPECT_FALSE(rule->hasMark);
  EXPECT_FALSE(rule->isInverted);
  EXPECT_FALSE(ruleIn({RTM_NEWRULE, std::span(bare).first(4)})) << "cut off";
}

Bytes routeOf(std::uint8_t prefixLength, std::uint32_t table, std::vector<Bytes> attributes) {
  rtmsg header{};
  header.rtm_dst_len = prefixLength;
  attributes.push_back(attribute(RTA_TABLE, bytesOf(table)));
  return bodyOf(header, attributes);
}

TEST(Half, IsReadWithItsInterface) {
  const Bytes out = attribute(RTA_OIF, bytesOf(::if_nametoindex("lo")));
  const auto lower = halfIn({RTM_NEWROUTE, routeOf(1, RT_TABLE_MAIN, {out})});
  ASSERT_TRUE(lower);
  EXPECT_EQ(lower->destination, "0.0.0.0/1");
  EXPECT_EQ(lower->interface, "lo");
  const auto upper = halfIn({RTM_NEWROUTE, routeOf(1, RT_TABLE_MAIN, {attribute(RTA_DST, Bytes{128, 0, 0, 0})})});
  ASSERT_TRUE(upper);
  EXPECT_EQ(upper->destination, "128.0.0.0/1");
  EXPECT_EQ(upper->interface, "nowhere");
}

TEST(Half, IsNoOtherRoute) {
  EXPECT_FALSE(halfIn({RTM_NEWROUTE, routeOf(0, RT_TABLE_MAIN, {})})) << "the default route";
  EXPECT_FALSE(halfIn({RTM_NEWROUTE, routeOf(1, 51820, {})})) << "of another table";
  EXPECT_FALSE(halfIn({RTM_NEWRULE, routeOf(1, RT_TABLE_MAIN, {})}));
}

TEST(Policy, IsCountedWhenItIsOutgoingAndNoSockets) {
  const auto counts = [](std::uint8_t direction, std::uint32_t index) {
    xfrm_userpolicy_info info{};
    info.dir = direction;
    info.index = index;
    return policyIn({XFRM_MSG_NEWPOLICY, bodyOf(info, {})}).has_value();
  };
  EXPECT_TRUE(counts(XFRM_POLICY_OUT, 8 + XFRM_POLICY_OUT));
  EXPECT_FALSE(counts(XFRM_POLICY_IN, 8 + XFRM_POLICY_IN));
  EXPECT_FALSE(counts(XFRM_POLICY_OUT, 8 + XFRM_POLICY_MAX + XFRM_POLICY_OUT)) << "a socket's";
}

}  // namespace
