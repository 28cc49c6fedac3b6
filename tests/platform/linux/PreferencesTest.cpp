#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "foundation/FileDescriptor.h"
#include "foundation/PropertyList.h"
#include "tests/platform/linux/HelperFixture.h"

namespace platform {
namespace {

using support::contentsOf;
using support::writeFile;
using vpnctl::Value;

class PreferencesTest : public testing::HelperFixture {
 protected:
  // Puts a file in place that somebody else has written.
  void lay(const std::string &bytes) {
    std::filesystem::create_directories(folder().path("etc"));
    writeFile(preferencesPath(), bytes);
  }

  const AuthorizationRef authorization = authorize();
};

TEST_F(PreferencesTest, OnlyTheNetworkPreferencesCanBeOpened) {
  EXPECT_FALSE(SCPreferencesCreateWithAuthorization("test", "other.plist", authorization));
  EXPECT_EQ(SCError(), kSCStatusInvalidArgument);
}

TEST_F(PreferencesTest, AReadOfAFreshSystemWritesNothing) {
  const auto preferences = openPreferences(authorization);
  EXPECT_TRUE(SCNetworkServiceCopyAll(preferences).has_value());
  EXPECT_TRUE(SCPreferencesCommitChanges(preferences));
  EXPECT_FALSE(contentsOf(preferencesPath()).has_value());
}

TEST_F(PreferencesTest, TheFileReadsAsOtherReadersKnowIt) {
  if (std::system("python3 -c 'import plistlib'") != 0) GTEST_SKIP() << "needs python3, as another reader";
  const auto identifier = commitService(authorization, "up");
  struct stat file = {};
  struct stat folderOfFile = {};
  ASSERT_EQ(::stat(preferencesPath().c_str(), &file), 0);
  ASSERT_EQ(::stat(folder().path("etc").c_str(), &folderOfFile), 0);
  EXPECT_EQ(file.st_mode & 07777, 0644U);
  EXPECT_EQ(folderOfFile.st_mode & 07777, 0755U);
  const std::string check =
      "python3 -c \"import plistlib, sys\n"
      "p = plistlib.load(open('" +
      preferencesPath() +
      "', 'rb'))\n"
      "s = '" +
      identifier +
      "'\n"
      "assert sorted(p) == ['CurrentSet', 'NetworkServices', 'Sets'], p\n"
      "n = p['NetworkServices'][s]\n"
      "assert n['UserDefinedName'] == 'test up' and n['Interface'] == {'Type': 'PPP', 'SubType': 'PPTP'}, n\n"
      "assert n['IPv4'] == {'ConfigMethod': 'PPP'} and n['DNS'] == {} and n['PPP']['LCPEchoInterval'] == 20, n\n"
      "t = p['Sets'][p['CurrentSet'].split('/')[2]]\n"
      "assert t['UserDefinedName'] == 'Automatic', t\n"
      "assert t['Network']['Service'] == {s: {'__LINK__': '/NetworkServices/' + s}}, t\n"
      "assert t['Network']['Global']['IPv4']['ServiceOrder'] == [s], t\n\"";
  EXPECT_EQ(std::system(check.c_str()), 0);
}

TEST_F(PreferencesTest, WhatIsThereIsKept) {
  lay(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>CurrentSet</key><string>/Sets/0</string>
<key>Model</key><string>Box1,1</string>
<key>NetworkServices</key><dict>
  <key>ETH</key><dict><key>Interface</key><dict><key>Type</key><string>Ethernet</string></dict>
    <key>UserDefinedName</key><string>Wire</string></dict>
</dict>
<key>Sets</key><dict><key>0</key><dict><key>Network</key><dict>
  <key>Global</key><dict><key>IPv4</key><dict><key>ServiceOrder</key><array><string>ETH</string></array></dict></dict>
  <key>Service</key><dict><key>ETH</key><dict><key>__LINK__</key><string>/NetworkServices/ETH</string></dict></dict>
</dict></dict></dict>
</dict></plist>)");
  const auto identifier = commitService(authorization, "up");
  const auto file = vpnctl::propertyListFromFile(preferencesPath());
  ASSERT_TRUE(file) << file.error().message;
  EXPECT_EQ((*file)["Model"], Value("Box1,1"));
  EXPECT_EQ((*file)["NetworkServices"]["ETH"]["UserDefinedName"], Value("Wire"));
  EXPECT_EQ((*file)["Sets"]["0"]["Network"]["Global"]["IPv4"]["ServiceOrder"], Value(Value::Array{"ETH", identifier}));
}

TEST_F(PreferencesTest, WithoutACurrentSetThereIsNone) {
  lay("<plist version=\"1.0\"><dict/></plist>");
  EXPECT_FALSE(SCNetworkSetCopyCurrent(openPreferences(authorization)));
  EXPECT_EQ(SCError(), kSCStatusNoKey);
}

TEST_F(PreferencesTest, ACommitAfterSomebodyElsesIsStale) {
  const auto first = openPreferences(authorization);
  const auto second = openPreferences(authorization);
  addService(first, "A", "x");
  addService(second, "B", "x");
  ASSERT_TRUE(SCPreferencesCommitChanges(first));
  EXPECT_FALSE(SCPreferencesCommitChanges(second));
  EXPECT_EQ(SCError(), kSCStatusStale);
  SCPreferencesSynchronize(second);
  addService(second, "B", "x");
  EXPECT_TRUE(SCPreferencesCommitChanges(second));
  EXPECT_EQ(SCNetworkServiceCopyAll(openPreferences(authorization))->size(), 2U);
}

TEST_F(PreferencesTest, ASessionCommitsAgainWhatItGoesOnToChange) {
  const auto preferences = openPreferences(authorization);
  addService(preferences, "A", "x");
  ASSERT_TRUE(SCPreferencesCommitChanges(preferences));
  addService(preferences, "B", "x");
  EXPECT_TRUE(SCPreferencesCommitChanges(preferences)) << SCError();
}

TEST_F(PreferencesTest, ALockedFileIsBusy) {
  std::filesystem::create_directories(folder().path("etc"));
  const std::string lock = preferencesPath() + "-lock";
  writeFile(lock, "");
  const vpnctl::FileDescriptor file(::open(lock.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(file.get(), LOCK_EX), 0);
  const auto preferences = openPreferences(authorization);
  addService(preferences, "A", "x");
  EXPECT_FALSE(SCPreferencesCommitChanges(preferences));
  EXPECT_EQ(SCError(), kSCStatusPrefsBusy);
}

TEST_F(PreferencesTest, ADamagedFileIsReportedAndLeftAlone) {
  const std::string damaged = "<plist version=\"1.0\"><dict/></plist>garbage";
  lay(damaged);
  EXPECT_FALSE(SCNetworkServiceCopyAll(openPreferences(authorization)).has_value());
  EXPECT_EQ(SCError(), kSCStatusFailed);
  EXPECT_EQ(contentsOf(preferencesPath()), damaged);
  EXPECT_NE(contentsOf(logPath()).value_or("").find(preferencesPath()), std::string::npos);
}

TEST_F(PreferencesTest, ASymbolicLinkIsRefused) {
  std::filesystem::create_directories(folder().path("etc"));
  writeFile(folder().path("elsewhere"), "<plist version=\"1.0\"><dict/></plist>");
  std::filesystem::create_symlink(folder().path("elsewhere"), preferencesPath());
  EXPECT_FALSE(SCNetworkServiceCopyAll(openPreferences(authorization)).has_value());
  EXPECT_EQ(SCError(), kSCStatusAccessError);
}

}  // namespace
}  // namespace platform
