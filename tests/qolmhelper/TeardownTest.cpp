// SIGUSR1 at every moment.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <deque>

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
  EXPECT_EQ(outcome.error, "Starting " + kProtocol + " connection...\nInitializing PPP network connection\n" +
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
  const std::string status = support::contentsOf("/proc/" + std::to_string(tool.pid()) + "/status").value_or("");
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

class TeardownAtEveryCall : public testing::TestWithParam<std::string> {
 protected:
  static constexpr const char *kUp = "up status 1 ppp=1\nup status 2 ppp=8\n";
  static constexpr const char *kStop = "SCNetworkConnectionStop(connection, true)";

  static Scene scene(const std::string &script) {
    Scene scene;
    scene.configuration = configurationFor(GetParam());
    scene.script = script;
    return scene;
  }
  static std::string raise(const std::string &where) { return where + " " + std::to_string(SIGUSR1) + "\n"; }
  // What is done until the connection's changes are waited for; the stop comes in between wherever its thread gets to.
  static std::vector<std::string> withoutTheStop(const Outcome &outcome) {
    std::vector<std::string> calls(outcome.calls.begin(),
                                   std::find(outcome.calls.begin(), outcome.calls.end(), "CFRunLoopRun()"));
    std::erase(calls, kStop);
    return calls;
  }
};

// Until the right is granted the signal ends the process. From then on the stop takes effect as soon as there is
// something to stop, and nothing is left out or made twice. The calls are those of a run that is stopped when it is up.
TEST_P(TeardownAtEveryCall, IsNotLost) {
  const Outcome usual = run(scene(kUp + raise("up raise")));
  const auto place = [&](const std::string &call) {
    return static_cast<std::size_t>(std::find(usual.calls.begin(), usual.calls.end(), call) - usual.calls.begin());
  };
  const auto names = usual.callNames();
  const auto armed = static_cast<std::size_t>(std::find(names.begin(), names.end(), "fopen") - names.begin());
  const std::size_t stopped = place(kStop);
  ASSERT_EQ(armed, 2u);
  ASSERT_LT(place("CFRunLoopRun()"), stopped);
  ASSERT_LT(stopped, usual.calls.size());

  std::vector<std::string> errors;  // the stop may come before the connection's first changes are told, or after them
  for (const char *const told :
       {"", "Initializing PPP network connection\n", "Initializing PPP network connection\nPPP Connected\n"})
    errors.push_back("Starting " + GetParam() + " connection...\n" + told + kCleanEnd);

  std::deque<ToolProcess> running;  // several at once: mostly they wait
  for (std::size_t i = 0, next = 0; i < usual.calls.size(); ++i) {
    SCOPED_TRACE("inside call " + std::to_string(i + 1) + ", " + usual.calls[i]);
    // Nothing else ends the run, except where the end that has begun gets a second signal.
    for (; next < std::min(i + 8, usual.calls.size()); ++next)
      running.emplace_back(
          scene(kUp + raise("raise " + std::to_string(next + 1)) + (next < stopped ? "" : raise("up raise"))));
    const Outcome outcome = running.front().finish();
    running.pop_front();
    if (i < armed) {
      EXPECT_EQ(outcome.signal, SIGUSR1);
      std::vector<std::string> before = usual.calls;
      before.resize(i + 1);
      EXPECT_EQ(outcome.calls, before);
      continue;
    }
    EXPECT_NE(std::find(errors.begin(), errors.end(), outcome.error), errors.end()) << outcome.error;
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(withoutTheStop(outcome), withoutTheStop(usual));
    const auto stops = std::count(outcome.calls.begin(), outcome.calls.end(), kStop);
    EXPECT_GE(stops, 1);
    EXPECT_LE(stops, kMostStops);
    EXPECT_EQ(outcome.count("SCNetworkConnectionStop"), stops);
  }
}
INSTANTIATE_TEST_SUITE_P(Protocols, TeardownAtEveryCall,
                         testing::ValuesIn(kHasPPTP ? std::vector<std::string>{"pptp", "l2tp"}
                                                    : std::vector<std::string>{"l2tp"}),
                         [](const auto &parameter) { return parameter.param; });

TEST(Teardown, WithoutAConnectionTheRunEndsAsItWouldHave) {
  Scene scene;
  scene.script =
      "raise SCPreferencesCreateWithAuthorization " + std::to_string(SIGUSR1) + "\nfail SCNetworkServiceCopyAll 1003";
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.error,
            "Starting " + kProtocol + " connection...\nNo network services\nError: Access refused, code: 1003\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.count("SCNetworkServiceCopyAll"), 1);
}

TEST(Teardown, ASignalThatIsPendingWhenIgnoringBeginsIsNotLost) {
  if (!kIgnoringLosesSignals) GTEST_SKIP() << "this backend's source sees what is ignored";
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
