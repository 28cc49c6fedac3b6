// Whole runs: authorization, the service, the connection attempt, the log, in the order and with the words of the tool.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tests/qolmhelper/ToolProcess.h"

namespace TN {
namespace {

Outcome runScript(const std::string &script) {
  Scene scene;
  scene.script = script;
  return run(scene);
}

const std::string kBanner = "Starting " + kProtocol + " connection...\n";

TEST(Connection, AWholeRunSaysItsStatusLinesAndEndsWithStatus0) {
  const Outcome outcome = runScript(
      "up status 1 ppp=1\nup status 1 ppp=2\nup status 1 ppp=4\nup status 1 ppp=5\nup status 1 ppp=7\n"
      "up status 2 ppp=8\nup status 3 ppp=9\nup status 3 ppp=10\nup status 0 ppp=0 cause=5\n");
  EXPECT_EQ(outcome.output, kEcho);
  EXPECT_EQ(outcome.error, kBanner +
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

TEST(Connection, AuthorizesThenFollowsTheLogThenMakesTheService) {
  const Outcome outcome = runScript("up status 0 ppp=0");
  const std::vector<std::string> names = outcome.callNames();
  ASSERT_GE(names.size(), 4u);
  EXPECT_EQ(outcome.calls[0], "AuthorizationCreate(null, null, 19)");
  EXPECT_EQ(outcome.calls[1],
            "AuthorizationCopyRights(authorization, [{\"system.preferences\", 0, null, 0}], null, 19, null)");
  EXPECT_EQ(outcome.calls[2], "fopen(/var/log/ppp.log)");
  EXPECT_EQ(names[3], "SCPreferencesCreateWithAuthorization");
  const auto created = std::find(names.begin(), names.end(), "SCNetworkConnectionCreateWithServiceID");
  const std::vector<std::string> attempt(created + 1, names.end());
  EXPECT_EQ(attempt, (std::vector<std::string>{"SCNetworkConnectionScheduleWithRunLoop", "SCNetworkConnectionGetStatus",
                                               "SCNetworkConnectionStart", "CFRunLoopRun",
                                               "SCNetworkConnectionGetStatus", "SCNetworkConnectionCopyExtendedStatus",
                                               "SCNetworkConnectionCopyExtendedStatus", "CFRunLoopStop"}));
}

TEST(Connection, ARefusedAuthorizationEndsWithStatus1) {
  for (const char *const script : {"fail AuthorizationCreate -60008", "fail AuthorizationCopyRights -60005",
                                   "fail AuthorizationCopyRights -60006", "fail AuthorizationCopyRights 1"}) {
    const Outcome outcome = runScript(script);
    EXPECT_EQ(outcome.error, "Cannot get authorization!") << script;
    EXPECT_EQ(outcome.output, kEcho);
    EXPECT_EQ(outcome.status, 1) << script;
    EXPECT_EQ(outcome.count("fopen"), 0);
  }
}

TEST(Connection, WithoutAServiceListThereIsNoConnection) {
  const Outcome outcome = runScript("fail SCNetworkServiceCopyAll 1003");
  EXPECT_EQ(outcome.error, kBanner + "No network services\nError: Access refused, code: 1003\n");
  EXPECT_EQ(outcome.status, 0);
}

TEST(Connection, WithoutItsInterfacesThereIsNoConnection) {
  const std::map<std::string, std::string> layers{{kLayer, "times=1"}, {"PPP", "times=1 after=1"}};
  for (const auto &[layer, which] : layers) {
    const Outcome outcome = runScript("fail SCNetworkInterfaceCreateWithInterface 1001 " + which);
    EXPECT_EQ(outcome.error,
              kBanner + ("Error creating " + layer + " interface!\nError: The operation failed, code: 1001\n"));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.count("SecKeychainItemCreateFromContent"), 0);
    EXPECT_EQ(outcome.count("SCPreferencesCommitChanges"), 0);
  }
}

TEST(Connection, WithoutACurrentSetThereIsNoConnection) {
  const Outcome outcome = runScript("no-current-set");
  EXPECT_EQ(outcome.error, kBanner + "Error: No such entry, code: 1004\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.count("SecKeychainItemCreateFromContent"), 2);
}

TEST(Connection, AFailedCommitLeavesNoConnectionButTheItems) {
  const Outcome outcome = runScript("fail SCPreferencesCommitChanges 3005");
  EXPECT_EQ(outcome.error, kBanner + "Error: The preferences have changed meanwhile, code: 3005\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.count("SecKeychainItemCreateFromContent"), 2);
  EXPECT_EQ(outcome.count("SCPreferencesApplyChanges"), 0);
}

TEST(Connection, AKeychainThatRefusesDoesNotStopTheAttempt) {
  const Outcome outcome = runScript("fail SecKeychainItemCreateFromContent -61\nup status 0 ppp=0");
  EXPECT_EQ(outcome.error, kBanner + "PPP Network connection disconnected\nExit.\n");
  EXPECT_EQ(outcome.status, 0);
}

// By then the items of an earlier run are gone.
TEST(Connection, WithoutAnAccessListTheProcessEndsAbnormally) {
  const std::map<std::string, std::string> lines{{"SecTrustedApplicationCreateFromPath", "162"},
                                                 {"SecAccessCreate", "165"}};
  for (const auto &[call, line] : lines) {
    const Outcome outcome = runScript("item Corvanelle one ann\nitem Corvanelle two ann\nfail " + call + " -50");
    EXPECT_EQ(outcome.error, kBanner +
                                 "Assertion failed: (err == errSecSuccess), function +[TNKeyChain setupACL], "
                                 "file TNKeyChain, line " +
                                 line + ".\n");
    EXPECT_EQ(outcome.signal, SIGABRT) << call;
    EXPECT_EQ(outcome.count("SecKeychainItemDelete"), 2) << call;
    EXPECT_EQ(outcome.count("SecKeychainItemCreateFromContent"), 0) << call;
  }
}

TEST(Connection, AFailedStartSaysNothingButExit) {
  for (const char *const script :
       {"fail SCNetworkConnectionStart 5001", "fail SCNetworkConnectionScheduleWithRunLoop 1001"}) {
    const Outcome outcome = runScript(script);
    EXPECT_EQ(outcome.error, kBanner + "Exit.\n") << script;
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.count("CFRunLoopRun"), 0);
  }
}

TEST(Connection, OnlyADisconnectedServiceIsStarted) {
  const std::map<int, std::string> texts{{-1, "Service is invalid.  Weird.\n"},
                                         {1, "Service is already connecting.\n"},
                                         {2, "Service is already connected.\n"},
                                         {3, "Service is disconnecting.\n"},
                                         {4, "Unexpected status.\n"},
                                         {-2, "Unexpected status.\n"}};
  for (const auto &[status, text] : texts) {
    const Outcome outcome = runScript("status " + std::to_string(status));
    EXPECT_EQ(outcome.error, kBanner + text + "Exit.\n");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.count("SCNetworkConnectionStart") + outcome.count("SCNetworkConnectionStop"), 0);
  }
}

TEST(Connection, ADropIsToldWithItsErrorAndItsCause) {
  const Outcome outcome = runScript("up status 2 ppp=8\nup status 0 ppp=0 error=2002 cause=19");
  EXPECT_EQ(outcome.error, kBanner +
                               "PPP Connected\nError: The VPN service is not there\nError: No such device, cause: 19\n"
                               "PPP Network connection disconnected\nExit.\n");
}

TEST(Connection, ADropWithoutErrorAndCauseIsOnlyItsStatus) {
  EXPECT_EQ(runScript("up status 0").error, kBanner + "Unknown status\nExit.\n");
}

TEST(Connection, AnExtendedStatusWithoutAPhaseIsAnUnknownStatus) {
  EXPECT_EQ(runScript("up status 1 ppp=text\nup status 1 ppp=absent\nup status 0 ppp=text").error,
            kBanner + "Unknown status\nUnknown status\nUnknown status\nExit.\n");
}

TEST(Connection, TheStatusIsAskedForAndNotTakenFromTheCallback) {
  EXPECT_EQ(runScript("up status 2 ppp=8 argument=0\nup status 0 ppp=0 argument=2").error,
            kBanner + "PPP Connected\nPPP Network connection disconnected\nExit.\n");
}

TEST(Connection, WithoutAPPPLogOnlyTheCopyIsLost) {
  Scene scene;
  scene.hasPPPLog = false;
  scene.script = "up status 0 ppp=0";
  const Outcome outcome = run(scene);
  const std::string first = outcome.error.substr(0, outcome.error.find('\n') + 1);
  EXPECT_EQ(first, kBanner);
  EXPECT_NE(outcome.error.find("] Could not open file /var/log/ppp.log\n"), std::string::npos) << outcome.error;
  EXPECT_TRUE(outcome.error.ends_with("/var/log/ppp.log\nPPP Network connection disconnected\nExit.\n"));
  EXPECT_EQ(outcome.status, 0);
}

TEST(Connection, CopiesNewLinesOfTheLogAndNoOldOnes) {
  Scene scene;
  scene.script = "up status 2 ppp=8\nup log first\nup log second line";
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("first\nsecond line\n"));
  support::appendToFile(tool.pppLog(), "unfinished");
  support::appendToFile(tool.pppLog(), " no more\n");
  ASSERT_TRUE(tool.waitForError("unfinished no more\n"));
  tool.send(SIGUSR1);
  const Outcome outcome = tool.finish();
  EXPECT_EQ(outcome.error.find("an old line"), std::string::npos);
  EXPECT_TRUE(outcome.error.ends_with("Exit.\n"));
}

// It brings no line feed of its own.
TEST(Connection, ALogLineThatIsNotUTF8IsToldAsNull) {
  Scene scene;
  scene.script = "up status 2 ppp=8\nup log before\nup log \xff\nup log after";
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("before\n(null)after\n"));
  tool.send(SIGUSR1);
  const Outcome outcome = tool.finish();
  EXPECT_TRUE(outcome.error.ends_with("Exit.\n"));
  EXPECT_EQ(outcome.status, 0);
}

TEST(Connection, NoCoreIsDumpedWhileItHoldsSecrets) {
  Scene scene;
  scene.script = "up status 2 ppp=8";
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("PPP Connected"));
  const std::string limits = support::contentsOf("/proc/" + std::to_string(tool.pid()) + "/limits").value_or("");
  const std::size_t line = limits.find("Max core file size");
  ASSERT_NE(line, std::string::npos);
  std::istringstream words(limits.substr(line + std::string("Max core file size").size()));
  std::string soft, hard;
  words >> soft >> hard;
  EXPECT_EQ(soft, "0");
  EXPECT_EQ(hard, "0");
  tool.send(SIGUSR1);
  EXPECT_EQ(tool.finish().status, 0);
}

// What the kernel lets nobody look into belongs to root, whoever runs it.
TEST(Connection, NobodyOfTheSameUserMayLookIntoItsMemory) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to stop being it";
  Scene scene;
  scene.script = "up status 2 ppp=8";
  scene.launcher = {"sh", "-c", "chown -R 65534 . && exec setpriv --reuid 65534 --regid 65534 --clear-groups \"$@\"",
                    "sh"};
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("PPP Connected"));
  const std::string folder = "/proc/" + std::to_string(tool.pid());
  EXPECT_NE(support::contentsOf(folder + "/status").value_or("").find("\nUid:\t65534\t65534\t65534\t65534\n"),
            std::string::npos);
  struct stat attributes = {};
  ASSERT_EQ(::stat((folder + "/mem").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_uid, 0U);
  tool.send(SIGUSR1);
  EXPECT_EQ(tool.finish().status, 0);
}

}  // namespace
}  // namespace TN
