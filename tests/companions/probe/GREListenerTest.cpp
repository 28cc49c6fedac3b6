#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <vector>

#include "companions/probe/GREListener.h"
#include "tests/helper/network/NetworkNamespace.h"

using companions::Deadline;
using companions::GREListener;
using std::chrono::milliseconds;

namespace {

constexpr std::uint16_t kCall = 0x1234;
const std::vector<std::uint8_t> kGRE{0x30, 0x01, 0x88, 0x0b, 0x00, 0x00, 0x12, 0x34, 0, 0, 0, 0};

std::vector<std::uint8_t> inIP(const std::vector<std::uint8_t> &gre, int words = 5) {
  std::vector<std::uint8_t> packet(static_cast<std::size_t>(words) * 4, 0);
  packet[0] = static_cast<std::uint8_t>(0x40 | words);
  packet.insert(packet.end(), gre.begin(), gre.end());
  return packet;
}

bool isOurs(std::vector<std::uint8_t> gre) { return GREListener::isOfCall(inIP(gre), kCall); }

TEST(GREListenerTest, KnowsACallsPackets) {
  EXPECT_TRUE(isOurs(kGRE));
  EXPECT_TRUE(GREListener::isOfCall(inIP(kGRE, 15), kCall)) << "with all options that IP can have";
}

TEST(GREListenerTest, PassesOverEverythingElse) {
  for (const std::size_t i : {0U, 1U, 2U, 3U, 6U, 7U}) {
    auto other = kGRE;
    other[i] ^= i == 0 ? 0x20 : i == 1 ? 0x04 : 0xff;
    EXPECT_FALSE(isOurs(other)) << "byte " << i;
  }
  const auto whole = inIP(kGRE);
  for (std::size_t size = 0; size < 28; ++size)
    EXPECT_FALSE(GREListener::isOfCall(std::span(whole).first(size), kCall)) << size;
  EXPECT_FALSE(GREListener::isOfCall(inIP(kGRE, 4), kCall)) << "an IP header shorter than one can be";
}

class GREOnLoopbackTest : public support::NetworkNamespace {};

TEST_F(GREOnLoopbackTest, HearsThem) {
  const in_addr self{htonl(INADDR_LOOPBACK)};
  auto listener = GREListener::open(self);
  ASSERT_TRUE(listener) << listener.error().message;
  EXPECT_FALSE(listener->hears(kCall, Deadline(milliseconds(1))));
  const vpnctl::FileDescriptor server(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_GRE));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr = self;
  const auto send = [&](const std::vector<std::uint8_t> &bytes) {
    EXPECT_EQ(
        ::sendto(server.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&address), sizeof address),
        static_cast<ssize_t>(bytes.size()));
  };
  auto other = kGRE;
  other[7] = 0;
  send(other);
  send(kGRE);
  EXPECT_TRUE(listener->hears(kCall, Deadline(std::chrono::seconds(10))));
  EXPECT_FALSE(listener->hears(kCall, Deadline(milliseconds(1)))) << "nothing is counted twice";
}

}  // namespace
