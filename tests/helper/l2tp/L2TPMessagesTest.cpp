#include <gtest/gtest.h>

#include "helper/l2tp/L2TPMessages.h"

using namespace helper::l2tp;

namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<Message> oneOfEach() {
  return {SCCRQ{0x0100, 3, 1, "client", 0x8001, 8},
          SCCRP{0x0100, 3, "server", 0xfffe, 16, {1, 2, 3}},
          SCCCN{},
          StopCCN{7, {2, 8, "go away"}},
          Hello{},
          ICRQ{0x7fff, 99},
          ICRP{0x8000},
          ICCN{100000000, 1},
          CDN{5, {3, 0, ""}},
          ZLB{},
          OtherMessage{15, true},
          OtherMessage{77, false}};
}

void append(Bytes &bytes, const Bytes &more) { bytes.insert(bytes.end(), more.begin(), more.end()); }

// An attribute as a stranger may write it.
Bytes avp(std::uint16_t flags, std::uint16_t vendor, std::uint16_t attribute, const Bytes &value) {
  const auto first = static_cast<std::uint16_t>(flags | (6 + value.size()));
  Bytes bytes;
  for (const std::uint16_t word : {first, vendor, attribute}) {
    bytes.push_back(static_cast<std::uint8_t>(word >> 8));
    bytes.push_back(static_cast<std::uint8_t>(word));
  }
  append(bytes, value);
  return bytes;
}
constexpr std::uint16_t kMandatory = 0x8000;
constexpr std::uint16_t kHidden = 0x4000;
Bytes type(std::uint8_t number, std::uint16_t flags = kMandatory) { return avp(flags, 0, 0, {0, number}); }

TEST(L2TPMessages, ComeBackAsTheyWere) {
  for (const Message &message : oneOfEach()) {
    const auto decoded = decodeBody(encodeBody(message));
    ASSERT_TRUE(decoded) << decoded.error().message;
    EXPECT_EQ(*decoded, message) << "index " << message.index();
  }
}

TEST(L2TPMessages, AreLaidOutAsOnTheWire) {
  const Bytes expected{0xc8, 0x02, 0, 46, 0x12, 0x34, 0,    0, 0, 1, 0,   2,  // header
                       0x80, 8,    0, 0,  0,    0,    0,    4,                // StopCCN
                       0x80, 8,    0, 0,  0,    9,    0x80, 1,                // assigned tunnel id
                       0x80, 18,   0, 0,  0,    1,    0,    2, 0, 6, 'v', 'e', 'n', 'd', 'o', 'r', '!', '!'};
  Bytes body = encodeBody(StopCCN{0x8001, {2, 6, "vendor!!"}});
  EXPECT_EQ(encode(Header{0x1234, 0, 1, 2}, body), expected);
}

TEST(L2TPMessages, AreWholeOrRefused) {
  for (const Message &message : oneOfEach()) {
    const Bytes datagram = encode(Header{1, 2, 3, 4}, encodeBody(message));
    for (std::size_t size = 0; size < datagram.size(); ++size)
      EXPECT_FALSE(decodePacket(std::span(datagram).first(size))) << message.index() << " cut to " << size;
    const auto packet = decodePacket(datagram);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->header, (Header{1, 2, 3, 4}));
    EXPECT_EQ(packet->body.size(), datagram.size() - 12);
  }
}

// The length of the header makes a cut message whole; then the attributes tell.
TEST(L2TPMessages, AreRefusedWhenTheirBodyIsCut) {
  for (const Message &message : oneOfEach()) {
    const Bytes body = encodeBody(message);
    for (std::size_t size = 1; size < body.size(); ++size) {
      const auto decoded = decodeBody(std::span(body).first(size));
      // A cut between two attributes leaves a message, if none that must be there is missing.
      if (decoded) {
        EXPECT_GE(size, 8U);
        EXPECT_EQ(decoded->index(), message.index()) << "cut to " << size;
      } else {
        EXPECT_TRUE(decoded.error().code == kErrorLength || decoded.error().code == kErrorValue);
      }
    }
  }
}

TEST(L2TPMessages, LeaveOutPadding) {
  Bytes datagram = encode(Header{1, 2, 3, 4}, encodeBody(Hello{}));
  append(datagram, Bytes(20, 0));
  const auto packet = decodePacket(datagram);
  ASSERT_TRUE(packet);
  EXPECT_EQ(decodeBody(packet->body).value(), Message(Hello{}));
}

TEST(L2TPMessages, AreNotTheOtherThingsOnThePort) {
  const Bytes good = encode(Header{}, {});
  struct Row {
    const char *what;
    std::size_t at;
    std::uint8_t byte;
  };
  for (const Row &row : {Row{"data", 0, 0x48}, Row{"version 3", 1, 3}, Row{"version 1", 1, 1},
                         Row{"no length", 0, 0x88}, Row{"no sequence numbers", 0, 0xc0}, Row{"offset", 0, 0xca},
                         Row{"short length", 3, 11}, Row{"long length", 3, 13}}) {
    Bytes bad = good;
    bad[row.at] = row.byte;
    EXPECT_FALSE(decodePacket(bad)) << row.what;
  }
}

struct BodyRow {
  const char *what;
  Bytes more;  // after a Hello's type
  int error;   // 0: fine
};

class L2TPAttributes : public testing::TestWithParam<BodyRow> {};

TEST_P(L2TPAttributes, AreIgnoredOrEndTheTunnel) {
  Bytes body = type(6);
  append(body, GetParam().more);
  const auto decoded = decodeBody(body);
  if (GetParam().error == 0) {
    ASSERT_TRUE(decoded) << decoded.error().message;
    EXPECT_EQ(*decoded, Message(Hello{}));
  } else {
    ASSERT_FALSE(decoded);
    EXPECT_EQ(decoded.error().code, GetParam().error);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, L2TPAttributes,
    testing::Values(BodyRow{"KnownButOutOfPlace", avp(kMandatory, 0, 34, Bytes(26, 0)), 0},
                    BodyRow{"Unknown", avp(0, 0, 200, {1}), 0},
                    BodyRow{"UnknownMandatory", avp(kMandatory, 0, 200, {1}), kErrorUnknownAVP},
                    BodyRow{"UnassignedMandatory", avp(kMandatory, 0, 20, {}), kErrorUnknownAVP},
                    BodyRow{"Vendors", avp(0, 9, 1, {1}), 0},
                    BodyRow{"VendorsMandatory", avp(kMandatory, 9, 1, {1}), kErrorUnknownAVP},
                    BodyRow{"Hidden", avp(kHidden, 0, 7, Bytes(18, 1)), 0},
                    BodyRow{"HiddenMandatory", avp(kMandatory | kHidden, 0, 7, Bytes(18, 1)), kErrorUnknownAVP},
                    BodyRow{"RandomVector", avp(kMandatory, 0, 36, {1, 2, 3, 4}), 0},
                    BodyRow{"ReservedBits", avp(0x2000, 0, 7, {'x'}), 0},
                    BodyRow{"ReservedBitsMandatory", avp(kMandatory | 0x0400, 0, 7, {'x'}), kErrorUnknownAVP},
                    BodyRow{"TooShort", {0x80, 5, 0, 0, 0, 7}, kErrorLength},
                    BodyRow{"TooLong", {0x80, 7, 0, 0, 0, 7}, kErrorLength},
                    BodyRow{"HalfAHeader", {0x80, 6, 0}, kErrorLength}),
    [](const auto &row) { return row.param.what; });

TEST(L2TPMessages, HaveAttributesOfTheRightLength) {
  struct Row {
    std::uint8_t type;
    std::uint16_t attribute;
    std::size_t size;
  };
  for (const Row &row : {Row{2, 9, 1}, Row{2, 9, 3}, Row{2, 10, 4}, Row{2, 11, 0}, Row{2, 2, 0}, Row{4, 1, 1},
                         Row{12, 24, 2}, Row{10, 14, 4}}) {
    Bytes body = type(row.type);
    append(body, avp(kMandatory, 0, row.attribute, Bytes(row.size, 1)));
    append(body, avp(kMandatory, 0, 9, {0, 1}));  // of two, the first counts
    const auto decoded = decodeBody(body);
    ASSERT_FALSE(decoded) << row.attribute << " of " << row.size;
    EXPECT_EQ(decoded.error().code, kErrorLength);
  }
}

TEST(L2TPMessages, NeedTheSendersId) {
  for (const std::uint8_t number : Bytes{1, 2, 10, 11}) {
    const auto missing = decodeBody(type(number));
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().code, kErrorValue);
    Bytes zero = type(number);
    append(zero, avp(kMandatory, 0, number < 10 ? 9 : 14, {0, 0}));
    EXPECT_FALSE(decodeBody(zero));
  }
  EXPECT_EQ(decodeBody(type(14)).value(), Message(CDN{}));
  EXPECT_EQ(decodeBody(type(4)).value(), Message(StopCCN{}));
}

TEST(L2TPMessages, BeginWithTheirType) {
  for (const Bytes &body : {avp(kMandatory, 0, 7, {'x', 'y'}), avp(kMandatory | kHidden, 0, 0, {0, 6}),
                            avp(kMandatory, 9, 0, {0, 6}), avp(kMandatory, 0, 0, {6})})
    EXPECT_FALSE(decodeBody(body));
}

TEST(L2TPMessages, OfALaterDayAreToldWhateverTheyHold) {
  Bytes body = type(99, 0);
  append(body, avp(kMandatory, 0, 200, {1}));
  EXPECT_EQ(decodeBody(body).value(), Message(OtherMessage{99, false}));
  for (const std::uint8_t known : Bytes{7, 8, 9, 15, 16}) EXPECT_TRUE((OtherMessage{known, true}.known())) << known;
  for (const std::uint8_t unknown : Bytes{0, 5, 13, 17, 99})
    EXPECT_FALSE((OtherMessage{unknown, true}.known())) << unknown;
}

TEST(L2TPMessages, TellTheServersWordsInPlainASCII) {
  const std::string words = "Zug\xc3\xa4nge\nvoll\x7f";
  Bytes value{0, 4, 0, 0};
  value.insert(value.end(), words.begin(), words.end());
  Bytes body = type(14);
  append(body, avp(kMandatory, 0, 1, value));
  EXPECT_EQ(std::get<CDN>(decodeBody(body).value()).result, (ResultCode{4, 0, "Zug??nge?voll?"}));
  Bytes shortOne = type(14);
  append(shortOne, avp(kMandatory, 0, 1, {0, 9}));
  EXPECT_EQ(std::get<CDN>(decodeBody(shortOne).value()).result, (ResultCode{9, 0, ""}));
  const CDN longOne{1, {2, 6, std::string(900, 'x')}};
  EXPECT_EQ(std::get<CDN>(decodeBody(encodeBody(longOne)).value()).result.message, std::string(200, 'x'));
}

}  // namespace
