// Every system call of a write, and what is left when it goes wrong: the old bytes or the new ones, and a next write
// that works.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <utility>

#include "helper/store/Keychain.h"
#include "helper/store/PreferencesStore.h"
#include "tests/support/FaultsFixture.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/StatusCodes.h"

namespace helper {
namespace {

using support::contentsOf;
using support::TracedProcess;
using vpnctl::FileDescriptor;
using vpnctl::Secret;

std::set<std::string> namesIn(const std::string &folder) {
  std::set<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename());
  return names;
}

class StoreFaultsTest : public support::FaultsFixture {
 protected:
  void withEveryFault(const std::function<void()> &prepare, const std::function<int()> &work,
                      const std::function<void(const TracedProcess &)> &check) {
    using Kind = support::CallFault::Kind;
    withFaults({{Kind::kill, 0},
                {Kind::fail, ENOSPC},
                {Kind::fail, EIO},
                {Kind::fail, EMFILE},
                {Kind::fail, EINTR},
                {Kind::shorten, 0},
                {Kind::fill, 0}},
               prepare, work, check);
  }

  support::TemporaryFolder folder{support::TemporaryFolder::Place::memory};  // a disk would take its time for thousands
  vpnctl::PosixFileSystem fileSystem;
  PPPLog log = std::move(PPPLog::open(folder.path("ppp.log")).value());
};

class PreferencesFaultsTest : public StoreFaultsTest {
 protected:
  static constexpr char kOld[] = "<plist version=\"1.0\"><dict/></plist>";
  static constexpr char kNew[] =
      "<plist version=\"1.0\"><dict><key>NetworkServices</key><dict><key>S</key><dict/></dict></dict></plist>";

  std::string afterCommit(const char *propertyList) {
    EXPECT_TRUE(store.commit(propertyList, ""));
    return contentsOf(path).value_or("");
  }

  const std::string path = folder.path("vpnctl/preferences.plist");
  PreferencesStore store{path, fileSystem, log};
};

TEST_F(PreferencesFaultsTest, ACommitIsWholeOrNotThere) {
  const std::string newBytes = afterCommit(kNew);
  const std::string oldBytes = afterCommit(kOld);
  ASSERT_NE(oldBytes, newBytes);
  withEveryFault([] {}, [this] { return store.commit(kNew, "") ? 0 : 1; },
                 [&](const TracedProcess &run) {
                   const auto bytes = contentsOf(path);
                   EXPECT_TRUE(bytes == newBytes || (bytes == oldBytes && run.exitCode != 0)) << bytes.value_or("none");
                   // The lock is free, and whatever lies about is in nobody's way.
                   EXPECT_EQ(afterCommit(kOld), oldBytes);
                   EXPECT_EQ(namesIn(folder.path("vpnctl")), std::set<std::string>{"preferences.plist"});
                 });
}

TEST_F(PreferencesFaultsTest, SoIsTheFirstOne) {
  const std::string newBytes = afterCommit(kNew);
  withEveryFault([this] { std::filesystem::remove_all(folder.path("vpnctl")); },
                 [this] { return store.commit(kNew, "") ? 0 : 1; },
                 [&](const TracedProcess &run) {
                   const auto bytes = contentsOf(path);
                   EXPECT_TRUE(bytes == newBytes || (!bytes && run.exitCode != 0)) << bytes.value_or("none");
                   EXPECT_EQ(afterCommit(kNew), newBytes);
                   EXPECT_EQ(namesIn(folder.path("vpnctl")), std::set<std::string>{"preferences.plist"});
                 });
}

class SystemKeyFaultsTest : public StoreFaultsTest {
 protected:
  const std::string path = folder.path("keys/SystemKey");
};

TEST_F(SystemKeyFaultsTest, AKeyIsWholeOrNotThere) {
  withEveryFault(
      [this] {
        std::filesystem::remove_all(folder.path("keys"));
        std::filesystem::create_directory(folder.path("keys"));
      },
      [this] { return SystemKey::create(path, fileSystem) ? 0 : 1; },
      [this](const TracedProcess &run) {
        auto key = SystemKey::load(path, fileSystem);
        if (!key) {
          EXPECT_EQ(key.error().code, ENOENT) << key.error().message;
          EXPECT_NE(run.exitCode, 0);
          key = SystemKey::create(path, fileSystem);
        }
        ASSERT_TRUE(key) << key.error().message;
        SystemKey::removeRemains(path, fileSystem);
        EXPECT_EQ(namesIn(folder.path("keys")), std::set<std::string>{"SystemKey"});
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms::owner_read);
        // What it seals, the file's opens.
        const auto again = SystemKey::load(path, fileSystem);
        ASSERT_TRUE(again);
        EXPECT_TRUE(again->unseal(key->seal(Secret(std::string_view("s")), "").value(), ""));
      });
}

class KeychainFaultsTest : public StoreFaultsTest {
 protected:
  KeychainFaultsTest() {
    int pair[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    first.reset(pair[0]);
    second.reset(pair[1]);
  }

  bool add(const std::string &service) {
    return static_cast<bool>(keychain.add({{kServiceAttribute, service}, {kLabelAttribute, "L"}},
                                          Secret("secret of " + service), {"access", {"/proc/self/exe"}}, SecretUse()));
  }
  bool removeService(const std::string &service) {
    const auto found = keychain.find({{kServiceAttribute, service}});
    return found && found->size() == 1 && keychain.remove(found->front());
  }
  // True when SERVICE's secret comes out of the keychain; an unreadable keychain fails the test.
  bool holds(const std::string &service) {
    // Not the one that added it, which would still know it.
    Keychain reader(folder.path("keychain"), fileSystem, log);
    const auto secret = reader.secretForService(service, SecretUse(), Peer::ofSocket(first.get()).value());
    if (secret) return secret->text() == "secret of " + service;
    EXPECT_EQ(secret.error().code, wire::errSecItemNotFound) << secret.error().message;
    return false;
  }
  void expectNothingElse() {
    EXPECT_EQ(namesIn(folder.path("keychain")), (std::set<std::string>{"System.keychain", "SystemKey"}));
  }

  FileDescriptor first;
  FileDescriptor second;
  Keychain keychain{folder.path("keychain"), fileSystem, log};
};

TEST_F(KeychainFaultsTest, TheFirstItemIsWholeOrNotThere) {
  withEveryFault([this] { std::filesystem::remove_all(folder.path("keychain")); }, [this] { return add("S") ? 0 : 1; },
                 [this](const TracedProcess &run) {
                   const bool added = holds("S");
                   EXPECT_TRUE(added || run.exitCode != 0);
                   EXPECT_TRUE(added || add("S"));
                   EXPECT_TRUE(holds("S"));
                   EXPECT_TRUE(removeService("S"));
                   EXPECT_TRUE(add("T"));
                   expectNothingElse();
                 });
}

TEST_F(KeychainFaultsTest, AFurtherItemIsWholeOrNotThere) {
  ASSERT_TRUE(add("S"));
  const auto before = contentsOf(folder.path("keychain/System.keychain"));
  withEveryFault([] {}, [this] { return add("T") ? 0 : 1; },
                 [&](const TracedProcess &run) {
                   const bool added = holds("T");
                   EXPECT_TRUE(added || run.exitCode != 0);
                   EXPECT_TRUE(added || contentsOf(folder.path("keychain/System.keychain")) == before);
                   EXPECT_TRUE(holds("S"));
                   EXPECT_TRUE(added || add("T"));
                   EXPECT_TRUE(removeService("T"));
                   EXPECT_EQ(contentsOf(folder.path("keychain/System.keychain")), before);
                   expectNothingElse();
                 });
}

TEST_F(KeychainFaultsTest, ARemovalIsWholeOrNotThere) {
  ASSERT_TRUE(add("S"));
  const auto without = contentsOf(folder.path("keychain/System.keychain"));
  ASSERT_TRUE(add("T"));
  withEveryFault([] {}, [this] { return removeService("T") ? 0 : 1; },
                 [&](const TracedProcess &run) {
                   const bool still = holds("T");
                   EXPECT_TRUE(!still || run.exitCode != 0);
                   EXPECT_TRUE(still || contentsOf(folder.path("keychain/System.keychain")) == without);
                   EXPECT_TRUE(holds("S"));
                   EXPECT_TRUE(!still || removeService("T"));
                   EXPECT_TRUE(add("T"));
                   expectNothingElse();
                 });
}

}  // namespace
}  // namespace helper
