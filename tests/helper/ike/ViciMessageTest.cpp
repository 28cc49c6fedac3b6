#include <gtest/gtest.h>

#include "helper/ike/ViciMessage.h"

using namespace helper::vici;
using foundation::Secret;

namespace {

using Bytes = std::vector<std::uint8_t>;

Packet sample() {
  return {PacketType::request, "load",
          Section()
              .add("id", std::string("\x00\xff'", 3))
              .add("owners", Section::List{"10.0.0.1", ""})
              .add("conn", Section().add("inner", Section().add("a", "b").add("a", "c")).add("none", Section::List{}))};
}

Bytes bytesOf(const Packet &packet) {
  const auto bytes = encode(packet);
  EXPECT_TRUE(bytes);
  return {bytes->bytes().begin(), bytes->bytes().end()};
}

TEST(ViciMessageTest, WritesWhatTheWireWants) {
  const Packet packet{PacketType::request, "ab",
                      Section().add("k", "v").add("l", Section::List{"i"}).add("s", Section().add("x", ""))};
  EXPECT_EQ(bytesOf(packet), (Bytes{0, 0, 0,   27, 0, 2,   'a', 'b',  //
                                    3, 1, 'k', 0,  1, 'v',            //
                                    4, 1, 'l', 5,  0, 1,   'i', 6,    //
                                    1, 1, 's', 3,  1, 'x', 0,   0,   2}));
}

TEST(ViciMessageTest, KeepsEverything) {
  PacketReader reader;
  reader.append(bytesOf(sample()));
  const auto packet = reader.next();
  ASSERT_TRUE(packet && packet->has_value());
  EXPECT_EQ(**packet, sample());
  EXPECT_FALSE(reader.next()->has_value());
}

TEST(ViciMessageTest, WritesASecretAsAValue) {
  const Packet secret{PacketType::request, "x", Section().add("data", Secret(std::string_view("s\0p", 3)))};
  const Packet text{PacketType::request, "x", Section().add("data", std::string("s\0p", 3))};
  EXPECT_EQ(bytesOf(secret), bytesOf(text));
}

TEST(ViciMessageTest, EveryTypeHasItsParts) {
  for (int type = 0; type <= 7; ++type) {
    Packet packet{static_cast<PacketType>(type), "", {}};
    const bool named = type == 0 || type == 3 || type == 4 || type == 7;
    if (named) packet.name = "n";
    if (type == 0 || type == 1 || type == 7) packet.message.add("k", "v");
    PacketReader reader;
    reader.append(bytesOf(packet));
    const auto read = reader.next();
    ASSERT_TRUE(read && read->has_value()) << type;
    EXPECT_EQ(**read, packet) << type;
  }
}

TEST(ViciMessageTest, DoesNotCareHowTheStreamIsCut) {
  Bytes stream = bytesOf(sample());
  const Bytes second = bytesOf({PacketType::confirmation, "", {}});
  stream.insert(stream.end(), second.begin(), second.end());
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    PacketReader reader;
    std::vector<Packet> packets;
    for (const auto part : {std::span(stream).first(cut), std::span(stream).subspan(cut)}) {
      reader.append(part);
      for (auto next = reader.next(); next && next->has_value(); next = reader.next()) packets.push_back(**next);
    }
    ASSERT_EQ(packets.size(), 2U) << cut;
    EXPECT_EQ(packets[0], sample()) << cut;
  }
}

TEST(ViciMessageTest, APacketCutShortIsAnError) {
  const Bytes whole = bytesOf(sample());
  // The length, the type, the name and whole elements may stand for themselves; everything else is half of something.
  const auto inside = std::span(whole).subspan(4);
  std::size_t accepted = 0;
  for (std::size_t size = 0; size < inside.size(); ++size) accepted += decode(inside.first(size)) ? 1 : 0;
  EXPECT_EQ(accepted, 3U);  // no element, one, two
}

TEST(ViciMessageTest, RefusesWhatMakesNoSense) {
  for (const Bytes &bytes : std::vector<Bytes>{
           {},                                  // no type
           {8},                                 // no such type
           {5, 0},                              // a confirmation says nothing
           {1, 2},                              // the end of a section that has not begun
           {1, 5, 0, 0},                        // an item outside of a list
           {1, 6},                              // the end of a list
           {1, 4, 1, 'l', 3, 1, 'k', 0, 0, 6},  // a pair in a list
           {1, 4, 1, 'l', 4, 1, 'm', 6, 6},     // a list in a list
           {1, 0},                              // no such element
           {1, 7},
       })
    EXPECT_FALSE(decode(bytes)) << ::testing::PrintToString(bytes);
  PacketReader reader;
  reader.append(Bytes{0, 8, 0, 1});
  EXPECT_FALSE(reader.next());
}

TEST(ViciMessageTest, NestsOnlySoDeep) {
  const auto nested = [](std::size_t depth) {
    Section section;
    for (std::size_t level = 0; level < depth; ++level) section = Section().add("s", section);
    return Packet{PacketType::response, "", section};
  };
  const Bytes deepest = bytesOf(nested(kDeepest));
  EXPECT_TRUE(decode(std::span(deepest).subspan(4)));
  EXPECT_FALSE(encode(nested(kDeepest + 1)));
  Bytes bytes{1};
  for (std::size_t level = 0; level < 100000; ++level) bytes.insert(bytes.end(), {1, 0});
  EXPECT_FALSE(decode(bytes));
}

TEST(ViciMessageTest, WritesNothingTooLong) {
  const auto packet = [](std::string name, std::string value) {
    return Packet{PacketType::request, "x", Section().add(std::move(name), std::move(value))};
  };
  EXPECT_TRUE(encode(packet(std::string(255, 'n'), std::string(65535, 'v'))));
  EXPECT_FALSE(encode(packet(std::string(256, 'n'), "v")));
  EXPECT_FALSE(encode(packet("n", std::string(65536, 'v'))));
  Section large;
  for (int i = 0; i < 9; ++i) large.add("n", std::string(65535, 'v'));
  const auto refused = encode(Packet{PacketType::request, "x", large});
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message, "the message x is too long for the IKE daemon");
}

TEST(ViciMessageTest, FindsByNameAndKind) {
  const Section message = sample().message;
  EXPECT_EQ(message.value("id").size(), 3U);
  EXPECT_EQ(message.list("owners").size(), 2U);
  EXPECT_EQ(message.section("conn").section("inner").value("a"), "b");
  EXPECT_EQ(message.value("owners"), "");
  EXPECT_TRUE(message.list("id").empty());
  EXPECT_TRUE(message.section("nobody").elements().empty());
}

}  // namespace
