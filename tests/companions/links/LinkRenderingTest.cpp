#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "companions/links/LinkRendering.h"
#include "helper/common/IPv4Address.h"

using namespace companions;
using std::chrono::minutes;
using std::chrono::seconds;
using Stage = LinkState::Stage;
using Encryption = LinkState::Encryption;

namespace {

const Moment kNow{seconds(1700000000)};  // 2023-11-14 22:13:20 UTC

class LinkRenderingTest : public testing::Test {
 protected:
  LinkRenderingTest() {
    ::setenv("TZ", "XYZ-1", 1);
    ::tzset();
  }
};

LinkState fullLink() {
  LinkState link;
  link.number = 3;
  link.stage = Stage::up;
  link.server = "vpn.example.com";
  link.address = "192.0.2.1";
  link.protocol = "L2TP";
  link.begun = kNow - seconds(255);
  link.upSince = kNow - seconds(250);
  link.interface = "ppp0";
  link.localAddress = "10.0.0.2";
  link.peerAddress = "10.0.0.1";
  link.mtu = 1400;
  link.traffic = Traffic{1258291, 830, 1200, 1};
  link.networks = {helper::IPv4Network{}};
  link.nameServers = {"10.0.0.53", "10.0.1.53"};
  link.encryption = Encryption::ipsec;
  const Moment made = kNow - seconds(250);
  link.ipsec = IPSecState{"aes256-sha256", true, made, made + minutes(51), made + minutes(54), made + minutes(60)};
  link.helper = 500;
  link.pppd = 501;
  link.ike = 502;
  return link;
}

// The value behind LABEL; empty: there is none.
std::string valueOf(const std::string &label, const LinkState &link) {
  const std::string text = textOf(link, kNow);
  const auto found = text.find("\n  " + label + " ");
  if (found == std::string::npos) return {};
  const auto begin = text.find_first_not_of(' ', found + 3 + label.size());
  return text.substr(begin, text.find('\n', begin) - begin);
}

TEST_F(LinkRenderingTest, ALinkIsABlockOfLines) {
  EXPECT_EQ(textOf(fullLink(), kNow),
            "vpn.example.com (192.0.2.1)\n"
            "  state         up for 4 min 10 s, since 2023-11-14 23:09:10\n"
            "  protocol      L2TP over IPSec\n"
            "  interface     ppp0, MTU 1400\n"
            "  addresses     10.0.0.2 here, 10.0.0.1 there\n"
            "  received      1.2 MiB in 1200 packets\n"
            "  sent          830 B in 1 packet\n"
            "  carries       everything\n"
            "  name servers  10.0.0.53, 10.0.1.53\n"
            "  encryption    IPSec, ESP aes256-sha256, inside UDP\n"
            "  keys          made 4 min 10 s ago; new ones in 46 min 50 s to 49 min 50 s\n"
            "  processes     helper 500, pppd 501, vpnctl-ike 502\n");
}

TEST_F(LinkRenderingTest, JSONIsExact) {
  EXPECT_EQ(
      jsonOf(fullLink()).line(),
      "{\"link\":3,\"state\":\"up\",\"server\":\"vpn.example.com\",\"address\":\"192.0.2.1\",\"protocol\":\"L2TP\","
      "\"begun\":\"2023-11-14T22:09:05.000Z\",\"up_since\":\"2023-11-14T22:09:10.000Z\",\"interface\":\"ppp0\","
      "\"mtu\":1400,\"local\":\"10.0.0.2\",\"peer\":\"10.0.0.1\",\"bytes_in\":1258291,\"bytes_out\":830,"
      "\"packets_in\":1200,\"packets_out\":1,\"networks\":[\"0.0.0.0/0\"],"
      "\"name_servers\":[\"10.0.0.53\",\"10.0.1.53\"],\"encryption\":\"ipsec\",\"esp\":\"aes256-sha256\","
      "\"esp_in_udp\":true,\"keys_made\":\"2023-11-14T22:09:10.000Z\",\"rekey_from\":\"2023-11-14T23:00:10.000Z\","
      "\"rekey_until\":\"2023-11-14T23:03:10.000Z\",\"keys_end\":\"2023-11-14T23:09:10.000Z\",\"helper\":500,"
      "\"pppd\":501,\"ike\":502}\n");
}

TEST_F(LinkRenderingTest, WhatIsNotKnownIsLeftOut) {
  LinkState link;
  link.number = 3;
  link.stage = Stage::comingUp;
  EXPECT_EQ(textOf(link, kNow), "link 3\n  state         coming up\n");
  EXPECT_EQ(jsonOf(link).line(), "{\"link\":3,\"state\":\"coming-up\"}\n");
  link.begun = kNow - seconds(3);
  link.address = "192.0.2.1";
  EXPECT_EQ(textOf(link, kNow), "192.0.2.1\n  state         coming up for 3 s, since 2023-11-14 23:13:17\n");
  link.server = "192.0.2.1";
  EXPECT_TRUE(textOf(link, kNow).starts_with("192.0.2.1\n")) << "not twice";
}

TEST_F(LinkRenderingTest, WhatOnlyRootSeesIsNamed) {
  LinkState link = fullLink();
  link.server.clear();
  link.upSince.reset();
  link.needsRoot = {"protocol", "IPSec"};
  EXPECT_TRUE(textOf(link, kNow).starts_with("192.0.2.1\n"));
  EXPECT_EQ(valueOf("state", link), "up; begun 2023-11-14 23:09:05");
  EXPECT_EQ(valueOf("needs root", link), "protocol, IPSec");
  EXPECT_NE(jsonOf(link).line().find(",\"needs_root\":[\"protocol\",\"IPSec\"]}"), std::string::npos);
}

TEST_F(LinkRenderingTest, EachStageHasItsWords) {
  LinkState link = fullLink();
  struct Row {
    Stage stage;
    const char *text;
    const char *name;
  };
  for (const Row &row :
       {Row{Stage::goingDown, "going down", "going-down"}, Row{Stage::leftBehind, "left behind: ", "left-behind"},
        Row{Stage::unknown, "not seen: ", "unknown"}}) {
    link.stage = row.stage;
    EXPECT_TRUE(valueOf("state", link).starts_with(row.text)) << valueOf("state", link);
    EXPECT_TRUE(jsonOf(link).line().starts_with(std::string("{\"link\":3,\"state\":\"") + row.name + "\""));
  }
}

TEST_F(LinkRenderingTest, WhatGoesThroughItIsNamed) {
  LinkState link = fullLink();
  link.networks = {*helper::networkFrom("10.0.0.0/8"), *helper::networkFrom("172.16.0.0/12")};
  EXPECT_EQ(valueOf("carries", link), "10.0.0.0/8, 172.16.0.0/12");
  EXPECT_NE(jsonOf(link).line().find("\"networks\":[\"10.0.0.0/8\",\"172.16.0.0/12\"]"), std::string::npos);
  link.networks.clear();
  EXPECT_EQ(valueOf("carries", link), "nothing but what is sent to its other end");
  EXPECT_NE(jsonOf(link).line().find("\"networks\":[]"), std::string::npos);
}

TEST_F(LinkRenderingTest, EncryptionIsNamed) {
  LinkState link = fullLink();
  link.ipsec->insideUDP = false;
  EXPECT_EQ(valueOf("encryption", link), "IPSec, ESP aes256-sha256");
  EXPECT_NE(jsonOf(link).line().find("\"esp_in_udp\":false"), std::string::npos);
  link.protocol = "PPTP";
  link.ipsec.reset();
  link.encryption = Encryption::mppe;
  EXPECT_EQ(valueOf("protocol", link), "PPTP");
  EXPECT_EQ(valueOf("encryption", link), "MPPE");
  EXPECT_EQ(valueOf("keys", link), "");
  link.encryption = Encryption::none;
  EXPECT_EQ(valueOf("encryption", link), "none");
  link.encryption = Encryption::unknown;
  EXPECT_EQ(valueOf("encryption", link), "");
  link.fault = "read the IPSec associations: Connection timed out";
  EXPECT_EQ(valueOf("IPSec", link), "not seen: read the IPSec associations: Connection timed out");
}

TEST_F(LinkRenderingTest, KeysAreDueOrSoon) {
  LinkState link = fullLink();
  IPSecState &ipsec = *link.ipsec;
  ipsec.renewedFrom = kNow - seconds(1);
  ipsec.renewedUntil = kNow + seconds(20);
  EXPECT_EQ(valueOf("keys", link), "made 4 min 10 s ago; new ones within 20 s");
  ipsec.renewedFrom = ipsec.renewedUntil;
  EXPECT_EQ(valueOf("keys", link), "made 4 min 10 s ago; new ones within 20 s");
  ipsec.renewedUntil = kNow;
  EXPECT_EQ(valueOf("keys", link), "made 4 min 10 s ago; new ones are due");
  ipsec.ends = ipsec.made;
  EXPECT_EQ(valueOf("keys", link), "made 4 min 10 s ago") << "nobody has said how long they live";
  EXPECT_EQ(jsonOf(link).line().find("rekey"), std::string::npos);
}

TEST(DurationText, HasTwoUnits) {
  EXPECT_EQ(durationText(seconds(-5)), "0 s");
  EXPECT_EQ(durationText(seconds(59)), "59 s");
  EXPECT_EQ(durationText(seconds(60)), "1 min 0 s");
  EXPECT_EQ(durationText(seconds(250)), "4 min 10 s");
  EXPECT_EQ(durationText(seconds(3600)), "1 h 0 min");
  EXPECT_EQ(durationText(seconds(86399)), "23 h 59 min");
  EXPECT_EQ(durationText(seconds(86400 * 12 + 3600 * 4)), "12 d 4 h");
}

TEST(SizeText, HasTheUnitThatFits) {
  EXPECT_EQ(sizeText(0), "0 B");
  EXPECT_EQ(sizeText(1023), "1023 B");
  EXPECT_EQ(sizeText(1024), "1.0 KiB");
  EXPECT_EQ(sizeText(1024 * 1024 - 1), "1.0 MiB") << "not 1024.0 KiB";
  EXPECT_EQ(sizeText(UINT64_MAX), "16.0 EiB");
}

}  // namespace
