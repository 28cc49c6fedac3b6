#include <gtest/gtest.h>

#include <future>

#include "TNUtils/TNKeyChain.h"
#include "platform/fake/FakePlatform.h"
#include "qolmhelper/TNConnectorPPTP.h"

namespace TN {
namespace {

using foundation::Secret;
using foundation::Value;
using platform::fake::extendedStatus;
using platform::fake::FakePlatform;
using platform::fake::Service;
using platform::fake::StatusChange;

constexpr const char *kFirstID = "00000000-0000-4000-8000-000000000001";

class TNConnectorPPTPTest : public testing::Test {
 protected:
  TNConnectorPPTPTest() {
    platform_.reset();
    connector_->authorize();
  }

  void addService(std::optional<std::string> name) {
    Service service;
    service.serviceID = "id of " + name.value_or("nothing") + " " + std::to_string(platform_.services.size());
    service.name = std::move(name);
    platform_.services.push_back(service);
  }
  // Runs createConnection with standard error caught.
  std::int32_t create() {
    testing::internal::CaptureStderr();
    const std::int32_t result = connector_->createConnection();
    error_ = testing::internal::GetCapturedStderr();
    return result;
  }
  std::vector<std::string> storedNames() {
    std::vector<std::string> names;
    for (const Service &service : platform_.services) names.push_back(service.name.value_or("(none)"));
    return names;
  }
  std::size_t count(const std::string &call) { return platform_.calls(call + "(").size(); }
  void expectNothingStored(const std::vector<std::string> &names) {
    EXPECT_EQ(storedNames(), names);
    EXPECT_TRUE(platform_.items.empty());
    EXPECT_EQ(count("SCPreferencesCommitChanges"), 0u);
    EXPECT_EQ(count("SCNetworkConnectionCreateWithServiceID"), 0u);
  }

  FakePlatform &platform_ = FakePlatform::instance();
  std::shared_ptr<TNConnectorPPTP> connector_ =
      std::make_shared<TNConnectorPPTP>("192.0.2.1", "ann", Secret("pw"), Secret("ss"));
  std::string error_;
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
  std::vector<std::string> calls;
  for (const std::string &call : platform_.calls("S")) {
    if (call.starts_with("Sec") && !call.starts_with("SecKeychainCopyDomainDefault")) continue;  // TNKeyChain's test
    calls.push_back(call.starts_with("SCNetworkInterfaceSetConfiguration") ? call.substr(0, call.find('(')) : call);
  }
  EXPECT_EQ(calls, expected);
}

TEST_F(TNConnectorPPTPTest, StoresTheServiceWithItsEntriesOnTopOfTheDefaults) {
  create();
  ASSERT_EQ(platform_.services.size(), 1u);
  const Service &service = platform_.services.front();
  EXPECT_EQ(service.serviceID, kFirstID);
  EXPECT_EQ(service.name, "Corvanelle");
  EXPECT_EQ(service.layers, (std::vector<std::string>{"PPP", "PPTP", "IPv4"}));
  EXPECT_TRUE(service.inCurrentSet);
  EXPECT_EQ(service.configuration["AuthName"], Value("ann"));
  EXPECT_EQ(service.configuration["AuthPasswordEncryption"], Value("Keychain"));
  EXPECT_EQ(service.configuration["AuthPassword"], Value(kFirstID));
  EXPECT_EQ(service.configuration["CommRemoteAddress"], Value("192.0.2.1"));
  EXPECT_EQ(service.configuration["AlertEnable"], Value(0));
  EXPECT_EQ(service.configuration["LCPEchoInterval"], Value(20)) << "a default";
  EXPECT_EQ(service.protocols.at("IPv4")["OverridePrimary"], Value(1));
  EXPECT_EQ(service.protocols.at("IPv4")["ConfigMethod"], Value("PPP")) << "a default";
  EXPECT_FALSE(service.protocols.at("IPv6").find("OverridePrimary"));
}

TEST_F(TNConnectorPPTPTest, StoresBothSecretsUnderTheServicesName) {
  create();
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[0].service, std::string(kFirstID) + ".SS");
  EXPECT_EQ(platform_.items[0].secret, "ss");
  EXPECT_EQ(platform_.items[1].service, kFirstID);
  EXPECT_EQ(platform_.items[1].account, "ann");
  EXPECT_EQ(platform_.items[1].secret, "pw");
}

TEST_F(TNConnectorPPTPTest, ThePasswordIsInTheKeychainOnly) {
  create();
  for (const std::string &call : platform_.calls("SC")) {
    EXPECT_EQ(call.find("\"pw\""), std::string::npos) << call;
    EXPECT_EQ(call.find("\"ss\""), std::string::npos) << call;
  }
}

TEST_F(TNConnectorPPTPTest, RemovesTheFirstServiceOfItsNameOnly) {
  for (const char *const name : {"Other", "Corvanelle", "Corvanelle"}) addService(name);
  const std::string second = platform_.services[2].serviceID;
  create();
  EXPECT_EQ(storedNames(), (std::vector<std::string>{"Other", "Corvanelle", "Corvanelle"}));
  EXPECT_EQ(platform_.services[1].serviceID, second);
  EXPECT_EQ(platform_.services[2].serviceID, kFirstID);
  EXPECT_EQ(count("SCNetworkServiceRemove"), 1u);
}

TEST_F(TNConnectorPPTPTest, ComparesNamesExactly) {
  addService("corvanelle");
  addService("CORVANELLE");
  addService("Corvanelle 2");
  addService("Corvanell");
  addService(std::nullopt);
  create();
  EXPECT_EQ(count("SCNetworkServiceRemove"), 0u);
  EXPECT_EQ(platform_.services.size(), 6u);
}

TEST_F(TNConnectorPPTPTest, WithoutAServiceListItGivesUp) {
  addService("Corvanelle");
  platform_.fail("SCNetworkServiceCopyAll", 1003);
  EXPECT_EQ(create(), 1003);
  EXPECT_EQ(error_, "No network services\n");
  expectNothingStored({"Corvanelle"});
}

TEST_F(TNConnectorPPTPTest, WithoutPreferencesThereIsNoServiceListEither) {
  platform_.fail("SCPreferencesCreateWithAuthorization", 3001);
  EXPECT_EQ(create(), 3001);
  EXPECT_EQ(error_, "No network services\n");
}

TEST_F(TNConnectorPPTPTest, WithoutAPPTPInterfaceItGivesUp) {
  addService("Corvanelle");
  platform_.fail("SCNetworkInterfaceCreateWithInterface", 1001);
  EXPECT_EQ(create(), 1001);
  EXPECT_EQ(error_, "Error creating PPTP interface!\n");
  EXPECT_EQ(count("SCNetworkServiceRemove"), 1u) << "removed from the session, which is never saved";
  expectNothingStored({"Corvanelle"});
}

TEST_F(TNConnectorPPTPTest, WithoutAPPPInterfaceItGivesUp) {
  addService("Corvanelle");
  platform_.fail("SCNetworkInterfaceCreateWithInterface", 1002, 1, 1);
  EXPECT_EQ(create(), 1002);
  EXPECT_EQ(error_, "Error creating PPP interface!\n");
  expectNothingStored({"Corvanelle"});
}

struct SavingStep {
  std::string failing;
  std::vector<std::string> notReached;
};

class UnsavedService : public TNConnectorPPTPTest, public testing::WithParamInterface<SavingStep> {};

// Nothing is said, the items are written all the same, and there is no connection.
TEST_P(UnsavedService, LeavesNoConnectionButTheItems) {
  if (GetParam().failing == "SCNetworkSetCopyCurrent") {
    platform_.hasCurrentSet = false;
  } else {
    platform_.fail(GetParam().failing, 3005);
  }
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(error_, "");
  for (const std::string &call : GetParam().notReached) EXPECT_EQ(count(call), 0u) << call;
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[1].service, kFirstID);
  EXPECT_EQ(platform_.calls().back(),
            "SCNetworkConnectionCreateWithServiceID(null, callback, {0, info, null, null, null})");
  EXPECT_EQ(count("SCNetworkServiceGetServiceID"), 1u);
  EXPECT_EQ(connector_->connection(), nullptr);
}
INSTANTIATE_TEST_SUITE_P(
    Steps, UnsavedService,
    testing::Values(SavingStep{"SCNetworkSetCopyCurrent",
                               {"SCNetworkSetAddService", "SCPreferencesCommitChanges", "SCPreferencesApplyChanges",
                                "SCPreferencesSynchronize"}},
                    SavingStep{"SCNetworkSetAddService",
                               {"SCPreferencesCommitChanges", "SCPreferencesApplyChanges", "SCPreferencesSynchronize"}},
                    SavingStep{"SCPreferencesCommitChanges", {"SCPreferencesApplyChanges", "SCPreferencesSynchronize"}},
                    SavingStep{"SCPreferencesApplyChanges", {"SCPreferencesSynchronize"}}),
    [](const auto &parameter) { return parameter.param.failing; });

TEST_F(TNConnectorPPTPTest, UntestedResultsDoNotStopIt) {
  platform_.fail("SCNetworkServiceSetName", 1005);
  platform_.fail("SCNetworkServiceEstablishDefaultConfiguration", 1001);
  platform_.fail("SCNetworkProtocolSetConfiguration", 1001);
  platform_.fail("SCNetworkInterfaceSetConfiguration", 1001);
  platform_.fail("SCPreferencesSynchronize", 1001);
  platform_.fail("SCNetworkServiceRemove", 1001);
  addService("Corvanelle");
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(error_, "");
  EXPECT_NE(connector_->connection(), nullptr);
}

TEST_F(TNConnectorPPTPTest, AConnectionThatCannotBeMadeIsNone) {
  platform_.fail("SCNetworkConnectionCreateWithServiceID", 1001);
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(connector_->connection(), nullptr);
}

TEST_F(TNConnectorPPTPTest, ASecondAskGivesTheSameConnection) {
  const auto first = connector_->connection();
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(connector_->connection(), first);
  EXPECT_EQ(count("SCNetworkServiceCreate"), 1u);
}

TEST_F(TNConnectorPPTPTest, WithoutAConnectionEachAskTriesAgain) {
  platform_.fail("SCPreferencesCommitChanges", 3005, 2);
  EXPECT_EQ(connector_->connection(), nullptr);
  EXPECT_EQ(connector_->connection(), nullptr);
  EXPECT_EQ(count("SCNetworkServiceCreate"), 2u);
  EXPECT_EQ(count("SecKeychainItemCreateFromContent"), 4u);
  EXPECT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[1].service, "00000000-0000-4000-8000-000000000002");
  EXPECT_NE(connector_->connection(), nullptr);
  EXPECT_EQ(count("SCNetworkServiceCreate"), 3u);
}

TEST_F(TNConnectorPPTPTest, TwoRunsLeaveOneServiceAndTwoItems) {
  create();
  connector_ = std::make_shared<TNConnectorPPTP>("192.0.2.1", "ann", Secret("pw"), Secret("ss"));
  connector_->authorize();
  create();
  EXPECT_EQ(storedNames(), std::vector<std::string>{"Corvanelle"});
  EXPECT_EQ(platform_.items.size(), 2u);
}

TEST_F(TNConnectorPPTPTest, ANullTextInTheConfigurationIsAnUncaughtException) {
  for (const auto &connector :
       {std::make_shared<TNConnectorPPTP>(std::nullopt, "ann", Secret("pw"), Secret("ss")),
        std::make_shared<TNConnectorPPTP>("192.0.2.1", std::nullopt, Secret("pw"), Secret("ss"))}) {
    connector->authorize();
    EXPECT_THROW(connector->createConnection(), std::invalid_argument);
  }
}

// Its identifier is then a null text of the configuration.
TEST_F(TNConnectorPPTPTest, AServiceThatCannotBeMadeIsAnUncaughtException) {
  addService("Other");
  platform_.fail("SCNetworkServiceCreate", 1001);
  EXPECT_THROW(connector_->createConnection(), std::invalid_argument);
  expectNothingStored({"Other"});
}

TEST_F(TNConnectorPPTPTest, ConnectSaysItsBannerFirst) {
  platform_.up = {StatusChange{0, extendedStatus(0), 0, {}}};
  testing::internal::CaptureStderr();
  connector_->connect();
  const std::string error = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(error.starts_with("Starting pptp connection...\n")) << error;
  EXPECT_TRUE(error.ends_with("PPP Network connection disconnected\nExit.\n")) << error;
}

TEST_F(TNConnectorPPTPTest, AnotherThreadsStopWaitsForTheConnectionAndMakesNone) {
  std::promise<void> asked;
  std::thread stopper([&] {
    asked.set_value();
    connector_->disconnect();
  });
  asked.get_future().wait();
  const auto connection = connector_->connection();
  stopper.join();
  EXPECT_NE(connection, nullptr);
  EXPECT_EQ(count("SCNetworkServiceCreate"), 1u);
  EXPECT_EQ(platform_.calls("SCNetworkConnectionStop"),
            std::vector<std::string>{"SCNetworkConnectionStop(connection, true)"});
}

TEST_F(TNConnectorPPTPTest, AnotherThreadsStopAfterAFailedAttemptMakesNone) {
  platform_.fail("SCPreferencesCommitChanges", 3005, 1);
  EXPECT_EQ(connector_->connection(), nullptr);
  std::thread([&] { connector_->disconnect(); }).join();
  EXPECT_EQ(count("SCNetworkServiceCreate"), 1u);
  EXPECT_EQ(platform_.calls("SCNetworkConnectionStop"),
            std::vector<std::string>{"SCNetworkConnectionStop(null, true)"});
}

}  // namespace
}  // namespace TN
