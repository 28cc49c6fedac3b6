#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>

#include "tests/platform/linux/HelperFixture.h"

namespace platform {
namespace {

// How often BYTES stand in the writable memory of PROCESS.
std::size_t occurrences(const std::string &process, const std::string &bytes) {
  std::ifstream maps("/proc/" + process + "/maps");
  std::ifstream memory("/proc/" + process + "/mem", std::ios::binary);
  std::size_t count = 0;
  std::string line;
  while (std::getline(maps, line)) {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    char mode[5] = {};
    if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s", &start, &end, mode) != 3 || mode[1] != 'w') continue;
    if (end - start > (std::uint64_t{64} << 20)) continue;  // a sanitizer's shadow
    std::string region(end - start, '\0');
    memory.clear();
    memory.seekg(static_cast<std::streamoff>(start));
    memory.read(region.data(), static_cast<std::streamsize>(region.size()));
    for (auto at = region.find(bytes); at != std::string::npos; at = region.find(bytes, at + 1)) ++count;
  }
  return count;
}

class KeychainTest : public testing::HelperFixture {
 protected:
  KeychainTest() {
    EXPECT_EQ(SecKeychainCopyDomainDefault(kSecPreferencesDomainSystem, &keychain), errSecSuccess);
    SecTrustedApplicationRef application;
    EXPECT_EQ(SecTrustedApplicationCreateFromPath("/usr/sbin/pppd", &application), errSecSuccess);
    EXPECT_EQ(SecAccessCreate("access", {application}, &access), errSecSuccess);
  }

  OSStatus add(const std::string &label, const std::string &account, const std::string &service,
               const std::string &secret) {
    const SecKeychainAttributeList attributes = {attribute(kSecLabelItemAttr, label),
                                                 attribute(kSecAccountItemAttr, account),
                                                 attribute(kSecServiceItemAttr, service)};
    SecKeychainItemRef item;
    const OSStatus status = SecKeychainItemCreateFromContent(kSecGenericPasswordItemClass, &attributes,
                                                             static_cast<std::uint32_t>(secret.size()), secret.data(),
                                                             keychain, access, &item);
    EXPECT_EQ(status == errSecSuccess, item != nullptr);
    return status;
  }

  static SecKeychainAttribute attribute(SecKeychainAttrType tag, const std::string &bytes) {
    return {tag, static_cast<std::uint32_t>(bytes.size()), bytes.data()};
  }

  SecKeychainSearchRef search(const std::string &label) {
    const SecKeychainAttributeList attributes = {attribute(kSecLabelItemAttr, label)};
    SecKeychainSearchRef search;
    EXPECT_EQ(SecKeychainSearchCreateFromAttributes(keychain, kSecGenericPasswordItemClass, &attributes, &search),
              errSecSuccess);
    return search;
  }

  int count(const std::string &label) {
    const auto found = search(label);
    SecKeychainItemRef item;
    int number = 0;
    while (SecKeychainSearchCopyNext(found, &item) == errSecSuccess) ++number;
    return number;
  }

  const AuthorizationRef authorization = authorize();
  SecKeychainRef keychain;
  SecAccessRef access;
};

TEST_F(KeychainTest, ItemsAreAddedFoundAndDeleted) {
  EXPECT_EQ(add("mine", "", "S.SS", "one"), errSecSuccess);
  EXPECT_EQ(add("mine", "user", "S", "two"), errSecSuccess);
  EXPECT_EQ(add("other", "user", "T", ""), errSecSuccess);
  EXPECT_EQ(count("mine"), 2);
  const auto found = search("mine");
  SecKeychainItemRef item;
  while (SecKeychainSearchCopyNext(found, &item) == errSecSuccess)
    EXPECT_EQ(SecKeychainItemDelete(item), errSecSuccess);
  EXPECT_EQ(count("mine"), 0);
  EXPECT_EQ(count("other"), 1);
  EXPECT_EQ(SecKeychainItemDelete(item), errSecItemNotFound);
}

TEST_F(KeychainTest, AccountAndServiceAreUnique) {
  EXPECT_EQ(add("a", "user", "S", "one"), errSecSuccess);
  EXPECT_EQ(add("b", "user", "S", "two"), errSecDuplicateItem);
  EXPECT_EQ(add("b", "user2", "S", "two"), errSecSuccess);
}

TEST_F(KeychainTest, OnlyASystemsKeychainExists) {
  SecKeychainRef other;
  EXPECT_EQ(SecKeychainCopyDomainDefault(kSecPreferencesDomainUser, &other), errSecNoDefaultKeychain);
  EXPECT_FALSE(other);
}

TEST_F(KeychainTest, NoSecretStandsInTheFiles) {
  const std::string secret = "tremendously secret words";
  ASSERT_EQ(add("mine", "user", "S", secret), errSecSuccess);
  const std::string file = folder().path("keychain/System.keychain");
  EXPECT_EQ(helper::testing::contentsOf(file).value_or(secret).find(secret), std::string::npos);
  struct stat attributes = {};
  ASSERT_EQ(::stat(file.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0600U);
  ASSERT_EQ(::stat(folder().path("keychain/SystemKey").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0400U);
  ASSERT_EQ(::stat(folder().path("keychain").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0700U);
}

TEST_F(KeychainTest, NoSecretStaysInTheHelpersMemory) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to look into another process";
  // Made at run time, so that the helper's program does not hold it; its end is not in what is looked for by chance.
  const std::string secret = "not to be kept " + std::to_string(::getpid());
  ASSERT_EQ(add("mine", "user", "S", secret), errSecSuccess);
  search("none");  // the helper answers before it lets go of a call; by the next answer it has
  const auto processes = helperProcesses();
  ASSERT_EQ(processes.size(), 1U);
  EXPECT_GT(occurrences(processes[0], "System.keychain"), 0U);  // the search finds what is there
  EXPECT_EQ(occurrences(processes[0], secret), 0U);
}

// A user name may be cut inside a character: bytes, not text.
TEST_F(KeychainTest, BytesThatAreNoTextAreKept) {
  const std::string cut = "M\xC3";
  EXPECT_EQ(add(cut, cut, "S", "one"), errSecSuccess);
  EXPECT_EQ(count(cut), 1);
  EXPECT_EQ(count("M"), 0);
}

TEST_F(KeychainTest, WithoutAnItemToGiveASearchAnswersNotFound) {
  SecKeychainItemRef item;
  EXPECT_EQ(SecKeychainSearchCopyNext({}, &item), errSecItemNotFound);
  EXPECT_EQ(SecKeychainSearchCopyNext(search("none"), &item), errSecItemNotFound);
  EXPECT_FALSE(item);
  EXPECT_EQ(SecKeychainItemDelete({}), errSecParam);
}

TEST_F(KeychainTest, NullArgumentsAreErrors) {
  SecTrustedApplicationRef application;
  EXPECT_EQ(SecTrustedApplicationCreateFromPath(nullptr, &application), errSecParam);
  SecAccessRef made;
  EXPECT_EQ(SecAccessCreate("a", {nullptr}, &made), errSecParam);
  SecKeychainSearchRef found;
  EXPECT_EQ(SecKeychainSearchCreateFromAttributes({}, kSecGenericPasswordItemClass, nullptr, &found), errSecParam);
  EXPECT_EQ(SecKeychainItemCreateFromContent(kSecGenericPasswordItemClass, nullptr, 0, nullptr, {}, access, nullptr),
            errSecParam);
}

}  // namespace
}  // namespace platform
