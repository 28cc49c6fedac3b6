#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>

#include <string_view>

#include "companions/links/KernelAnswers.h"
#include "helper/common/IPv4Address.h"
#include "helper/network/Routing.h"
#include "tests/companions/links/NetlinkBytes.h"

using namespace companions;
using support::attribute;
using support::bodyOf;
using support::Bytes;
using support::bytesOf;

namespace {

in_addr address(const char *text) { return helper::addressFrom(text).value(); }

Bytes text(std::string_view text) {
  Bytes bytes(text.begin(), text.end());
  bytes.push_back(0);
  return bytes;
}

TEST(KernelAnswers, AnInterfaceHasItsCounts) {
  ifinfomsg header{};
  header.ifi_index = 7;
  rtnl_link_stats64 counts{};
  counts.rx_bytes = 0x123456789aULL;
  counts.tx_bytes = 2;
  counts.rx_packets = 3;
  counts.tx_packets = 4;
  Bytes more = bytesOf(counts);
  more.resize(more.size() + 8, 0xff);  // of a newer kernel
  const Bytes body = bodyOf(header, {attribute(IFLA_IFNAME, text("ppp0")), attribute(IFLA_MTU, bytesOf(1400U)),
                                     attribute(IFLA_STATS64, more)});
  const auto interface = interfaceIn({RTM_NEWLINK, body});
  ASSERT_TRUE(interface);
  EXPECT_EQ(interface->index, 7);
  EXPECT_EQ(interface->name, "ppp0");
  EXPECT_EQ(interface->mtu, 1400U);
  EXPECT_EQ(interface->traffic, (Traffic{0x123456789aULL, 2, 3, 4}));
  EXPECT_FALSE(interfaceIn({RTM_NEWADDR, body}));
  EXPECT_FALSE(interfaceIn({RTM_NEWLINK, std::span(body).first(4)}));
}

TEST(KernelAnswers, AnAddressHasItsPeer) {
  ifaddrmsg header{};
  header.ifa_family = AF_INET;
  header.ifa_index = 7;
  const Bytes local = attribute(IFA_LOCAL, bytesOf(address("10.0.0.2")));
  const Bytes peer = attribute(IFA_ADDRESS, bytesOf(address("10.0.0.1")));
  const auto found = addressIn({RTM_NEWADDR, bodyOf(header, {peer, local})});
  ASSERT_TRUE(found);
  EXPECT_EQ(found->interface, 7);
  EXPECT_EQ(helper::textOf(found->local), "10.0.0.2");
  EXPECT_EQ(helper::textOf(found->peer), "10.0.0.1");
  EXPECT_FALSE(addressIn({RTM_NEWADDR, bodyOf(header, {local})}));
  header.ifa_family = AF_INET6;
  EXPECT_FALSE(addressIn({RTM_NEWADDR, bodyOf(header, {peer, local})}));
}

TEST(KernelAnswers, OnlyRoutesOfOursThatLeadSomewhereCount) {
  rtmsg header{};
  header.rtm_family = AF_INET;
  header.rtm_type = RTN_UNICAST;
  header.rtm_protocol = helper::Routing::kMaker;
  header.rtm_dst_len = 8;
  const std::vector<Bytes> attributes{attribute(RTA_TABLE, bytesOf(7003U)), attribute(RTA_OIF, bytesOf(7)),
                                      attribute(RTA_DST, bytesOf(address("10.0.0.0")))};
  const auto led = ledNetworkIn({RTM_NEWROUTE, bodyOf(header, attributes)});
  ASSERT_TRUE(led);
  EXPECT_EQ(led->table, 7003U);
  EXPECT_EQ(led->interface, 7);
  EXPECT_EQ(led->network, helper::networkFrom("10.0.0.0/8"));

  rtmsg everything = header;
  everything.rtm_dst_len = 0;
  const auto all = ledNetworkIn({RTM_NEWROUTE, bodyOf(everything, {attributes[0], attributes[1]})});
  ASSERT_TRUE(all);
  EXPECT_EQ(all->network, helper::IPv4Network{});

  rtmsg refusing = header;
  refusing.rtm_type = RTN_UNREACHABLE;
  EXPECT_FALSE(ledNetworkIn({RTM_NEWROUTE, bodyOf(refusing, attributes)}));
  rtmsg foreign = header;
  foreign.rtm_protocol = RTPROT_STATIC;
  EXPECT_FALSE(ledNetworkIn({RTM_NEWROUTE, bodyOf(foreign, attributes)}));
  EXPECT_FALSE(ledNetworkIn({RTM_NEWROUTE, bodyOf(header, {attributes[0]})}));
}

// As the kernel sends it, with a key behind the fixed part.
Bytes algorithm(int type, std::string_view name, unsigned bits, std::size_t between) {
  Bytes value(64);
  std::ranges::copy(name, value.begin());
  const Bytes size = bytesOf(bits);
  value.insert(value.end(), size.begin(), size.end());
  value.resize(value.size() + between + bits / 8, 0xab);
  return attribute(type, value);
}

xfrm_usersa_info association() {
  xfrm_usersa_info info{};
  info.family = AF_INET;
  info.saddr.a4 = address("192.0.2.1").s_addr;
  info.id.daddr.a4 = address("192.0.2.2").s_addr;
  info.id.proto = IPPROTO_ESP;
  info.reqid = 0x01234567;
  info.curlft.add_time = 1700000000;
  info.lft.hard_add_expires_seconds = 3600;
  return info;
}

TEST(KernelAnswers, AnAssociationHasItsAlgorithms) {
  const auto found =
      associationIn({XFRM_MSG_NEWSA, bodyOf(association(), {algorithm(XFRMA_ALG_AUTH_TRUNC, "hmac(sha256)", 256, 4),
                                                            algorithm(XFRMA_ALG_AUTH, "hmac(sha256)", 256, 0),
                                                            algorithm(XFRMA_ALG_CRYPT, "cbc(aes)", 256, 0),
                                                            attribute(XFRMA_ENCAP, bytesOf(xfrm_encap_tmpl{}))})});
  ASSERT_TRUE(found);
  EXPECT_EQ(found->algorithms, "aes256-sha256");
  EXPECT_TRUE(found->insideUDP);
  EXPECT_EQ(found->reqid, 0x01234567U);
  EXPECT_EQ(helper::textOf(found->source), "192.0.2.1");
  EXPECT_EQ(helper::textOf(found->destination), "192.0.2.2");
  EXPECT_EQ(found->made, std::chrono::seconds(1700000000));
  EXPECT_EQ(found->lifetime, std::chrono::seconds(3600));
}

TEST(KernelAnswers, AlgorithmsAreNamedAsInTheSettings) {
  struct Row {
    const char *cipher;
    unsigned cipherBits;
    const char *integrity;
    const char *text;
  };
  for (const Row &row :
       {Row{"cbc(aes)", 128, "hmac(sha1)", "aes128-sha1"}, Row{"cbc(des3_ede)", 192, "hmac(md5)", "3des-md5"},
        Row{"cbc(aes)", 192, "hmac(sha384)", "aes192-sha384"}, Row{"cbc(aes)", 256, "hmac(sha512)", "aes256-sha512"},
        Row{"cbc(camellia)", 256, "xcbc(aes)", "cbc(camellia)-xcbc(aes)"}}) {
    const auto found = associationIn(
        {XFRM_MSG_NEWSA, bodyOf(association(), {algorithm(XFRMA_ALG_CRYPT, row.cipher, row.cipherBits, 0),
                                                algorithm(XFRMA_ALG_AUTH_TRUNC, row.integrity, 160, 4)})});
    ASSERT_TRUE(found) << row.text;
    EXPECT_EQ(found->algorithms, row.text);
    EXPECT_FALSE(found->insideUDP);
  }
  const auto both =
      associationIn({XFRM_MSG_NEWSA, bodyOf(association(), {algorithm(XFRMA_ALG_AEAD, "rfc4106(gcm(aes))", 160, 4)})});
  ASSERT_TRUE(both);
  EXPECT_EQ(both->algorithms, "rfc4106(gcm(aes))");
}

TEST(KernelAnswers, AnAssociationToComeIsNone) {
  EXPECT_FALSE(associationIn({XFRM_MSG_NEWSA, bodyOf(association(), {})}));
  const std::vector<Bytes> algorithms{algorithm(XFRMA_ALG_CRYPT, "cbc(aes)", 128, 0),
                                      algorithm(XFRMA_ALG_AUTH_TRUNC, "hmac(sha1)", 160, 4)};
  EXPECT_TRUE(associationIn({XFRM_MSG_NEWSA, bodyOf(association(), algorithms)}));
  xfrm_usersa_info ah = association();
  ah.id.proto = IPPROTO_AH;
  EXPECT_FALSE(associationIn({XFRM_MSG_NEWSA, bodyOf(ah, algorithms)}));
  const Bytes body = bodyOf(association(), algorithms);
  for (std::size_t size = 0; size < body.size() - 24; ++size)
    EXPECT_FALSE(associationIn({XFRM_MSG_NEWSA, std::span(body).first(size)})) << size;
}

}  // namespace
