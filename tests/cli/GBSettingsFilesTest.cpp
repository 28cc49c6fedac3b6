#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli/GBSettings.h"
#include "foundation/PropertyList.h"
#include "tests/support/TemporaryFolder.h"

using GB::GBSettings;
using vpnctl::Error;
using vpnctl::Value;

namespace {

const Error kUntouched = {.domain = "untouched", .code = 42, .message = "as it was"};
const std::string kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

class GBSettingsFiles : public ::testing::Test {
 protected:
  GBSettingsFiles() { settings.setObjectForKey("before", "old"); }

  void expectUnchanged() const { EXPECT_EQ(settings.storage(), (Value::Dictionary{{"old", "before"}})); }

  support::TemporaryFolder folder;
  GBSettings settings{"file"};
  Error error = kUntouched;
};

}  // namespace

TEST_F(GBSettingsFiles, OneLevelOfNestingIsFlattenedAndLeadingDashesAreStripped) {
  const std::string path =
      folder.write("a.plist", kHeader +
                                  "<dict><key>General</key><dict><key>--output</key><string>o</string></dict>"
                                  "<key>-count</key><integer>3</integer><key>Deep</key><dict><key>---inner</key>"
                                  "<dict><key>--kept</key><true/></dict></dict></dict></plist>");
  ASSERT_TRUE(settings.loadSettingsFromPlist(path, &error)) << error.message;
  EXPECT_EQ(error, kUntouched);
  EXPECT_EQ(settings.storage(),
            (Value::Dictionary{{"count", 3}, {"inner", Value::Dictionary{{"--kept", true}}}, {"output", "o"}}));
}

TEST_F(GBSettingsFiles, LoadedArrayKeysAppendToAFreshArray) {
  settings.registerArrayForKey("inputs");
  settings.setObjectForKey("stale", "inputs");
  const std::string path =
      folder.write("a.plist", "{ General = { inputs = (a, b); }; \"--inputs\" = c; plain = (d); }");
  ASSERT_TRUE(settings.loadSettingsFromPlist(path, &error)) << error.message;
  EXPECT_EQ(settings.objectForKey("inputs"), Value(Value::Array{"c", "a", "b"}));
  EXPECT_EQ(settings.objectForKey("plain"), Value(Value::Array{"d"}));
  EXPECT_TRUE(settings.isKeyArray("inputs"));
}

TEST_F(GBSettingsFiles, AKeyOfDashesOnlyBecomesTheEmptyKey) {
  for (const char *key : {"-", "--", "---"}) {
    const std::string path = folder.write("a.plist", std::string("{ \"") + key + "\" = x; }");
    ASSERT_TRUE(settings.loadSettingsFromPlist(path, &error)) << error.message;
    EXPECT_EQ(settings.storage(), (Value::Dictionary{{"", "x"}})) << key;
  }
}

TEST_F(GBSettingsFiles, OneAndTrueStayWhatTheyAreInAFile) {
  settings.setObjectForKey(1, "number");
  settings.setObjectForKey(true, "truth");
  const std::string path = folder.path("a.plist");
  ASSERT_TRUE(settings.saveSettingsToPlist(path, &error)) << error.message;
  const std::string text = folder.read("a.plist");
  EXPECT_NE(text.find("<key>number</key>\n\t<integer>1</integer>"), std::string::npos) << text;
  EXPECT_NE(text.find("<key>truth</key>\n\t<true/>"), std::string::npos) << text;
  ASSERT_TRUE(settings.loadSettingsFromPlist(path, &error)) << error.message;
  EXPECT_EQ(settings.objectForKey("number").type(), Value::Type::signedInteger);
  EXPECT_EQ(settings.objectForKey("truth").type(), Value::Type::boolean);
}

TEST_F(GBSettingsFiles, AMissingFileLeavesTheValuesAndTheErrorAlone) {
  EXPECT_FALSE(settings.loadSettingsFromPlist(folder.path("none.plist"), &error));
  EXPECT_FALSE(settings.loadSettingsFromPlist(folder.path("none/none.plist"), &error));
  EXPECT_EQ(error, kUntouched);
  expectUnchanged();
  EXPECT_FALSE(settings.loadSettingsFromPlist(folder.path("none.plist")));
}

TEST_F(GBSettingsFiles, AnUnparsableFileLeavesTheValuesAndFillsTheError) {
  const std::string path = folder.write("a.plist", kHeader + "<dict>\n<key>a</key>\n<oops/></dict></plist>");
  EXPECT_FALSE(settings.loadSettingsFromPlist(path, &error));
  expectUnchanged();
  EXPECT_EQ(error.domain, vpnctl::kPropertyListErrorDomain);
  EXPECT_NE(error.message.find(path + ": line 6: "), std::string::npos) << error.message;
  EXPECT_FALSE(settings.loadSettingsFromPlist(path));
}

TEST_F(GBSettingsFiles, ATopLevelThatIsNoDictionaryIsAnError) {
  for (const char *text : {"(a, b)", "just text", "<0f>"}) {
    error = kUntouched;
    EXPECT_FALSE(settings.loadSettingsFromPlist(folder.write("a.plist", text), &error)) << text;
    expectUnchanged();
    EXPECT_NE(error, kUntouched) << text;
  }
  EXPECT_EQ(error, (Error{.domain = "GBSettings",
                          .code = 1,
                          .message = folder.path("a.plist") + ": the top level is not a dictionary"}));
}

TEST_F(GBSettingsFiles, AnUnreadableFileIsAnError) {
  EXPECT_FALSE(settings.loadSettingsFromPlist(folder.path(), &error));
  EXPECT_EQ(error.domain, "POSIX");
  EXPECT_EQ(error.code, EISDIR);
  expectUnchanged();
}

TEST_F(GBSettingsFiles, LoadsTheBinaryForm) {
  // {"a": 1}
  const std::string bytes(
      "bplist00\xd1\x01\x02\x51\x61\x10\x01\x08\x0b\x0d\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x03"
      "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x0f",
      50);
  ASSERT_TRUE(settings.loadSettingsFromPlist(folder.write("a.plist", bytes), &error)) << error.message;
  EXPECT_EQ(settings.storage(), (Value::Dictionary{{"a", 1}}));
}

TEST_F(GBSettingsFiles, SavesThisLayerAloneAsXMLWithTheArguments) {
  GBSettings top("top", std::make_shared<GBSettings>("bottom"));
  top.parent()->setObjectForKey("hidden", "below");
  top.setObjectForKey(3, "count");
  top.addArgument("a<b");
  const std::string path = folder.path("out.plist");
  ASSERT_TRUE(top.saveSettingsToPlist(path, &error)) << error.message;
  EXPECT_EQ(error, kUntouched);
  EXPECT_EQ(folder.read("out.plist"), kHeader +
                                          "<dict>\n\t<key>B450A340-EC4F-40EC-B18D-B52DB881A16A</key>\n"
                                          "\t<array>\n\t\t<string>a&lt;b</string>\n\t</array>\n"
                                          "\t<key>count</key>\n\t<integer>3</integer>\n</dict>\n</plist>\n");
  ASSERT_TRUE(settings.loadSettingsFromPlist(path, &error));
  EXPECT_EQ(settings.storage(), top.storage());
  EXPECT_EQ(folder.count(), 1);
}

TEST_F(GBSettingsFiles, SavingKeepsTheFilesMode) {
  const std::string path = folder.write("a.plist", "old");
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  ASSERT_TRUE(settings.saveSettingsToPlist(path, &error));
  struct stat status = {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(GBSettingsFiles, WhatXMLCannotCarryIsAnErrorAndTheOldFileIsWhole) {
  const std::string path = folder.write("a.plist", "old");
  settings.setObjectForKey("\x01", "control");
  EXPECT_FALSE(settings.saveSettingsToPlist(path, &error));
  EXPECT_EQ(error.domain, vpnctl::kPropertyListErrorDomain);
  EXPECT_EQ(folder.read("a.plist"), "old");
  EXPECT_FALSE(settings.saveSettingsToPlist(path));
}

TEST_F(GBSettingsFiles, SavingThroughASymbolicLinkIsAnErrorAndTheOldFileIsWhole) {
  folder.write("target.plist", "old");
  const std::string link = folder.path("link.plist");
  ASSERT_EQ(::symlink("target.plist", link.c_str()), 0);
  EXPECT_FALSE(settings.saveSettingsToPlist(link, &error));
  EXPECT_EQ(error.domain, "POSIX");
  EXPECT_EQ(error.code, ELOOP);
  EXPECT_TRUE(error.message.starts_with("save " + link + ": ")) << error.message;
  EXPECT_EQ(folder.read("target.plist"), "old");
  EXPECT_EQ(folder.count(), 2);
}

TEST_F(GBSettingsFiles, SavingOverAFolderOrAFIFOIsAnError) {
  ASSERT_EQ(::mkdir(folder.path("folder").c_str(), 0700), 0);
  EXPECT_FALSE(settings.saveSettingsToPlist(folder.path("folder"), &error));
  EXPECT_EQ(error.code, EISDIR);
  ASSERT_EQ(::mkfifo(folder.path("fifo").c_str(), 0600), 0);
  EXPECT_FALSE(settings.saveSettingsToPlist(folder.path("fifo"), &error));
  EXPECT_EQ(error.code, EINVAL);
  EXPECT_FALSE(settings.saveSettingsToPlist(folder.path("none/a.plist"), &error));
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_EQ(folder.count(), 2);
}

namespace {

// Runs ACTION in a child, since what it does to the process cannot be taken back; true is success.
bool inChild(const std::function<bool()> &action) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(action() ? 0 : 1);
  int status = 0;
  return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

TEST_F(GBSettingsFiles, SavingIntoAFolderWithoutRightsIsAnErrorAndTheOldFileIsWhole) {
  const std::string path = folder.write("a.plist", "old");
  ASSERT_EQ(::chmod(folder.path().c_str(), 0555), 0);
  EXPECT_TRUE(inChild([&] {
    // Rights do not bind root.
    if (::getuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return false;
    return !settings.saveSettingsToPlist(path, &error) && error.domain == "POSIX" && error.code == EACCES;
  }));
  EXPECT_EQ(folder.read("a.plist"), "old");
  EXPECT_EQ(folder.count(), 1);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
}

TEST_F(GBSettingsFiles, SavingOntoAFullDiskIsAnErrorAndTheOldFileIsWhole) {
  const std::string path = folder.write("a.plist", "old");
  settings.setObjectForKey(std::string(100000, 'x'), "long");
  EXPECT_TRUE(inChild([&] {
    // The disk is full for this process after 4096 bytes.
    const rlimit limit = {4096, 4096};
    if (::signal(SIGXFSZ, SIG_IGN) == SIG_ERR || ::setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
    return !settings.saveSettingsToPlist(path, &error) && error.domain == "POSIX" && error.code == EFBIG;
  }));
  EXPECT_EQ(folder.read("a.plist"), "old");
  EXPECT_EQ(folder.count(), 1);
}
