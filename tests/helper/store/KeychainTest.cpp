#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <iterator>

#include "foundation/PropertyList.h"
#include "helper/store/Keychain.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/Messages.h"
#include "wire/StatusCodes.h"

namespace helper {
namespace {

using support::contentsOf;
using support::FaultyFileSystem;
using support::writeFile;
using vpnctl::FileDescriptor;
using vpnctl::Secret;
using vpnctl::Value;
using Call = FaultyFileSystem::Call;

KeychainItem::Attributes attributes(const std::string &label, const std::string &account, const std::string &service) {
  return {{kLabelAttribute, label}, {kAccountAttribute, account}, {kServiceAttribute, service}};
}

// This test's own program is the peer: at the other end of a socket pair is the process that made it.
class KeychainTest : public ::testing::Test {
 protected:
  KeychainTest() {
    int pair[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    first.reset(pair[0]);
    second.reset(pair[1]);
  }

  Peer self() const { return std::move(Peer::ofSocket(first.get()).value()); }

  std::int32_t add(const KeychainItem::Attributes &about, std::string_view secret,
                   const std::vector<std::string> &paths = {"/proc/self/exe"}) {
    const auto item = keychain.add(about, Secret(secret), {"access", paths}, use);
    return item ? wire::errSecSuccess : item.error().code;
  }

  std::int32_t codeForService(const std::string &service) {
    const auto secret = keychain.secretForService(service, use, self());
    return secret ? wire::errSecSuccess : secret.error().code;
  }

  // Changes the stored property list behind the keychain's back.
  void tamper(const std::function<void(Value &items)> &change) {
    const auto root = vpnctl::propertyListFromFile(file);
    ASSERT_TRUE(root);
    Value items = (*root)["Items"];
    change(items);
    Value changed = *root;
    changed.set("Items", items);
    writeFile(file, *vpnctl::xmlPropertyList(changed));
  }

  // Of a service towards that SERVER.
  static Value serviceTo(const char *server) {
    return Value::Dictionary{{"Interface", Value::Dictionary{{"Type", "PPP"}, {"SubType", "PPTP"}}},
                             {"PPP", Value::Dictionary{{"AuthPassword", "S"}, {"CommRemoteAddress", server}}}};
  }
  std::string refusalFor(const SecretUse &other) {
    const auto secret = keychain.secretForService("S", other, self());
    return secret ? "none" : secret.error().message;
  }

  const SecretUse use = SecretUse::of(serviceTo("vpn.example.org"), 1000);
  support::TemporaryFolder folder;
  FileDescriptor first;
  FileDescriptor second;
  FaultyFileSystem fileSystem;
  PPPLog log = std::move(PPPLog::open(folder.path("ppp.log")).value());
  Keychain keychain{folder.path("keychain"),
                    fileSystem,
                    log,
                    {{"/role", {"/no/such/program", "/proc/self/exe"}}, {"/foreign", {"/bin/sh"}}}};
  const std::string file = folder.path("keychain/System.keychain");
  const std::string key = folder.path("keychain/SystemKey");
};

TEST_F(KeychainTest, GivesASecretToWhoIsOnTheAccessList) {
  ASSERT_EQ(add(attributes("L", "user", "S"), "secret"), wire::errSecSuccess);
  const auto secret = keychain.secretForService("S", use, self());
  ASSERT_TRUE(secret);
  EXPECT_TRUE(*secret == Secret(std::string_view("secret")));
}

TEST_F(KeychainTest, StillGivesOutWhatAnotherRunReplaced) {
  ASSERT_EQ(add(attributes("L", "user", "S"), "secret"), wire::errSecSuccess);
  ASSERT_EQ(add(attributes("L", "user", "T"), "secret", {"/bin/sh"}), wire::errSecSuccess);
  Keychain other(folder.path("keychain"), fileSystem, log);
  const auto found = other.find({{kLabelAttribute, "L"}});
  ASSERT_EQ(found->size(), 2U);
  for (const std::string &identifier : *found) ASSERT_TRUE(other.remove(identifier));
  EXPECT_EQ(other.secretForService("S", use, self()).error().code, wire::errSecItemNotFound);
  EXPECT_EQ(codeForService("S"), wire::errSecSuccess);
  EXPECT_EQ(codeForService("T"), wire::errSecAuthFailed) << "its access list holds all the same";
  EXPECT_TRUE(keychain.find({{kLabelAttribute, "L"}})->empty()) << "it is in the keychain no more";
}

TEST_F(KeychainTest, ForgetsWhatItRemovedItself) {
  ASSERT_EQ(add(attributes("L", "user", "S"), "secret"), wire::errSecSuccess);
  ASSERT_TRUE(keychain.remove(keychain.find({})->at(0)));
  EXPECT_EQ(codeForService("S"), wire::errSecItemNotFound);
}

TEST_F(KeychainTest, GivesItToNobodyElse) {
  ASSERT_EQ(add(attributes("L", "user", "S"), "secret", {"/bin/sh", "/no/such/program"}), wire::errSecSuccess);
  EXPECT_EQ(codeForService("S"), wire::errSecAuthFailed);
  EXPECT_EQ(codeForService("T"), wire::errSecItemNotFound);
  ASSERT_EQ(add(attributes("L", "user", "U"), "secret", {}), wire::errSecSuccess);
  EXPECT_EQ(codeForService("U"), wire::errSecAuthFailed);
  const auto refused = keychain.secretForService("S", use, self());
  EXPECT_EQ(refused.error().message.find("secret"), std::string::npos);
}

TEST_F(KeychainTest, ARoleStandsForThePrograms) {
  ASSERT_EQ(add(attributes("L", "user", "S"), "secret", {"/role"}), wire::errSecSuccess);
  EXPECT_EQ(codeForService("S"), wire::errSecSuccess);
  ASSERT_EQ(add(attributes("L", "user", "T"), "secret", {"/foreign"}), wire::errSecSuccess);
  EXPECT_EQ(codeForService("T"), wire::errSecAuthFailed);
}

TEST_F(KeychainTest, AnyAccountOfTheServiceThatTrustsThePeer) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one", {"/bin/sh"}), wire::errSecSuccess);
  ASSERT_EQ(add(attributes("L", "b", "S"), "two"), wire::errSecSuccess);
  const auto secret = keychain.secretForService("S", use, self());
  ASSERT_TRUE(secret);
  EXPECT_TRUE(*secret == Secret(std::string_view("two")));
}

TEST_F(KeychainTest, AccountAndServiceAreUniqueAndDefaultToNothing) {
  EXPECT_EQ(add({}, "one"), wire::errSecSuccess);
  EXPECT_EQ(add({{kLabelAttribute, "other"}}, "two"), wire::errSecDuplicateItem);
  EXPECT_EQ(add({{kAccountAttribute, ""}, {kServiceAttribute, ""}}, "three"), wire::errSecDuplicateItem);
  EXPECT_EQ(add({{kServiceAttribute, "S"}}, "four"), wire::errSecSuccess);
  EXPECT_EQ(keychain.find({{kLabelAttribute, "S"}})->size(), 1U);  // the label defaults to the service
  EXPECT_EQ(keychain.find({})->size(), 2U);
}

TEST_F(KeychainTest, RemovesByIdentifier) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one"), wire::errSecSuccess);
  ASSERT_EQ(add(attributes("M", "b", "S"), "two"), wire::errSecSuccess);
  const auto found = keychain.find({{kLabelAttribute, "L"}});
  ASSERT_EQ(found->size(), 1U);
  EXPECT_TRUE(keychain.remove(found->front()));
  EXPECT_EQ(keychain.remove(found->front()).error().code, wire::errSecItemNotFound);
  EXPECT_EQ(keychain.find({})->size(), 1U);
}

TEST_F(KeychainTest, LimitsAreKept) {
  EXPECT_EQ(add({{0x61626364, "unknown"}}, "x"), wire::errSecParam);
  EXPECT_EQ(add({{kLabelAttribute, std::string(Keychain::kMaximumAttribute + 1, 'x')}}, "x"), wire::errSecParam);
  EXPECT_EQ(add({}, std::string(Keychain::kMaximumSecret + 1, 'x')), wire::errSecParam);
  EXPECT_EQ(add({}, "x", std::vector<std::string>(wire::kMaximumPaths + 1, "/a")), wire::errSecParam);
  EXPECT_EQ(add({}, "x", {"relative"}), wire::errSecParam);
  EXPECT_EQ(add({}, "x", {"/a\nb"}), wire::errSecParam);
  EXPECT_FALSE(contentsOf(file).has_value());
  EXPECT_EQ(keychain.find({{1, ""}}).error().code, wire::errSecParam);
}

TEST_F(KeychainTest, AnEmptySecretIsOne) {
  ASSERT_EQ(add(attributes("L", "", "S.SS"), ""), wire::errSecSuccess);
  const auto secret = keychain.secretForService("S.SS", use, self());
  ASSERT_TRUE(secret);
  EXPECT_TRUE(secret->empty());
}

// Whoever may change services, or start them, gets no secret of somebody else's by it.
TEST_F(KeychainTest, ASecretGoesNowhereElse) {
  ASSERT_EQ(add(attributes("L", "user", "S"), "secret"), wire::errSecSuccess);
  EXPECT_EQ(refusalFor(use), "none");
  EXPECT_EQ(refusalFor(SecretUse::of(serviceTo("evil.example.org"), 1000)),
            "the keychain's item for S was stored for another service: PPP/CommRemoteAddress differs; run vpnctl with "
            "its configuration, which stores it anew");
  EXPECT_EQ(refusalFor(SecretUse::of(serviceTo("vpn.example.org"), 0)),
            "the keychain's item for S was stored by user 1000, and this is user 0; run vpnctl with its configuration, "
            "which stores it anew");
  EXPECT_NE(refusalFor(SecretUse()), "none");
}

TEST_F(KeychainTest, AnotherWayToTheServerIsAnotherUse) {
  ASSERT_EQ(add(attributes("L", "user", "S"), "secret"), wire::errSecSuccess);
  const auto refusalWith = [&](const char *entity, const char *name, const Value &entry) {
    Value service = serviceTo("vpn.example.org");
    Value entries = service[entity];
    entries.set(name, entry);
    service.set(entity, entries);
    return refusalFor(SecretUse::of(service, 1000));
  };
  EXPECT_NE(refusalWith("PPP", "AuthProtocol", Value::Array{"PAP"}).find("PPP/AuthProtocol"), std::string::npos);
  EXPECT_NE(refusalWith("PPP", "CCPEnabled", 0).find("PPP/CCPEnabled"), std::string::npos);
  EXPECT_NE(refusalWith("Interface", "SubType", "L2TP").find("Interface/SubType"), std::string::npos);
  EXPECT_EQ(refusalWith("PPP", "LCPMTU", 1300), "none");
}

TEST_F(KeychainTest, WithoutAUseNobodyIsGivenIt) {
  ASSERT_TRUE(keychain.add(attributes("L", "user", "S"), Secret(std::string_view("one")),
                           {"access", {"/proc/self/exe"}}, std::nullopt));
  EXPECT_EQ(
      refusalFor(use),
      "the keychain's item for S does not say which service it was stored for; run vpnctl with its configuration, "
      "which stores it anew");
}

// The form before items knew what they are for: it can be read, and its items replaced.
TEST_F(KeychainTest, AnOlderKeychainIsStillOne) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one"), wire::errSecSuccess);
  const auto sealer = SystemKey::load(key, fileSystem);
  ASSERT_TRUE(sealer);
  KeychainItem old{keychain.find({})->front(), attributes("L", "a", "S"), {"access", {"/proc/self/exe"}}, {}, {}};
  old.sealedSecret = *sealer->seal(Secret(std::string_view("one")), old.associatedData());
  tamper([&](Value &items) { items.set(old.identifier, old.value()); });
  Keychain next(folder.path("keychain"), fileSystem, log);
  EXPECT_EQ(next.secretForService("S", use, self()).error().code, wire::errSecAuthFailed);
  const auto found = next.find({{kLabelAttribute, "L"}});
  ASSERT_EQ(found->size(), 1U);
  EXPECT_TRUE(next.remove(found->front()));
  EXPECT_TRUE(
      next.add(attributes("L", "a", "S"), Secret(std::string_view("two")), {"access", {"/proc/self/exe"}}, use));
  EXPECT_TRUE(next.secretForService("S", use, self()));
}

TEST_F(KeychainTest, AChangedUseDoesNotOpen) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one"), wire::errSecSuccess);
  const SecretUse evil = SecretUse::of(serviceTo("evil.example.org"), 1000);
  const auto changeUse = [this](const Value &changed) {
    tamper([&](Value &items) {
      const auto name = items.dictionary().begin()->first;
      Value item = items[name];
      if (changed.isNull())
        item.remove("Use");
      else
        item.set("Use", changed);
      items.set(name, item);
    });
  };
  changeUse(Value::Dictionary{{"Owner", 1000}, {"Service", evil.terms}});
  // This one knows the item as it was when it was added.
  Keychain next(folder.path("keychain"), fileSystem, log);
  EXPECT_EQ(next.secretForService("S", evil, self()).error().message, "the keychain's item for S does not open");
  changeUse({});
  EXPECT_FALSE(next.secretForService("S", evil, self()));
  EXPECT_FALSE(next.secretForService("S", use, self()));
}

TEST_F(KeychainTest, SwappedSecretsDoNotOpen) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one"), wire::errSecSuccess);
  ASSERT_EQ(add(attributes("L", "b", "T"), "two"), wire::errSecSuccess);
  tamper([](Value &items) {
    const auto one = items.dictionary().begin()->first;
    const auto two = std::next(items.dictionary().begin())->first;
    Value itemOne = items[one];
    Value itemTwo = items[two];
    const Value secret = itemOne["Secret"];
    itemOne.set("Secret", itemTwo["Secret"]);
    itemTwo.set("Secret", secret);
    items.set(one, itemOne);
    items.set(two, itemTwo);
  });
  EXPECT_EQ(codeForService("S"), wire::errSecAuthFailed);
  EXPECT_EQ(codeForService("T"), wire::errSecAuthFailed);
}

TEST_F(KeychainTest, AWidenedAccessListDoesNotOpen) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one", {"/bin/sh"}), wire::errSecSuccess);
  tamper([](Value &items) {
    const auto name = items.dictionary().begin()->first;
    Value item = items[name];
    item.set("Access", Value::Dictionary{{"Description", "access"},
                                         {"TrustedApplications", Value::Array{"/bin/sh", "/proc/self/exe"}}});
    items.set(name, item);
  });
  EXPECT_EQ(codeForService("S"), wire::errSecAuthFailed);
}

TEST_F(KeychainTest, ARenamedServiceDoesNotOpen) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one"), wire::errSecSuccess);
  tamper([](Value &items) {
    const auto name = items.dictionary().begin()->first;
    Value item = items[name];
    Value about = item["Attributes"];
    about.set("svce", "T");
    item.set("Attributes", about);
    items.set(name, item);
  });
  EXPECT_EQ(codeForService("T"), wire::errSecAuthFailed);
}

TEST_F(KeychainTest, WithoutItsKeyNothingIsSealedUnderANewOne) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one"), wire::errSecSuccess);
  const auto before = contentsOf(file);
  const std::string aside = folder.path("aside");
  std::filesystem::rename(key, aside);
  EXPECT_EQ(add(attributes("L", "b", "T"), "two"), wire::errSecNotAvailable);
  EXPECT_FALSE(contentsOf(key).has_value());
  EXPECT_EQ(contentsOf(file), before);
  EXPECT_EQ(codeForService("S"), wire::errSecNotAvailable);
  std::filesystem::rename(aside, key);
  EXPECT_EQ(codeForService("S"), wire::errSecSuccess);
}

TEST_F(KeychainTest, ADamagedFileIsReportedAndLeftAlone) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one"), wire::errSecSuccess);
  const std::string whole = *contentsOf(file);
  for (const auto &damaged : {whole + "garbage", whole.substr(0, whole.size() / 2), std::string(),
                              std::string("<plist version=\"1.0\"><dict/></plist>")}) {
    writeFile(file, damaged);
    EXPECT_EQ(add(attributes("L", "b", "T"), "two"), wire::errSecInvalidKeychain);
    EXPECT_EQ(keychain.find({}).error().code, wire::errSecInvalidKeychain);
    EXPECT_EQ(keychain.remove("X").error().code, wire::errSecInvalidKeychain);
    EXPECT_EQ(contentsOf(file), damaged);
  }
  EXPECT_NE(contentsOf(log.path())->find(file), std::string::npos);
}

TEST_F(KeychainTest, EveryFailureKeepsWhatWasThere) {
  ASSERT_EQ(add(attributes("L", "a", "S"), "one"), wire::errSecSuccess);
  const auto before = contentsOf(file);
  const struct {
    Call call;
    const char *suffix;
    int errnum;
    std::int32_t status;
  } faults[] = {{Call::lock, "-lock", ENOLCK, wire::errSecNotAvailable},
                {Call::write, "-new", ENOSPC, wire::errSecNotAvailable},
                {Call::synchronize, "-new", EIO, wire::errSecNotAvailable},
                {Call::rename, "keychain", EROFS, wire::errSecWrPerm},
                {Call::open, "SystemKey", EACCES, wire::errSecWrPerm}};
  for (const auto &fault : faults) {
    fileSystem.failNext(fault.call, fault.suffix, fault.errnum);
    EXPECT_EQ(add(attributes("L", "b", "T"), "two"), fault.status);
    EXPECT_EQ(contentsOf(file), before);
  }
  EXPECT_EQ(codeForService("S"), wire::errSecSuccess);
  EXPECT_EQ(add(attributes("L", "b", "T"), "two"), wire::errSecSuccess);
}

}  // namespace
}  // namespace helper
