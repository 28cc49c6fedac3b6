#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/PropertyList.h"
#include "tests/support/TemporaryFolder.h"

namespace vpnctl {
namespace {

class PropertyListFileTest : public testing::Test {
 protected:
  void write(std::string_view bytes) { support::writeFile(path_, std::string(bytes)); }
  const support::TemporaryFolder folder_;
  const std::string path_ = folder_.path("list.plist");
};

TEST_F(PropertyListFileTest, ReadsAFile) {
  const Value value(Value::Dictionary{{"a", 1}});
  write(*xmlPropertyList(value));
  const Result<Value> read = propertyListFromFile(path_);
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, value);
}

TEST_F(PropertyListFileTest, TheErrorOfAMissingFileIsTheSystems) {
  const Result<Value> read = propertyListFromFile(path_);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error(),
            (Error{.domain = "POSIX", .code = ENOENT, .message = "open " + path_ + ": No such file or directory"}));
}

TEST_F(PropertyListFileTest, AFolderOrAFIFOIsNoFile) {
  const Result<Value> folder = propertyListFromFile("/");
  ASSERT_FALSE(folder);
  EXPECT_EQ(folder.error().code, EISDIR);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  const Result<Value> fifo = propertyListFromFile(path_);
  ASSERT_FALSE(fifo);
  EXPECT_EQ(fifo.error(),
            (Error{.domain = "POSIX", .code = EINVAL, .message = "read " + path_ + ": not a regular file"}));
}

TEST_F(PropertyListFileTest, ATooLargeFileIsRefused) {
  write("");
  ASSERT_EQ(::truncate(path_.c_str(), static_cast<off_t>(kPropertyListMaximumSize + 1)), 0);
  const Result<Value> read = propertyListFromFile(path_);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().domain, kPOSIXErrorDomain);
  EXPECT_EQ(read.error().code, EFBIG);
}

TEST_F(PropertyListFileTest, AnErrorInsideNamesTheFileAndTheLine) {
  write("<plist version=\"1.0\">\n<nonsense/>\n</plist>\n");
  const Result<Value> read = propertyListFromFile(path_);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error(),
            (Error{.domain = "PropertyList", .code = 1, .message = path_ + ": line 2: unknown element <nonsense>"}));
}

TEST(PropertyListTest, TellsTheFormsApart) {
  const Result<Value> binary = propertyListFromData("bplist00", "x");
  ASSERT_FALSE(binary);
  EXPECT_EQ(binary.error().message, "x: byte 8: too short for a binary property list");
  const Result<Value> unknown = propertyListFromData("bplist01", "x");
  ASSERT_FALSE(unknown);
  EXPECT_EQ(unknown.error().message, "x: line 1: syntax error");
}

TEST(PropertyListTest, TooManyBytesAreRefused) {
  const Result<Value> read = propertyListFromData(std::string(kPropertyListMaximumSize + 1, ' '), "x");
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().message, "x: larger than 67108864 bytes");
}

}  // namespace
}  // namespace vpnctl
