#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "linux/AtomicFile.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/TemporaryFolder.h"

namespace linux {
namespace {

using support::contentsOf;
using support::FaultyFileSystem;
using support::writeFile;
using Call = FaultyFileSystem::Call;
using std::chrono::milliseconds;

constexpr std::size_t kPlenty = 1 << 20;
constexpr milliseconds kLong{20000};  // only a failure takes it

class AtomicFileTest : public ::testing::Test {
 protected:
  support::TemporaryFolder folder;
  FaultyFileSystem fileSystem;
  const std::string path = folder.path("file");
  const AtomicFile file{path, fileSystem};
};

TEST_F(AtomicFileTest, WhatIsNotThereIsNone) {
  const auto contents = file.read(kPlenty);
  ASSERT_TRUE(contents);
  EXPECT_FALSE(contents->has_value());
}

TEST_F(AtomicFileTest, ANewFileGetsItsModeWhateverTheUmask) {
  const mode_t old = ::umask(077);
  EXPECT_TRUE(file.replace("bytes", 0644));
  ::umask(old);
  const auto contents = file.read(kPlenty);
  ASSERT_TRUE(contents && contents->has_value());
  EXPECT_EQ((*contents)->bytes, "bytes");
  EXPECT_EQ((*contents)->attributes.st_mode & 07777, 0644U);
}

TEST_F(AtomicFileTest, AnExistingFileKeepsItsModeAndGroup) {
  writeFile(path, "old");
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  gid_t group = ::getegid();
  if (::geteuid() == 0) {
    group = 12345;
    ASSERT_EQ(::chown(path.c_str(), 0, group), 0);
  }
  ASSERT_TRUE(file.replace("new", 0600));
  const auto contents = file.read(kPlenty);
  ASSERT_TRUE(contents && contents->has_value());
  EXPECT_EQ((*contents)->bytes, "new");
  EXPECT_EQ((*contents)->attributes.st_mode & 07777, 0640U);
  EXPECT_EQ((*contents)->attributes.st_gid, group);
}

TEST_F(AtomicFileTest, WhatNobodyShouldHavePutThereIsRefused) {
  const auto refused = [this] {
    const auto contents = file.read(kPlenty);
    const auto status = file.replace("new", 0600);
    return !contents && contents.error().code == EPERM && !status && status.error().code == EPERM;
  };
  writeFile(folder.path("target"), "target");
  std::filesystem::create_symlink(folder.path("target"), path);
  EXPECT_TRUE(refused());
  EXPECT_EQ(contentsOf(folder.path("target")), "target");
  std::filesystem::remove(path);

  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_TRUE(refused());
  std::filesystem::remove(path);

  writeFile(path, "old");
  ASSERT_EQ(::chmod(path.c_str(), 0646), 0);
  EXPECT_TRUE(refused());
  EXPECT_EQ(contentsOf(path), "old");
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to give a file away";
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  ASSERT_EQ(::chown(path.c_str(), 65534, 0), 0);
  EXPECT_TRUE(refused());
  EXPECT_EQ(contentsOf(path), "old");
}

TEST_F(AtomicFileTest, AFileThatIsTooLargeIsNotRead) {
  writeFile(path, "12345");
  EXPECT_TRUE(file.read(5));
  const auto contents = file.read(4);
  ASSERT_FALSE(contents);
  EXPECT_EQ(contents.error().code, EFBIG);
}

TEST_F(AtomicFileTest, EveryFailureLeavesTheOldBytesAndNothingBesides) {
  writeFile(path, "old");
  const struct {
    Call call;
    const char *suffix;
    int errnum;
  } faults[] = {{Call::open, "-new", EACCES}, {Call::write, "-new", ENOSPC}, {Call::synchronize, "-new", EIO},
                {Call::rename, "file", EIO},  {Call::remove, "-new", EIO},   {Call::open, "", EMFILE}};
  for (const auto &fault : faults) {
    fileSystem.failNext(fault.call, fault.suffix, fault.errnum);
    const auto status = file.replace("new and longer", 0600);
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().code, fault.errnum);
    EXPECT_EQ(contentsOf(path), "old");
    EXPECT_FALSE(contentsOf(path + "-new").has_value());
  }
  EXPECT_TRUE(file.replace("new", 0600));
  EXPECT_EQ(contentsOf(path), "new");
}

TEST_F(AtomicFileTest, WhatAKilledProcessLeftBesidesIsInNobodysWay) {
  writeFile(path, "old");
  writeFile(path + "-new", "half");
  EXPECT_TRUE(file.replace("new", 0600));
  EXPECT_EQ(contentsOf(path), "new");
}

TEST_F(AtomicFileTest, TheLockHoldsTheProcessAndGoesWithItsOwner) {
  {
    const auto lock = file.lock(milliseconds(0));
    ASSERT_TRUE(lock);
    EXPECT_EQ(contentsOf(path + "-lock"), std::to_string(::getpid()) + "\n");
    const auto second = file.lock(milliseconds(0));
    ASSERT_FALSE(second);
    EXPECT_EQ(second.error().code, EWOULDBLOCK);
  }
  EXPECT_FALSE(contentsOf(path + "-lock").has_value());
  EXPECT_TRUE(file.lock(milliseconds(0)));
}

TEST_F(AtomicFileTest, ALockFileThatNobodyHoldsIsTaken) {
  writeFile(path + "-lock", "4711\n");
  EXPECT_TRUE(file.lock(milliseconds(0)));
}

TEST_F(AtomicFileTest, ALockThatCannotBeTakenIsAnError) {
  fileSystem.failNext(Call::lock, "-lock", ENOLCK);
  const auto lock = file.lock(kLong);
  ASSERT_FALSE(lock);
  EXPECT_EQ(lock.error().code, ENOLCK);
}

TEST_F(AtomicFileTest, WaitsForTheHoldersEnd) {
  auto held = file.lock(milliseconds(0));
  ASSERT_TRUE(held);
  std::thread holder([held = std::make_unique<AtomicFile::Lock>(std::move(*held))]() mutable { held.reset(); });
  EXPECT_TRUE(file.lock(kLong));
  holder.join();
}

TEST_F(AtomicFileTest, WaitsForAHolderThatIsKilled) {
  int ready[2] = {-1, -1};
  ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const auto lock = file.lock(milliseconds(0));
    [[maybe_unused]] const ssize_t told = ::write(ready[1], "x", 1);
    ::pause();
    ::_exit(lock ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  std::thread killer([child] { ::kill(child, SIGKILL); });
  EXPECT_TRUE(file.lock(kLong));
  killer.join();
  ::waitpid(child, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);
}

// Busy for as many tries as it is told, although nobody has it and nothing is to be heard of it.
class BusyFileSystem : public vpnctl::PosixFileSystem {
 public:
  vpnctl::Status lock(int file, const std::string &path) override {
    if (tries-- > 0) return vpnctl::errnoError(EWOULDBLOCK, "lock " + path);
    return vpnctl::PosixFileSystem::lock(file, path);
  }
  int tries = 0;
};

TEST_F(AtomicFileTest, LooksAgainWhenItHearsNothing) {
  BusyFileSystem busy;
  busy.tries = 5;
  const AtomicFile mine(path, busy);
  EXPECT_TRUE(mine.lock(kLong));
  busy.tries = 1000;
  EXPECT_FALSE(mine.lock(milliseconds(300)));
  EXPECT_GT(busy.tries, 900);
}

TEST_F(AtomicFileTest, ManyWritersNeverMix) {
  ASSERT_TRUE(file.replace("0", 0600));
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i) {
    writers.emplace_back([this] {
      vpnctl::PosixFileSystem plain;
      const AtomicFile mine(path, plain);
      for (int round = 0; round < 5; ++round) {
        const auto lock = mine.lock(kLong);
        ASSERT_TRUE(lock);
        const auto contents = mine.read(kPlenty);
        ASSERT_TRUE(contents && contents->has_value());
        ASSERT_TRUE(mine.replace(std::to_string(std::stoi((*contents)->bytes) + 1), 0600));
      }
    });
  }
  for (auto &writer : writers) writer.join();
  EXPECT_EQ(contentsOf(path), "20");
}

TEST_F(AtomicFileTest, AFolderIsMadeWithItsMode) {
  const AtomicFile inner(folder.path("inner/file"), fileSystem);
  const mode_t old = ::umask(077);
  EXPECT_TRUE(inner.createFolder(0755));
  ::umask(old);
  EXPECT_TRUE(inner.createFolder(0700));  // it is there: it stays as it is
  struct stat attributes = {};
  ASSERT_EQ(::stat(folder.path("inner").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0755U);
  ASSERT_EQ(::chmod(folder.path("inner").c_str(), 01777), 0);
  const auto open = inner.createFolder(0755);
  ASSERT_FALSE(open);
  EXPECT_EQ(open.error().code, EPERM);
  const AtomicFile deeper(folder.path("no/such/file"), fileSystem);
  EXPECT_FALSE(deeper.createFolder(0755));
  writeFile(folder.path("plain"), "");
  const AtomicFile below(folder.path("plain/file"), fileSystem);
  EXPECT_FALSE(below.createFolder(0755));
}

}  // namespace
}  // namespace linux
