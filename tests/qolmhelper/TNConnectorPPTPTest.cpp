#include "qolmhelper/TNConnectorPPTP.h"
#include "tests/qolmhelper/ServiceFixture.h"

namespace TN {
namespace {

class TNConnectorPPTPTest : public ServiceFixture {
 protected:
  TNConnectorPPTPTest() { use(make<TNConnectorPPTP>()); }
};

TEST_F(TNConnectorPPTPTest, MakesTheServiceStepByStep) {
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(error_, "");
  const std::vector<std::string> expected{
      "SCPreferencesCreateWithAuthorization(\"Corvanelle\", null, authorization)",
      "SCNetworkServiceCopyAll(preferences)",
      "SCNetworkInterfaceCreateWithInterface(interface IPv4, PPTP)",
      "SCNetworkInterfaceCreateWithInterface(interface PPTP/IPv4, PPP)",
      "SCNetworkServiceCreate(preferences, interface PPP/PPTP/IPv4)",
      "SCNetworkServiceSetName(service null, \"Corvanelle\")",
      "SCNetworkServiceEstablishDefaultConfiguration(service \"Corvanelle\")",
      "SCNetworkServiceGetServiceID(service \"Corvanelle\")",
      "SCNetworkServiceGetInterface(service \"Corvanelle\")",
      "SCNetworkServiceCopyProtocol(service \"Corvanelle\", IPv4)",
      "SCNetworkProtocolGetConfiguration(protocol IPv4)",
      "SCNetworkProtocolSetConfiguration(protocol IPv4, {ConfigMethod=\"PPP\", OverridePrimary=1})",
      "SCNetworkInterfaceGetConfiguration(interface PPP/PPTP/IPv4)",
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

TEST_F(TNConnectorPPTPTest, IsToBeEncryptedByPPPAndKnowsNoIPSec) {
  create();
  ASSERT_EQ(platform_.services.size(), 1u);
  EXPECT_EQ(platform_.services.front().configuration["CCPEnabled"], vpnctl::Value(1));
  EXPECT_TRUE(platform_.services.front().extendedConfigurations.empty());
  EXPECT_EQ(count("SCNetworkInterfaceSetExtendedConfiguration"), 0u);
}

TEST_F(TNConnectorPPTPTest, WithoutPreferencesThereIsNoServiceListEither) {
  platform_.fail("SCPreferencesCreateWithAuthorization", 3001);
  EXPECT_EQ(create(), 3001);
  EXPECT_EQ(error_, "No network services\n");
}

}  // namespace
}  // namespace TN
