// Against the kernel's own answers, in namespaces of the test's own.

#include "companions/probe/EchoSocket.h"
#include "helper/common/IPv4Address.h"
#include "tests/companions/probe/RoutedNetwork.h"

using namespace companions;

namespace {

class EchoSocketTest : public support::RoutedNetwork {
 protected:
  static constexpr std::chrono::seconds kPatience{20};

  static in_addr server() { return {htonl(kServer)}; }
};

TEST_F(EchoSocketTest, IsAnsweredAtFullSize) {
  auto socket = EchoSocket::open(server());
  ASSERT_TRUE(socket) << socket.error().message;
  for (const int size : {EchoSocket::kHeaders, 576, kNarrow}) {
    ASSERT_TRUE(socket->send(size, static_cast<std::uint16_t>(size)));
    const auto received = socket->receive(Deadline(kPatience));
    const auto *reply = std::get_if<EchoSocket::Reply>(&received);
    ASSERT_NE(reply, nullptr) << size;
    EXPECT_EQ(reply->size, size);
    EXPECT_EQ(reply->sequence, size);
  }
}

TEST_F(EchoSocketTest, HearsTheRouter) {
  auto socket = EchoSocket::open(server());
  ASSERT_TRUE(socket);
  ASSERT_TRUE(socket->send(kNarrow + 1, 1));
  const auto received = socket->receive(Deadline(kPatience));
  const auto *report = std::get_if<ICMPReport>(&received);
  ASSERT_NE(report, nullptr);
  EXPECT_TRUE(report->isTooLarge());
  EXPECT_EQ(report->mtu, kNarrow);
  EXPECT_EQ(helper::textOf(report->from), "10.1.0.1");
}

TEST_F(EchoSocketTest, GivesTheInterfaceNothingThatIsTooLarge) {
  auto socket = EchoSocket::open(server());
  ASSERT_TRUE(socket);
  const auto sent = socket->send(1501, 1);
  ASSERT_FALSE(sent);
  EXPECT_EQ(sent.error().code, EMSGSIZE);
}

TEST_F(EchoSocketTest, IsAPingSocketWhereThatIsAllowed) {
  // For every group of every user: root gets one, too.
  ASSERT_NO_FATAL_FAILURE(setHere("ping_group_range", "0 2147483647"));
  auto socket = EchoSocket::open(server());
  ASSERT_TRUE(socket) << socket.error().message;
  ASSERT_TRUE(socket->send(kNarrow, 7));
  const auto received = socket->receive(Deadline(kPatience));
  const auto *reply = std::get_if<EchoSocket::Reply>(&received);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->size, kNarrow);
  EXPECT_EQ(reply->sequence, 7);
  ASSERT_TRUE(socket->send(kNarrow + 1, 8));
  const auto refused = socket->receive(Deadline(kPatience));
  const auto *report = std::get_if<ICMPReport>(&refused);
  ASSERT_NE(report, nullptr);
  EXPECT_EQ(report->mtu, kNarrow);
}

}  // namespace
