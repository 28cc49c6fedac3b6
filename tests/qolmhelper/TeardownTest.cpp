// SIGUSR1 at every moment.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "tests/qolmhelper/ToolProcess.h"

namespace TN {
namespace {

constexpr const char *kCleanEnd =
    "Terminating PPP connection\nDisconnecting PPP link\nError: Input/output error, cause: 5\n"
    "PPP Network connection disconnected\nExit.\n";

TEST(Teardown, StopsAConnectionThatIsUp) {
  Scene scene;
  scene.script = "up status 1 ppp=1\nup status 2 ppp=8";
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("PPP Connected\n"));
  tool.send(SIGUSR1);
  const Outcome outcome = tool.finish();
  EXPECT_EQ(outcome.error, std::string("Starting pptp connection...\nInitializing PPP network connection\n") +
                               "PPP Connected\n" + kCleanEnd);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(std::count(outcome.calls.begin(), outcome.calls.end(), "SCNetworkConnectionStop(connection, true)"), 1);
}

// So that no moment is left at which the signal's default could end the process.
TEST(Teardown, WhileConnectedTheSignalIsIgnored) {
  Scene scene;
  scene.script = "up status 2 ppp=8";
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("PPP Connected\n"));
  const std::string status = readFile("/proc/" + std::to_string(tool.pid()) + "/status");
  const std::string key = "\nSigIgn:";
  const std::size_t line = status.find(key);
  ASSERT_NE(line, std::string::npos);
  const unsigned long long ignored = std::stoull(status.substr(line + key.size()), nullptr, 16);
  EXPECT_NE(ignored & 1ULL << (SIGUSR1 - 1), 0u) << status;
  tool.send(SIGUSR1);
  EXPECT_EQ(tool.finish().status, 0);
}

TEST(Teardown, SeveralSignalsAreOneStop) {
  Scene scene;
  scene.script = "up status 2 ppp=8";
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("PPP Connected\n"));
  for (int i = 0; i < 5; ++i) tool.send(SIGUSR1);
  const Outcome outcome = tool.finish();
  EXPECT_TRUE(outcome.error.ends_with(kCleanEnd));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.count("SCNetworkConnectionStop"), 1);
}

TEST(Teardown, BeforeTheRightIsGrantedTheSignalEndsTheProcess) {
  for (const std::string call : {"AuthorizationCreate", "AuthorizationCopyRights"}) {
    Scene scene;
    scene.script = "raise " + call + " " + std::to_string(SIGUSR1);
    const Outcome outcome = run(scene);
    EXPECT_EQ(outcome.signal, SIGUSR1) << call;
    EXPECT_EQ(outcome.callNames().back(), call);
  }
}

class TeardownInside : public testing::TestWithParam<std::string> {};

// From the arming on the stop takes effect as soon as there is something to stop, and nothing is made twice.
TEST_P(TeardownInside, IsNotLost) {
  Scene scene;
  scene.script = "raise " + GetParam() + " " + std::to_string(SIGUSR1);
  const Outcome outcome = run(scene);
  EXPECT_TRUE(outcome.error.ends_with(kCleanEnd)) << outcome.error;
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.count("SCNetworkServiceCreate"), 1);
  EXPECT_EQ(outcome.count("SCNetworkConnectionStop"), 1);
}
INSTANTIATE_TEST_SUITE_P(Calls, TeardownInside,
                         testing::Values("fopen", "SCPreferencesCreateWithAuthorization", "SCNetworkServiceCreate",
                                         "SCPreferencesCommitChanges", "SecKeychainCopyDomainDefault",
                                         "SCNetworkConnectionCreateWithServiceID",
                                         "SCNetworkConnectionScheduleWithRunLoop", "SCNetworkConnectionStart",
                                         "CFRunLoopRun"),
                         [](const auto &parameter) { return parameter.param; });

TEST(Teardown, WithoutAConnectionTheRunEndsAsItWouldHave) {
  Scene scene;
  scene.script =
      "raise SCPreferencesCreateWithAuthorization " + std::to_string(SIGUSR1) + "\nfail SCNetworkServiceCopyAll 1003";
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.error, "Starting pptp connection...\nNo network services\nError: Access refused, code: 1003\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.count("SCNetworkServiceCopyAll"), 1);
}

TEST(Teardown, ASignalThatIsPendingWhenIgnoringBeginsIsNotLost) {
  Scene scene;
  scene.program = VPNCTL_FAKE_WRAPPED;
  scene.environment = {{"VPNCTL_TEST_PENDING", "1"}};
  const Outcome outcome = run(scene);
  EXPECT_TRUE(outcome.error.ends_with(kCleanEnd)) << outcome.error;
  EXPECT_EQ(outcome.status, 0);
}

TEST(Teardown, AfterAThousandSecondsWithoutAnEndTheProcessEnds) {
  Scene scene;
  scene.program = VPNCTL_FAKE_WRAPPED;
  scene.environment = {{"VPNCTL_TEST_SLEEP", "1"}};
  scene.script = "up status 2 ppp=8\nup raise " + std::to_string(SIGUSR1) + "\ndown status 3 ppp=9";
  const Outcome outcome = run(scene);
  EXPECT_NE(outcome.error.find("sleep(1000)\n"), std::string::npos) << outcome.error;
  EXPECT_EQ(outcome.error.find("Exit."), std::string::npos);
  EXPECT_EQ(outcome.output, kEcho);
  EXPECT_EQ(outcome.status, 0);
}

TEST(Teardown, OtherSignalsKeepTheirDefault) {
  Scene scene;
  scene.script = "up status 2 ppp=8";
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("PPP Connected\n"));
  tool.send(SIGTERM);
  EXPECT_EQ(tool.finish().signal, SIGTERM);
}

}  // namespace
}  // namespace TN
