// A Mac of today lacks some of the programs that the access list names: the connection is made all the same.

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/qolmhelper/ToolProcess.h"

namespace TN {
namespace {

int linesThatEndWith(const std::string &text, const std::string &end) {
  int count = 0;
  for (std::size_t found = 0; (found = text.find(end + "\n", found)) != std::string::npos; ++found) ++count;
  return count;
}

TEST(MissingProgramsProcess, AreEachNamedOnceAndLeftOutOfBothItems) {
  Scene scene;
  scene.script = "fail SecTrustedApplicationCreateFromPath 100002\nup status 0 ppp=0";
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.count("SecTrustedApplicationCreateFromPath"), 10);
  for (const char *const program :
       {"SCHelper", "System Preferences.app", "SystemUIServer.app", "/usr/sbin/pppd", "/usr/sbin/racoon"})
    EXPECT_EQ(
        linesThatEndWith(outcome.error, std::string(program) + " does not exist; the keychain items will not name it."),
        1)
        << outcome.error;
  EXPECT_EQ(std::ranges::count(outcome.calls, "SecAccessCreate(\"Some VPN Thing\", 0 applications)"), 2);
  EXPECT_EQ(outcome.count("SecKeychainItemCreateFromContent"), 2);
  EXPECT_TRUE(outcome.error.ends_with("\nPPP Network connection disconnected\nExit.\n")) << outcome.error;
  EXPECT_EQ(outcome.status, 0);
}

TEST(MissingProgramsProcess, LeaveTheOthersInTheList) {
  Scene scene;
  scene.script = "fail SecTrustedApplicationCreateFromPath 100002 times=1 after=1\nup status 0 ppp=0";
  const Outcome outcome = run(scene);
  std::vector<std::string> lists;
  for (const std::string &call : outcome.calls)
    if (call.starts_with("SecAccessCreate(")) lists.push_back(call);
  EXPECT_EQ(lists, (std::vector<std::string>{"SecAccessCreate(\"Some VPN Thing\", 4 applications)",
                                             "SecAccessCreate(\"Some VPN Thing\", 5 applications)"}));
  EXPECT_EQ(outcome.status, 0);
}

}  // namespace
}  // namespace TN
