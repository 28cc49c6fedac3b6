#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "foundation/FileDescriptor.h"

namespace vpnctl {
namespace {

int openNull() {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0);
  return fd;
}

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

static_assert(!std::is_copy_constructible_v<FileDescriptor> && !std::is_copy_assignable_v<FileDescriptor>);

TEST(FileDescriptorTest, IsNoneUnlessGivenOne) {
  const FileDescriptor none;
  EXPECT_FALSE(none);
  EXPECT_EQ(none.get(), -1);
  EXPECT_FALSE(FileDescriptor(-1));
}

TEST(FileDescriptorTest, ClosesWhenItDies) {
  const int fd = openNull();
  {
    const FileDescriptor owner(fd);
    EXPECT_TRUE(owner);
    EXPECT_EQ(owner.get(), fd);
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST(FileDescriptorTest, MovingLeavesNoneBehind) {
  const int fd = openNull();
  FileDescriptor first(fd);
  FileDescriptor second(std::move(first));
  EXPECT_FALSE(first);
  EXPECT_EQ(second.get(), fd);
  EXPECT_TRUE(isOpen(fd));
}

TEST(FileDescriptorTest, MoveAssignmentClosesWhatWasHeld) {
  const int old = openNull();
  const int fd = openNull();
  FileDescriptor owner(old);
  owner = FileDescriptor(fd);
  EXPECT_FALSE(isOpen(old));
  EXPECT_TRUE(isOpen(fd));
  FileDescriptor &itself = owner;
  owner = std::move(itself);
  EXPECT_EQ(owner.get(), fd);
  EXPECT_TRUE(isOpen(fd));
}

TEST(FileDescriptorTest, ReleaseGivesAwayWithoutClosing) {
  FileDescriptor owner(openNull());
  const int fd = owner.release();
  EXPECT_FALSE(owner);
  EXPECT_TRUE(isOpen(fd));
  ::close(fd);
}

TEST(FileDescriptorTest, ResetClosesAndTakesOver) {
  const int old = openNull();
  const int fd = openNull();
  FileDescriptor owner(old);
  owner.reset(fd);
  EXPECT_FALSE(isOpen(old));
  owner.reset(fd);
  EXPECT_TRUE(isOpen(fd));
  owner.reset();
  EXPECT_FALSE(isOpen(fd));
}

TEST(FileDescriptorTest, ClosingKeepsErrno) {
  const int fd = openNull();
  ::close(fd);
  FileDescriptor stale(fd);  // closing it fails with EBADF
  errno = ENOENT;
  stale.reset();
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace vpnctl
