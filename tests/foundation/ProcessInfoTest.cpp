#include <gtest/gtest.h>

#include "foundation/ProcessInfo.h"
#include "foundation/PropertyList.h"
#include "tests/support/TemporaryFolder.h"

namespace vpnctl {
namespace {

class ProcessInfoTest : public testing::Test {
 protected:
  void SetUp() override { ProcessInfo::setSystemVersionPath(path_); }
  void TearDown() override { ProcessInfo::setSystemVersionPath(saved_); }
  void writeVersionFile(const Value &contents) {
    const Result<std::string> text = xmlPropertyList(contents);
    ASSERT_TRUE(text);
    support::writeFile(path_, *text);
  }
  void writeVersion(const std::string &version) {
    writeVersionFile(Value(Value::Dictionary{{"ProductVersion", version}}));
  }

  const std::string saved_ = ProcessInfo::systemVersionPath();
  const support::TemporaryFolder folder_;
  const std::string path_ = folder_.path("SystemVersion.plist");
};

TEST_F(ProcessInfoTest, TheUsualPathIsTheSystems) {
  EXPECT_EQ(saved_, "/System/Library/CoreServices/SystemVersion.plist");
}

TEST_F(ProcessInfoTest, VersionsInNumbers) {
  const std::pair<std::string, OperatingSystemVersion> rows[] = {
      {"10.15.7", {10, 15, 7}}, {"12", {12, 0, 0}}, {"11.2", {11, 2, 0}},      {"10.9.5.1", {10, 9, 5}},
      {"", {0, 0, 0}},          {"x", {0, 0, 0}},   {"10.x.5", {10, 0, 0}},    {"10.15beta", {10, 15, 0}},
      {".5", {0, 0, 0}},        {"-1", {0, 0, 0}},  {"99999999999", {0, 0, 0}}};
  for (const auto &[text, version] : rows) {
    writeVersion(text);
    EXPECT_EQ(ProcessInfo::productVersion(), text);
    EXPECT_EQ(ProcessInfo::operatingSystemVersion(), version) << text;
  }
}

TEST_F(ProcessInfoTest, ComparesVersionsComponentByComponent) {
  writeVersion("10.15.7");
  EXPECT_TRUE(ProcessInfo::isOperatingSystemAtLeastVersion({10, 15, 0}));
  EXPECT_TRUE(ProcessInfo::isOperatingSystemAtLeastVersion({10, 15, 7}));
  EXPECT_TRUE(ProcessInfo::isOperatingSystemAtLeastVersion({10, 9, 99}));
  EXPECT_FALSE(ProcessInfo::isOperatingSystemAtLeastVersion({10, 15, 8}));
  EXPECT_FALSE(ProcessInfo::isOperatingSystemAtLeastVersion({11, 0, 0}));
}

TEST_F(ProcessInfoTest, WithoutAUsableFileTheVersionIsZero) {
  EXPECT_EQ(ProcessInfo::productVersion(), std::nullopt);
  EXPECT_EQ(ProcessInfo::operatingSystemVersion(), OperatingSystemVersion());
  EXPECT_FALSE(ProcessInfo::isOperatingSystemAtLeastVersion({10, 0, 0}));
  writeVersionFile(Value(Value::Dictionary{{"Other", "10.15"}}));
  EXPECT_EQ(ProcessInfo::productVersion(), std::nullopt);
  writeVersionFile(Value(Value::Dictionary{{"ProductVersion", 10}}));
  EXPECT_EQ(ProcessInfo::productVersion(), std::nullopt);
  writeVersionFile(Value("10.15"));
  EXPECT_EQ(ProcessInfo::productVersion(), std::nullopt);
}

TEST_F(ProcessInfoTest, TheProcessNameHasNoFolders) { EXPECT_EQ(ProcessInfo::processName(), "foundation_tests"); }

}  // namespace
}  // namespace vpnctl
