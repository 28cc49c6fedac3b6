#include <gtest/gtest.h>

#include "helper/link/LinkConfiguration.h"

using foundation::Value;
using helper::LinkConfiguration;

namespace {

Value preferences(const std::string &type) {
  Value interface {
    Value::Dictionary {}
  };
  interface.set("Type", type);
  interface.set("SubType", "PPTP");
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

}  // namespace
