#include <gtest/gtest.h>

#include "helper/isakmp/Proposals.h"

namespace helper::isakmp {
namespace {

using enum CipherAlgorithm;
using enum HashAlgorithm;
using enum Group;

TEST(Proposals, OfIKEAreRead) {
  const auto proposals =
      parseIKEProposals({"aes256-sha1-modp1024", "aes192-sha384-modp1536", "aes128-sha256-modp2048",
                         "aes-sha2_512-modp3072", "3des-md5-modp4096", "aes128-sha-ecp256", "aes256-sha2_384-ecp384"});
  ASSERT_TRUE(proposals) << proposals.error().message;
  const std::vector<IKEProposal> expected{
      {aes256, sha1, modp1024},   {aes192, sha384, modp1536}, {aes128, sha256, modp2048}, {aes128, sha512, modp3072},
      {tripleDES, md5, modp4096}, {aes128, sha1, ecp256},     {aes256, sha384, ecp384}};
  EXPECT_EQ(*proposals, expected);
}

TEST(Proposals, OfESPAreRead) {
  const auto proposals = parseESPProposals({"aes256-sha1", "3des-md5", "aes128-sha512"});
  ASSERT_TRUE(proposals) << proposals.error().message;
  const std::vector<ESPProposal> expected{{aes256, sha1, {}}, {tripleDES, md5, {}}, {aes128, sha512, {}}};
  EXPECT_EQ(*proposals, expected);
  const auto withGroup = parseESPProposals({"aes256-sha1-modp2048", "modp2048-3des-sha1"});
  ASSERT_TRUE(withGroup) << withGroup.error().message;
  EXPECT_EQ(withGroup->at(1), (ESPProposal{tripleDES, sha1, modp2048}));
}

TEST(Proposals, AreWrittenAsTheyAreRead) {
  for (const char *text :
       {"aes256-sha1-modp1024", "aes192-sha512-modp4096", "3des-md5-ecp384", "aes128-sha384-ecp256"}) {
    EXPECT_EQ(parseIKEProposals({text})->front().text(), text);
    EXPECT_EQ(parseESPProposals({text})->front().text(), text);
  }
  EXPECT_EQ(parseESPProposals({"aes-sha"})->front().text(), "aes128-sha1");
}

struct Row {
  std::vector<std::string> texts;
  const char *ike;  // what is wrong with it, "" for nothing
  const char *esp;
};

class UnusableProposals : public testing::TestWithParam<Row> {};

TEST_P(UnusableProposals, AreNamed) {
  const auto ike = parseIKEProposals(GetParam().texts);
  const auto esp = parseESPProposals(GetParam().texts);
  EXPECT_EQ(ike ? "" : ike.error().message, GetParam().ike);
  EXPECT_EQ(esp ? "" : esp.error().message, GetParam().esp);
}

INSTANTIATE_TEST_SUITE_P(
    Each, UnusableProposals,
    testing::Values(
        Row{{"aes256-sha1"}, "proposal \"aes256-sha1\": no group", ""},
        Row{{""}, "proposal \"\": cannot use \"\"", "proposal \"\": cannot use \"\""},
        Row{{"aes256-sha1-"},
            "proposal \"aes256-sha1-\": cannot use \"\"",
            "proposal \"aes256-sha1-\": cannot use \"\""},
        Row{{"aes256"}, "proposal \"aes256\": no hash", "proposal \"aes256\": no hash"},
        Row{{"sha1-modp1024"}, "proposal \"sha1-modp1024\": no cipher", "proposal \"sha1-modp1024\": no cipher"},
        Row{{"aes256gcm16-sha1-modp1024"},
            "proposal \"aes256gcm16-sha1-modp1024\": cannot use \"aes256gcm16\"",
            "proposal \"aes256gcm16-sha1-modp1024\": cannot use \"aes256gcm16\""},
        Row{{"aes256-sha1-modp1024", "aes256-sha1-curve25519"},
            "proposal \"aes256-sha1-curve25519\": cannot use \"curve25519\"",
            "proposal \"aes256-sha1-curve25519\": cannot use \"curve25519\""},
        Row{{"aes256-aes128-sha1-modp1024"},
            "proposal \"aes256-aes128-sha1-modp1024\": cannot use \"aes128\"",
            "proposal \"aes256-aes128-sha1-modp1024\": cannot use \"aes128\""},
        Row{{"AES256-sha1-modp1024"},
            "proposal \"AES256-sha1-modp1024\": cannot use \"AES256\"",
            "proposal \"AES256-sha1-modp1024\": cannot use \"AES256\""},
        Row{{"aes256-sha1-modp1024", "aes256-sha1-modp2048"},
            "",
            "proposal \"aes256-sha1-modp2048\": another group than in \"aes256-sha1-modp1024\""},
        Row{{"aes256-sha1-modp1024", "3des-sha1"},
            "proposal \"3des-sha1\": no group",
            "proposal \"3des-sha1\": another group than in \"aes256-sha1-modp1024\""},
        Row{std::vector<std::string>(29, "aes256-sha1-modp1024"), "too many proposals", "too many proposals"}));

TEST(Proposals, OfDefaultAreWhatTheWorldAsksFor) {
  const auto texts = [](const auto &proposals) {
    std::vector<std::string> result;
    for (const auto &proposal : proposals) result.push_back(proposal.text());
    return result;
  };
  EXPECT_EQ(texts(defaultIKEProposals()),
            (std::vector<std::string>{"aes256-sha256-modp2048", "aes256-sha256-modp1536", "aes256-sha256-modp1024",
                                      "aes256-sha1-modp2048", "aes256-sha1-modp1536", "aes256-sha1-modp1024",
                                      "aes256-sha1-ecp384", "aes128-sha1-modp2048", "aes128-sha1-modp1536",
                                      "aes128-sha1-modp1024", "aes128-sha1-ecp256", "3des-sha1-modp2048",
                                      "3des-sha1-modp1024"}));
  EXPECT_EQ(texts(defaultESPProposals()),
            (std::vector<std::string>{"aes256-sha256", "aes256-sha1", "aes128-sha256", "aes128-sha1", "3des-sha1"}));
  EXPECT_EQ(texts(fewIKEProposals()),
            (std::vector<std::string>{"aes256-sha1-modp2048", "aes128-sha1-modp1024", "3des-sha1-modp1024"}));
  EXPECT_EQ(texts(fewESPProposals()), (std::vector<std::string>{"aes256-sha1", "aes128-sha1", "3des-sha1"}));
}

TEST(Proposals, HaveAShareOfTheirHashInEveryPacket) {
  EXPECT_EQ(checkSize(md5), 96U);
  EXPECT_EQ(checkSize(sha1), 96U);
  EXPECT_EQ(checkSize(sha256), 128U);
  EXPECT_EQ(checkSize(sha384), 192U);
  EXPECT_EQ(checkSize(sha512), 256U);
}

}  // namespace
}  // namespace helper::isakmp
