#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <thread>

#include "cli/SettingsFile.h"
#include "tests/support/TemporaryFolder.h"

using GB::GBSettings;
using vpnctl::Value;

namespace {

class SettingsFile : public ::testing::Test {
 protected:
  SettingsFile() { settings.setObjectForKey("value", "key"); }

  bool isLink(const std::string &path) const {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
  }

  // What the file at PATH holds.
  Value::Dictionary loaded(const std::string &path) const {
    GBSettings other("other");
    const vpnctl::Status status = GB::loadSettings(other, path);
    EXPECT_TRUE(status) << status.error().message;
    return other.storage();
  }

  support::TemporaryFolder folder;
  GBSettings settings{"file"};
};

}  // namespace

TEST_F(SettingsFile, SavingFollowsSymbolicLinks) {
  folder.write("target.plist", "old");
  ASSERT_EQ(::mkdir(folder.path("links").c_str(), 0700), 0);
  const std::string outer = folder.path("outer");
  ASSERT_EQ(::symlink("links/inner", outer.c_str()), 0);
  ASSERT_EQ(::symlink("../target.plist", folder.path("links/inner").c_str()), 0);
  const vpnctl::Status saved = GB::saveSettings(settings, outer);
  ASSERT_TRUE(saved) << saved.error().message;
  EXPECT_TRUE(isLink(outer));
  EXPECT_TRUE(isLink(folder.path("links/inner")));
  EXPECT_EQ(loaded(folder.path("target.plist")), settings.storage());
}

TEST_F(SettingsFile, SavingThroughALinkThatLeadsNowhereMakesTheFile) {
  ASSERT_EQ(::symlink(folder.path("new.plist").c_str(), folder.path("link").c_str()), 0);
  ASSERT_TRUE(GB::saveSettings(settings, folder.path("link")));
  EXPECT_TRUE(isLink(folder.path("link")));
  EXPECT_EQ(loaded(folder.path("new.plist")), settings.storage());
}

TEST_F(SettingsFile, ARingOfLinksIsAnError) {
  ASSERT_EQ(::symlink("b", folder.path("a").c_str()), 0);
  ASSERT_EQ(::symlink("a", folder.path("b").c_str()), 0);
  const vpnctl::Status saved = GB::saveSettings(settings, folder.path("a"));
  ASSERT_FALSE(saved);
  EXPECT_EQ(saved.error().code, ELOOP);
}

TEST_F(SettingsFile, SavingWorksWithTheLongestNames) {
  for (const std::size_t length : {250U, 255U}) {
    const std::string path = folder.path(std::string(length, 'n'));
    vpnctl::Error error;
    EXPECT_TRUE(settings.saveSettingsToPlist(path, &error)) << error.message;
    const vpnctl::Status saved = GB::saveSettings(settings, path);
    EXPECT_TRUE(saved) << saved.error().message;
    EXPECT_EQ(loaded(path), settings.storage());
  }
  EXPECT_EQ(folder.count(), 2);
}

TEST_F(SettingsFile, AMissingFileIsAnError) {
  const vpnctl::Status status = GB::loadSettings(settings, folder.path("none.plist"));
  ASSERT_FALSE(status);
  EXPECT_EQ(status.error().domain, vpnctl::kPOSIXErrorDomain);
  EXPECT_EQ(status.error().code, ENOENT);
  EXPECT_EQ(settings.storage(), (Value::Dictionary{{"key", "value"}}));
}

TEST_F(SettingsFile, AFileThatCannotBeReadLeavesTheLayer) {
  EXPECT_FALSE(GB::loadSettings(settings, folder.path()));
  EXPECT_FALSE(GB::loadSettings(settings, "/dev/zero"));
  EXPECT_FALSE(GB::loadSettings(settings, folder.write("a.plist", "{ a = ; }")));
  const vpnctl::Status status = GB::loadSettings(settings, folder.write("b.plist", "( a )"));
  ASSERT_FALSE(status);
  EXPECT_EQ(status.error().domain, GB::GBSettingsErrorDomain);
  EXPECT_EQ(settings.storage(), (Value::Dictionary{{"key", "value"}}));
}

TEST_F(SettingsFile, PipesCanBeLoaded) {
  const std::string fifo = folder.path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // More than a pipe holds, from a writer that comes when it likes.
  const std::string text = "{ Heading = { \"--long\" = \"" + std::string(200000, 'x') + "\"; }; }";
  std::thread writer([&] { std::ofstream(fifo) << text; });
  const Value::Dictionary values = loaded(fifo);
  writer.join();
  EXPECT_EQ(values, (Value::Dictionary{{"long", std::string(200000, 'x')}}));

  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], "{ a = b; }", 10), 10);
  ::close(ends[1]);
  EXPECT_EQ(loaded("/dev/fd/" + std::to_string(ends[0])), (Value::Dictionary{{"a", "b"}}));
  ::close(ends[0]);
}

TEST_F(SettingsFile, WhatIsSavedCanBeLoaded) {
  const auto nested = [](int levels) {
    Value value = 1;
    for (int i = 0; i < levels; ++i) value = Value::Array{value};
    return value;
  };
  const Value values[] = {std::nan(""),
                          INFINITY,
                          5e-324,
                          std::numeric_limits<std::uint64_t>::max(),
                          INT64_MIN,
                          Value::Data{},
                          "",
                          "]]>",
                          "\x7f\xc2\x80",
                          std::string("\0", 1),
                          "\r",
                          Value::Date{252423993599.0},
                          Value::Date{252423993600.0},
                          Value::Date{std::nan("")},
                          nested(63),
                          nested(64),
                          "\xff",
                          Value::Date{-63114076801.0}};
  const Value::Dictionary kOld = {{"old", "old"}};
  int saved = 0;
  for (const Value &value : values) {
    GBSettings layer("layer");
    layer.setObjectForKey(value, "key");
    const std::string path = folder.write("file.plist", "{ old = old; }");
    const bool isSaved = static_cast<bool>(GB::saveSettings(layer, path));
    EXPECT_EQ(loaded(path), isSaved ? layer.storage() : kOld) << isSaved;
    if (isSaved) ++saved;
  }
  EXPECT_EQ(saved, 12);
}
