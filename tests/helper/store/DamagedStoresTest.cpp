// What a store's file can look like that nobody should have written: each is told in the PPP log, once a use, in one
// sentence with its remedy, and stays as it is.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>

#include "foundation/PropertyList.h"
#include "helper/store/Keychain.h"
#include "helper/store/PreferencesStore.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/StatusCodes.h"

namespace helper {
namespace {

using support::contentsOf;
using support::writeFile;
using vpnctl::FileDescriptor;
using vpnctl::Secret;
using vpnctl::Value;

constexpr std::chrono::milliseconds kPatience{20};
constexpr std::size_t kDeep = 100'000;  // levels

std::string plist(const std::string &inner) { return "<plist version=\"1.0\">" + inner + "</plist>"; }

std::string nested(const std::string &tag, const std::string &content) {
  std::string text;
  for (std::size_t i = 0; i < kDeep; ++i) text += "<" + tag + ">" + content;
  for (std::size_t i = 0; i < kDeep; ++i) text += "</" + tag + ">";
  return text;
}

// No store takes any of these, whatever it is for.
std::vector<std::string> noPropertyLists() {
  return {std::string(),
          std::string(1, '\0'),
          "garbage",
          plist("<dict/>") + "garbage",
          plist("<dict/>") + plist("<dict/>"),
          plist("<array/>"),
          plist("<string>text</string>"),
          plist("<dict><key>A</key></dict>"),
          plist("<dict><key>A</key><integer>99999999999999999999</integer></dict>"),
          plist("<dict><key>A</key>" + nested("array", "") + "</dict>"),
          plist(nested("dict", "<key>a</key>")),
          "bplist00",
          "bplist00" + std::string(64, '\xff')};
}

// Property lists, but not of the store's kind: an entry of the wrong type, or one that is missing.
std::vector<std::string> otherShapes(const std::string &store) {
  std::vector<std::string> inner;
  if (store == "preferences") {
    inner = {"<key>NetworkServices</key><array/>",
             "<key>NetworkServices</key><dict><key>S</key><string/></dict>",
             "<key>NetworkServices</key><dict><key>S</key><dict><key>PPP</key><true/></dict></dict>",
             "<key>NetworkServices</key><dict><key>S</key><dict><key>Interface</key><dict/></dict></dict>",
             "<key>NetworkServices</key><dict><key>a/b</key><dict/></dict>",
             "<key>Sets</key><integer>1</integer>",
             "<key>Sets</key><dict><key>0</key><array/></dict>",
             "<key>CurrentSet</key><data/>",
             "<key>CurrentSet</key><string>/Sets/none</string>"};
  } else {
    const std::string begin = "<key>Version</key><integer>1</integer><key>Items</key>";
    const auto item = [&](const std::string &attributes, const std::string &access, const std::string &secret) {
      return begin + "<dict><key>I</key><dict><key>Attributes</key>" + attributes + "<key>Access</key>" + access +
             "<key>Secret</key>" + secret + "</dict></dict>";
    };
    const std::string access = "<dict><key>Description</key><string/><key>TrustedApplications</key><array/></dict>";
    inner = {"",
             begin + "<array/>",
             begin + "<dict><key>I</key><true/></dict>",
             "<key>Version</key><string>1</string><key>Items</key><dict/>",
             "<key>Version</key><integer>2</integer><key>Items</key><dict/>",
             item("<array/>", access, "<data/>"),
             item("<dict><key>svce</key><integer>1</integer></dict>", access, "<data/>"),
             item("<dict><key>service</key><string/></dict>", access, "<data/>"),
             item("<dict/>", "<dict/>", "<data/>"),
             item("<dict/>",
                  "<dict><key>Description</key><string/><key>TrustedApplications</key><array><true/></array></dict>",
                  "<data/>"),
             item("<dict/>", access, "<string>secret</string>")};
  }
  for (std::string &text : inner) text = plist("<dict>" + text + "</dict>");
  return inner;
}

// One of the two stores, as far as its file is concerned.
struct Subject {
  std::string path;             // of the file
  std::function<bool()> read;   // true: it could be read
  std::function<bool()> write;  // true: it could be replaced
};

class DamagedStoresTest : public ::testing::TestWithParam<const char *> {
 protected:
  DamagedStoresTest() {
    ::mkdir(folder.path("store").c_str(), 0700);
    if (GetParam() == std::string("preferences")) {
      subject = {folder.path("store/preferences.plist"), [this] { return static_cast<bool>(preferences.read()); },
                 [this] { return static_cast<bool>(preferences.commit(plist("<dict/>"), "")); }};
    } else {
      subject = {folder.path("store/System.keychain"), [this] { return static_cast<bool>(keychain.find({})); },
                 [this] {
                   return static_cast<bool>(keychain.add({{kServiceAttribute, "S"}}, Secret("s"), {"", {}}, {}));
                 }};
    }
  }

  // Nothing can be done with the store, and each try is one line that names the file and ends with a remedy.
  void expectRefusal(const std::string &what) {
    EXPECT_FALSE(subject.read()) << what;
    expectLines(1, what);
    EXPECT_FALSE(subject.write()) << what;
    expectLines(1, what);
  }

  void expectLines(int expected, const std::string &what) {
    const std::string text = contentsOf(log.path()).value_or("").substr(logged);
    logged += text.size();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), expected) << what << "\n" << text;
    EXPECT_LT(text.size(), 1000U) << what;
    EXPECT_NE(text.find(folder.path("store")), std::string::npos) << what << "\n" << text;
    const bool hasRemedy = std::ranges::any_of(
        std::initializer_list<const char *>{"move it away", "mend it", "chmod", "chown", "put the", "wait until"},
        [&](const char *remedy) { return text.find(remedy) != std::string::npos; });
    EXPECT_TRUE(hasRemedy) << what << "\n" << text;
  }

  // A file such as the store writes it.
  std::string whole() {
    EXPECT_TRUE(subject.write());
    return contentsOf(subject.path).value_or("");
  }

  support::TemporaryFolder folder;
  vpnctl::PosixFileSystem fileSystem;
  PPPLog log = std::move(PPPLog::open(folder.path("ppp.log")).value());
  std::size_t logged = 0;
  PreferencesStore preferences{folder.path("store/preferences.plist"), fileSystem, log, kPatience};
  Keychain keychain{folder.path("store"), fileSystem, log, {}, kPatience};
  Subject subject;
};

INSTANTIATE_TEST_SUITE_P(Stores, DamagedStoresTest, ::testing::Values("preferences", "keychain"),
                         [](const auto &about) { return std::string(about.param); });

TEST_P(DamagedStoresTest, NoPropertyListForIt) {
  for (const std::string &bytes : noPropertyLists()) {
    writeFile(subject.path, bytes);
    expectRefusal(bytes.substr(0, 100));
    EXPECT_EQ(contentsOf(subject.path), bytes);
  }
}

TEST_P(DamagedStoresTest, OfAnotherShape) {
  for (const std::string &bytes : otherShapes(GetParam())) {
    writeFile(subject.path, bytes);
    expectRefusal(bytes);
    EXPECT_EQ(contentsOf(subject.path), bytes);
  }
}

TEST_P(DamagedStoresTest, CutOffAtEveryByte) {
  const std::string bytes = whole();
  const auto value = vpnctl::propertyListFromData(bytes, "whole");
  ASSERT_TRUE(value);
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    const std::string cut = bytes.substr(0, size);
    writeFile(subject.path, cut);
    // Only white space may be missing.
    if (const auto same = vpnctl::propertyListFromData(cut, "cut"); same && *same == *value) {
      EXPECT_TRUE(subject.read());
      EXPECT_EQ(size, bytes.size() - 1);
      continue;
    }
    expectRefusal("cut to " + std::to_string(size));
    EXPECT_EQ(contentsOf(subject.path), cut);
  }
}

TEST_P(DamagedStoresTest, AHundredMegabytes) {
  {
    const FileDescriptor file(::open(subject.path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ASSERT_EQ(::ftruncate(file.get(), 100 << 20), 0);
  }
  expectRefusal("large");
  EXPECT_EQ(std::filesystem::file_size(subject.path), 100U << 20);
}

TEST_P(DamagedStoresTest, WritableByOthers) {
  const std::string bytes = whole();
  for (const mode_t mode : {0666U, 0664U, 0620U, 0602U}) {
    ASSERT_EQ(::chmod(subject.path.c_str(), mode), 0);
    expectRefusal("mode " + std::to_string(mode));
    EXPECT_EQ(contentsOf(subject.path), bytes);
    EXPECT_EQ(std::filesystem::status(subject.path).permissions(), std::filesystem::perms(mode));
  }
  ASSERT_EQ(::chmod(subject.path.c_str(), 0600), 0);
  EXPECT_TRUE(subject.read());
}

TEST_P(DamagedStoresTest, AFolderThatOthersMayChange) {
  const std::string bytes = whole();
  for (const mode_t mode : {0777U, 01777U, 0770U}) {
    ASSERT_EQ(::chmod(folder.path("store").c_str(), mode), 0);
    EXPECT_FALSE(subject.write());
    expectLines(1, "folder");
    EXPECT_EQ(contentsOf(subject.path), bytes);
  }
}

TEST_P(DamagedStoresTest, SomebodyElses) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to give a file away";
  const std::string bytes = whole();
  ASSERT_EQ(::chown(subject.path.c_str(), 65534, 65534), 0);
  expectRefusal("owner");
  EXPECT_EQ(contentsOf(subject.path), bytes);
}

TEST_P(DamagedStoresTest, ASymbolicLink) {
  const std::string bytes = whole();
  const std::string target = folder.path("target");
  std::filesystem::rename(subject.path, target);
  std::filesystem::create_symlink(target, subject.path);
  expectRefusal("link");
  EXPECT_TRUE(std::filesystem::is_symlink(subject.path));
  EXPECT_EQ(contentsOf(target), bytes);
  // One that leads nowhere is not a file that is missing.
  std::filesystem::remove(target);
  expectRefusal("dangling link");
  EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_P(DamagedStoresTest, AFIFO) {
  ASSERT_EQ(::mkfifo(subject.path.c_str(), 0600), 0);
  expectRefusal("FIFO");
  EXPECT_TRUE(std::filesystem::is_fifo(subject.path));
}

TEST_P(DamagedStoresTest, AFolder) {
  std::filesystem::create_directory(subject.path);
  expectRefusal("folder");
  EXPECT_TRUE(std::filesystem::is_directory(subject.path));
}

TEST_P(DamagedStoresTest, AFileWhereItsFolderShouldBe) {
  std::filesystem::remove(folder.path("store"));
  writeFile(folder.path("store"), "");
  EXPECT_FALSE(subject.write());
  expectLines(1, "file for a folder");
}

TEST_P(DamagedStoresTest, SomethingWhereTheLockShouldBe) {
  const std::string bytes = whole();
  const std::string lock = subject.path + "-lock";
  std::filesystem::create_directory(lock);
  EXPECT_FALSE(subject.write());
  expectLines(1, "folder for a lock");
  std::filesystem::remove(lock);
  std::filesystem::create_symlink(folder.path("target"), lock);
  EXPECT_FALSE(subject.write());
  expectLines(1, "link for a lock");
  EXPECT_FALSE(contentsOf(folder.path("target")));
  EXPECT_EQ(contentsOf(subject.path), bytes);
}

TEST_P(DamagedStoresTest, SomethingWhereTheNewFileShouldBe) {
  std::filesystem::create_directory(subject.path + "-new");
  EXPECT_FALSE(subject.write());
  expectLines(1, "folder for the new file");
}

TEST_P(DamagedStoresTest, LockedByAnother) {
  const std::string bytes = whole();
  const FileDescriptor lock(::open((subject.path + "-lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
  EXPECT_TRUE(subject.read());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(subject.write());
  EXPECT_GE(std::chrono::steady_clock::now() - start, kPatience);
  EXPECT_NE(contentsOf(log.path())->find("locked by another program"), std::string::npos);
  expectLines(1, "lock");
  ASSERT_EQ(::write(lock.get(), "4711\n", 5), 5);
  EXPECT_FALSE(subject.write());
  EXPECT_NE(contentsOf(log.path())->find("locked by process 4711; wait until"), std::string::npos);
  expectLines(1, "lock");
  EXPECT_EQ(contentsOf(subject.path), bytes);
}

class DamagedKeyTest : public ::testing::Test {
 protected:
  DamagedKeyTest() { EXPECT_EQ(add("S"), wire::errSecSuccess); }

  std::int32_t add(const std::string &service) {
    const auto item =
        keychain.add({{kServiceAttribute, service}}, Secret("secret"), {"access", {"/proc/self/exe"}}, {});
    return item ? wire::errSecSuccess : item.error().code;
  }

  // Nothing more is sealed, the one sentence of it names the key, and the key stays.
  void expectRefusal(const char *remedy) {
    const auto before = contentsOf(folder.path("keychain/System.keychain"));
    const std::size_t logged = contentsOf(log.path())->size();
    EXPECT_NE(add("T"), wire::errSecSuccess);
    const std::string text = contentsOf(log.path())->substr(logged);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_NE(text.find(key), std::string::npos) << text;
    EXPECT_NE(text.find(remedy), std::string::npos) << text;
    EXPECT_EQ(contentsOf(folder.path("keychain/System.keychain")), before);
  }

  void replaceKey(const std::string &bytes) {
    std::filesystem::remove(key);
    writeFile(key, bytes);
    ASSERT_EQ(::chmod(key.c_str(), 0400), 0);
  }

  support::TemporaryFolder folder;
  vpnctl::PosixFileSystem fileSystem;
  PPPLog log = std::move(PPPLog::open(folder.path("ppp.log")).value());
  Keychain keychain{folder.path("keychain"), fileSystem, log};
  const std::string key = folder.path("keychain/SystemKey");
};

TEST_F(DamagedKeyTest, OfAnotherSize) {
  const std::string bytes = *contentsOf(key);
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    replaceKey(bytes.substr(0, size));
    expectRefusal("bring the right one back");
    EXPECT_EQ(contentsOf(key), bytes.substr(0, size));
  }
  replaceKey(bytes + "x");
  expectRefusal("bring the right one back");
  ASSERT_EQ(::chmod(key.c_str(), 0600), 0);
  std::filesystem::resize_file(key, 100 << 20);
  expectRefusal("bring the right one back");
  EXPECT_EQ(std::filesystem::file_size(key), 100U << 20);
}

TEST_F(DamagedKeyTest, OfAnotherMode) {
  for (const mode_t mode : {0440U, 0404U, 0420U, 0402U, 0777U}) {
    ASSERT_EQ(::chmod(key.c_str(), mode), 0);
    expectRefusal("chmod it to 0400");
  }
}

TEST_F(DamagedKeyTest, OfAnotherOwner) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to give a file away";
  ASSERT_EQ(::chown(key.c_str(), 65534, 0), 0);
  expectRefusal("only its owner");
}

TEST_F(DamagedKeyTest, NoFile) {
  const std::string aside = folder.path("aside");
  std::filesystem::rename(key, aside);
  expectRefusal("bring the key back");
  std::filesystem::create_symlink(aside, key);
  expectRefusal("put the key itself there");
  std::filesystem::remove(key);
  ASSERT_EQ(::mkfifo(key.c_str(), 0400), 0);
  expectRefusal("not a file");
  std::filesystem::remove(key);
  std::filesystem::create_directory(key);
  expectRefusal("not a file");
  std::filesystem::remove(key);
  std::filesystem::rename(aside, key);
  EXPECT_EQ(add("T"), wire::errSecSuccess);
}

}  // namespace
}  // namespace helper
