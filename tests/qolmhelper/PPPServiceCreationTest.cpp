// What holds for every protocol's connector: each test runs for all of them.

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "qolmhelper/TNConnectorL2TP.h"
#include "qolmhelper/TNConnectorPPTP.h"
#include "tests/qolmhelper/Backend.h"
#include "tests/qolmhelper/ServiceFixture.h"

namespace TN {
namespace {

using platform::fake::extendedStatus;
using platform::fake::Service;
using platform::fake::StatusChange;
using vpnctl::Value;

struct Protocol {
  std::string name;   // as the banner says it
  std::string layer;  // below PPP
  ServiceFixture::Made (*make)(std::optional<std::string> server, std::optional<std::string> username);
};

const std::vector<Protocol> kProtocols = [] {
  std::vector<Protocol> protocols{{"l2tp", "L2TP", ServiceFixture::make<TNConnectorL2TP>}};
  if (kHasPPTP) protocols.push_back({"pptp", "PPTP", ServiceFixture::make<TNConnectorPPTP>});
  return protocols;
}();

// Whether that thread of ours comes to wait for something.
bool sleeps(pid_t thread) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < until) {
    std::string stat;
    std::getline(std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat"), stat);
    if (stat.find(") S ") != std::string::npos) return true;
    std::this_thread::yield();
  }
  return false;
}

class PPPServiceCreationTest : public ServiceFixture, public testing::WithParamInterface<Protocol> {
 protected:
  PPPServiceCreationTest() { use(GetParam().make("192.0.2.1", "ann")); }
};
INSTANTIATE_TEST_SUITE_P(Protocols, PPPServiceCreationTest, testing::ValuesIn(kProtocols),
                         [](const auto &parameter) { return parameter.param.layer; });

TEST_P(PPPServiceCreationTest, StoresTheServiceWithItsEntriesOnTopOfTheDefaults) {
  create();
  ASSERT_EQ(platform_.services.size(), 1u);
  const Service &service = platform_.services.front();
  EXPECT_EQ(service.serviceID, kFirstID);
  EXPECT_EQ(service.name, "Corvanelle");
  EXPECT_EQ(service.layers, (std::vector<std::string>{"PPP", GetParam().layer, "IPv4"}));
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

// A boolean compares equal to its number, but a property list keeps them apart.
TEST_P(PPPServiceCreationTest, OverridePrimaryAndAlertEnableAreNumbers) {
  create();
  const Service &service = platform_.services.front();
  EXPECT_EQ(service.configuration["AlertEnable"].type(), Value(0).type());
  EXPECT_EQ(service.protocols.at("IPv4")["OverridePrimary"].type(), Value(1).type());
  EXPECT_NE(platform_.calls("SCNetworkInterfaceSetConfiguration").front().find("AlertEnable=0,"), std::string::npos);
  EXPECT_NE(platform_.calls("SCNetworkProtocolSetConfiguration").front().find("OverridePrimary=1}"), std::string::npos);
}

TEST_P(PPPServiceCreationTest, StoresBothSecretsUnderTheServicesName) {
  create();
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[0].service, std::string(kFirstID) + ".SS");
  EXPECT_EQ(platform_.items[0].secret, "ss");
  EXPECT_EQ(platform_.items[1].service, kFirstID);
  EXPECT_EQ(platform_.items[1].account, "ann");
  EXPECT_EQ(platform_.items[1].secret, "pw");
}

TEST_P(PPPServiceCreationTest, ThePasswordIsInTheKeychainOnly) {
  create();
  for (const std::string &call : platform_.calls("SC")) {
    EXPECT_EQ(call.find("\"pw\""), std::string::npos) << call;
    EXPECT_EQ(call.find("\"ss\""), std::string::npos) << call;
  }
}

TEST_P(PPPServiceCreationTest, RemovesTheFirstServiceOfItsNameOnly) {
  for (const char *const name : {"Other", "Corvanelle", "Corvanelle"}) addService(name);
  const std::string second = platform_.services[2].serviceID;
  create();
  EXPECT_EQ(storedNames(), (std::vector<std::string>{"Other", "Corvanelle", "Corvanelle"}));
  EXPECT_EQ(platform_.services[1].serviceID, second);
  EXPECT_EQ(platform_.services[2].serviceID, kFirstID);
  EXPECT_EQ(count("SCNetworkServiceRemove"), 1u);
}

TEST_P(PPPServiceCreationTest, ComparesNamesExactly) {
  addService("corvanelle");
  addService("CORVANELLE");
  addService("Corvanelle 2");
  addService("Corvanell");
  addService(std::nullopt);
  create();
  EXPECT_EQ(count("SCNetworkServiceRemove"), 0u);
  EXPECT_EQ(platform_.services.size(), 6u);
}

TEST_P(PPPServiceCreationTest, WithoutAServiceListItGivesUp) {
  addService("Corvanelle");
  platform_.fail("SCNetworkServiceCopyAll", 1003);
  EXPECT_EQ(create(), 1003);
  EXPECT_EQ(error_, "No network services\n");
  expectNothingStored({"Corvanelle"});
}

TEST_P(PPPServiceCreationTest, WithoutTheProtocolsInterfaceItGivesUp) {
  addService("Corvanelle");
  platform_.fail("SCNetworkInterfaceCreateWithInterface", 1001);
  EXPECT_EQ(create(), 1001);
  EXPECT_EQ(error_, "Error creating " + GetParam().layer + " interface!\n");
  EXPECT_EQ(count("SCNetworkServiceRemove"), 1u) << "removed from the session, which is never saved";
  expectNothingStored({"Corvanelle"});
}

TEST_P(PPPServiceCreationTest, WithoutAPPPInterfaceItGivesUp) {
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

class UnsavedService : public ServiceFixture, public testing::WithParamInterface<std::tuple<Protocol, SavingStep>> {
 protected:
  UnsavedService() { use(std::get<Protocol>(GetParam()).make("192.0.2.1", "ann")); }
};

// Nothing is said, the items are written all the same, and there is no connection.
TEST_P(UnsavedService, LeavesNoConnectionButTheItems) {
  const auto &[failing, notReached] = std::get<SavingStep>(GetParam());
  if (failing == "SCNetworkSetCopyCurrent")
    platform_.hasCurrentSet = false;
  else
    platform_.fail(failing, 3005);
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(error_, "");
  for (const std::string &call : notReached) EXPECT_EQ(count(call), 0u) << call;
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[1].service, kFirstID);
  if (kRecordsCallsOnNothing)
    EXPECT_EQ(platform_.calls().back(),
              "SCNetworkConnectionCreateWithServiceID(null, callback, {0, info, null, null, null})");
  EXPECT_EQ(count("SCNetworkServiceGetServiceID"), 1u);
  EXPECT_EQ(connector_->connection(), nullptr);
}
INSTANTIATE_TEST_SUITE_P(
    Steps, UnsavedService,
    testing::Combine(testing::ValuesIn(kProtocols),
                     testing::Values(SavingStep{"SCNetworkSetCopyCurrent",
                                                {"SCNetworkSetAddService", "SCPreferencesCommitChanges",
                                                 "SCPreferencesApplyChanges", "SCPreferencesSynchronize"}},
                                     SavingStep{"SCNetworkSetAddService",
                                                {"SCPreferencesCommitChanges", "SCPreferencesApplyChanges",
                                                 "SCPreferencesSynchronize"}},
                                     SavingStep{"SCPreferencesCommitChanges",
                                                {"SCPreferencesApplyChanges", "SCPreferencesSynchronize"}},
                                     SavingStep{"SCPreferencesApplyChanges", {"SCPreferencesSynchronize"}})),
    [](const auto &parameter) {
      return std::get<Protocol>(parameter.param).layer + std::get<SavingStep>(parameter.param).failing;
    });

TEST_P(PPPServiceCreationTest, UntestedResultsDoNotStopIt) {
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

TEST_P(PPPServiceCreationTest, AConnectionThatCannotBeMadeIsNone) {
  platform_.fail("SCNetworkConnectionCreateWithServiceID", 1001);
  EXPECT_EQ(create(), 0);
  EXPECT_EQ(connector_->connection(), nullptr);
}

TEST_P(PPPServiceCreationTest, ASecondAskGivesTheSameConnection) {
  const auto first = connector_->connection();
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(connector_->connection(), first);
  EXPECT_EQ(count("SCNetworkServiceCreate"), 1u);
}

TEST_P(PPPServiceCreationTest, WithoutAConnectionEachAskTriesAgain) {
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

TEST_P(PPPServiceCreationTest, TwoRunsLeaveOneServiceAndTwoItems) {
  create();
  use(GetParam().make("192.0.2.1", "ann"));
  create();
  EXPECT_EQ(storedNames(), std::vector<std::string>{"Corvanelle"});
  EXPECT_EQ(platform_.items.size(), 2u);
}

TEST_P(PPPServiceCreationTest, ANullTextInTheConfigurationIsAnUncaughtException) {
  for (const Made &made : {GetParam().make(std::nullopt, "ann"), GetParam().make("192.0.2.1", std::nullopt)})
    EXPECT_THROW(made.createConnection(), std::invalid_argument);
}

// Its identifier is then a null text of the configuration.
TEST_P(PPPServiceCreationTest, AServiceThatCannotBeMadeIsAnUncaughtException) {
  addService("Other");
  platform_.fail("SCNetworkServiceCreate", 1001);
  EXPECT_THROW(createConnection_(), std::invalid_argument);
  expectNothingStored({"Other"});
}

TEST_P(PPPServiceCreationTest, ConnectSaysItsBannerFirst) {
  platform_.up = {StatusChange{0, extendedStatus(0), 0, {}}};
  testing::internal::CaptureStderr();
  connector_->connect();
  const std::string error = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(error.starts_with("Starting " + GetParam().name + " connection...\n")) << error;
  EXPECT_TRUE(error.ends_with("PPP Network connection disconnected\nExit.\n")) << error;
}

TEST_P(PPPServiceCreationTest, AnotherThreadsStopWaitsForTheConnectionAndMakesNone) {
  std::promise<pid_t> number;
  std::thread stopper([&] {
    number.set_value(::gettid());
    connector_->disconnect();
  });
  EXPECT_TRUE(sleeps(number.get_future().get()));
  const auto connection = connector_->connection();
  stopper.join();
  EXPECT_NE(connection, nullptr);
  EXPECT_EQ(count("SCNetworkServiceCreate"), 1u);
  EXPECT_EQ(platform_.calls("SCNetworkConnectionStop"),
            std::vector<std::string>{"SCNetworkConnectionStop(connection, true)"});
}

TEST_P(PPPServiceCreationTest, AnotherThreadsStopAfterAFailedAttemptMakesNone) {
  platform_.fail("SCPreferencesCommitChanges", 3005, 1);
  EXPECT_EQ(connector_->connection(), nullptr);
  std::thread([&] { connector_->disconnect(); }).join();
  EXPECT_EQ(count("SCNetworkServiceCreate"), 1u);
  EXPECT_EQ(platform_.calls("SCNetworkConnectionStop"),
            std::vector<std::string>(kRecordsCallsOnNothing ? 1 : 0, "SCNetworkConnectionStop(null, true)"));
}

TEST_P(PPPServiceCreationTest, TheThreadThatConnectsMakesTheConnectionWhoeverMadeTheConnector) {
  platform_.up = {StatusChange{0, extendedStatus(0), 0, {}}};
  testing::internal::CaptureStderr();
  std::thread([&] { connector_->connect(); }).join();
  EXPECT_TRUE(testing::internal::GetCapturedStderr().ends_with("Exit.\n"));
  EXPECT_EQ(count("SCNetworkServiceCreate"), 1u);
  EXPECT_EQ(count("SCNetworkConnectionStart"), 1u);
}

TEST_P(PPPServiceCreationTest, OnceAnotherThreadHasConnectedAStopMakesNone) {
  platform_.fail("SCPreferencesCommitChanges", 3005, 1);
  testing::internal::CaptureStderr();
  std::thread([&] { connector_->connect(); }).join();
  connector_->disconnect();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(count("SCNetworkServiceCreate"), 1u);
  EXPECT_EQ(platform_.calls("SCNetworkConnectionStop"),
            std::vector<std::string>(kRecordsCallsOnNothing ? 1 : 0, "SCNetworkConnectionStop(null, true)"));
}

}  // namespace
}  // namespace TN
