// The fake is a test's eyes: what it promises is tested too.

#include <gtest/gtest.h>

#include <cstdio>

#include "platform/SystemConfiguration.h"
#include "platform/fake/FakePlatform.h"
#include "platform/fake/FakeText.h"

namespace platform::fake {
namespace {

class FakePlatformTest : public testing::Test {
 protected:
  FakePlatformTest() { platform_.reset(); }

  FakePlatform &platform_ = FakePlatform::instance();
};

TEST_F(FakePlatformTest, FailuresComeAfterSomeCallsAndForSomeCalls) {
  platform_.fail("SecKeychainCopyDomainDefault", -61, 2, 1);
  std::vector<OSStatus> results;
  for (int i = 0; i < 5; ++i) {
    SecKeychainRef keychain;
    results.push_back(SecKeychainCopyDomainDefault(kSecPreferencesDomainSystem, &keychain));
    EXPECT_EQ(keychain == nullptr, results.back() != 0);
  }
  EXPECT_EQ(results, (std::vector<OSStatus>{0, -61, -61, 0, 0}));
}

TEST_F(FakePlatformTest, ChangesAreStoredByACommitOnly) {
  AuthorizationRef authorization;
  AuthorizationCreate(nullptr, nullptr, 0, &authorization);
  const SCPreferencesRef preferences = SCPreferencesCreateWithAuthorization("test", std::nullopt, authorization);
  const auto pptp = SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, "PPTP");
  const auto service = SCNetworkServiceCreate(preferences, SCNetworkInterfaceCreateWithInterface(pptp, "PPP"));
  EXPECT_NE(service, nullptr);
  EXPECT_TRUE(platform_.services.empty());
  EXPECT_TRUE(SCPreferencesCommitChanges(preferences));
  EXPECT_EQ(platform_.services.size(), 1u);
}

TEST_F(FakePlatformTest, LayersThatDoNotFitAreRefused) {
  EXPECT_EQ(SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, "PPP"), nullptr);
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
  EXPECT_EQ(SCNetworkInterfaceCreateWithInterface(nullptr, "PPTP"), nullptr);
}

struct Told {
  std::vector<std::int32_t> statuses;
};

TEST_F(FakePlatformTest, AStopBeforeTheStartIsRemembered) {
  Told told;
  SCNetworkConnectionContext context;
  context.info = &told;
  const auto callback = [](SCNetworkConnectionRef connection, SCNetworkConnectionStatus status, void *info) {
    static_cast<Told *>(info)->statuses.push_back(status);
    EXPECT_EQ(SCNetworkConnectionGetStatus(connection), status);
    if (status == kSCNetworkConnectionDisconnected) CFRunLoopStop(CFRunLoopGetCurrent());
  };
  const auto connection = SCNetworkConnectionCreateWithServiceID("id", callback, context);
  platform_.up = {StatusChange{2, extendedStatus(8), 0, {}}};
  EXPECT_TRUE(SCNetworkConnectionStop(connection, true));
  EXPECT_TRUE(SCNetworkConnectionScheduleWithRunLoop(connection, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode));
  EXPECT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  CFRunLoopRun();
  EXPECT_EQ(told.statuses, (std::vector<std::int32_t>{3, 3, 0}));
}

TEST_F(FakePlatformTest, ThePPPLogLiesWhereTheSceneSays) {
  EXPECT_EQ(std::fopen("/var/log/ppp.log", "r"), nullptr);
  platform_.pppLogPath = "/dev/null";
  std::FILE *const log = std::fopen("/var/log/ppp.log", "r");
  ASSERT_NE(log, nullptr);
  std::fclose(log);
}

TEST(FakeText, WritesArgumentsOnOneLine) {
  EXPECT_EQ(quoted(std::string_view("a\n\xff")), "\"a\\x0a\\xff\"");
  EXPECT_EQ(quoted(std::optional<std::string>()), "null");
  vpnctl::Value value;
  value.set("B", vpnctl::Value::Array{1, "x", true, false});
  value.set("A", vpnctl::Value::Dictionary{});
  EXPECT_EQ(oneLine(value), "{A={}, B=[1, \"x\", true, false]}");
  EXPECT_EQ(oneLine(vpnctl::Value()), "null");
}

}  // namespace
}  // namespace platform::fake
