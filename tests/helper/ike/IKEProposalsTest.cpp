#include <gtest/gtest.h>

#include "helper/ike/IKEProposals.h"

using namespace helper;

namespace {

using Texts = std::vector<std::string>;

TEST(IKEProposalsTest, KeepsWhatIsKnownInOrder) {
  Texts lacking;
  const auto kept = knownProposals(
      {"aes256-sha256-modp2048", "3des-sha1-modp1024", "aes128-sha1-modp1024", "3des-md5"},
      [](const std::string &algorithm) { return algorithm != "3des" && algorithm != "md5"; }, lacking);
  EXPECT_EQ(kept, (Texts{"aes256-sha256-modp2048", "aes128-sha1-modp1024"}));
  EXPECT_EQ(lacking, (Texts{"3des", "md5"}));
}

TEST(IKEProposalsTest, KeepsEverythingThatIsKnown) {
  Texts lacking;
  const Texts broad = IKEProposals::broad().ike;
  EXPECT_EQ(knownProposals(
                broad, [](const std::string &) { return true; }, lacking),
            broad);
  EXPECT_TRUE(lacking.empty());
}

// What servers in the field are made for; each that falls out leaves some of them without an answer.
TEST(IKEProposalsTest, TheManyAreThese) {
  const IKEProposals broad = IKEProposals::broad();
  EXPECT_EQ(broad.ike,
            (Texts{"aes256-sha256-modp2048", "aes256-sha256-modp1536", "aes256-sha256-modp1024", "aes256-sha1-modp2048",
                   "aes256-sha1-modp1536", "aes256-sha1-modp1024", "aes256-sha1-ecp384", "aes128-sha1-modp1024",
                   "aes128-sha1-ecp256", "3des-sha1-modp2048", "3des-sha1-modp1024"}));
  EXPECT_EQ(broad.esp, (Texts{"aes256-sha256", "aes256-sha1", "aes128-sha1", "3des-sha1"}));
}

TEST(IKEProposalsTest, TheFewAreAmongTheMany) {
  const IKEProposals broad = IKEProposals::broad();
  const IKEProposals few = IKEProposals::few();
  EXPECT_LT(few.ike.size(), broad.ike.size());
  for (const std::string &proposal : few.ike)
    EXPECT_NE(std::find(broad.ike.begin(), broad.ike.end(), proposal), broad.ike.end()) << proposal;
  for (const std::string &proposal : few.esp)
    EXPECT_NE(std::find(broad.esp.begin(), broad.esp.end(), proposal), broad.esp.end()) << proposal;
}

TEST(IKEProposalsTest, ListsForPeople) {
  EXPECT_EQ(commaSeparated({}), "");
  EXPECT_EQ(commaSeparated({"a"}), "a");
  EXPECT_EQ(commaSeparated({"a", "b"}), "a, b");
}

}  // namespace
