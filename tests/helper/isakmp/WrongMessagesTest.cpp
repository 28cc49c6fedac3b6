// Messages of a server, or of whoever plays it, that count for nothing while an association comes up.

#include <gtest/gtest.h>

#include "tests/helper/isakmp/Conversation.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

using enum CipherAlgorithm;
using enum HashAlgorithm;
using enum Group;
using enum PayloadType;
using std::chrono::seconds;

constexpr seconds kLong{60};

Bytes &bodyOf(PayloadList &list, PayloadType type, std::size_t index = 0) {
  for (auto &[t, body] : list)
    if (t == type && index-- == 0) return body;
  static Bytes nobody;
  ADD_FAILURE() << "no such payload";
  return nobody;
}
void removeAll(PayloadList &list, PayloadType type) {
  std::erase_if(
      list, [&](const auto &payload) { return payload.first == type; });
}

// What a message has that it may not: it counts for nothing, for whatever reason, and what is genuine still counts.
struct EditRow {
  const char *name;
  Message message;
  void (*edit)(PayloadList &);
  const char *why;
};

class WrongMessage : public testing::TestWithParam<EditRow> {};

TEST_P(WrongMessage, CountsForNothing) {
  const EditRow &row = GetParam();
  TestServerOptions options = usualServer();
  options.edit = [&](Message message, PayloadList &list) {
    if (message == row.message) row.edit(list);
  };
  Plan plan = usualPlan();
  plan.peerIdentity = Identification::of({10, 9, 0, 1});
  plan.esp = {{aes256, sha1, ecp256}};
  options.esp = plan.esp[0];
  Conversation conversation(plan, options);
  conversation.start();
  EXPECT_TRUE(conversation.dropped(row.why)) << conversation.drops();
  conversation.pass(kLong);
  EXPECT_EQ(conversation.count<Established>(), 0U);
  EXPECT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_TRUE(conversation.states().empty());
}

void setAttribute(PayloadList &list, std::uint16_t type, std::uint64_t value) {
  Bytes &body = bodyOf(list, securityAssociation);
  SecurityAssociation association = *decodeSecurityAssociation(body);
  for (Attribute &attribute : association.proposals[0].transforms[0].attributes)
    if (attribute.type == type) attribute.value = value;
  body = encode(association);
}
void changeAssociation(PayloadList &list, void (*change)(SecurityAssociation &)) {
  Bytes &body = bodyOf(list, securityAssociation);
  SecurityAssociation association = *decodeSecurityAssociation(body);
  change(association);
  body = encode(association);
}
void setFlow(PayloadList &list, std::size_t index, const Identification &flow) {
  bodyOf(list, identification, index) = encode(flow);
}

const EditRow kWrongMessages[] = {
    {"choice_of_a_weaker_group", Message::choice, [](PayloadList &l) { setAttribute(l, 4, 2); },
     "a transform that was not offered"},
    {"choice_of_XAUTH", Message::choice, [](PayloadList &l) { setAttribute(l, 3, 65001); },
     "a transform that was not offered"},
    {"choice_of_a_shorter_key", Message::choice, [](PayloadList &l) { setAttribute(l, 14, 128); },
     "a transform that was not offered"},
    {"two_choices", Message::choice,
     [](PayloadList &l) {
       changeAssociation(
           l, [](SecurityAssociation &a) { a.proposals[0].transforms.push_back(a.proposals[0].transforms[0]); });
     },
     "not exactly one transform"},
    {"choice_missing", Message::choice, [](PayloadList &l) { removeAll(l, securityAssociation); },
     "without payload type 1"},
    {"choice_with_a_key", Message::choice, [](PayloadList &l) { l.emplace_back(keyExchange, sequence(0, 64)); },
     "unexpected payload type 4"},
    {"choice_with_an_unknown_payload", Message::choice,
     [](PayloadList &l) { l.emplace_back(static_cast<PayloadType>(132), sequence(0, 8)); }, "unknown payload type 132"},
    {"half_missing", Message::half, [](PayloadList &l) { removeAll(l, keyExchange); }, "without payload type 4"},
    {"nonce_missing", Message::half, [](PayloadList &l) { removeAll(l, nonce); }, "without payload type 10"},
    {"nonce_short", Message::half, [](PayloadList &l) { bodyOf(l, nonce).resize(7); }, "a nonce of the wrong size"},
    {"nonce_long", Message::half, [](PayloadList &l) { bodyOf(l, nonce).resize(257); }, "a nonce of the wrong size"},
    {"half_short", Message::half, [](PayloadList &l) { bodyOf(l, keyExchange).pop_back(); },
     "a public value of the wrong size"},
    {"half_of_no_point", Message::half, [](PayloadList &l) { bodyOf(l, keyExchange).back() ^= 1; },
     "a public value that is no point of the curve"},
    {"half_of_zeros", Message::half, [](PayloadList &l) { bodyOf(l, keyExchange).assign(64, 0); },
     "a public value that is no point of the curve"},
    {"one_address", Message::half, [](PayloadList &l) { l.pop_back(); }, "only one address to detect a NAT by"},
    {"half_with_a_proof", Message::half, [](PayloadList &l) { l.emplace_back(hash, sequence(0, 20)); },
     "unexpected payload type 8"},
    {"another_server", Message::proof,
     [](PayloadList &l) {
       bodyOf(l, identification) = encode(Identification::of({10, 9, 0, 9}));
     },
     "it calls itself \"10.9.0.9\""},
    {"another_kind_of_name", Message::proof,
     [](PayloadList &l) { bodyOf(l, identification) = fromHex("0b0000000a090001"); }, "it calls itself \"@????\""},
    {"a_longer_name", Message::proof, [](PayloadList &l) { bodyOf(l, identification) = fromHex("010000000a09000101"); },
     "an address of the wrong length"},
    {"strange_port", Message::proof, [](PayloadList &l) { bodyOf(l, identification) = fromHex("011101f50a090001"); },
     "an identity with a strange port"},
    {"strange_protocol", Message::proof,
     [](PayloadList &l) { bodyOf(l, identification) = fromHex("010600000a090001"); },
     "an identity with a strange protocol"},
    {"two_names", Message::proof,
     [](PayloadList &l) {
       l.emplace_back(identification, encode(Identification::of({10, 9, 0, 1})));
     },
     "two identifications"},
    {"certificate", Message::proof, [](PayloadList &l) { l.emplace_back(signature, sequence(0, 20)); },
     "it proves itself with a certificate"},
    {"tunnel_mode", Message::quickAnswer, [](PayloadList &l) { setAttribute(l, 4, 1); },
     "a transform that was not offered"},
    {"another_integrity", Message::quickAnswer, [](PayloadList &l) { setAttribute(l, 5, 1); },
     "a transform that was not offered"},
    {"dropped_secrecy", Message::quickAnswer,
     [](PayloadList &l) {
       removeAll(l, keyExchange);
       changeAssociation(
           l,
           [](SecurityAssociation &a) {
             std::erase_if(
                 a.proposals[0].transforms[0].attributes, [](const Attribute &x) { return x.type == 3; });
           });
     },
     "a transform that was not offered"},
    {"dropped_key", Message::quickAnswer, [](PayloadList &l) { removeAll(l, keyExchange); },
     "without its half of the key"},
    {"key_of_no_point", Message::quickAnswer, [](PayloadList &l) { bodyOf(l, keyExchange).back() ^= 1; },
     "a public value that is no point of the curve"},
    {"impossible_SPI", Message::quickAnswer,
     [](PayloadList &l) {
       changeAssociation(
           l,
           [](SecurityAssociation &a) {
             a.proposals[0].spi = {0, 0, 0, 1};
           });
     },
     "an SPI that cannot be"},
    {"other_protocol", Message::quickAnswer,
     [](PayloadList &l) {
       changeAssociation(
           l, [](SecurityAssociation &a) { a.proposals[0].protocol = 2; });
     },
     "a proposal for another protocol"},
    {"one_side_of_the_flow", Message::quickAnswer, [](PayloadList &l) { l.pop_back(); },
     "not exactly two identifications"},
    {"no_flow", Message::quickAnswer, [](PayloadList &l) { removeAll(l, identification); }, "without payload type 5"},
    {"flow_of_another", Message::quickAnswer,
     [](PayloadList &l) {
       setFlow(l, 0, Identification::of({10, 9, 0, 3}, 17, 1701));
     },
     "other packets than we asked for"},
    {"flow_to_another", Message::quickAnswer,
     [](PayloadList &l) {
       setFlow(l, 1, Identification::of({10, 9, 0, 3}, 17, 1701));
     },
     "other packets than we asked for"},
    {"flow_of_any_port", Message::quickAnswer,
     [](PayloadList &l) {
       setFlow(l, 0, Identification::of({10, 9, 0, 2}, 17, 0));
     },
     "other packets than we asked for"},
    {"flow_of_another_port", Message::quickAnswer,
     [](PayloadList &l) {
       setFlow(l, 1, Identification::of({10, 9, 0, 1}, 17, 1702));
     },
     "other packets than we asked for"},
    {"flow_of_another_protocol", Message::quickAnswer,
     [](PayloadList &l) {
       setFlow(l, 1, Identification::of({10, 9, 0, 1}, 6, 1701));
     },
     "other packets than we asked for"},
    {"flow_of_a_network", Message::quickAnswer,
     [](PayloadList &l) { bodyOf(l, identification, 1) = fromHex("041106a50a09000100000000"); },
     "other packets than we asked for"},
    {"quick_nonce_short", Message::quickAnswer, [](PayloadList &l) { bodyOf(l, nonce).resize(7); },
     "a nonce of the wrong size"},
    {"certificate_in_quick_mode", Message::quickAnswer,
     [](PayloadList &l) { l.emplace_back(certificate, sequence(0, 8)); }, "unexpected payload type 6"},
};

INSTANTIATE_TEST_SUITE_P(Each, WrongMessage, testing::ValuesIn(kWrongMessages),
                         [](const auto &row) { return std::string(row.param.name); });

// Our own values back: whoever does not know the secret could have nothing else.
TEST(WrongMessages, ReflectedValues) {
  for (const PayloadType type : {keyExchange, nonce}) {
    TestServerOptions options = usualServer();
    Conversation *there = nullptr;
    options.edit = [&](Message message, PayloadList &list) {
      if (message != Message::half) return;
      const Bytes &sent = there->toServer[1];
      const auto chain =
          PayloadChain::decode(decodeHeader(sent)->first, View(sent).subspan(28), PayloadChain::Padding::none);
      bodyOf(list, type) = copyOf(*chain->find(type));
    };
    Conversation conversation(usualPlan(), options);
    there = &conversation;
    conversation.start();
    EXPECT_TRUE(conversation.dropped(type == nonce ? "our own nonce" : "our own public value")) << conversation.drops();
  }
}

// A wrong hash moves nothing: the genuine message, encrypted behind the same vector, still counts.
TEST(WrongMessages, WrongHashes) {
  for (const std::size_t message : {std::size_t{2}, std::size_t{3}}) {
    Conversation conversation;
    conversation.passes = [message](bool toServer, std::size_t number) { return toServer || number < message; };
    conversation.start();
    const Bytes genuine = conversation.fromServer[message];
    for (std::size_t i = 0; i < genuine.size(); ++i) {
      Bytes forged = genuine;
      forged[i] ^= 0x40;
      conversation.deliver(Send{ServerPort::ike, forged});
    }
    EXPECT_EQ(conversation.count<Established>(), 0U);
    conversation.passes = [](bool, std::size_t) { return true; };
    conversation.deliver(Send{ServerPort::ike, genuine});
    EXPECT_TRUE(conversation.isUp()) << message << conversation.drops();
  }
}

TEST(WrongMessages, ACutMessageIsNone) {
  for (std::size_t message = 0; message < 4; ++message) {
    Conversation conversation;
    conversation.passes = [message](bool toServer, std::size_t number) { return toServer || number < message; };
    conversation.start();
    const Bytes genuine = conversation.fromServer[message];
    for (std::size_t size = 0; size < genuine.size(); ++size) {
      const Bytes cut = copyOf(View(genuine).first(size));
      conversation.deliver(Send{ServerPort::ike, cut});
      if (size < kHeaderSize) continue;
      // With a header that says the shorter size.
      Bytes whole = encodeHeader(*decodeHeader(genuine), size);
      append(whole, View(cut).subspan(kHeaderSize));
      conversation.deliver(Send{ServerPort::ike, whole});
    }
    conversation.passes = [](bool, std::size_t) { return true; };
    conversation.deliver(Send{ServerPort::ike, genuine});
    EXPECT_TRUE(conversation.isUp()) << message << conversation.drops();
  }
}

}  // namespace
}  // namespace helper::isakmp
