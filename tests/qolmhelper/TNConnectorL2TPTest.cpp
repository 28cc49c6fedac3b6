#include "qolmhelper/TNConnectorL2TP.h"
#include "qolmhelper/TNConnectorPPTP.h"
#include "tests/qolmhelper/Backend.h"
#include "tests/qolmhelper/ServiceFixture.h"

namespace TN {
namespace {

using vpnctl::Value;

class TNConnectorL2TPTest : public ServiceFixture {
 protected:
  TNConnectorL2TPTest() { use(make<TNConnectorL2TP>()); }
};

TEST_F(TNConnectorL2TPTest, MakesTheServiceStepByStep) {
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(error_, "");
  const std::vector<std::string> expected{
      "SCPreferencesCreateWithAuthorization(\"Corvanelle\", null, authorization)",
      "SCNetworkServiceCopyAll(preferences)",
      "SCNetworkInterfaceCreateWithInterface(interface IPv4, L2TP)",
      "SCNetworkInterfaceCreateWithInterface(interface L2TP/IPv4, PPP)",
      "SCNetworkServiceCreate(preferences, interface PPP/L2TP/IPv4)",
      "SCNetworkServiceSetName(service null, \"Corvanelle\")",
      "SCNetworkServiceEstablishDefaultConfiguration(service \"Corvanelle\")",
      "SCNetworkServiceGetServiceID(service \"Corvanelle\")",
      "SCNetworkServiceGetInterface(service \"Corvanelle\")",
      std::string("SCNetworkInterfaceSetExtendedConfiguration(interface PPP/L2TP/IPv4, IPSec, "
                  "{AuthenticationMethod=\"SharedSecret\", SharedSecret=\"") +
          kFirstID + ".SS\", SharedSecretEncryption=\"Keychain\"})",
      "SCNetworkServiceCopyProtocol(service \"Corvanelle\", IPv4)",
      "SCNetworkProtocolGetConfiguration(protocol IPv4)",
      "SCNetworkProtocolSetConfiguration(protocol IPv4, {ConfigMethod=\"PPP\", OverridePrimary=1})",
      "SCNetworkInterfaceGetConfiguration(interface PPP/L2TP/IPv4)",
      "SCNetworkInterfaceSetConfiguration",
      "SCNetworkSetCopyCurrent(preferences)",
      "SCNetworkSetAddService(set, service \"Corvanelle\")",
      "SCPreferencesCommitChanges(preferences)",
      "SCPreferencesApplyChanges(preferences)",
      "SCPreferencesSynchronize(preferences)",
      "SCNetworkServiceGetServiceID(service \"Corvanelle\")",
      "SecKeychainCopyDomainDefault(1)",
      std::string("SCNetworkConnectionCreateWithServiceID(\"") + kFirstID +
          "\", callback, {0, info, null, null, null})"};
  EXPECT_EQ(steps(), expected);
}

TEST_F(TNConnectorL2TPTest, StoresAnIPSecDictionaryOfThreeEntries) {
  create();
  ASSERT_EQ(platform_.services.size(), 1u);
  const std::string secretName = std::string(kFirstID) + ".SS";
  const std::map<std::string, Value> expected{{"IPSec", Value::Dictionary{{"AuthenticationMethod", "SharedSecret"},
                                                                          {"SharedSecret", secretName},
                                                                          {"SharedSecretEncryption", "Keychain"}}}};
  EXPECT_EQ(platform_.services.front().extendedConfigurations, expected);
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[0].service, secretName) << "where the IKE daemon looks for the secret";
  EXPECT_TRUE(platform_.services.front().configuration["CCPEnabled"].isNull()) << "IPSec encrypts already";
}

// The service is saved without it.
TEST_F(TNConnectorL2TPTest, ARefusedIPSecConfigurationIsNotNoticed) {
  platform_.fail("SCNetworkInterfaceSetExtendedConfiguration", 1001);
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(error_, "");
  ASSERT_EQ(platform_.services.size(), 1u);
  EXPECT_TRUE(platform_.services.front().extendedConfigurations.empty());
  EXPECT_NE(connector_->connection(), nullptr);
}

TEST_F(TNConnectorL2TPTest, WithoutPreferencesItGivesUpWithoutAWord) {
  addService("Corvanelle");
  platform_.fail("SCPreferencesCreateWithAuthorization", 3001);
  EXPECT_EQ(create(), 3001);
  EXPECT_EQ(error_, "");
  EXPECT_EQ(steps(),
            std::vector<std::string>{"SCPreferencesCreateWithAuthorization(\"Corvanelle\", null, authorization)"});
  expectNothingStored({"Corvanelle"});
  EXPECT_EQ(connector_->connection(), nullptr);
}

TEST_F(TNConnectorL2TPTest, ReplacesAPPTPServiceAndIsReplacedByOne) {
  if (!kHasPPTP) GTEST_SKIP() << "this backend has no PPTP";
  const auto storedLayers = [this] {
    std::vector<std::vector<std::string>> layers;
    for (const platform::fake::Service &service : platform_.services) layers.push_back(service.layers);
    return layers;
  };
  using Layers = std::vector<std::vector<std::string>>;
  use(make<TNConnectorPPTP>());
  create();
  EXPECT_EQ(storedLayers(), (Layers{{"PPP", "PPTP", "IPv4"}}));
  use(make<TNConnectorL2TP>());
  create();
  EXPECT_EQ(storedLayers(), (Layers{{"PPP", "L2TP", "IPv4"}}));
  EXPECT_EQ(platform_.items.size(), 2u);
  use(make<TNConnectorPPTP>());
  create();
  EXPECT_EQ(storedLayers(), (Layers{{"PPP", "PPTP", "IPv4"}}));
  EXPECT_TRUE(platform_.services.front().extendedConfigurations.empty());
  EXPECT_EQ(platform_.items.size(), 2u);
}

}  // namespace
}  // namespace TN
