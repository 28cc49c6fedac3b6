#include <gtest/gtest.h>

#include "foundation/PropertyList.h"
#include "foundation/UUID.h"
#include "platform/linux/DefaultConfiguration.h"
#include "tests/platform/linux/HelperFixture.h"

namespace platform {
namespace {

using vpnctl::Value;

class NetworkServiceTest : public testing::HelperFixture {
 protected:
  const AuthorizationRef authorization = authorize();
  const SCPreferencesRef preferences = openPreferences(authorization);
};

TEST_F(NetworkServiceTest, AFreshSystemHasNoServicesAndACurrentSet) {
  const auto services = SCNetworkServiceCopyAll(preferences);
  ASSERT_TRUE(services.has_value());
  EXPECT_TRUE(services->empty());
  EXPECT_TRUE(SCNetworkSetCopyCurrent(preferences));
}

TEST_F(NetworkServiceTest, InterfacesFitOrFail) {
  EXPECT_FALSE(SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, kSCNetworkInterfaceTypePPP));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
  EXPECT_FALSE(SCNetworkInterfaceCreateWithInterface({}, kSCNetworkInterfaceTypePPTP));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
  const auto tunnel = SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, kSCNetworkInterfaceTypePPTP);
  EXPECT_TRUE(tunnel);
  EXPECT_EQ(SCError(), 0);
  EXPECT_FALSE(SCNetworkInterfaceCreateWithInterface(tunnel, kSCNetworkInterfaceTypeL2TP));
  EXPECT_FALSE(SCNetworkServiceCreate(preferences, tunnel));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
}

TEST_F(NetworkServiceTest, ANewServiceHasItsDefaults) {
  const auto service = addService(preferences, "A", "server.example");
  EXPECT_TRUE(vpnctl::isUUID(SCNetworkServiceGetServiceID(service).value_or("")));
  EXPECT_EQ(SCNetworkServiceGetName(service), "A");
  Value expected = defaultPPP("PPTP");
  expected.set(kSCPropNetPPPCommRemoteAddress, "server.example");
  EXPECT_EQ(SCNetworkInterfaceGetConfiguration(SCNetworkServiceGetInterface(service)), expected);
  EXPECT_EQ(expected["CCPEnabled"], Value(1));
  EXPECT_EQ(expected["LCPEchoFailure"], Value(15));
  EXPECT_TRUE(defaultPPP("L2TP")["CCPEnabled"].isNull());
  const Value protocols = defaultProtocols();
  for (const auto &[type, configuration] : protocols.dictionary())
    EXPECT_EQ(SCNetworkProtocolGetConfiguration(SCNetworkServiceCopyProtocol(service, type)), configuration) << type;
  EXPECT_FALSE(SCNetworkServiceCopyProtocol(service, "AppleTalk"));
  EXPECT_EQ(SCError(), kSCStatusNoKey);
}

TEST_F(NetworkServiceTest, AServiceWithoutANameHasNone) {
  const auto tunnel = SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, kSCNetworkInterfaceTypePPTP);
  const auto ppp = SCNetworkInterfaceCreateWithInterface(tunnel, kSCNetworkInterfaceTypePPP);
  const auto service = SCNetworkServiceCreate(preferences, ppp);
  ASSERT_TRUE(service);
  EXPECT_FALSE(SCNetworkServiceGetName(service).has_value());
}

TEST_F(NetworkServiceTest, AProtocolsConfigurationIsReplacedWhole) {
  const auto service = addService(preferences, "A", "x");
  const auto protocol = SCNetworkServiceCopyProtocol(service, kSCEntNetIPv4);
  Value configuration = SCNetworkProtocolGetConfiguration(protocol);
  configuration.set(kSCPropNetOverridePrimary, 1);
  EXPECT_TRUE(SCNetworkProtocolSetConfiguration(protocol, configuration));
  EXPECT_EQ(SCNetworkProtocolGetConfiguration(protocol),
            Value(Value::Dictionary{{"ConfigMethod", "PPP"}, {"OverridePrimary", 1}}));
  EXPECT_FALSE(SCNetworkProtocolSetConfiguration(protocol, Value("text")));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
}

TEST_F(NetworkServiceTest, IPSecStandsBesidePPPOverL2TPOnly) {
  const Value secrets = Value::Dictionary{{kSCPropNetIPSecSharedSecret, "X.SS"}};
  const auto pptp = SCNetworkServiceGetInterface(addService(preferences, "A", "x", "PPTP"));
  EXPECT_FALSE(SCNetworkInterfaceSetExtendedConfiguration(pptp, kSCEntNetIPSec, secrets));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
  const auto service = addService(preferences, "B", "x", "L2TP");
  const auto l2tp = SCNetworkServiceGetInterface(service);
  EXPECT_TRUE(SCNetworkInterfaceSetExtendedConfiguration(l2tp, kSCEntNetIPSec, secrets));
  EXPECT_FALSE(SCNetworkInterfaceSetExtendedConfiguration(l2tp, "EAPOL", secrets));
  ASSERT_TRUE(SCPreferencesCommitChanges(preferences));
  const auto file = vpnctl::propertyListFromFile(preferencesPath());
  ASSERT_TRUE(file);
  EXPECT_EQ((*file)["NetworkServices"][*SCNetworkServiceGetServiceID(service)]["IPSec"], secrets);
}

TEST_F(NetworkServiceTest, AnEmptyConfigurationRemovesTheEntity) {
  const auto interface = SCNetworkServiceGetInterface(addService(preferences, "A", "x"));
  EXPECT_TRUE(SCNetworkInterfaceSetConfiguration(interface, Value::Dictionary()));
  EXPECT_TRUE(SCNetworkInterfaceGetConfiguration(interface).isNull());
}

TEST_F(NetworkServiceTest, ServicesComeInTheOrderOfTheirIdentifiers) {
  for (const char *name : {"A", "B", "C", "D"}) addService(preferences, name, "x");
  const auto services = SCNetworkServiceCopyAll(preferences);
  ASSERT_TRUE(services.has_value());
  ASSERT_EQ(services->size(), 4U);
  for (std::size_t i = 1; i < 4; ++i)
    EXPECT_LT(SCNetworkServiceGetServiceID((*services)[i - 1]), SCNetworkServiceGetServiceID((*services)[i]));
}

TEST_F(NetworkServiceTest, NamesAreUniqueAmongTheSiblingsOfASet) {
  addService(preferences, "A", "x");
  const auto second = addService(preferences, "A", "x");  // named before it was added: two may bear one name
  EXPECT_EQ(SCNetworkServiceGetName(second), "A");
  EXPECT_FALSE(SCNetworkServiceSetName(second, "A"));
  EXPECT_EQ(SCError(), kSCStatusKeyExists);
  EXPECT_TRUE(SCNetworkServiceSetName(second, "a"));
}

TEST_F(NetworkServiceTest, RemovingTakesItOutOfEverySetAndOrder) {
  const auto kept = addService(preferences, "A", "x");
  const auto gone = addService(preferences, "B", "x");
  EXPECT_FALSE(SCNetworkSetAddService(SCNetworkSetCopyCurrent(preferences), gone));
  EXPECT_EQ(SCError(), kSCStatusKeyExists);
  ASSERT_TRUE(SCNetworkServiceRemove(gone));
  EXPECT_FALSE(SCNetworkServiceRemove(gone));
  EXPECT_EQ(SCError(), kSCStatusNoKey);
  ASSERT_TRUE(SCPreferencesCommitChanges(preferences));
  const auto file = vpnctl::propertyListFromFile(preferencesPath());
  ASSERT_TRUE(file);
  const std::string identifier = *SCNetworkServiceGetServiceID(kept);
  ASSERT_EQ((*file)["Sets"].dictionary().size(), 1U);
  const Value &network = (*file)["Sets"].dictionary().begin()->second["Network"];
  EXPECT_EQ(network["Service"],
            Value(Value::Dictionary{{identifier, Value::Dictionary{{"__LINK__", "/NetworkServices/" + identifier}}}}));
  EXPECT_EQ(network["Global"]["IPv4"]["ServiceOrder"], Value(Value::Array{identifier}));
  EXPECT_EQ((*file)["NetworkServices"].dictionary().size(), 1U);
}

TEST_F(NetworkServiceTest, NullArgumentsFail) {
  EXPECT_FALSE(SCNetworkServiceGetName({}).has_value());
  EXPECT_FALSE(SCNetworkServiceSetName({}, "A"));
  EXPECT_FALSE(SCNetworkServiceRemove({}));
  EXPECT_FALSE(SCNetworkServiceEstablishDefaultConfiguration({}));
  EXPECT_FALSE(SCNetworkServiceGetServiceID({}).has_value());
  EXPECT_FALSE(SCNetworkServiceGetInterface({}));
  EXPECT_FALSE(SCNetworkServiceCopyProtocol({}, "IPv4"));
  EXPECT_TRUE(SCNetworkProtocolGetConfiguration({}).isNull());
  EXPECT_FALSE(SCNetworkProtocolSetConfiguration({}, {}));
  EXPECT_TRUE(SCNetworkInterfaceGetConfiguration({}).isNull());
  EXPECT_FALSE(SCNetworkInterfaceSetConfiguration({}, {}));
  EXPECT_FALSE(SCNetworkInterfaceSetExtendedConfiguration({}, kSCEntNetIPSec, {}));
  EXPECT_FALSE(SCNetworkSetCopyCurrent({}));
  EXPECT_FALSE(SCNetworkSetAddService({}, {}));
  EXPECT_FALSE(SCPreferencesCommitChanges({}));
  EXPECT_FALSE(SCPreferencesApplyChanges({}));
}

}  // namespace
}  // namespace platform
