#include <gtest/gtest.h>

#include "helper/store/NetworkPreferencesSchema.h"

namespace helper {
namespace {

using vpnctl::Value;

// One service in one set, with one part replaced.
class NetworkPreferencesSchemaTest : public ::testing::Test {
 protected:
  using Dictionary = Value::Dictionary;

  Value root() const {
    const Value network = Dictionary{
        {"Global", Dictionary{{"IPv4", Dictionary{{"ServiceOrder", order}}}}},
        {"Service", links},
    };
    return Dictionary{{"CurrentSet", current},
                      {"NetworkServices", Dictionary{{serviceName, service}}},
                      {"Sets", Dictionary{{"0", Dictionary{{"UserDefinedName", setName}, {"Network", network}}}}}};
  }

  bool isGood() const { return static_cast<bool>(checkNetworkPreferences(root())); }

  std::string serviceName = "S";
  Value current = "/Sets/0";
  Value setName = "Automatic";
  Value service = Dictionary{{"UserDefinedName", "name"},
                             {"Interface", Dictionary{{"Type", "PPP"}, {"SubType", "PPTP"}}},
                             {"PPP", Dictionary()}};
  Value links = Dictionary{{"S", Dictionary{{"__LINK__", "/NetworkServices/S"}}}};
  Value order = Value::Array{"S"};
};

TEST_F(NetworkPreferencesSchemaTest, WhatItShouldLookLike) {
  EXPECT_TRUE(isGood());
  EXPECT_TRUE(checkNetworkPreferences(Value::Dictionary()));
  EXPECT_TRUE(checkNetworkPreferences(Value::Dictionary{{"Model", 1}}));
  EXPECT_FALSE(checkNetworkPreferences(Value::Array()));
  EXPECT_FALSE(checkNetworkPreferences(Value()));
}

TEST_F(NetworkPreferencesSchemaTest, TheCurrentSetIsThere) {
  for (const Value &bad : {Value("/Sets/1"), Value("0"), Value("/NetworkServices/S"), Value("/Sets/"), Value(1)}) {
    current = bad;
    EXPECT_FALSE(isGood()) << bad.description();
  }
}

TEST_F(NetworkPreferencesSchemaTest, AServiceHasItsShape) {
  for (const char *key : {"UserDefinedName", "Interface", "PPP", "IPv4", "IPSec"}) {
    const Value good = service;
    service.set(key, 1);
    const auto status = checkNetworkPreferences(root());
    ASSERT_FALSE(status) << key;
    EXPECT_NE(status.error().message.find(std::string("/NetworkServices/S/") + key), std::string::npos);
    service = good;
  }
  service.set("Interface", Dictionary());
  EXPECT_FALSE(isGood());
  service.set("Interface", Dictionary{{"Type", "PPP"}, {"SubType", 1}});
  EXPECT_FALSE(isGood());
  service = Value("text");
  EXPECT_FALSE(isGood());
}

TEST_F(NetworkPreferencesSchemaTest, AnIdentifierIsOnePartOfAPath) {
  links = Dictionary();
  for (const std::string &bad : {std::string(), std::string("a/b"), std::string(129, 'x')}) {
    serviceName = bad;
    EXPECT_FALSE(isGood()) << bad;
  }
}

TEST_F(NetworkPreferencesSchemaTest, EveryLinkLeadsToAService) {
  for (const Value &bad : {Value("/NetworkServices/T"), Value("/Sets/0"), Value("S"), Value(1)}) {
    links = Dictionary{{"S", Dictionary{{"__LINK__", bad}}}};
    EXPECT_FALSE(isGood()) << bad.description();
  }
  links = Dictionary{{"S", Dictionary()}};  // no link: a service that lives in the set itself
  EXPECT_TRUE(isGood());
  links = Value::Array();
  EXPECT_FALSE(isGood());
}

TEST_F(NetworkPreferencesSchemaTest, AnOrderIsAListOfIdentifiers) {
  for (const Value &bad : {Value("S"), Value(Value::Array{1}), Value(Dictionary())}) {
    order = bad;
    EXPECT_FALSE(isGood()) << bad.description();
  }
  order = Value::Array{"S", "gone"};  // what is no longer there is no harm
  EXPECT_TRUE(isGood());
}

TEST_F(NetworkPreferencesSchemaTest, ASetHasItsShape) {
  setName = 1;
  EXPECT_FALSE(isGood());
  EXPECT_FALSE(checkNetworkPreferences(Dictionary{{"Sets", Dictionary{{"0", "text"}}}}));
  EXPECT_FALSE(checkNetworkPreferences(Dictionary{{"Sets", Dictionary{{"0", Dictionary{{"Network", 1}}}}}}));
  EXPECT_FALSE(checkNetworkPreferences(Dictionary{{"Sets", "text"}}));
  EXPECT_FALSE(checkNetworkPreferences(Dictionary{{"NetworkServices", "text"}}));
}

}  // namespace
}  // namespace helper
