#include <gtest/gtest.h>

#include "helper/link/LinkConfiguration.h"

using foundation::Value;
using helper::EngineSettings;
using helper::LinkConfiguration;

namespace {

Value preferences(const std::string &type, const std::string &tunnelType = "PPTP") {
  Value interface {
    Value::Dictionary {}
  };
  interface.set("Type", type);
  interface.set("SubType", tunnelType);
  Value ppp{Value::Dictionary{}};
  ppp.set("AuthName", "alice");
  Value service{Value::Dictionary{}};
  service.set("Interface", interface);
  service.set("PPP", ppp);
  Value services{Value::Dictionary{}};
  services.set("ID", service);
  Value root{Value::Dictionary{}};
  root.set("NetworkServices", services);
  return root;
}

TEST(LinkConfiguration, ComesFromTheService) {
  const auto configuration = LinkConfiguration::fromPreferences(preferences("PPP"), "ID");
  ASSERT_TRUE(configuration);
  EXPECT_EQ(configuration->serviceID, "ID");
  EXPECT_EQ(configuration->tunnelType, "PPTP");
  EXPECT_EQ(configuration->ppp["AuthName"], Value("alice"));
  EXPECT_TRUE(configuration->ipsec.isNull());
}

TEST(LinkConfiguration, NeedsAServiceOfTheRightKind) {
  EXPECT_FALSE(LinkConfiguration::fromPreferences(preferences("PPP"), "OTHER"));
  EXPECT_FALSE(LinkConfiguration::fromPreferences(preferences("Ethernet"), "ID"));
  EXPECT_FALSE(LinkConfiguration::fromPreferences(Value(), "ID"));
  EXPECT_FALSE(LinkConfiguration::fromPreferences(Value("text"), "ID"));
}

LinkConfiguration configured(const std::string &tunnelType, const EngineSettings &settings) {
  auto configuration = LinkConfiguration::fromPreferences(preferences("PPP", tunnelType), "ID");
  configuration->applySettings(settings);
  return *configuration;
}

TEST(LinkConfiguration, TheDefaultsOfTheMachineChangeNothing) {
  for (const char *const type : {"PPTP", "L2TP"}) {
    const auto untouched = LinkConfiguration::fromPreferences(preferences("PPP", type), "ID");
    const LinkConfiguration configuration = configured(type, {});
    EXPECT_EQ(configuration.ppp, untouched->ppp);
    EXPECT_EQ(configuration.ipv4, untouched->ipv4);
    EXPECT_FALSE(configuration.isInClear());
  }
}

TEST(LinkConfiguration, TheMachinesSettingsGoAboveTheServices) {
  EngineSettings settings;
  settings.ppp.mtu = 1400;
  settings.ppp.mru = 1410;
  settings.ppp.echoInterval = 5;
  settings.ppp.echoFailures = 3;
  settings.ppp.authProtocols = {"MSCHAP2", "EAP"};
  settings.ppp.dns = false;
  settings.ppp.defaultRoute = false;
  const LinkConfiguration configuration = configured("L2TP", settings);
  EXPECT_EQ(configuration.ppp, Value(Value::Dictionary{{"AuthName", "alice"},
                                                       {"AuthProtocol", Value::Array{"MSCHAP2", "EAP"}},
                                                       {"IPCPUsePeerDNS", 0},
                                                       {"LCPEchoFailure", 3},
                                                       {"LCPEchoInterval", 5},
                                                       {"LCPMRU", 1410},
                                                       {"LCPMTU", 1400}}));
  EXPECT_EQ(configuration.ipv4, Value(Value::Dictionary{{"OverridePrimary", 0}}));
  settings.ppp.dns = true;
  settings.ppp.defaultRoute = true;
  EXPECT_EQ(configured("L2TP", settings).ppp["IPCPUsePeerDNS"], Value(1));
  EXPECT_EQ(configured("L2TP", settings).ipv4["OverridePrimary"], Value(1));
}

TEST(LinkConfiguration, WhatNoDictionaryHasAKeyForTravelsAlong) {
  EngineSettings settings;
  settings.ike.remoteIdentity = "10.0.0.1";
  settings.l2tp.sourcePort = EngineSettings::SourcePort::any;
  const LinkConfiguration configuration = configured("L2TP", settings);
  EXPECT_EQ(configuration.settings.ike.remoteIdentity, "10.0.0.1");
  EXPECT_EQ(configuration.settings.l2tp.sourcePort, EngineSettings::SourcePort::any);
}

TEST(LinkConfiguration, TheMachineDecidesOnPPTPsEncryption) {
  EngineSettings settings;
  settings.pptp.mppe = EngineSettings::MPPE::require128;
  const LinkConfiguration strong = configured("PPTP", settings);
  EXPECT_EQ(strong.ppp,
            Value(Value::Dictionary{
                {"AuthName", "alice"}, {"CCPEnabled", 1}, {"CCPMPPE128Enabled", 1}, {"CCPMPPE40Enabled", 0}}));
  EXPECT_FALSE(strong.isInClear());
  EXPECT_EQ(configured("L2TP", settings).ppp, Value(Value::Dictionary{{"AuthName", "alice"}}));

  settings.pptp.mppe = EngineSettings::MPPE::none;
  const LinkConfiguration clear = configured("PPTP", settings);
  EXPECT_EQ(clear.ppp["CCPEnabled"], Value(0));
  EXPECT_TRUE(clear.isInClear());
  EXPECT_FALSE(configured("L2TP", settings).isInClear()) << "IPSec encrypts it";
}

}  // namespace
