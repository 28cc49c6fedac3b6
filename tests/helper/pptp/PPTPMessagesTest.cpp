#include <gtest/gtest.h>

#include "helper/pptp/PPTPMessages.h"

using namespace helper::pptp;

namespace {

std::vector<Message> oneOfEach() {
  return {StartRequest{0x0100, 3, 1, 7, 9, "client", "vendor"},
          StartReply{0x0100, 1, 2, 3, 4, 5, 6, "server", "maker"},
          StopRequest{3},
          StopReply{1, 2},
          EchoRequest{0xdeadbeef},
          EchoReply{0xdeadbeef, 1, 4},
          OutgoingCallRequest{1, 2, 3, 4, 5, 6, 7, 8, "555", "9"},
          OutgoingCallReply{0x8001, 0x7ffe, 1, 0, 3, 100000, 64, 1, 77},
          CallClearRequest{0xfffe},
          CallDisconnectNotify{5, 4, 3, 2},
          SetLinkInfo{6, 0xffffffff, 0x000a0000},
          OtherMessage{9}};
}

std::vector<std::uint8_t> joined(const std::vector<Message> &messages) {
  std::vector<std::uint8_t> bytes;
  for (const Message &message : messages) {
    const auto part = encode(message);
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  return bytes;
}

TEST(PPTPMessages, ComeBackAsTheyWere) {
  for (const Message &message : oneOfEach()) {
    const auto decoded = decode(encode(message));
    ASSERT_TRUE(decoded) << decoded.error().message;
    EXPECT_EQ(*decoded, message) << "index " << message.index();
  }
}

// RFC 2637, sections 2.1 to 2.15: the lengths and the fixed fields.
TEST(PPTPMessages, HaveTheLengthsOfTheProtocol) {
  const std::vector<std::size_t> lengths{156, 156, 16, 16, 16, 20, 168, 32, 16, 148, 24, 12};
  const auto messages = oneOfEach();
  for (std::size_t i = 0; i < messages.size(); ++i) EXPECT_EQ(encode(messages[i]).size(), lengths[i]) << i;
}

TEST(PPTPMessages, AreLaidOutAsOnTheWire) {
  const std::vector<std::uint8_t> expected{0, 32, 0, 1, 0x1a, 0x2b, 0x3c, 0x4d, 0, 8,  0, 0, 0x80, 1, 0x7f, 0xfe,
                                           1, 0,  0, 3, 0,    1,    0x86, 0xa0, 0, 64, 0, 1, 0,    0, 0,    77};
  EXPECT_EQ(encode(OutgoingCallReply{0x8001, 0x7ffe, 1, 0, 3, 100000, 64, 1, 77}), expected);
}

TEST(PPTPMessages, CutNamesToTheirField) {
  StartRequest request;
  request.hostName = std::string(100, 'x');
  const auto decoded = decode(encode(request));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(std::get<StartRequest>(*decoded).hostName, std::string(64, 'x'));
}

TEST(PPTPMessages, AreRefusedWhenAnythingIsWrong) {
  const auto good = encode(EchoRequest{1});
  for (const std::size_t position : {2U, 3U, 4U, 5U, 6U, 7U}) {  // kind and magic cookie
    auto bad = good;
    bad[position] = static_cast<std::uint8_t>(bad[position] ^ 0x40);
    EXPECT_FALSE(decode(bad)) << position;
  }
  for (const std::size_t size : {0U, 11U, 12U, 15U}) {
    auto bad = good;
    bad.resize(size);
    EXPECT_FALSE(decode(bad)) << size;
    if (size < 12) continue;
    bad[1] = static_cast<std::uint8_t>(size);  // consistent with itself, not with its type
    EXPECT_FALSE(decode(bad)) << size;
  }
}

TEST(PPTPMessageReader, TakesMessagesSplitAtEveryByte) {
  const auto messages = oneOfEach();
  const auto bytes = joined(messages);
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    MessageReader reader;
    std::vector<Message> read;
    for (const auto part : {std::span(bytes).first(cut), std::span(bytes).subspan(cut)}) {
      reader.append(part);
      while (true) {
        const auto next = reader.next();
        ASSERT_TRUE(next);
        if (!next->has_value()) break;
        read.push_back(**next);
      }
    }
    ASSERT_EQ(read, messages) << "cut at " << cut;
  }
}

TEST(PPTPMessageReader, TakesMessagesInSmallPieces) {
  const auto messages = oneOfEach();
  const auto bytes = joined(messages);
  for (const std::size_t step : {1U, 2U, 3U, 7U}) {
    MessageReader reader;
    std::vector<Message> read;
    for (std::size_t at = 0; at < bytes.size(); at += step) {
      reader.append(std::span(bytes).subspan(at, std::min(step, bytes.size() - at)));
      for (auto next = reader.next(); next && next->has_value(); next = reader.next()) read.push_back(**next);
    }
    EXPECT_EQ(read, messages) << "step " << step;
  }
}

TEST(PPTPMessageReader, RefusesAnImpossibleLengthBeforeTheRestArrives) {
  MessageReader reader;
  auto bytes = encode(EchoRequest{1});
  bytes[0] = 0xff;
  reader.append(std::span(bytes).first(12));
  EXPECT_FALSE(reader.next());
}

}  // namespace
