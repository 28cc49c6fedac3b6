// Preferences, services, protocols, interfaces and sets: what the backend adds to the system's calls.

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <map>

#include "platform/SCErrorState.h"
#include "platform/SystemConfiguration.h"
#include "platform/fake/FakePlatform.h"
#include "tests/platform/macos/frameworks/Frameworks.h"

namespace platform {
namespace {

using fake::FakePlatform;
using vpnctl::Value;

class MacNetworkServiceTest : public testing::Test {
 protected:
  MacNetworkServiceTest() {
    platform_.reset();
    AuthorizationCreate(nullptr, nullptr, 0, &authorization_);
    preferences_ = SCPreferencesCreateWithAuthorization("test", std::nullopt, authorization_);
  }

  static SCNetworkInterfaceRef ppp() {
    const auto lower = SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, kSCNetworkInterfaceTypeL2TP);
    return SCNetworkInterfaceCreateWithInterface(lower, kSCNetworkInterfaceTypePPP);
  }
  SCNetworkServiceRef service() const {
    auto made = SCNetworkServiceCreate(preferences_, ppp());
    EXPECT_TRUE(SCNetworkServiceEstablishDefaultConfiguration(made));
    return made;
  }
  // Nothing has been asked since, and the error is ERROR.
  void expectNoCall(std::size_t before, std::int32_t error) const {
    EXPECT_EQ(platform_.calls().size(), before);
    EXPECT_EQ(SCError(), error);
  }
  std::size_t calls() const { return platform_.calls().size(); }

  FakePlatform &platform_ = FakePlatform::instance();
  AuthorizationRef authorization_;
  SCPreferencesRef preferences_;
};

TEST_F(MacNetworkServiceTest, NamesTheFileWhenThereIsOne) {
  EXPECT_NE(SCPreferencesCreateWithAuthorization("test", "file", authorization_), nullptr);
  EXPECT_EQ(platform_.calls().back(), "SCPreferencesCreateWithAuthorization(\"test\", \"file\", authorization)");
}

TEST_F(MacNetworkServiceTest, WithoutAuthorizationOrNameThereAreNoPreferences) {
  const std::size_t before = calls();
  EXPECT_EQ(SCPreferencesCreateWithAuthorization("test", std::nullopt, nullptr), nullptr);
  expectNoCall(before, kSCStatusNoPrefsSession);
  EXPECT_EQ(SCPreferencesCreateWithAuthorization("\xff", std::nullopt, authorization_), nullptr);
  expectNoCall(before, kSCStatusInvalidArgument);
  EXPECT_EQ(SCPreferencesCreateWithAuthorization("test", "\xff", authorization_), nullptr);
  expectNoCall(before, kSCStatusInvalidArgument);
}

// What each call that fails leaves behind.
TEST_F(MacNetworkServiceTest, TheSystemsErrorBecomesOurs) {
  const auto made = service();
  const auto interface = SCNetworkServiceGetInterface(made);
  const auto protocol = SCNetworkServiceCopyProtocol(made, kSCEntNetIPv4);
  const auto set = SCNetworkSetCopyCurrent(preferences_);
  const Value configuration = Value::Dictionary{{"key", 1}};
  const std::map<std::string, std::function<bool()>> fallible{
      {"SCPreferencesCreateWithAuthorization",
       [&] { return SCPreferencesCreateWithAuthorization("test", {}, authorization_) != nullptr; }},
      {"SCPreferencesCommitChanges", [&] { return SCPreferencesCommitChanges(preferences_); }},
      {"SCPreferencesApplyChanges", [&] { return SCPreferencesApplyChanges(preferences_); }},
      {"SCNetworkServiceCopyAll", [&] { return SCNetworkServiceCopyAll(preferences_).has_value(); }},
      {"SCNetworkServiceCreate", [&] { return SCNetworkServiceCreate(preferences_, ppp()) != nullptr; }},
      {"SCNetworkServiceRemove", [&] { return SCNetworkServiceRemove(service()); }},
      {"SCNetworkServiceSetName", [&] { return SCNetworkServiceSetName(made, "name"); }},
      {"SCNetworkServiceEstablishDefaultConfiguration",
       [&] { return SCNetworkServiceEstablishDefaultConfiguration(made); }},
      {"SCNetworkServiceGetInterface", [&] { return SCNetworkServiceGetInterface(made) != nullptr; }},
      {"SCNetworkServiceCopyProtocol", [&] { return SCNetworkServiceCopyProtocol(made, "IPv4") != nullptr; }},
      {"SCNetworkProtocolSetConfiguration", [&] { return SCNetworkProtocolSetConfiguration(protocol, configuration); }},
      {"SCNetworkInterfaceCreateWithInterface",
       [&] { return SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, "L2TP") != nullptr; }},
      {"SCNetworkInterfaceSetConfiguration",
       [&] { return SCNetworkInterfaceSetConfiguration(interface, configuration); }},
      {"SCNetworkInterfaceSetExtendedConfiguration",
       [&] { return SCNetworkInterfaceSetExtendedConfiguration(interface, "IPSec", configuration); }},
      {"SCNetworkSetCopyCurrent", [&] { return SCNetworkSetCopyCurrent(preferences_) != nullptr; }},
      {"SCNetworkSetAddService", [&] { return SCNetworkSetAddService(set, made); }},
  };
  for (const auto &[name, call] : fallible) {
    SCOPED_TRACE(name);
    if (name != "SCNetworkServiceRemove") {
      EXPECT_TRUE(call());
      setSCError(4711);
      if (!name.starts_with("SCPreferencesCreate") && !name.starts_with("SCNetworkServiceCreate") &&
          !name.starts_with("SCNetworkInterfaceCreate")) {
        EXPECT_TRUE(call());
        EXPECT_EQ(SCError(), 4711) << "a success leaves it alone";
      }
    }
    platform_.fail(name, 3005, 1);
    if (name == "SCNetworkServiceRemove" || name == "SCNetworkServiceCreate") setSCError(0);
    EXPECT_FALSE(call());
    EXPECT_EQ(SCError(), 3005);
  }
}

TEST_F(MacNetworkServiceTest, WhatClearsTheErrorDoesSo) {
  setSCError(4711);
  SCPreferencesCreateWithAuthorization("test", {}, authorization_);
  EXPECT_EQ(SCError(), 0);
  setSCError(4711);
  const auto interface = ppp();
  EXPECT_EQ(SCError(), 0);
  setSCError(4711);
  SCNetworkServiceCreate(preferences_, interface);
  EXPECT_EQ(SCError(), 0);
}

// The system is not asked; the first cause of a chain of failures stays.
TEST_F(MacNetworkServiceTest, NothingIsAnInvalidArgument) {
  const auto made = service();
  const auto set = SCNetworkSetCopyCurrent(preferences_);
  const std::vector<std::function<bool()>> failing{
      [] { return SCPreferencesCommitChanges(nullptr); },
      [] { return SCPreferencesApplyChanges(nullptr); },
      [] {
        SCPreferencesSynchronize(nullptr);
        return false;
      },
      [] { return SCNetworkServiceCopyAll(nullptr).has_value(); },
      [] { return SCNetworkServiceRemove(nullptr); },
      [] { return SCNetworkServiceGetName(nullptr).has_value(); },
      [] { return SCNetworkServiceSetName(nullptr, "name"); },
      [] { return SCNetworkServiceEstablishDefaultConfiguration(nullptr); },
      [] { return SCNetworkServiceGetServiceID(nullptr).has_value(); },
      [] { return SCNetworkServiceGetInterface(nullptr) != nullptr; },
      [] { return SCNetworkServiceCopyProtocol(nullptr, "IPv4") != nullptr; },
      [] { return !SCNetworkProtocolGetConfiguration(nullptr).isNull(); },
      [] { return SCNetworkProtocolSetConfiguration(nullptr, Value::Dictionary{}); },
      [] { return !SCNetworkInterfaceGetConfiguration(nullptr).isNull(); },
      [] { return SCNetworkInterfaceSetConfiguration(nullptr, Value::Dictionary{}); },
      [] { return SCNetworkInterfaceSetExtendedConfiguration(nullptr, "IPSec", Value::Dictionary{}); },
      [] { return SCNetworkSetCopyCurrent(nullptr) != nullptr; },
      [&] { return SCNetworkSetAddService(nullptr, made); },
      [&] { return SCNetworkSetAddService(set, nullptr); },
  };
  const std::size_t before = calls();
  for (const auto &call : failing) {
    setSCError(0);
    EXPECT_FALSE(call());
    expectNoCall(before, kSCStatusInvalidArgument);
    setSCError(kSCStatusStale);
    EXPECT_FALSE(call());
    expectNoCall(before, kSCStatusStale);
  }
  for (const auto &call : std::vector<std::function<bool()>>{
           [] { return SCNetworkInterfaceCreateWithInterface(nullptr, "L2TP") != nullptr; },
           [&] { return SCNetworkServiceCreate(preferences_, nullptr) != nullptr; },
           [] { return SCNetworkServiceCreate(nullptr, kSCNetworkInterfaceIPv4) != nullptr; }}) {
    EXPECT_FALSE(call());
    expectNoCall(before, kSCStatusInvalidArgument);
  }
}

// A null reference is the system's word for removing what is there.
TEST_F(MacNetworkServiceTest, AConfigurationThatCannotBeConvertedFailsAndRemovesNothing) {
  const auto made = service();
  const auto interface = SCNetworkServiceGetInterface(made);
  const auto protocol = SCNetworkServiceCopyProtocol(made, kSCEntNetIPv4);
  const std::uint64_t tooLarge = std::numeric_limits<std::uint64_t>::max();
  const std::size_t before = calls();
  for (const Value &configuration : {Value(), Value("text"), Value(Value::Dictionary{{"key", tooLarge}}),
                                     Value(Value::Dictionary{{"key", "\xff"}})}) {
    for (const auto &call : std::vector<std::function<bool()>>{
             [&] { return SCNetworkProtocolSetConfiguration(protocol, configuration); },
             [&] { return SCNetworkInterfaceSetConfiguration(interface, configuration); },
             [&] { return SCNetworkInterfaceSetExtendedConfiguration(interface, "IPSec", configuration); }}) {
      setSCError(0);
      EXPECT_FALSE(call());
      expectNoCall(before, kSCStatusInvalidArgument);
    }
  }
}

TEST_F(MacNetworkServiceTest, TextsThatAreNoTextsAreNotHandedOn) {
  const auto made = service();
  const auto interface = SCNetworkServiceGetInterface(made);
  const std::size_t before = calls();
  EXPECT_FALSE(SCNetworkServiceSetName(made, "\xff"));
  EXPECT_EQ(SCNetworkServiceCopyProtocol(made, "\xff"), nullptr);
  EXPECT_EQ(SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, "\xff"), nullptr);
  EXPECT_FALSE(SCNetworkInterfaceSetExtendedConfiguration(interface, "\xff", Value::Dictionary{}));
  expectNoCall(before, kSCStatusInvalidArgument);
}

// "Get" functions' results die with their objects, or when there are others.
TEST_F(MacNetworkServiceTest, WhatWasGotOutlivesItsService) {
  auto made = service();
  EXPECT_EQ(SCNetworkServiceGetName(made), std::nullopt);
  SCNetworkServiceSetName(made, "first");
  const auto name = SCNetworkServiceGetName(made);
  SCNetworkServiceSetName(made, "second");
  EXPECT_EQ(SCNetworkServiceGetName(made), "second");
  const auto interface = SCNetworkServiceGetInterface(made);
  EXPECT_NE(SCNetworkServiceGetInterface(made), interface);
  const auto protocol = SCNetworkServiceCopyProtocol(made, kSCEntNetIPv4);
  made.reset();
  preferences_.reset();
  EXPECT_EQ(name, "first");
  EXPECT_EQ(SCNetworkInterfaceGetConfiguration(interface)["LCPEchoInterval"], Value(20));
  EXPECT_TRUE(SCNetworkInterfaceSetConfiguration(interface, Value::Dictionary{{"key", 1}}));
  EXPECT_EQ(SCNetworkProtocolGetConfiguration(protocol)["ConfigMethod"], Value("PPP"));
}

TEST_F(MacNetworkServiceTest, EachAloneKeepsThePreferencesAlive) {
  const auto made = service();
  const std::map<std::string, std::function<std::shared_ptr<void>()>> things{
      {"service", [&]() -> std::shared_ptr<void> { return service(); }},
      {"listed service", [&]() -> std::shared_ptr<void> { return SCNetworkServiceCopyAll(preferences_)->front(); }},
      {"interface", [&]() -> std::shared_ptr<void> { return SCNetworkServiceGetInterface(service()); }},
      {"protocol", [&]() -> std::shared_ptr<void> { return SCNetworkServiceCopyProtocol(service(), kSCEntNetIPv4); }},
      {"set", [&]() -> std::shared_ptr<void> { return SCNetworkSetCopyCurrent(preferences_); }},
  };
  for (const auto &[name, get] : things) {
    const long before = preferences_.use_count();
    const std::shared_ptr<void> thing = get();
    ASSERT_NE(thing, nullptr) << name;
    EXPECT_EQ(preferences_.use_count(), before + 1) << name;
  }
}

TEST_F(MacNetworkServiceTest, ThePropertyListIsTheSystems) {
  platform_.services.push_back({.serviceID = "id",
                                .name = "name",
                                .layers = {"PPP", "L2TP", "IPv4"},
                                .configuration = Value::Dictionary{{"Text", "x"}, {"Number", -5}, {"Flag", true}},
                                .extendedConfigurations = {},
                                .protocols = {},
                                .inCurrentSet = true});
  const auto preferences = SCPreferencesCreateWithAuthorization("test", {}, authorization_);
  const auto all = SCNetworkServiceCopyAll(preferences);
  ASSERT_TRUE(all && all->size() == 1);
  EXPECT_EQ(SCNetworkServiceGetServiceID(all->front()), "id");
  EXPECT_EQ(SCNetworkServiceGetName(all->front()), "name");
  EXPECT_EQ(SCNetworkInterfaceGetConfiguration(SCNetworkServiceGetInterface(all->front())),
            platform_.services.front().configuration);
}

TEST_F(MacNetworkServiceTest, PPTPIsRefusedInOneLineBeforeTheSystemIsAsked) {
  const std::size_t before = calls();
  testing::internal::CaptureStderr();
  EXPECT_EQ(SCNetworkInterfaceCreateWithInterface(kSCNetworkInterfaceIPv4, kSCNetworkInterfaceTypePPTP), nullptr);
  const std::string said = testing::internal::GetCapturedStderr();
  expectNoCall(before, kSCStatusConnectionIgnore);
  EXPECT_TRUE(said.ends_with(
      "] This macOS has no PPTP: Apple took it out of the system. Use \"l2tp\", if the server has it.\n"))
      << said;
  EXPECT_EQ(said.find('\n'), said.size() - 1);
}

TEST(MacSCErrorString, IsTheSystems) {
  EXPECT_EQ(SCErrorString(1004), "No such entry");
  EXPECT_EQ(SCErrorString(5), "Input/output error");
  EXPECT_EQ(SCErrorString(frameworks::kStatusWithoutText), "Unknown error: 4711");
}

}  // namespace
}  // namespace platform
