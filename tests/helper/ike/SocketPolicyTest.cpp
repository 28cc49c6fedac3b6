#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>

#include "foundation/FileDescriptor.h"
#include "helper/ike/SocketPolicy.h"

using vpnctl::FileDescriptor;

namespace {

FileDescriptor udp(sockaddr_in &address) {
  FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
  EXPECT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
  return socket;
}

TEST(SocketPolicyTest, NothingPassesWithoutAnAssociation) {
  sockaddr_in ours{};
  sockaddr_in theirs{};
  const FileDescriptor guarded = udp(ours);
  const FileDescriptor other = udp(theirs);
  ASSERT_EQ(::connect(guarded.get(), reinterpret_cast<sockaddr *>(&theirs), sizeof theirs), 0);
  ASSERT_EQ(::send(guarded.get(), "x", 1, 0), 1);
  ASSERT_EQ(::sendto(other.get(), "x", 1, 0, reinterpret_cast<sockaddr *>(&ours), sizeof ours), 1);
  const auto status = helper::guardSocket(guarded.get(), 0x01234567);
  if (!status) GTEST_SKIP() << "this kernel guards no sockets, or we may not: " << status.error().message;
  char byte = 0;
  ASSERT_EQ(::recv(guarded.get(), &byte, 1, 0), 1);  // came in before
  ASSERT_EQ(::sendto(other.get(), "y", 1, 0, reinterpret_cast<sockaddr *>(&ours), sizeof ours), 1);
  EXPECT_LT(::recv(guarded.get(), &byte, 1, 0), 0);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_LT(::send(guarded.get(), "y", 1, 0), 0);
}

TEST(SocketPolicyTest, ExemptEverythingPasses) {
  sockaddr_in ours{};
  sockaddr_in theirs{};
  const FileDescriptor exempt = udp(ours);
  const FileDescriptor other = udp(theirs);
  if (!helper::guardSocket(exempt.get(), 0x01234567)) GTEST_SKIP() << "this kernel guards no sockets, or we may not";
  const auto status = helper::exemptSocket(exempt.get());
  ASSERT_TRUE(status) << status.error().message;
  char byte = 0;
  ASSERT_EQ(::sendto(exempt.get(), "x", 1, 0, reinterpret_cast<sockaddr *>(&theirs), sizeof theirs), 1);
  EXPECT_EQ(::recv(other.get(), &byte, 1, 0), 1);
  ASSERT_EQ(::sendto(other.get(), "y", 1, 0, reinterpret_cast<sockaddr *>(&ours), sizeof ours), 1);
  EXPECT_EQ(::recv(exempt.get(), &byte, 1, 0), 1);
}

TEST(SocketPolicyTest, WhatIsNoSocketIsAnError) {
  EXPECT_EQ(helper::exemptSocket(-1).error().code, EBADF);
  const auto status = helper::guardSocket(-1, 1);
  ASSERT_FALSE(status);
  EXPECT_EQ(status.error().code, EBADF);
}

}  // namespace
