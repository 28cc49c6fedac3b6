#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "helper/common/Peer.h"
#include "tests/support/TemporaryFolder.h"

namespace helper {
namespace {

using vpnctl::FileDescriptor;

// A named socket, as the plugin's peer has it; the connection is a child's.
class PeerTest : public ::testing::Test {
 protected:
  PeerTest() : listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, folder.path("socket").c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(::bind(listening.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listening.get(), 1), 0);
  }
  ~PeerTest() override { endChild(); }

  // Forks a child that connects, holds the connection and ends when the test closes its end.
  FileDescriptor connectChild() {
    child = ::fork();
    if (child == 0) {
      const int mine = ::socket(AF_UNIX, SOCK_STREAM, 0);
      if (::connect(mine, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0) ::_exit(1);
      char byte = 0;
      const ssize_t count = ::read(mine, &byte, 1);
      ::_exit(count == 0 ? 0 : 1);
    }
    return FileDescriptor(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

  void endChild() {
    if (child > 0) ::waitpid(child, nullptr, 0);
    child = -1;
  }

  support::TemporaryFolder folder;
  FileDescriptor listening;
  sockaddr_un address = {};
  pid_t child = -1;
};

TEST_F(PeerTest, NamesTheProcessAtTheOtherEnd) {
  FileDescriptor connection = connectChild();
  const auto peer = Peer::ofSocket(connection.get());
  ASSERT_TRUE(peer) << peer.error().message;
  EXPECT_EQ(peer->pid(), child);
  EXPECT_EQ(peer->uid(), ::geteuid());
}

TEST_F(PeerTest, ComparesTheExecutableByDeviceAndInode) {
  FileDescriptor connection = connectChild();
  const auto peer = Peer::ofSocket(connection.get());
  ASSERT_TRUE(peer);
  EXPECT_TRUE(peer->runs("/proc/self/exe"));  // the child is a copy of this very program
  EXPECT_FALSE(peer->runs("/bin/sh"));
  EXPECT_FALSE(peer->runs("/no/such/program"));
  EXPECT_FALSE(peer->runs(""));
}

TEST_F(PeerTest, AProcessThatHasEndedRunsNothing) {
  FileDescriptor connection = connectChild();
  const auto peer = Peer::ofSocket(connection.get());
  ASSERT_TRUE(peer);
  connection.reset();
  endChild();
  EXPECT_FALSE(peer->runs("/proc/self/exe"));
}

TEST_F(PeerTest, AProcessThatIsGoneIsAnError) {
  FileDescriptor connection = connectChild();
  ::shutdown(connection.get(), SHUT_WR);
  endChild();
  const auto peer = Peer::ofSocket(connection.get());
  ASSERT_FALSE(peer);
  EXPECT_EQ(peer.error().code, ESRCH);
}

TEST_F(PeerTest, WhatIsNoConnectionIsAnError) {
  EXPECT_FALSE(Peer::ofSocket(-1));
  EXPECT_FALSE(Peer::ofSocket(STDERR_FILENO));
}

}  // namespace
}  // namespace helper
