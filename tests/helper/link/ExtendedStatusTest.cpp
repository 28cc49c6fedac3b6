#include <gtest/gtest.h>

#include "helper/common/IPv4Address.h"
#include "helper/common/TunnelFailure.h"
#include "helper/link/ExtendedStatus.h"

using vpnctl::Value;
using namespace helper;

namespace {

in_addr address(const char *text) { return addressFrom(text).value(); }

TEST(ExtendedStatus, SaysCausesWhileNotUp) {
  LinkFacts facts;
  facts.phase = 2;
  facts.server = "vpn.example";
  const Value connecting = extendedStatus(facts);
  EXPECT_EQ(connecting["PPP"]["Status"], Value(2));
  EXPECT_EQ(connecting["PPP"]["CommRemoteAddress"], Value("vpn.example"));
  EXPECT_EQ(connecting["PPP"]["LastCause"], Value(0));
  EXPECT_EQ(connecting.find("IPv4"), nullptr);

  facts.phase = 0;
  facts.lastCause = 8;
  facts.deviceLastCause = 2;
  const Value down = extendedStatus(facts);
  EXPECT_EQ(down["PPP"].find("CommRemoteAddress"), nullptr);
  EXPECT_EQ(down["PPP"]["LastCause"], Value(8));
  EXPECT_EQ(down["PPP"]["DeviceLastCause"], Value(2));
}

// As they are read by others.
TEST(ExtendedStatus, TheCausesOfTunnelsAreTheseNumbers) {
  EXPECT_EQ(static_cast<int>(DeviceCause::noServer), 1);
  EXPECT_EQ(static_cast<int>(DeviceCause::noAnswer), 2);
  EXPECT_EQ(static_cast<int>(DeviceCause::protocolError), 5);
  EXPECT_EQ(static_cast<int>(DeviceCause::networkChanged), 6);
  EXPECT_EQ(static_cast<int>(DeviceCause::noSharedSecret), 7);
}

TEST(ExtendedStatus, SaysAddressesWhileUp) {
  LinkFacts facts;
  facts.phase = 8;
  facts.server = "192.0.2.1";
  facts.up = LinkFacts::Up{"ppp3", address("10.0.0.2"), address("10.0.0.1"), 1400, 1500, 77, 0};
  const Value up = extendedStatus(facts);
  EXPECT_EQ(up["PPP"].find("LastCause"), nullptr);
  EXPECT_EQ(up["PPP"]["ConnectTime"], Value(77));
  EXPECT_EQ(up["PPP"]["LCPMTU"], Value(1400));
  EXPECT_EQ(up["PPP"]["LCPMRU"], Value(1500));
  EXPECT_EQ(up["IPv4"]["Addresses"].array(), Value::Array{Value("10.0.0.2")});
  EXPECT_EQ(up["IPv4"]["DestAddresses"].array(), Value::Array{Value("10.0.0.1")});
  EXPECT_EQ(up["IPv4"]["InterfaceName"], Value("ppp3"));
  EXPECT_EQ(up["IPv4"]["Router"], Value("10.0.0.1"));

  facts.phase = 9;
  EXPECT_EQ(extendedStatus(facts).find("IPv4"), nullptr);
}

}  // namespace
