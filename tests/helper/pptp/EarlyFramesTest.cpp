#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "helper/pptp/EarlyFrames.h"

using namespace helper;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint16_t kCall = 0x1234;
const in_addr kServer{htonl(INADDR_LOOPBACK)};
const Bytes kRequest{0xff, 0x03, 0xc0, 0x21, 1, 7, 0, 8, 1, 4, 5, 220};

Bytes gre(const Bytes &frame, std::uint16_t call = kCall, std::uint16_t flags = 0x3001) {
  Bytes bytes{static_cast<std::uint8_t>(flags >> 8),
              static_cast<std::uint8_t>(flags & 0xff),
              0x88,
              0x0b,
              0,
              static_cast<std::uint8_t>(frame.size()),
              static_cast<std::uint8_t>(call >> 8),
              static_cast<std::uint8_t>(call & 0xff)};
  for (const unsigned flag : {0x1000U, 0x0080U})
    if ((flags & flag) != 0) bytes.insert(bytes.end(), {0, 0, 0, 9});
  bytes.insert(bytes.end(), frame.begin(), frame.end());
  return bytes;
}

Bytes withIP(const Bytes &packet, std::uint8_t words = 5) {
  Bytes bytes(words * 4U, 0);
  bytes[0] = static_cast<std::uint8_t>(0x40 | words);
  bytes[12] = 127;
  bytes[15] = 1;
  bytes.insert(bytes.end(), packet.begin(), packet.end());
  return bytes;
}

Bytes requestIn(const Bytes &packet) { return linkRequestIn(packet, kServer, kCall); }

TEST(EarlyFrames, AreRequestsForLCP) {
  EXPECT_EQ(requestIn(withIP(gre(kRequest))), kRequest);
  EXPECT_EQ(requestIn(withIP(gre(kRequest), 8)), kRequest) << "with options in the IPv4 header";
  EXPECT_EQ(requestIn(withIP(gre(kRequest, kCall, 0x3081))), kRequest) << "with an acknowledgement";
  const Bytes bare(kRequest.begin() + 2, kRequest.end());
  EXPECT_EQ(requestIn(withIP(gre(bare))), kRequest) << "without address and control";
}

TEST(EarlyFrames, AreNothingElse) {
  EXPECT_EQ(requestIn(withIP(gre(kRequest, kCall + 1))), Bytes());
  EXPECT_EQ(linkRequestIn(withIP(gre(kRequest)), in_addr{htonl(0x7f000002)}, kCall), Bytes());
  Bytes other = withIP(gre(kRequest));
  other[22] = 0x08;  // IPv4 in GRE
  EXPECT_EQ(requestIn(other), Bytes());
  for (const std::size_t at : {2U, 3U, 4U}) {
    Bytes frame = kRequest;
    frame[at] ^= 1;
    EXPECT_EQ(requestIn(withIP(gre(frame))), Bytes()) << at;
  }
  EXPECT_EQ(requestIn(withIP(gre({}, kCall, 0x2081))), Bytes()) << "only an acknowledgement";
  EXPECT_EQ(requestIn(withIP(gre(Bytes(300, 1)))), Bytes());
}

TEST(EarlyFrames, EndWithTheirPacket) {
  const Bytes whole = withIP(gre(kRequest, kCall, 0x3081));
  for (std::size_t size = 0; size < whole.size(); ++size)
    EXPECT_EQ(requestIn(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))), Bytes()) << size;
}

class EarlyFramesOverLoopback : public ::testing::Test {
 protected:
  void SetUp() override {
    sender_.reset(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_GRE));
    if (!sender_) GTEST_SKIP() << "no raw sockets here";
  }
  void send(const Bytes &packet) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr = kServer;
    ASSERT_EQ(
        ::sendto(sender_.get(), packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
        static_cast<ssize_t>(packet.size()));
  }
  vpnctl::FileDescriptor sender_;
};

TEST_F(EarlyFramesOverLoopback, AreHeardUntilTheyAreTaken) {
  auto early = EarlyFrames::listen(kCall);
  ASSERT_TRUE(early);
  EXPECT_EQ(early->takeLinkRequest(kServer), Bytes());
  Bytes later = kRequest;
  later[5] = 8;
  send(gre(kRequest));
  send(gre(later));
  send(gre(Bytes{0xff, 0x03, 0xc0, 0x21, 9, 1, 0, 4}));
  for (int i = 0; i < 200; ++i) send(gre(kRequest, kCall + 1));
  EXPECT_EQ(early->takeLinkRequest(kServer), later) << "the last of this call";
  EXPECT_EQ(early->takeLinkRequest(kServer), Bytes());
}

}  // namespace
