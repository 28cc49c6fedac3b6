#include <gtest/gtest.h>

#include "platform/Security.h"
#include "platform/fake/FakePlatform.h"

namespace platform {
namespace {

using fake::FakePlatform;

constexpr const char *kOldHelper = "/System/Library/Frameworks/Old.framework/Helper";

class MacKeychainTest : public testing::Test {
 protected:
  MacKeychainTest() {
    platform_.reset();
    EXPECT_EQ(SecKeychainCopyDomainDefault(kSecPreferencesDomainSystem, &keychain_), errSecSuccess);
  }

  static SecKeychainAttribute attribute(SecKeychainAttrType tag, const char *text) {
    return {tag, static_cast<std::uint32_t>(std::string(text).size()), text};
  }
  static SecTrustedApplicationRef application(const char *path) {
    SecTrustedApplicationRef application;
    EXPECT_EQ(SecTrustedApplicationCreateFromPath(path, &application), errSecSuccess) << path;
    return application;
  }
  OSStatus add(const char *service, SecKeychainItemRef *item, const SecAccessRef &access = nullptr) const {
    const SecKeychainAttributeList attributes{attribute(kSecLabelItemAttr, "label"),
                                              attribute(kSecServiceItemAttr, service)};
    return SecKeychainItemCreateFromContent(kSecGenericPasswordItemClass, &attributes, 3, "secret", keychain_, access,
                                            item);
  }
  SecKeychainSearchRef search() const {
    const SecKeychainAttributeList attributes{attribute(kSecLabelItemAttr, "label")};
    SecKeychainSearchRef search;
    EXPECT_EQ(SecKeychainSearchCreateFromAttributes(keychain_, kSecGenericPasswordItemClass, &attributes, &search),
              errSecSuccess);
    return search;
  }

  FakePlatform &platform_ = FakePlatform::instance();
  SecKeychainRef keychain_;
};

TEST_F(MacKeychainTest, AnItemIsMadeFoundAndDeleted) {
  SecKeychainItemRef made;
  EXPECT_EQ(add("one", &made), errSecSuccess);
  EXPECT_NE(made, nullptr);
  EXPECT_EQ(add("two", nullptr), errSecSuccess);
  ASSERT_EQ(platform_.items.size(), 2u);
  EXPECT_EQ(platform_.items[0].secret, "sec");

  const SecKeychainSearchRef found = search();
  SecKeychainItemRef item;
  EXPECT_EQ(SecKeychainSearchCopyNext(found, &item), errSecSuccess);
  EXPECT_EQ(SecKeychainItemDelete(item), errSecSuccess);
  EXPECT_EQ(SecKeychainSearchCopyNext(found, &item), errSecSuccess);
  EXPECT_EQ(SecKeychainSearchCopyNext(found, &item), errSecItemNotFound);
  ASSERT_EQ(platform_.items.size(), 1u);
  EXPECT_EQ(platform_.items[0].service, "two");
}

TEST_F(MacKeychainTest, FailuresAreToldAndLeaveOutputsAlone) {
  SecKeychainItemRef item;
  ASSERT_EQ(add("one", &item), errSecSuccess);
  const SecKeychainItemRef first = item;
  EXPECT_EQ(add("one", &item), errSecDuplicateItem);
  EXPECT_EQ(item, first);
  platform_.fail("SecKeychainItemDelete", errSecWrPerm);
  EXPECT_EQ(SecKeychainItemDelete(item), errSecWrPerm);

  platform_.fail("SecKeychainCopyDomainDefault", errSecNoDefaultKeychain);
  const SecKeychainRef before = keychain_;
  EXPECT_EQ(SecKeychainCopyDomainDefault(kSecPreferencesDomainUser, &keychain_), errSecNoDefaultKeychain);
  EXPECT_EQ(keychain_, before);
  EXPECT_EQ(platform_.calls().back(), "SecKeychainCopyDomainDefault(0)");

  SecKeychainSearchRef found = search();
  const SecKeychainSearchRef firstSearch = found;
  platform_.fail("SecKeychainSearchCreateFromAttributes", errSecAuthFailed);
  EXPECT_EQ(SecKeychainSearchCreateFromAttributes(keychain_, kSecGenericPasswordItemClass, nullptr, &found),
            errSecAuthFailed);
  EXPECT_EQ(found, firstSearch);
}

// To the system no keychain is all of the user's.
TEST_F(MacKeychainTest, NoKeychainIsNeverHandedOn) {
  keychain_.reset();
  platform_.reset();
  SecKeychainSearchRef found;
  EXPECT_EQ(SecKeychainSearchCreateFromAttributes(nullptr, kSecGenericPasswordItemClass, nullptr, &found),
            errSecInvalidKeychain);
  EXPECT_EQ(found, nullptr);
  SecKeychainItemRef item;
  EXPECT_EQ(add("one", &item), errSecInvalidKeychain);
  EXPECT_EQ(item, nullptr);
  EXPECT_TRUE(platform_.calls().empty());
}

TEST_F(MacKeychainTest, OtherNullsAreNotHandedOnEither) {
  platform_.reset();
  SecKeychainItemRef item;
  EXPECT_EQ(SecKeychainSearchCopyNext(nullptr, &item), errSecItemNotFound);
  EXPECT_EQ(SecKeychainItemDelete(nullptr), errSecParam);
  SecTrustedApplicationRef application;
  EXPECT_EQ(SecTrustedApplicationCreateFromPath(nullptr, &application), errSecParam);
  EXPECT_EQ(SecTrustedApplicationCreateFromPath("/x", nullptr), errSecParam);
  SecAccessRef access;
  EXPECT_EQ(SecAccessCreate("name", {nullptr}, &access), errSecParam);
  EXPECT_EQ(SecAccessCreate("\xff", {}, &access), errSecParam);
  EXPECT_EQ(SecAccessCreate("name", {}, nullptr), errSecParam);
  EXPECT_EQ(SecKeychainCopyDomainDefault(kSecPreferencesDomainSystem, nullptr), errSecParam);
  EXPECT_EQ(SecKeychainSearchCreateFromAttributes(keychain_, kSecGenericPasswordItemClass, nullptr, nullptr),
            errSecParam);
  EXPECT_EQ(access, nullptr);
  EXPECT_TRUE(platform_.calls().empty());
}

TEST_F(MacKeychainTest, ASearchWithoutAttributesFindsEverything) {
  ASSERT_EQ(add("one", nullptr), errSecSuccess);
  SecKeychainSearchRef found;
  EXPECT_EQ(SecKeychainSearchCreateFromAttributes(keychain_, kSecGenericPasswordItemClass, nullptr, &found),
            errSecSuccess);
  SecKeychainItemRef item;
  EXPECT_EQ(SecKeychainSearchCopyNext(found, &item), errSecSuccess);
}

TEST_F(MacKeychainTest, AFailureInASearchIsToldAndTheSearchGoesOn) {
  ASSERT_EQ(add("one", nullptr), errSecSuccess);
  const SecKeychainSearchRef found = search();
  platform_.fail("SecKeychainSearchCopyNext", errSecAuthFailed, 50);
  SecKeychainItemRef item;
  for (int i = 0; i < 50; ++i) EXPECT_EQ(SecKeychainSearchCopyNext(found, &item), errSecAuthFailed);
  EXPECT_EQ(SecKeychainSearchCopyNext(found, &item), errSecSuccess);
  platform_.fail("SecKeychainSearchCopyNext", errSecAuthFailed, 60);
  for (int i = 0; i < 60; ++i)
    EXPECT_EQ(SecKeychainSearchCopyNext(found, &item), errSecAuthFailed) << "what has passed does not count";
}

// Whoever asks until there is nothing more would ask for ever.
TEST_F(MacKeychainTest, ASearchThatOnlyFailsHasAnEnd) {
  const SecKeychainSearchRef found = search();
  platform_.fail("SecKeychainSearchCopyNext", errSecAuthFailed);
  SecKeychainItemRef item;
  int asked = 1;
  while (SecKeychainSearchCopyNext(found, &item) != errSecItemNotFound) ASSERT_LT(++asked, 1000);
  EXPECT_EQ(item, nullptr);
}

TEST_F(MacKeychainTest, AnAccessListNamesItsPrograms) {
  const std::vector<SecTrustedApplicationRef> list{application("/usr/sbin/pppd"), application("/usr/sbin/racoon")};
  SecAccessRef access;
  EXPECT_EQ(SecAccessCreate("name", list, &access), errSecSuccess);
  EXPECT_EQ(add("one", nullptr, access), errSecSuccess);
  EXPECT_EQ(platform_.items.at(0).accessDescriptor, "name");
  EXPECT_EQ(platform_.items.at(0).trustedPaths, (std::vector<std::string>{"/usr/sbin/pppd", "/usr/sbin/racoon"}));

  platform_.fail("SecAccessCreate", errSecParam);
  const SecAccessRef before = access;
  EXPECT_EQ(SecAccessCreate("name", list, &access), errSecParam);
  EXPECT_EQ(access, before);
}

// The list has the places of several versions of the system.
TEST_F(MacKeychainTest, AProgramThatDoesNotExistIsLeftOutAndNamedOnce) {
  platform_.fail("SecTrustedApplicationCreateFromPath", 100002, 2);
  testing::internal::CaptureStderr();
  const SecTrustedApplicationRef missing = application(kOldHelper);
  const SecTrustedApplicationRef again = application(kOldHelper);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(
      said.ends_with(std::string("] ") + kOldHelper + " does not exist; the keychain items will not name it.\n"))
      << said;
  EXPECT_EQ(said.find('\n'), said.size() - 1);

  SecAccessRef access;
  EXPECT_EQ(SecAccessCreate("name", {missing, application("/usr/sbin/pppd"), again}, &access), errSecSuccess);
  ASSERT_EQ(add("one", nullptr, access), errSecSuccess);
  EXPECT_EQ(platform_.items[0].trustedPaths, std::vector<std::string>{"/usr/sbin/pppd"});

  EXPECT_EQ(SecAccessCreate("name", {missing}, &access), errSecSuccess) << "trusts nobody";
  EXPECT_EQ(platform_.calls().back(), "SecAccessCreate(\"name\", 0 applications)");
}

TEST_F(MacKeychainTest, AnyOtherFailureOfAProgramIsOne) {
  for (const OSStatus status : {-50, 100013}) {
    platform_.fail("SecTrustedApplicationCreateFromPath", status);
    SecTrustedApplicationRef application;
    EXPECT_EQ(SecTrustedApplicationCreateFromPath("/usr/sbin/pppd", &application), status);
    EXPECT_EQ(application, nullptr);
  }
}

}  // namespace
}  // namespace platform
