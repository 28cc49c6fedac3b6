#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "helper/store/Keychain.h"
#include "helper/store/PreferencesStore.h"
#include "lab/tools/MemorySearch.h"
#include "tests/platform/linux/HelperFixture.h"
#include "tests/platform/linux/PipedProcess.h"

namespace platform {
namespace {

// SIZE letters and digits, the same again for the same SEED; made at run time, so that no program's file holds them.
std::string madeUpText(std::size_t size, int seed) {
  std::minstd_rand random(static_cast<unsigned>(::getpid() + seed));
  std::string text(size, '\0');
  for (char &byte : text) byte = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"[random() % 62];
  return text;
}

// 200 bytes with everything that a parser could take for syntax, and the beginning of a character at the end.
std::string awkwardSecret() {
  std::string text = "quotes \" and ', blanks  , \\back\\slashes\\, #hash, a={b;} ";
  for (char control = 1; control < ' '; ++control) text += control;
  text += "\x7f \xc3\xa4\xe2\x82\xac\xf0\x9f\x94\x92";
  while (text.size() < 198) text += static_cast<char>('a' + text.size() % 26);
  return text + "\xf0\x9f";
}

std::string told(const lab::MemorySearch::Result &result) {
  std::string text;
  for (const auto &finding : result.findings) text += finding.form + " in " + finding.mapping + "; ";
  return text;
}

class KeychainTest : public testing::HelperFixture {
 protected:
  KeychainTest() {
    EXPECT_EQ(SecKeychainCopyDomainDefault(kSecPreferencesDomainSystem, &keychain), errSecSuccess);
    SecTrustedApplicationRef application;
    EXPECT_EQ(SecTrustedApplicationCreateFromPath("/usr/sbin/pppd", &application), errSecSuccess);
    SecTrustedApplicationRef self;
    EXPECT_EQ(SecTrustedApplicationCreateFromPath("/proc/self/exe", &self), errSecSuccess);
    EXPECT_EQ(SecAccessCreate("access", {application, self}, &access), errSecSuccess);
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

  // Of a service whose password is the item NAME, with which the item may then be used.
  void commitServiceNaming(const std::string &name) {
    const auto preferences = openPreferences(authorization);
    const auto service = addService(preferences, "service " + name, "up");
    const auto interface = SCNetworkServiceGetInterface(service);
    auto configuration = SCNetworkInterfaceGetConfiguration(interface);
    configuration.set(kSCPropNetPPPAuthPassword, name);
    EXPECT_TRUE(SCNetworkInterfaceSetConfiguration(interface, configuration));
    EXPECT_TRUE(SCPreferencesCommitChanges(preferences)) << SCError();
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
  EXPECT_EQ(support::contentsOf(file).value_or(secret).find(secret), std::string::npos);
  struct stat attributes = {};
  ASSERT_EQ(::stat(file.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0600U);
  ASSERT_EQ(::stat(folder().path("keychain/SystemKey").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0400U);
  ASSERT_EQ(::stat(folder().path("keychain").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0700U);
}

// Bytes that break whoever splits lines, quotes or counts characters come out as they went in.
TEST_F(KeychainTest, ASecretOfAwkwardBytesIsKeptAsItIs) {
  const std::string secret = awkwardSecret();
  ASSERT_EQ(secret.size(), 200U);
  commitServiceNaming("S");
  ASSERT_EQ(add("mine", "user", "S", secret), errSecSuccess);
  int pair[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  const vpnctl::FileDescriptor first(pair[0]);
  const vpnctl::FileDescriptor second(pair[1]);
  auto log = helper::PPPLog::open(folder().path("reader.log"));
  vpnctl::PosixFileSystem fileSystem;
  helper::Keychain reader(folder().path("keychain"), fileSystem, *log);
  const helper::PreferencesStore preferences(folder().path("etc/preferences.plist"), fileSystem, *log);
  const auto use = helper::SecretUse::of(preferences.serviceNaming("S"), ::geteuid());
  const auto kept = reader.secretForService("S", use, helper::Peer::ofSocket(first.get()).value());
  ASSERT_TRUE(kept) << kept.error().message;
  EXPECT_TRUE(*kept == vpnctl::Secret(secret));
}

// Short ones and long ones, since the heap keeps blocks by their size.
TEST_F(KeychainTest, NoPieceOfASecretStaysInTheHelpersMemory) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to look into another process";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer keeps what was freed";
#endif
  const std::string account = madeUpText(40, 0);
  std::vector<std::string> secrets;
  for (const int size : {9, 20, 60, 200, 900, 5000}) {
    secrets.push_back(madeUpText(static_cast<std::size_t>(size), size));
    ASSERT_EQ(add("mine", account, "S" + std::to_string(size), secrets.back()), errSecSuccess);
  }
  search("none");  // the helper answers before it lets go of a call; by the next answer it has
  const auto processes = helperProcesses();
  ASSERT_EQ(processes.size(), 1U);
  const pid_t process = std::stoi(processes[0]);
  EXPECT_FALSE(lab::MemorySearch(account).in(process).findings.empty()) << "the search finds what is there";
  for (const std::string &secret : secrets) {
    const auto result = lab::MemorySearch(secret).in(process);
    EXPECT_TRUE(result.findings.empty()) << secret.size() << " bytes: " << told(result);
  }
}

TEST_F(KeychainTest, NoPieceOfASecretStaysWhereItWasUsed) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to look into another process";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer keeps what was freed";
#endif
  const std::string account = madeUpText(40, 0);
  const std::string program = folder().path("secret-user");
  std::filesystem::copy_file(SECRET_USER, program);
  for (const int size : {9, 20, 63, 200}) {
    const std::string secret = madeUpText(static_cast<std::size_t>(size), size);
    const std::string service = "S" + std::to_string(size);
    SecTrustedApplicationRef user;
    ASSERT_EQ(SecTrustedApplicationCreateFromPath(program.c_str(), &user), errSecSuccess);
    ASSERT_EQ(SecAccessCreate("access", {user}, &access), errSecSuccess);
    commitServiceNaming(service);
    ASSERT_EQ(add("mine", account, service, secret), errSecSuccess);
    testing::PipedProcess process({program, folder().path(), service});
    ASSERT_TRUE(process.waitForByte());
    EXPECT_FALSE(lab::MemorySearch(folder().path()).in(process.pid()).findings.empty())
        << "the search finds what is there";
    const auto result = lab::MemorySearch(secret).in(process.pid());
    EXPECT_TRUE(result.findings.empty()) << size << " bytes: " << told(result);
    EXPECT_EQ(process.finish(), 0);
  }
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
