#include <gtest/gtest.h>

#include <algorithm>

#include "helper/isakmp/Numbers.h"
#include "helper/isakmp/Transforms.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

using enum CipherAlgorithm;
using enum HashAlgorithm;
using enum Group;
using std::chrono::seconds;

const std::vector<CipherAlgorithm> kCiphers{tripleDES, aes128, aes192, aes256};
const std::vector<HashAlgorithm> kHashes{md5, sha1, sha256, sha384, sha512};
const std::vector<Group> kGroups{modp1024, modp1536, modp2048, modp3072, modp4096, ecp256, ecp384};

std::vector<IKEProposal> everyIKEProposal() {
  std::vector<IKEProposal> proposals;
  for (const auto cipher : kCiphers)
    for (const auto hash : kHashes)
      for (const auto group : kGroups) proposals.push_back({cipher, hash, group});
  return proposals;
}

std::vector<ESPProposal> everyESPProposal() {
  std::vector<ESPProposal> proposals;
  for (const auto cipher : kCiphers)
    for (const auto hash : kHashes) {
      proposals.push_back({cipher, hash, {}});
      for (const auto group : kGroups) proposals.push_back({cipher, hash, group});
    }
  return proposals;
}

TEST(Transforms, OfIKEHaveTheirNumbers) {
  const SecurityAssociation offer =
      offerOf(std::vector<IKEProposal>{{aes256, sha1, modp1024}, {tripleDES, sha512, ecp384}}, seconds(3600));
  EXPECT_EQ(hex(encode(offer)),
            "0000000100000001"
            "0000004c"
            "01010002"
            "03000024"
            "01010000"
            "80010007"
            "80020002"
            "80030001"
            "80040002"
            "800e0100"
            "800b0001"
            "800c0e10"
            "00000020"
            "02010000"
            "80010005"
            "80020006"
            "80030001"
            "80040014"
            "800b0001"
            "800c0e10");
}

TEST(Transforms, OfESPHaveTheirNumbers) {
  const SecurityAssociation offer = offerOf(std::vector<ESPProposal>{{aes128, sha256, modp2048}, {tripleDES, md5, {}}},
                                            61444, 0xc0ffee01, seconds(86400));
  EXPECT_EQ(hex(encode(offer)),
            "0000000100000001"
            "0000004c"
            "01030402"
            "c0ffee01"
            "03000024"
            "010c0000"
            "8003000e"
            "8004f004"
            "80050005"
            "80060080"
            "80010001"
            "0002000400015180"
            "0000001c"
            "02030000"
            "8004f004"
            "80050001"
            "80010001"
            "0002000400015180");
}

TEST(Transforms, ThatWereOfferedMayBeChosen) {
  const auto offered = everyIKEProposal();
  for (const IKEProposal &proposal : offered) {
    const auto choice = checkChoice(offerOf(std::vector{proposal}, seconds(600)), offered);
    ASSERT_TRUE(choice) << proposal.text();
    EXPECT_EQ(choice->proposal, proposal);
    EXPECT_EQ(choice->lifetime, seconds(600));
  }
  const auto offeredESP = everyESPProposal();
  for (const ESPProposal &proposal : offeredESP) {
    const auto choice = checkChoice(offerOf(std::vector{proposal}, 2, 0x100, seconds(600)), offeredESP, 2);
    ASSERT_TRUE(choice) << proposal.text();
    EXPECT_EQ(choice->proposal, proposal);
    EXPECT_EQ(choice->spi, 0x100U);
  }
}

TEST(Transforms, ThatWereNotOfferedMayNotBeChosen) {
  const auto all = everyIKEProposal();
  for (const IKEProposal &proposal : all) {
    std::vector<IKEProposal> others = all;
    std::erase(others, proposal);
    EXPECT_FALSE(checkChoice(offerOf(std::vector{proposal}, seconds(600)), others)) << proposal.text();
    EXPECT_FALSE(choose(offerOf(std::vector{proposal}, seconds(600)), others)) << proposal.text();
  }
  const auto allESP = everyESPProposal();
  for (const ESPProposal &proposal : allESP) {
    std::vector<ESPProposal> others = allESP;
    std::erase(others, proposal);
    EXPECT_FALSE(checkChoice(offerOf(std::vector{proposal}, 2, 0x100, seconds(600)), others, 2)) << proposal.text();
  }
}

// What a server may do to the one transform that it sends back.
struct Row {
  const char *what;
  bool good;
  std::vector<Attribute> (*changed)(std::vector<Attribute>);
};

std::vector<Attribute> with(std::vector<Attribute> attributes, std::vector<Attribute> more) {
  attributes.insert(attributes.end(), more.begin(), more.end());
  return attributes;
}
std::vector<Attribute> without(std::vector<Attribute> attributes, std::uint16_t type) {
  std::erase_if(attributes, [&](const Attribute &a) { return a.type == type; });
  return attributes;
}
std::vector<Attribute> changed(std::vector<Attribute> attributes, std::uint16_t type, std::uint64_t value) {
  for (Attribute &attribute : attributes)
    if (attribute.type == type) attribute.value = value;
  return attributes;
}
using List = std::vector<Attribute>;

class IKEChoiceOf : public testing::TestWithParam<Row> {};

TEST_P(IKEChoiceOf, IsChecked) {
  const std::vector<IKEProposal> offered{{aes256, sha1, modp2048}};
  SecurityAssociation answer = offerOf(offered, seconds(3600));
  Transform &transform = answer.proposals[0].transforms[0];
  transform.attributes = GetParam().changed(transform.attributes);
  EXPECT_EQ(static_cast<bool>(checkChoice(answer, offered)), GetParam().good) << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(Each, IKEChoiceOf,
                         testing::Values(Row{"as it was", true, [](List a) { return a; }},
                                         Row{"another order", true,
                                             [](List a) {
                                               std::rotate(a.begin(), a.begin() + 5, a.end());
                                               return a;
                                             }},
                                         Row{"another lifetime", true, [](List a) { return changed(a, 12, 600); }},
                                         Row{"no lifetime", true, [](List a) { return without(without(a, 11), 12); }},
                                         Row{"kilobytes, too", true,
                                             [](List a) {
                                               return with(a, {{11, 2}, {12, 1000}});
                                             }},
                                         Row{"two lifetimes in seconds", false,
                                             [](List a) {
                                               return with(a, {{11, 1}, {12, 1000}});
                                             }},
                                         Row{"a duration of nothing", false,
                                             [](List a) {
                                               return with(a, {{12, 1000}});
                                             }},
                                         Row{"a unit of nothing", false, [](List a) { return without(a, 12); }},
                                         Row{"an attribute twice", false,
                                             [](List a) {
                                               return with(a, {{1, 7}});
                                             }},
                                         Row{"the weaker one after the other", false,
                                             [](List a) {
                                               return with(a, {{14, 128}});
                                             }},
                                         Row{"a shorter key", false, [](List a) { return changed(a, 14, 128); }},
                                         Row{"no key length", false, [](List a) { return without(a, 14); }},
                                         Row{"another group", false, [](List a) { return changed(a, 4, 2); }},
                                         Row{"no group", false, [](List a) { return without(a, 4); }},
                                         Row{"another hash", false, [](List a) { return changed(a, 2, 1); }},
                                         Row{"another cipher", false, [](List a) { return changed(a, 1, 5); }},
                                         Row{"a value that only looks like it", false,
                                             [](List a) { return changed(a, 1, 0x10007); }},
                                         Row{"XAUTH", false, [](List a) { return changed(a, 3, 65001); }},
                                         Row{"signatures", false, [](List a) { return changed(a, 3, 3); }},
                                         Row{"no way of authentication", false, [](List a) { return without(a, 3); }},
                                         Row{"one that was not asked for", false,
                                             [](List a) {
                                               return with(a, {{13, 1}});
                                             }},
                                         Row{"nothing", false, [](List) { return List{}; }}));

class ESPChoiceOf : public testing::TestWithParam<Row> {};

TEST_P(ESPChoiceOf, IsChecked) {
  const std::vector<ESPProposal> offered{{aes256, sha256, modp2048}};
  SecurityAssociation answer = offerOf(offered, 4, 0xc0ffee01, seconds(3600));
  Transform &transform = answer.proposals[0].transforms[0];
  transform.attributes = GetParam().changed(transform.attributes);
  EXPECT_EQ(static_cast<bool>(checkChoice(answer, offered, 4)), GetParam().good) << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(Each, ESPChoiceOf,
                         testing::Values(Row{"as it was", true, [](List a) { return a; }},
                                         Row{"another lifetime", true, [](List a) { return changed(a, 2, 600); }},
                                         Row{"no lifetime", true, [](List a) { return without(without(a, 1), 2); }},
                                         Row{"kilobytes, too", true,
                                             [](List a) {
                                               return with(a, {{1, 2}, {2, 250000}});
                                             }},
                                         Row{"tunnel mode", false, [](List a) { return changed(a, 4, 1); }},
                                         Row{"transport mode without UDP", false,
                                             [](List a) { return changed(a, 4, 2); }},
                                         Row{"the drafts' number", false, [](List a) { return changed(a, 4, 61444); }},
                                         Row{"no mode", false, [](List a) { return without(a, 4); }},
                                         Row{"no perfect forward secrecy", false, [](List a) { return without(a, 3); }},
                                         Row{"another group", false, [](List a) { return changed(a, 3, 2); }},
                                         Row{"no integrity", false, [](List a) { return without(a, 5); }},
                                         Row{"a shorter key", false, [](List a) { return changed(a, 6, 128); }},
                                         Row{"no key length", false, [](List a) { return without(a, 6); }},
                                         Row{"long sequence numbers", false, [](List a) {
                                               return with(a, {{11, 1}});
                                             }}));

TEST(Transforms, AreChosenOneAtATime) {
  const std::vector<IKEProposal> two{{aes256, sha1, modp2048}, {tripleDES, sha1, modp2048}};
  const auto reason = [&](const SecurityAssociation &answer) { return checkChoice(answer, two).error().message; };
  SecurityAssociation answer = offerOf(two, seconds(3600));
  EXPECT_EQ(reason(answer), "not exactly one transform");
  answer.proposals[0].transforms.pop_back();
  EXPECT_TRUE(checkChoice(answer, two));
  answer.proposals.push_back(answer.proposals[0]);
  EXPECT_EQ(reason(answer), "not exactly one proposal");
  answer.proposals.pop_back();
  answer.proposals[0].protocol = kProtocolESP;
  EXPECT_EQ(reason(answer), "a proposal for another protocol");
  answer.proposals[0].protocol = kProtocolISAKMP;
  answer.proposals[0].transforms[0].id = 2;
  EXPECT_EQ(reason(answer), "a transform that was not offered");
}

TEST(Transforms, ComeWithAnSPIThatCanBe) {
  const std::vector<ESPProposal> offered{{aes256, sha1, {}}};
  for (const Bytes &spi : {Bytes{0, 0, 0, 0}, Bytes{0, 0, 0, 255}, Bytes{1, 2, 3}, Bytes{1, 2, 3, 4, 5}, Bytes{}}) {
    SecurityAssociation answer = offerOf(offered, 2, 0xc0ffee01, seconds(3600));
    answer.proposals[0].spi = spi;
    EXPECT_EQ(checkChoice(answer, offered, 2).error().message, "an SPI that cannot be") << hex(spi);
    EXPECT_FALSE(choose(answer, offered, 2, 0x1000)) << hex(spi);
  }
}

TEST(Transforms, OfThePeerAreChosenFrom) {
  const std::vector<IKEProposal> theirs{{aes128, md5, modp1024}, {tripleDES, sha1, modp2048}, {aes256, sha1, modp2048}};
  const std::vector<IKEProposal> ours{{aes256, sha1, modp2048}, {tripleDES, sha1, modp2048}};
  const auto agreement = choose(offerOf(theirs, seconds(777)), ours);
  ASSERT_TRUE(agreement);
  EXPECT_EQ(agreement->choice.proposal, theirs[1]);  // the peer's order
  EXPECT_EQ(agreement->choice.lifetime, seconds(777));
  const auto checked = checkChoice(agreement->answer, theirs);
  ASSERT_TRUE(checked);
  EXPECT_EQ(checked->proposal, theirs[1]);
  EXPECT_EQ(agreement->answer.proposals[0].transforms[0].number, 2);
}

TEST(Transforms, OfThePeerForPacketsAreChosenFrom) {
  const std::vector<ESPProposal> theirs{{aes128, md5, {}}, {aes256, sha1, {}}};
  const auto agreement = choose(offerOf(theirs, 2, 0xaabbccdd, seconds(777)), {{aes256, sha1, {}}}, 2, 0x11223344);
  ASSERT_TRUE(agreement);
  EXPECT_EQ(agreement->choice.spi, 0xaabbccddU);
  EXPECT_EQ(hex(agreement->answer.proposals[0].spi), "11223344");
  EXPECT_FALSE(choose(offerOf(theirs, 2, 0xaabbccdd, seconds(777)), {{aes256, sha1, {}}}, 4, 0x11223344));
}

// The peer may want more secrecy than we ask for, not less.
TEST(Transforms, OfThePeerMayHavePerfectForwardSecrecy) {
  const SecurityAssociation with = offerOf(std::vector<ESPProposal>{{aes256, sha1, modp1536}}, 2, 0x1000, seconds(1));
  const SecurityAssociation without = offerOf(std::vector<ESPProposal>{{aes256, sha1, {}}}, 2, 0x1000, seconds(1));
  const auto agreement = choose(with, {{aes256, sha1, {}}}, 2, 0x2000);
  ASSERT_TRUE(agreement);
  EXPECT_EQ(agreement->choice.proposal.group, modp1536);
  EXPECT_FALSE(choose(without, {{aes256, sha1, modp1536}}, 2, 0x2000));
  EXPECT_FALSE(choose(with, {{aes256, sha1, modp2048}}, 2, 0x2000));
  SecurityAssociation strange = with;
  strange.proposals[0].transforms[0].attributes[0].value = 1;  // a group that we do not have
  EXPECT_FALSE(choose(strange, {{aes256, sha1, {}}}, 2, 0x2000));
}

// Proposals of one number belong together: packets with ESP and, around it, something else.
TEST(Transforms, OfThePeerStandAlone) {
  SecurityAssociation offer = offerOf(std::vector<ESPProposal>{{aes256, sha1, {}}}, 2, 0x1000, seconds(1));
  Proposal bundled = offer.proposals[0];
  bundled.protocol = 2;
  offer.proposals.push_back(bundled);
  EXPECT_FALSE(choose(offer, {{aes256, sha1, {}}}, 2, 0x2000));
  offer.proposals[1].number = 9;
  EXPECT_TRUE(choose(offer, {{aes256, sha1, {}}}, 2, 0x2000));
}

TEST(Transforms, HaveALifetime) {
  EXPECT_EQ(lifetimeIn({{11, 1}, {12, 3600}}, kProtocolISAKMP), seconds(3600));
  EXPECT_EQ(lifetimeIn({{1, 1}, {2, 3600}}, kProtocolESP), seconds(3600));
  EXPECT_EQ(lifetimeIn({{1, 2}, {2, 5}, {1, 1}, {2, 3600}}, kProtocolESP), seconds(3600));
  EXPECT_EQ(lifetimeIn({{1, 2}, {2, 5}}, kProtocolESP), std::nullopt);
  EXPECT_EQ(lifetimeIn({}, kProtocolESP), std::nullopt);
  EXPECT_EQ(lifetimeIn({{2, 3600}}, kProtocolESP), std::nullopt);
  EXPECT_EQ(lifetimeIn({{1, 1}, {2, ~std::uint64_t{0}}}, kProtocolESP), seconds(0xffffffff));
}

}  // namespace
}  // namespace helper::isakmp
