// The small frameworks are these tests' eyes: that they see is tested, too.

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>
#include <SystemConfiguration/SystemConfiguration.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "platform/macos/Frameworks.h"
#include "tests/platform/macos/frameworks/Frameworks.h"
#include "tests/platform/macos/frameworks/Objects.h"
#include "tests/platform/macos/frameworks/PropertyLists.h"

namespace frameworks {
namespace {

// ACT is to end the process with SENTENCE.
void expectMisuse(void (*act)(), const std::string &sentence) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(act(), testing::KilledBySignal(SIGABRT), "misuse of the frameworks: " + sentence);
}

AuthorizationRef newAuthorization() {
  AuthorizationRef authorization = nullptr;
  AuthorizationCreate(nullptr, nullptr, 0, &authorization);
  return authorization;
}

dispatch_source_t newSource() {
  return dispatch_source_create(platform::macos::kSignalSourceType, SIGUSR2, 0, dispatch_get_global_queue(0, 0));
}

SCNetworkConnectionRef newConnection() {
  SCNetworkConnectionContext context = {};
  return SCNetworkConnectionCreateWithServiceID(nullptr, newString("id"), nullptr, &context);
}

// Runs when all that is static has gone, as the thread of a queue may.
bool isUsedAtTheVeryEnd = false;
[[gnu::destructor]] void useAtTheVeryEnd() {
  if (isUsedAtTheVeryEnd) dispatch_release(dispatch_queue_create("late", nullptr));
}

using FrameworksDeathTest = testing::Test;

TEST_F(FrameworksDeathTest, ACountTooFewOrNoObjectEndsTheProcess) {
  expectMisuse([] { CFRelease(nullptr); }, "a null reference");
  expectMisuse([] { CFRetain(nullptr); }, "a null reference");
  expectMisuse([] { CFGetTypeID(nullptr); }, "a null reference");
  expectMisuse(
      [] {
        const CFStringRef string = newString("text");
        CFRelease(string);
        CFRelease(string);
      },
      "a reference to what is no object, or is none any more");
  expectMisuse(
      [] {
        const CFStringRef string = newString("text");
        CFRelease(string);
        CFStringGetLength(string);
      },
      "a reference to what is no object, or is none any more");
  expectMisuse([] { CFRelease(kCFBooleanTrue); }, "one release too many of a static true");
}

TEST_F(FrameworksDeathTest, AnotherKindEndsTheProcess) {
  expectMisuse([] { CFArrayGetCount(reinterpret_cast<CFArrayRef>(newString("text"))); },
               "a string \"text\" is taken for something else");
  expectMisuse([] { CFRelease(newAuthorization()); }, "a authorization is taken for a CoreFoundation object");
}

// It becomes one with the framework's first use.
TEST_F(FrameworksDeathTest, TheBottomLayerIsNoObjectAtFirst) {
  expectMisuse([] { CFRetain(kSCNetworkInterfaceIPv4); }, "a reference to what is no object, or is none any more");
}

TEST_F(FrameworksDeathTest, AnAuthorizationFreedTwiceEndsTheProcess) {
  expectMisuse(
      [] {
        const AuthorizationRef authorization = newAuthorization();
        AuthorizationFree(authorization, kAuthorizationFlagDefaults);
        AuthorizationFree(authorization, kAuthorizationFlagDefaults);
      },
      "a reference to what is no object, or is none any more");
}

TEST_F(FrameworksDeathTest, WhatWouldMeanSomethingElseEndsTheProcess) {
  expectMisuse(
      [] {
        SecKeychainAttributeList none = {};
        SecKeychainSearchCreateFromAttributes(nullptr, kSecGenericPasswordItemClass, &none, nullptr);
      },
      "no keychain stands for the user's");
  expectMisuse([] { SecTrustedApplicationCreateFromPath(nullptr, nullptr); }, "no path stands for this program");
  expectMisuse([] { SecAccessCreate(newString("name"), nullptr, nullptr); }, "no list stands for this program");
}

TEST_F(FrameworksDeathTest, ASourceThatIsResumedTwiceOrGoesSuspendedEndsTheProcess) {
  expectMisuse(
      [] {
        const dispatch_source_t source = newSource();
        dispatch_resume(source);
        dispatch_resume(source);
      },
      "a resume of what is not suspended");
  expectMisuse(
      [] {
        const dispatch_source_t source = newSource();
        dispatch_source_cancel(source);
        dispatch_release(source);
      },
      "a source that goes while it is suspended");
  expectMisuse(
      [] {
        const dispatch_source_t source = newSource();
        dispatch_resume(source);
        dispatch_release(source);
      },
      "a source that goes before it is cancelled");
}

TEST_F(FrameworksDeathTest, AConnectionThatGoesScheduledEndsTheProcess) {
  expectMisuse(
      [] {
        const SCNetworkConnectionRef connection = newConnection();
        SCNetworkConnectionScheduleWithRunLoop(connection, CFRunLoopGetCurrent(), newString("kCFRunLoopDefaultMode"));
        CFRelease(connection);
      },
      "a connection that goes while a run loop may still call back");
}

TEST_F(FrameworksDeathTest, WhatIsNotGivenBackShowsAtTheEnd) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        newString("left");
        std::exit(0);
      },
      testing::ExitedWithCode(98), "not given back: string \"left\", 1 times");
  EXPECT_EXIT(
      {
        CFRetain(kCFBooleanTrue);
        std::exit(0);
      },
      testing::ExitedWithCode(98), "not given back: true, 1 times");
}

TEST_F(FrameworksDeathTest, AQueueMayGoWhenMainHasEnded) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        dispatch_get_global_queue(0, 0);
        isUsedAtTheVeryEnd = true;
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(Frameworks, SeeWhatIsNotGivenBack) {
  const CFStringRef string = newString("text");
  CFRetain(string);
  EXPECT_EQ(unbalanced(false), std::vector<std::string>{"string \"text\", 2 times"});
  CFRelease(string);
  CFRelease(string);
  CFRetain(kCFBooleanFalse);
  EXPECT_EQ(unbalanced(false), std::vector<std::string>{"false, 1 times"});
  CFRelease(kCFBooleanFalse);
  EXPECT_TRUE(unbalanced(false).empty());
}

TEST(Frameworks, AContainerLetsGoOfWhatItHolds) {
  const CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
  const CFStringRef string = newString("text");
  CFArrayAppendValue(array, string);
  CFRelease(string);
  EXPECT_EQ(textIn(static_cast<CFStringRef>(CFArrayGetValueAtIndex(array, 0))), "text");
  CFRelease(array);
  EXPECT_TRUE(unbalanced(false).empty());
}

}  // namespace
}  // namespace frameworks
