// What the user of a Mac sees who asks for PPTP.

#include <gtest/gtest.h>

#include "tests/qolmhelper/ToolProcess.h"

namespace TN {
namespace {

TEST(RefusedPPTPProcess, SaysWhyAndHowItEndsAndAsksTheSystemForNothing) {
  Scene scene;
  scene.configuration = configurationFor("pptp");
  scene.script = "service Corvanelle";
  const Outcome outcome = run(scene);
  const std::string banner = "Starting pptp connection...\n";
  ASSERT_TRUE(outcome.error.starts_with(banner)) << outcome.error;
  // The console's line begins with the time.
  const std::size_t reason = outcome.error.find("] This macOS has no PPTP: ");
  ASSERT_NE(reason, std::string::npos) << outcome.error;
  EXPECT_EQ(outcome.error.find('\n', banner.size()), outcome.error.find('\n', reason)) << "one line";
  EXPECT_EQ(outcome.error.substr(outcome.error.find('\n', reason)),
            "\nError creating PPTP interface!\nError: The connection is ignored, code: 5002\n");
  EXPECT_EQ(outcome.status, 0);
  for (const char *const call :
       {"SCNetworkInterfaceCreateWithInterface", "SCNetworkServiceCreate", "SecKeychainItemCreateFromContent",
        "SCPreferencesCommitChanges", "SCNetworkConnectionCreateWithServiceID"})
    EXPECT_EQ(outcome.count(call), 0) << call;
}

}  // namespace
}  // namespace TN
