#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "helper/store/PreferencesStore.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/SharedTexts.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/StatusCodes.h"

namespace helper {
namespace {

using support::contentsOf;
using support::FaultyFileSystem;
using support::writeFile;
using vpnctl::Value;
using Call = FaultyFileSystem::Call;

const std::string kEmpty = "<plist version=\"1.0\"><dict/></plist>";
const std::string kNamed =
    "<plist version=\"1.0\"><dict><key>NetworkServices</key><dict><key>S</key><dict/></dict></dict></plist>";

class PreferencesStoreTest : public ::testing::Test {
 protected:
  std::int32_t commit(const std::string &propertyList, const std::string &signature) {
    const auto written = store.commit(propertyList, signature);
    return written ? wire::kSCStatusOK : written.error().code;
  }
  std::string signature() const { return store.read()->signature; }

  support::TemporaryFolder folder;
  FaultyFileSystem fileSystem;
  PPPLog log = std::move(PPPLog::open(folder.path("ppp.log")).value());
  const std::string path = folder.path("vpnctl/preferences.plist");
  PreferencesStore store{path, fileSystem, log, std::chrono::milliseconds(20)};
};

TEST_F(PreferencesStoreTest, AMissingFileIsAFreshSystem) {
  const auto contents = store.read();
  ASSERT_TRUE(contents);
  EXPECT_TRUE(contents->propertyList.empty());
  EXPECT_FALSE(contents->signature.empty());
  EXPECT_TRUE(store.readValue()->isNull());
}

TEST_F(PreferencesStoreTest, CommitMakesTheFolderAndTheFile) {
  ASSERT_EQ(commit(kEmpty, signature()), wire::kSCStatusOK);
  struct stat attributes = {};
  ASSERT_EQ(::stat(folder.path("vpnctl").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0755U);
  ASSERT_EQ(::stat(path.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0644U);
  EXPECT_FALSE(contentsOf(path + "-lock").has_value());
  EXPECT_FALSE(contentsOf(path + "-new").has_value());
  EXPECT_TRUE(store.readValue()->isDictionary());
}

TEST_F(PreferencesStoreTest, TheSignatureOfACommitIsTheNextReads) {
  const auto written = store.commit(kEmpty, signature());
  ASSERT_TRUE(written);
  EXPECT_EQ(*written, signature());
  EXPECT_EQ(commit(kNamed, *written), wire::kSCStatusOK);
  EXPECT_NE(*written, signature());
}

TEST_F(PreferencesStoreTest, AServiceThatAnotherRunReplacedCanStillBeStarted) {
  ASSERT_EQ(commit(kNamed, signature()), wire::kSCStatusOK);
  writeFile(path, kEmpty);
  EXPECT_NE((*store.readValueWith("S"))["NetworkServices"].find("S"), nullptr);
  EXPECT_TRUE((*store.readValueWith("T"))["NetworkServices"].isNull()) << "nobody ever committed it";
  EXPECT_TRUE((*store.readValue())["NetworkServices"].isNull());
  writeFile(path, "junk");
  EXPECT_FALSE(store.readValueWith("S")) << "damage is never glossed over";
}

TEST_F(PreferencesStoreTest, KnowsWhoseSecretAnItemIs) {
  const auto rootOf = [](const char *server, const std::vector<std::string> &services) {
    Value root{Value::Dictionary()};
    Value all{Value::Dictionary()};
    for (const std::string &service : services)
      all.set(service,
              Value::Dictionary{{"PPP", Value::Dictionary{{"AuthPassword", "A"}, {"CommRemoteAddress", server}}},
                                {"IPSec", Value::Dictionary{{"SharedSecret", "A.SS"}}}});
    root.set("NetworkServices", all);
    return *vpnctl::xmlPropertyList(root);
  };
  EXPECT_TRUE(store.serviceNaming("A").isNull()) << "no file";
  ASSERT_EQ(commit(kEmpty, ""), wire::kSCStatusOK);
  writeFile(path, rootOf("first", {"A"}));
  for (const char *item : {"A", "A.SS"})
    EXPECT_EQ(store.serviceNaming(item)["PPP"]["CommRemoteAddress"], Value("first")) << item;
  EXPECT_TRUE(store.serviceNaming("B").isNull());
  EXPECT_TRUE(store.serviceNaming("").isNull());
  ASSERT_EQ(commit(rootOf("second", {"A"}), ""), wire::kSCStatusOK);
  writeFile(path, rootOf("third", {"A"}));
  EXPECT_EQ(store.serviceNaming("A")["PPP"]["CommRemoteAddress"], Value("second")) << "changed behind our back";
  ASSERT_EQ(commit(rootOf("second", {"A", "B"}), ""), wire::kSCStatusOK);
  EXPECT_TRUE(store.serviceNaming("A").isNull()) << "either could be meant";
}

TEST_F(PreferencesStoreTest, WhatSomebodyElseWroteMakesItStale) {
  const std::string fresh = signature();
  ASSERT_EQ(commit(kEmpty, fresh), wire::kSCStatusOK);
  EXPECT_EQ(commit(kNamed, fresh), wire::kSCStatusStale);  // there was no file then
  const std::string before = signature();
  writeFile(path, kNamed);
  EXPECT_EQ(commit(kEmpty, before), wire::kSCStatusStale);
  EXPECT_EQ(contentsOf(path), kNamed);
  const std::string later = signature();
  std::filesystem::remove(path);
  EXPECT_EQ(commit(kEmpty, later), wire::kSCStatusStale);
  EXPECT_EQ(commit(kEmpty, ""), wire::kSCStatusOK);  // nobody asked
}

TEST_F(PreferencesStoreTest, AChangeInPlaceOfTheSameSizeWithTheOldTimeIsSeen) {
  ASSERT_EQ(commit(kNamed, ""), wire::kSCStatusOK);
  const std::string before = signature();
  struct stat attributes = {};
  ASSERT_EQ(::stat(path.c_str(), &attributes), 0);
  std::string changed = *contentsOf(path);
  changed.replace(changed.find("<key>S<"), 7, "<key>T<");
  writeFile(path, changed);
  const timespec times[2] = {attributes.st_atim, attributes.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  EXPECT_EQ(commit(kEmpty, before), wire::kSCStatusStale);
}

TEST_F(PreferencesStoreTest, AHeldLockIsBusy) {
  ASSERT_EQ(commit(kEmpty, ""), wire::kSCStatusOK);
  const vpnctl::FileDescriptor lock(::open((path + "-lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
  const auto before = contentsOf(path);
  EXPECT_EQ(commit(kNamed, ""), wire::kSCStatusPrefsBusy);
  EXPECT_EQ(contentsOf(path), before);
}

TEST_F(PreferencesStoreTest, ADamagedFileIsReportedAndNeverReplaced) {
  std::filesystem::create_directory(folder.path("vpnctl"));
  for (const std::string &damaged :
       {kEmpty + "garbage", kEmpty.substr(0, 20), std::string(), std::string("<plist version=\"1.0\"><array/></plist>"),
        std::string(
            "<plist version=\"1.0\"><dict><key>a</key><integer>99999999999999999999</integer></dict></plist>")}) {
    writeFile(path, damaged);
    const auto contents = store.read();
    ASSERT_FALSE(contents) << damaged;
    EXPECT_EQ(contents.error().code, wire::kSCStatusFailed);
    EXPECT_EQ(commit(kNamed, ""), wire::kSCStatusFailed);
    EXPECT_EQ(contentsOf(path), damaged);
  }
  const auto text = contentsOf(log.path()).value_or("");
  EXPECT_NE(text.find(path), std::string::npos);
  EXPECT_NE(text.find("left alone"), std::string::npos);
}

TEST_F(PreferencesStoreTest, WhatIsSentIsChecked) {
  for (const std::string &bad :
       {std::string(), std::string("x"), std::string("<plist version=\"1.0\"><array/></plist>"),
        std::string("<plist version=\"1.0\"><dict><key>Sets</key><string/></dict></plist>"),
        std::string(PreferencesStore::kMaximumSize + 1, ' ')})
    EXPECT_EQ(commit(bad, ""), wire::kSCStatusInvalidArgument);
  EXPECT_FALSE(std::filesystem::exists(folder.path("vpnctl")));
}

// What is short on its way and long on the disk: many references to one object, or deep indentation.
TEST_F(PreferencesStoreTest, WhatWouldBecomeTooLargeToReadIsNotWritten) {
  ASSERT_EQ(commit(kNamed, ""), wire::kSCStatusOK);
  const auto before = contentsOf(path);
  std::string arrays = "<plist version=\"1.0\"><dict><key>a</key>";
  for (int level = 0; level < 62; ++level) arrays += "<array>";
  for (int count = 0; count < 40000; ++count) arrays += "<data/>";
  for (int level = 0; level < 62; ++level) arrays += "</array>";
  arrays += "</dict></plist>";
  for (const std::string &bomb : {support::sharedTexts(30000, std::string(1000, 'x')),
                                  support::sharedTexts(10000, std::string(400, '>')), arrays}) {
    ASSERT_LT(bomb.size(), PreferencesStore::kMaximumSize / 10);
    EXPECT_EQ(commit(bomb, ""), wire::kSCStatusInvalidArgument);
    EXPECT_EQ(contentsOf(path), before);
  }
  EXPECT_FALSE(contentsOf(path + "-new"));
  const auto text = contentsOf(log.path()).value_or("");
  EXPECT_NE(text.find("unfold to too large a value"), std::string::npos) << text;
  EXPECT_NE(text.find("what would have more than 4194304 bytes cannot be written"), std::string::npos) << text;
  EXPECT_TRUE(store.read());
}

TEST_F(PreferencesStoreTest, WhatWasCommittedCanBeRead) {
  // As much as there may be of elements, and nearly as much as there may be of bytes.
  const std::string full = support::sharedTexts(PreferencesStore::kLimits.elements - 3, "");
  EXPECT_EQ(commit(full, ""), wire::kSCStatusOK);
  EXPECT_TRUE(store.read());
  EXPECT_EQ(commit(support::sharedTexts(1000, std::string(4000, 'x')), ""), wire::kSCStatusOK);
  EXPECT_TRUE(store.read());
}

TEST_F(PreferencesStoreTest, EveryFailureKeepsTheOldBytes) {
  ASSERT_EQ(commit(kEmpty, ""), wire::kSCStatusOK);
  const auto before = contentsOf(path);
  const struct {
    Call call;
    const char *suffix;
    int errnum;
    std::int32_t status;
  } faults[] = {{Call::open, "-lock", EACCES, wire::kSCStatusAccessError},
                {Call::lock, "-lock", ENOLCK, wire::kSCStatusFailed},
                {Call::open, "preferences.plist", EACCES, wire::kSCStatusAccessError},
                {Call::open, "-new", EROFS, wire::kSCStatusAccessError},
                {Call::write, "-new", ENOSPC, wire::kSCStatusFailed},
                {Call::synchronize, "-new", EIO, wire::kSCStatusFailed},
                {Call::rename, "preferences.plist", EIO, wire::kSCStatusFailed}};
  for (const auto &fault : faults) {
    fileSystem.failNext(fault.call, fault.suffix, fault.errnum);
    EXPECT_EQ(commit(kNamed, ""), fault.status) << fault.suffix << fault.errnum;
    EXPECT_EQ(contentsOf(path), before);
  }
  EXPECT_EQ(commit(kNamed, ""), wire::kSCStatusOK);
}

TEST_F(PreferencesStoreTest, ABinaryFileIsReadAndReplacedByXML) {
  std::filesystem::create_directory(folder.path("vpnctl"));
  // {"A": 1}
  const std::string binary = std::string("bplist00\xD1\x01\x02QA\x10\x01\x08\x0B\x0D", 18) + std::string(6, '\0') +
                             "\x01\x01" + std::string(7, '\0') + "\x03" + std::string(8, '\0') + std::string(7, '\0') +
                             "\x0F";
  writeFile(path, binary);
  const auto value = store.readValue();
  ASSERT_TRUE(value) << value.error().message;
  EXPECT_EQ((*value)["A"], vpnctl::Value(1));
  EXPECT_EQ(store.read()->propertyList, binary);
  EXPECT_EQ(commit(kNamed, signature()), wire::kSCStatusOK);
  EXPECT_TRUE(contentsOf(path)->starts_with("<?xml"));
}

}  // namespace
}  // namespace helper
