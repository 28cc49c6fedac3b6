// What replacing a file asks of the system. How settings are saved through it is GBSettingsFilesTest's.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "cli/FileReplacement.h"
#include "tests/support/TemporaryFolder.h"

namespace {

struct Recorder {
  std::vector<std::string> calls;
  std::function<bool(bool folder)> refusesToSynchronise = [](bool) { return false; };
};

Recorder *recorder = nullptr;

std::string flagsOf(int flags) {
  std::string text = (flags & O_ACCMODE) == O_WRONLY ? "write" : "read";
  for (const auto &[flag, name] : {std::pair(O_CREAT, " create"), std::pair(O_EXCL, " exclusive"),
                                   std::pair(O_DIRECTORY, " folder"), std::pair(O_CLOEXEC, " close-on-exec")})
    if ((flags & flag) == flag) text += name;
  return text;
}

bool isFolder(int file) {
  struct stat status = {};
  return ::fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

extern "C" {

int __real_open(const char *path, int flags, ...);
int __real_fsync(int file);
int __real_rename(const char *from, const char *to);

int __wrap_open(const char *path, int flags, ...) {
  std::va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  if (recorder != nullptr) recorder->calls.push_back("open " + flagsOf(flags));
  return __real_open(path, flags, mode);
}

int __wrap_fsync(int file) {
  if (recorder == nullptr) return __real_fsync(file);
  const bool folder = isFolder(file);
  recorder->calls.emplace_back(folder ? "fsync folder" : "fsync file");
  if (!recorder->refusesToSynchronise(folder)) return __real_fsync(file);
  errno = EIO;
  return -1;
}

int __wrap_rename(const char *from, const char *to) {
  if (recorder != nullptr) recorder->calls.emplace_back("rename");
  return __real_rename(from, to);
}

}  // extern "C"

namespace {

class FileReplacement : public testing::Test {
 protected:
  FileReplacement() { recorder = &recorded; }
  ~FileReplacement() override { recorder = nullptr; }

  mode_t modeOf(const std::string &name) const {
    struct stat status = {};
    EXPECT_EQ(::stat(folder.path(name).c_str(), &status), 0);
    return status.st_mode & 07777;
  }

  support::TemporaryFolder folder;
  Recorder recorded;
};

using Calls = std::vector<std::string>;

const Calls kCalls = {"open write create exclusive close-on-exec", "fsync file", "rename",
                      "open read folder close-on-exec", "fsync folder"};

}  // namespace

TEST_F(FileReplacement, IsOnTheDiskBeforeItTakesTheNameAndTheNameIsAfterwards) {
  EXPECT_TRUE(GB::replaceFile(folder.path("new"), "bytes"));
  EXPECT_EQ(recorded.calls, kCalls);
  EXPECT_EQ(folder.read("new"), "bytes");
  recorded.calls.clear();
  EXPECT_TRUE(GB::replaceFile(folder.path("new"), "others"));
  EXPECT_EQ(recorded.calls, kCalls);
  EXPECT_EQ(folder.read("new"), "others");
}

TEST_F(FileReplacement, ANewFileGetsTheModeThatTheUmaskLeaves) {
  const mode_t before = ::umask(022);
  EXPECT_TRUE(GB::replaceFile(folder.path("public"), "bytes"));
  ::umask(0);
  EXPECT_TRUE(GB::replaceFile(folder.path("all"), "bytes"));
  ::umask(077);
  EXPECT_TRUE(GB::replaceFile(folder.path("own"), "bytes"));
  // An existing file keeps its mode, whatever the umask says.
  EXPECT_TRUE(GB::replaceFile(folder.path("all"), "others"));
  ::umask(before);
  EXPECT_EQ(modeOf("public"), 0644U);
  EXPECT_EQ(modeOf("all"), 0666U);
  EXPECT_EQ(modeOf("own"), 0600U);
}

TEST_F(FileReplacement, WhatCannotBePutOnTheDiskReplacesNothing) {
  folder.write("file", "old");
  recorded.refusesToSynchronise = [](bool isFolder) { return !isFolder; };
  const vpnctl::Status replaced = GB::replaceFile(folder.path("file"), "new");
  EXPECT_FALSE(replaced);
  EXPECT_EQ(replaced.error().code, EIO);
  EXPECT_EQ(folder.read("file"), "old");
  EXPECT_EQ(folder.count(), 1);
}

TEST_F(FileReplacement, AFolderThatCannotBeSynchronisedIsNoFailure) {
  recorded.refusesToSynchronise = [](bool isFolder) { return isFolder; };
  EXPECT_TRUE(GB::replaceFile(folder.path("file"), "new"));
  EXPECT_EQ(folder.read("file"), "new");
}
