// Whole runs with the protocol "l2tp": what differs from a run with "pptp", and that nothing else does.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "tests/qolmhelper/ToolProcess.h"

namespace TN {
namespace {

constexpr const char *kBanner = "Starting l2tp connection...\n";
constexpr const char *kFirstID = "00000000-0000-4000-8000-000000000001";

Outcome runL2TP(const std::string &script) {
  Scene scene;
  scene.configuration = configurationFor("l2tp");
  scene.script = script;
  return run(scene);
}

TEST(L2TPConnection, AWholeRunSaysItsStatusLinesAndEndsWithStatus0) {
  const Outcome outcome = runL2TP(
      "up status 1 ppp=1\nup status 1 ppp=2\nup status 1 ppp=4\nup status 1 ppp=5\nup status 1 ppp=7\n"
      "up status 2 ppp=8\nup status 3 ppp=9\nup status 3 ppp=10\nup status 0 ppp=0 cause=5\n");
  EXPECT_EQ(outcome.output, "protocol: l2tpip: 192.0.2.1username: annpassword: pwshared_secret: ss");
  EXPECT_EQ(outcome.error, std::string(kBanner) +
                               "Initializing PPP network connection\n"
                               "Connecting PPP link\n"
                               "Negotiating PPP link\n"
                               "PPP Authenticating\n"
                               "PPP negotiating network\n"
                               "PPP Connected\n"
                               "Terminating PPP connection\n"
                               "Disconnecting PPP link\n"
                               "Error: Input/output error, cause: 5\n"
                               "PPP Network connection disconnected\n"
                               "Exit.\n");
  EXPECT_EQ(outcome.status, 0);
}

TEST(L2TPConnection, AFailedTunnelIsToldWithItsCause) {
  EXPECT_EQ(runL2TP("up status 1 ppp=1\nup status 1 ppp=2\nup status 3 ppp=10\nup status 0 ppp=0 cause=8").error,
            std::string(kBanner) +
                "Initializing PPP network connection\nConnecting PPP link\nDisconnecting PPP link\n"
                "Error: Exec format error, cause: 8\nPPP Network connection disconnected\nExit.\n");
}

TEST(L2TPConnection, SIGUSR1EndsIt) {
  Scene scene;
  scene.configuration = configurationFor("l2tp");
  scene.script = "up status 2 ppp=8";
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("PPP Connected\n"));
  tool.send(SIGUSR1);
  const Outcome outcome = tool.finish();
  EXPECT_TRUE(outcome.error.ends_with("PPP Network connection disconnected\nExit.\n")) << outcome.error;
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.count("SCNetworkConnectionStop"), 1);
}

// In contrast to "pptp", which goes on and finds no services.
TEST(L2TPConnection, WithoutPreferencesItSaysNothingOfItsOwn) {
  const Outcome outcome = runL2TP("fail SCPreferencesCreateWithAuthorization 3001");
  EXPECT_EQ(outcome.error, std::string(kBanner) + "Error: No session with the preferences, code: 3001\n");
  EXPECT_EQ(outcome.status, 0);
  for (const char *const call : {"SCNetworkServiceCopyAll", "SecKeychainCopyDomainDefault", "SecKeychainItemDelete",
                                 "SecKeychainItemCreateFromContent", "SCNetworkConnectionCreateWithServiceID"})
    EXPECT_EQ(outcome.count(call), 0) << call;
}

TEST(L2TPConnection, WithoutAServiceListThereIsNoConnection) {
  const Outcome outcome = runL2TP("service Corvanelle\nfail SCNetworkServiceCopyAll 1003");
  EXPECT_EQ(outcome.error, std::string(kBanner) + "No network services\nError: Access refused, code: 1003\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.count("SCNetworkServiceRemove"), 0);
  EXPECT_EQ(outcome.count("SecKeychainItemCreateFromContent"), 0);
}

TEST(L2TPConnection, WithoutItsInterfacesThereIsNoConnection) {
  const std::map<std::string, std::string> layers{{"L2TP", "times=1"}, {"PPP", "times=1 after=1"}};
  for (const auto &[layer, which] : layers) {
    const Outcome outcome = runL2TP("service Corvanelle\nfail SCNetworkInterfaceCreateWithInterface 1001 " + which);
    EXPECT_EQ(outcome.error,
              kBanner + ("Error creating " + layer + " interface!\nError: The operation failed, code: 1001\n"));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.count("SCNetworkServiceRemove"), 1) << "from the session, which is not saved";
    EXPECT_EQ(outcome.count("SecKeychainItemCreateFromContent"), 0);
    EXPECT_EQ(outcome.count("SCPreferencesCommitChanges"), 0);
  }
}

TEST(L2TPConnection, AFailedSaveLeavesNoConnectionButTheItems) {
  for (const char *const script : {"no-current-set", "fail SCNetworkSetAddService 1004",
                                   "fail SCPreferencesCommitChanges 1004", "fail SCPreferencesApplyChanges 1004"}) {
    const Outcome outcome = runL2TP(script);
    EXPECT_EQ(outcome.error, std::string(kBanner) + "Error: No such entry, code: 1004\n") << script;
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.count("SecKeychainItemCreateFromContent"), 2) << script;
  }
}

TEST(L2TPConnection, ARefusedIPSecConfigurationIsNotNoticed) {
  const Outcome outcome = runL2TP("fail SCNetworkInterfaceSetExtendedConfiguration 1002\nup status 0 ppp=0");
  EXPECT_EQ(outcome.error, std::string(kBanner) + "PPP Network connection disconnected\nExit.\n");
  EXPECT_EQ(outcome.count("SCPreferencesCommitChanges"), 1);
  EXPECT_EQ(outcome.count("SCNetworkConnectionStart"), 1);
}

TEST(L2TPConnection, ReplacesTheFirstServiceOfItsName) {
  const Outcome outcome = runL2TP("service corvanelle\nservice\nservice Corvanelle\nservice Corvanelle\nup status 0");
  EXPECT_EQ(outcome.count("SCNetworkServiceRemove"), 1);
  EXPECT_EQ(outcome.count("SCNetworkServiceCreate"), 1);
  EXPECT_EQ(outcome.count("SCNetworkServiceGetName"), 3) << "it stops at the first";
}

TEST(L2TPConnection, TheSharedSecretIsInTheKeychainOnly) {
  const Outcome outcome = runL2TP("up status 0 ppp=0");
  std::vector<std::string> holders;
  for (const std::string &call : outcome.calls)
    if (call.find("\"ss\"") != std::string::npos) holders.push_back(call);
  ASSERT_EQ(holders.size(), 1u);
  EXPECT_TRUE(holders.front().starts_with("SecKeychainItemCreateFromContent(")) << holders.front();
  EXPECT_NE(holders.front().find(std::string("svce=\"") + kFirstID + ".SS\""), std::string::npos) << holders.front();
  const std::string dictionary = std::string("IPSec, {AuthenticationMethod=\"SharedSecret\", SharedSecret=\"") +
                                 kFirstID + ".SS\", SharedSecretEncryption=\"Keychain\"})";
  EXPECT_EQ(std::ranges::count_if(outcome.calls, [&](const std::string &call) { return call.ends_with(dictionary); }),
            1);
}

class L2TPMissingKey : public testing::TestWithParam<std::string> {};

TEST_P(L2TPMissingKey, EndsTheProcessAbnormally) {
  std::string configuration = configurationFor("l2tp");
  const std::size_t line = configuration.find(GetParam() + " = ");
  ASSERT_NE(line, std::string::npos);
  configuration.erase(line, configuration.find('\n', line) + 1 - line);
  Scene scene;
  scene.configuration = configuration;
  const Outcome outcome = run(scene);
  EXPECT_TRUE(outcome.error.starts_with("Invalid config! Missing " + GetParam() + "!")) << outcome.error;
  EXPECT_EQ(outcome.signal, SIGABRT);
  EXPECT_TRUE(outcome.calls.empty());
}
INSTANTIATE_TEST_SUITE_P(Keys, L2TPMissingKey, testing::Values("ip", "username", "password", "shared_secret"));

}  // namespace
}  // namespace TN
