#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "helper/l2tp/L2TPSocket.h"

using namespace helper;
using SourcePort = EngineSettings::SourcePort;

namespace {

// Nobody need be there: nothing is sent.
sockaddr_in server() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(L2TPSocket::kPort);
  return address;
}

std::uint16_t portOf(int socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  EXPECT_EQ(::getsockname(socket, reinterpret_cast<sockaddr *>(&address), &size), 0);
  return ntohs(address.sin_port);
}

TEST(L2TPSocket, NamesWhoHoldsThePort) {
  const vpnctl::FileDescriptor stranger(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  ASSERT_EQ(setsockopt(stranger.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
  sockaddr_in any{};
  any.sin_family = AF_INET;
  socklen_t size = sizeof any;
  ASSERT_EQ(::bind(stranger.get(), reinterpret_cast<sockaddr *>(&any), size), 0);
  ASSERT_EQ(::getsockname(stranger.get(), reinterpret_cast<sockaddr *>(&any), &size), 0);
  const std::uint16_t port = ntohs(any.sin_port);
  const std::string us = "held by helper_l2tp_tes (process " + std::to_string(::getpid()) + ")";

  const auto other = L2TPSocket::open(server(), SourcePort::automatic, port);
  ASSERT_TRUE(other);
  EXPECT_NE(other->notice().find(us), std::string::npos) << other->notice();

  const auto refused = L2TPSocket::open(server(), SourcePort::wellKnown, port);
  ASSERT_FALSE(refused);
  EXPECT_NE(refused.error().message.find(us), std::string::npos) << refused.error().message;

  const auto never = L2TPSocket::open(server(), SourcePort::any, port);
  ASSERT_TRUE(never);
  EXPECT_EQ(never->notice(), "");
}

TEST(L2TPSocket, TakesThePortWhenItIsFree) {
  std::uint16_t port = 0;
  {
    const auto any = L2TPSocket::open(server(), SourcePort::any);
    ASSERT_TRUE(any);
    port = portOf(any->descriptor());
    EXPECT_NE(port, 0);
  }
  for (const auto wish : {SourcePort::automatic, SourcePort::wellKnown}) {
    const auto socket = L2TPSocket::open(server(), wish, port);
    ASSERT_TRUE(socket) << socket.error().message;
    EXPECT_EQ(portOf(socket->descriptor()), port);
    EXPECT_EQ(socket->notice(), "");
    // Nobody else gets it beside us, whatever he sets.
    const vpnctl::FileDescriptor stranger(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    ASSERT_EQ(setsockopt(stranger.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    EXPECT_LT(::bind(stranger.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_NE(::fcntl(socket->descriptor(), F_GETFD) & FD_CLOEXEC, 0);
  }
}

TEST(L2TPSocket, LeavesProvingTheBytesToESP) {
  const auto socket = L2TPSocket::open(server(), SourcePort::any);
  ASSERT_TRUE(socket);
  int without = 0;
  socklen_t size = sizeof without;
  ASSERT_EQ(::getsockopt(socket->descriptor(), SOL_SOCKET, SO_NO_CHECK, &without, &size), 0);
  EXPECT_EQ(without, 1);
}

}  // namespace
