#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "foundation/FileReplacement.h"

namespace vpnctl {
namespace {

using Name = FreshFile::Name;
using Calls = std::vector<std::string>;

// Says what it was asked for, and fails when it is asked for what FAILS names.
class RecordingFileSystem : public PosixFileSystem {
 public:
  Result<FileDescriptor> open(const std::string &path, int flags, mode_t mode) override {
    if (auto status = call("open"); !status) return status.error();
    return PosixFileSystem::open(path, flags, mode);
  }
  Status write(int file, std::string_view bytes, const std::string &path) override {
    auto status = call("write");
    return status ? PosixFileSystem::write(file, bytes, path) : status;
  }
  Status synchronize(int file, const std::string &path) override {
    auto status = call("synchronize");
    return status ? PosixFileSystem::synchronize(file, path) : status;
  }
  Status rename(const std::string &from, const std::string &to) override {
    auto status = call("rename");
    return status ? PosixFileSystem::rename(from, to) : status;
  }
  Status remove(const std::string &path) override {
    auto status = call("remove");
    return status ? PosixFileSystem::remove(path) : status;
  }

  Calls calls;
  std::string fails;

 private:
  Status call(const std::string &what) {
    calls.push_back(what);
    return what == fails ? errnoError(EIO, what) : Status();
  }
};

class FileReplacementTest : public ::testing::Test {
 protected:
  FileReplacementTest() {
    std::string name = ::testing::TempDir() + "replacement.XXXXXX";
    EXPECT_NE(::mkdtemp(name.data()), nullptr);
    folder = name;
    write(path(), "old");
  }
  ~FileReplacementTest() override { std::filesystem::remove_all(folder); }

  std::string path() const { return folder + "/file"; }
  std::string beside() const { return folder + "/file-new"; }
  static void write(const std::string &path, const std::string &bytes) { std::ofstream(path) << bytes; }
  static std::string read(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::string folder;
  RecordingFileSystem fileSystem;
};

TEST_F(FileReplacementTest, IsOnTheDiskBeforeItTakesTheName) {
  EXPECT_TRUE(replaceFile(path(), "new", {beside()}, fileSystem));
  EXPECT_EQ(fileSystem.calls, (Calls{"remove", "open", "write", "synchronize", "rename"}));
  EXPECT_EQ(read(path()), "new");
  EXPECT_FALSE(std::filesystem::exists(beside()));
}

TEST_F(FileReplacementTest, WhatNeedNotLastIsNotWaitedFor) {
  FreshFile fresh{beside()};
  fresh.durable = false;
  EXPECT_TRUE(replaceFile(path(), "new", fresh, fileSystem));
  EXPECT_EQ(fileSystem.calls, (Calls{"remove", "open", "write", "rename"}));
}

TEST_F(FileReplacementTest, WhatWasLeftBesideGoesUnlessTheNameIsShared) {
  write(beside(), "left");
  FreshFile fresh{beside()};
  fresh.name = Name::shared;
  EXPECT_EQ(replaceFile(path(), "new", fresh, fileSystem).error().code, EEXIST);
  EXPECT_EQ(read(path()), "old");
  EXPECT_EQ(read(beside()), "left");
  fresh.name = Name::own;
  EXPECT_TRUE(replaceFile(path(), "new", fresh, fileSystem));
  EXPECT_EQ(read(path()), "new");
}

TEST_F(FileReplacementTest, AFailureLeavesTheOldBytesAndNothingBeside) {
  for (const char *call : {"remove", "open", "write", "synchronize", "rename"}) {
    fileSystem.fails = call;
    EXPECT_EQ(replaceFile(path(), "new", {beside()}, fileSystem).error().code, EIO) << call;
    EXPECT_EQ(read(path()), "old") << call;
    EXPECT_FALSE(std::filesystem::exists(beside())) << call;
  }
}

TEST_F(FileReplacementTest, IsPreparedBeforeThereIsAByteInIt) {
  FreshFile fresh{beside()};
  fresh.prepare = [](int file) -> Status {
    struct stat status = {};
    EXPECT_EQ(::fstat(file, &status), 0);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(::fchmod(file, 0640), 0);
    return {};
  };
  EXPECT_TRUE(replaceFile(path(), "new", fresh, fileSystem));
  EXPECT_EQ(std::filesystem::status(path()).permissions(), std::filesystem::perms(0640));
  fresh.prepare = [](int) -> Status { return errnoError(EPERM, "prepare"); };
  EXPECT_EQ(replaceFile(path(), "newer", fresh, fileSystem).error().code, EPERM);
  EXPECT_EQ(read(path()), "new");
  EXPECT_FALSE(std::filesystem::exists(beside()));
}

TEST(FolderOf, IsWhereAPathLies) {
  EXPECT_EQ(folderOf("/a/b"), "/a");
  EXPECT_EQ(folderOf("/a"), "/");
  EXPECT_EQ(folderOf("a/b"), "a");
  EXPECT_EQ(folderOf("a"), ".");
}

}  // namespace
}  // namespace vpnctl
