#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <new>

#include "TNUtils/TNKeyChain.h"
#include "foundation/ProcessInfo.h"
#include "platform/fake/FakePlatform.h"
#include "tests/qolmhelper/Backend.h"
#include "tests/support/TemporaryFolder.h"

namespace {
bool memoryIsOut = false;
}

// What the linker puts in the place of the allocation that gives null instead of throwing. The real one stays who gives
// memory, so that a sanitizer sees its own.
extern "C" {
void *__real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t &tag) noexcept;

void *__wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t &tag) noexcept {
  return memoryIsOut ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}
}

namespace TN {
namespace {

using platform::fake::FakePlatform;
using platform::fake::KeychainItem;
using vpnctl::ProcessInfo;
using vpnctl::Secret;

class TNKeyChainTest : public testing::Test {
 protected:
  TNKeyChainTest() {
    platform_.reset();
    setVersion(std::nullopt);
  }
  ~TNKeyChainTest() override {
    ProcessInfo::setSystemVersionPath(systemVersionPath_);
    TNKeyChain::trustedApplicationPaths() = paths_;
  }

  // The version file says VERSION; none: there is no such file.
  void setVersion(const std::optional<std::string> &version) {
    ProcessInfo::setSystemVersionPath(folder_.path(version ? "version.plist" : "missing.plist"));
    if (!version) return;
    support::writeFile(
        folder_.path("version.plist"),
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>ProductVersion</key><string>" +
            *version + "</string></dict></plist>\n");
  }
  void addItem(const std::string &label, const std::string &service) {
    KeychainItem item;
    item.label = label;
    item.service = service;
    platform_.items.push_back(item);
  }
  platform::SecKeychainRef keychain() {
    platform::SecKeychainRef keychain;
    platform::SecKeychainCopyDomainDefault(platform::kSecPreferencesDomainSystem, &keychain);
    return keychain;
  }
  void store(TNKeyChain::SecretText secret = Secret("ss"), TNKeyChain::SecretText password = Secret("pw")) {
    TNKeyChain::storePasswordsForService("ID", secret, "ann", password);
  }

  FakePlatform &platform_ = FakePlatform::instance();
  support::TemporaryFolder folder_;
  support::TemporaryPlace place_{folder_};
  const std::string systemVersionPath_ = ProcessInfo::systemVersionPath();
  const std::array<const char *, 5> paths_ = TNKeyChain::trustedApplicationPaths();
};

const std::vector<std::string> kDefaultPaths{
    "/System/Library/Frameworks/SystemConfiguration.framework/Versions/A/Resources/SCHelper",
    "/Applications/System Preferences.app", "/System/Library/CoreServices/SystemUIServer.app", "/usr/sbin/pppd",
    "/usr/sbin/racoon"};
constexpr const char *kNewHelper =
    "/System/Library/Frameworks/SystemConfiguration.framework/Versions/A/Helpers/SCHelper";
constexpr const char *kNewPreferences = "/System/Applications/System Preferences.app";

TEST_F(TNKeyChainTest, StoresTheSharedSecretThenThePassword) {
  store();
  ASSERT_EQ(platform_.items.size(), 2u);
  const KeychainItem &secret = platform_.items[0];
  EXPECT_EQ(secret.label, "Corvanelle");
  EXPECT_EQ(secret.account, "");
  EXPECT_EQ(secret.service, "ID.SS");
  EXPECT_EQ(secret.description, "IPSec Shared Secret");
  EXPECT_EQ(secret.secret, "ss");
  const KeychainItem &password = platform_.items[1];
  EXPECT_EQ(password.label, "Corvanelle");
  EXPECT_EQ(password.account, "ann");
  EXPECT_EQ(password.service, "ID");
  EXPECT_EQ(password.description, "PPP Password");
  EXPECT_EQ(password.secret, "pw");
  for (const KeychainItem &item : platform_.items) {
    EXPECT_EQ(item.accessDescriptor, "Some VPN Thing");
    EXPECT_EQ(item.trustedPaths, kDefaultPaths);
  }
}

TEST_F(TNKeyChainTest, WorksOnTheSystemsKeychainInItsOrder) {
  store();
  std::vector<std::string> calls;
  for (const std::string &call : platform_.calls("SecKeychain")) calls.push_back(call);
  EXPECT_EQ(calls, (std::vector<std::string>{
                       "SecKeychainCopyDomainDefault(1)",
                       "SecKeychainSearchCreateFromAttributes(keychain, genp, [labl=\"Corvanelle\"])",
                       "SecKeychainSearchCopyNext(search)",
                       "SecKeychainItemCreateFromContent(genp, [labl=\"Corvanelle\", acct=\"\", svce=\"ID.SS\", "
                       "desc=\"IPSec Shared Secret\"], 2, \"ss\", keychain, access)",
                       "SecKeychainItemCreateFromContent(genp, [labl=\"Corvanelle\", acct=\"ann\", svce=\"ID\", "
                       "desc=\"PPP Password\"], 2, \"pw\", keychain, access)"}));
}

TEST_F(TNKeyChainTest, ASecondRunLeavesTwoItems) {
  store();
  TNKeyChain::storePasswordsForService("ANOTHER", Secret("s2"), "bob", Secret("p2"));
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[0].service, "ANOTHER.SS");
  EXPECT_EQ(platform_.items[1].service, "ANOTHER");
}

TEST_F(TNKeyChainTest, RemovesForeignItemsOfTheLabelAndNoOthers) {
  addItem("Corvanelle", "somebody else's");
  addItem("corvanelle", "another label");
  addItem("Corvanelle 2", "another label again");
  store();
  ASSERT_EQ(platform_.items.size(), 4u);
  EXPECT_EQ(platform_.items[0].service, "another label");
  EXPECT_EQ(platform_.items[1].service, "another label again");
}

TEST_F(TNKeyChainTest, AnAbsentSecretIsStoredEmpty) {
  store(std::nullopt);
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[0].secret, "");
  EXPECT_EQ(platform_.items[1].secret, "pw");
}

TEST_F(TNKeyChainTest, AbsentTextsAreStoredEmpty) {
  TNKeyChain::storePasswordsForService(std::nullopt, Secret("ss"), std::nullopt, Secret("pw"));
  // Both items then have neither account nor service: the second is a duplicate, and that is ignored.
  ASSERT_EQ(platform_.items.size(), 1u);
  EXPECT_EQ(platform_.items[0].service, "");
  EXPECT_EQ(platform_.calls("SecKeychainItemCreateFromContent").size(), 2u);
}

TEST_F(TNKeyChainTest, LengthsCountUTF16UnitsOfUTF8Bytes) {
  store(Secret("abcdefg\xc3\xa4"), Secret("\xf0\x9f\x94\x91x"));
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[0].secret, "abcdefg\xc3") << "8 characters, 9 bytes: cut to 8 bytes";
  EXPECT_EQ(platform_.items[1].secret, "\xf0\x9f\x94") << "3 units, 5 bytes";
  const auto item =
      TNKeyChain::addPassword(keychain(), "s\xc3\xa4", "\xc3\xa4", Secret(), "l\xc3\xa4", "d\xc3\xa4\xc3\xa4");
  EXPECT_NE(item, nullptr);
  EXPECT_EQ(platform_.items.back().account, "\xc3");
  EXPECT_EQ(platform_.items.back().service, "s\xc3");
  EXPECT_EQ(platform_.items.back().label, "l\xc3");
  EXPECT_EQ(platform_.items.back().description, "d\xc3\xa4");
}

TEST_F(TNKeyChainTest, ALongSecretOfAllKindsOfCharactersIsCutTheSame) {
  std::string text = "\"'\\ # \x01\x1b\x7f\t\xc3\xa4\xe2\x82\xac\xf0\x9f\x94\x91";
  const std::size_t more = 5;  // bytes than units
  while (text.size() < 200 + more) text.insert(text.begin(), 'x');
  store(Secret(text), Secret(text + "\xc3\xa4"));
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[0].secret, text.substr(0, 200)) << "the last character falls, and a byte of the one before";
  EXPECT_EQ(platform_.items[1].secret, text.substr(0, 201));
}

TEST_F(TNKeyChainTest, AddPasswordGivesTheItemOrNone) {
  EXPECT_NE(TNKeyChain::addPassword(keychain(), "s", "a", Secret("p"), "l", "d"), nullptr);
  EXPECT_EQ(TNKeyChain::addPassword(keychain(), "s", "a", Secret("p"), "l", "d"), nullptr) << "a duplicate";
}

TEST_F(TNKeyChainTest, FailuresOfTheKeychainAreIgnored) {
  for (const char *const call : {"SecKeychainCopyDomainDefault", "SecKeychainSearchCreateFromAttributes",
                                 "SecKeychainItemDelete", "SecKeychainItemCreateFromContent"}) {
    platform_.reset();
    addItem("Corvanelle", "earlier");
    platform_.fail(call, -61);
    testing::internal::CaptureStderr();
    store();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    if (kRecordsCallsOnNothing || call != std::string("SecKeychainCopyDomainDefault"))
      EXPECT_EQ(platform_.calls("SecKeychainItemCreateFromContent").size(), 2u) << call;
  }
}

TEST_F(TNKeyChainTest, OnlyNotFoundEndsTheRemoval) {
  addItem("Corvanelle", "one");
  addItem("Corvanelle", "two");
  platform_.fail("SecKeychainSearchCopyNext", -25293, 1, 1);
  TNKeyChain::removePasswordsFromKeychain(keychain(), "Corvanelle");
  EXPECT_EQ(platform_.calls("SecKeychainItemDelete"),
            (std::vector<std::string>{"SecKeychainItemDelete(item \"one\")", "SecKeychainItemDelete(item \"one\")",
                                      "SecKeychainItemDelete(item \"two\")"}));
  EXPECT_TRUE(platform_.items.empty());
}

struct Version {
  std::optional<std::string> text;
  bool newHelper;
  bool newPreferences;
};

class TNKeyChainVersions : public TNKeyChainTest, public testing::WithParamInterface<Version> {};

TEST_P(TNKeyChainVersions, ChooseThePathsOfTheAccessList) {
  setVersion(GetParam().text);
  EXPECT_EQ(TNKeyChain::isMavericksOrNewer(), GetParam().newHelper);
  store();
  std::vector<std::string> expected = kDefaultPaths;
  if (GetParam().newHelper) expected[0] = kNewHelper;
  if (GetParam().newPreferences) expected[1] = kNewPreferences;
  EXPECT_EQ(platform_.items.at(0).trustedPaths, expected);
  EXPECT_EQ(platform_.items.at(1).trustedPaths, expected);
}
INSTANTIATE_TEST_SUITE_P(
    All, TNKeyChainVersions,
    testing::Values(Version{std::nullopt, false, false}, Version{"10.8.5", false, false}, Version{"10.9", true, false},
                    Version{"10.10", true, false}, Version{"10.14.6", true, false}, Version{"10.15", true, true},
                    Version{"10.15.7", true, true}, Version{"11", false, true}, Version{"11.0", false, true},
                    Version{"11.2", false, true}, Version{"11.7", false, true}, Version{"12.6", false, true},
                    Version{"11.9", true, true}, Version{"10", false, false}, Version{"", false, false},
                    Version{"9.9", false, false}, Version{"ten.nine", false, false}, Version{"10.-9", false, false}));

TEST_F(TNKeyChainTest, AReplacedPathStaysReplaced) {
  setVersion("10.15");
  TNKeyChain::setupACL();
  setVersion("10.8");
  TNKeyChain::setupACL();
  EXPECT_STREQ(TNKeyChain::trustedApplicationPaths()[0], kNewHelper);
  EXPECT_STREQ(TNKeyChain::trustedApplicationPaths()[1], kNewPreferences);
}

using TNKeyChainDeathTest = TNKeyChainTest;

void setupACLWithoutMemory() {
  memoryIsOut = true;
  TNKeyChain::setupACL();
}

TEST_F(TNKeyChainDeathTest, AListWithoutMemoryIsAFailedAssertion) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(setupACLWithoutMemory(), testing::KilledBySignal(SIGABRT),
              "^Assertion failed: \\(trustedApps != nil\\), function \\+\\[TNKeyChain setupACL\\], "
              "file TNKeyChain, line 138\\.");
}

TEST_F(TNKeyChainDeathTest, APathThatIsRefusedIsAFailedAssertion) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  for (int slot = 0; slot < 5; ++slot) {
    platform_.reset();
    platform_.fail("SecTrustedApplicationCreateFromPath", -50, 1, slot);
    EXPECT_EXIT(TNKeyChain::setupACL(), testing::KilledBySignal(SIGABRT),
                "^Assertion failed: \\(err == errSecSuccess\\), function \\+\\[TNKeyChain setupACL\\], "
                "file TNKeyChain, line 162\\.");
  }
}

TEST_F(TNKeyChainDeathTest, AnAccessObjectThatCannotBeMadeIsAFailedAssertion) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  platform_.fail("SecAccessCreate", -50);
  EXPECT_EXIT(TNKeyChain::setupACL(), testing::KilledBySignal(SIGABRT),
              "^Assertion failed: \\(err == errSecSuccess\\), function \\+\\[TNKeyChain setupACL\\], "
              "file TNKeyChain, line 165\\.");
}

}  // namespace
}  // namespace TN
