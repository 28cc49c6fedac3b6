#include <gtest/gtest.h>

#include "companions/probe/PPPMTU.h"
#include "helper/common/DefaultMTU.h"

using namespace companions;
using enum TunnelForm::Protocol;
using helper::isakmp::CipherAlgorithm;
using helper::isakmp::ESPProposal;
using helper::isakmp::HashAlgorithm;

namespace {

const ESPProposal kAES256SHA256{CipherAlgorithm::aes256, HashAlgorithm::sha256, {}};
const ESPProposal kTripleDESSHA1{CipherAlgorithm::tripleDES, HashAlgorithm::sha1, {}};

// How long a packet of BYTES is on the wire, written from the headers and not from the room's own arithmetic.
int onTheWire(const ESPProposal &esp, bool natted, int bytes) {
  const int block = esp.cipher == CipherAlgorithm::tripleDES ? 8 : 16;
  const int check = esp.integrity == HashAlgorithm::sha256 ? 16 : 12;
  int encrypted = 8 + 10 + 4 + bytes + 2;  // UDP, L2TP, PPP; padding's length and protocol
  while (encrypted % block != 0) ++encrypted;
  return 20 + (natted ? 8 : 0) + 8 + block + encrypted + check;
}

TEST(PPPMTUTest, AgreesWithTheDefaultsOnPPPoE) {
  EXPECT_EQ(pppMTUFor({.protocol = pptp}, 1492), helper::kDefaultPPTPMTU);
  EXPECT_EQ(pppMTUFor({.protocol = l2tp}, 1492), helper::kDefaultL2TPMTU);
}

TEST(PPPMTUTest, FillsThePathAndNotMore) {
  for (const ESPProposal &esp : {kAES256SHA256, kTripleDESSHA1})
    for (const bool natted : {false, true})
      for (int path = 576; path <= 1500; ++path) {
        const int bytes = pppMTUFor({.protocol = l2tp, .esp = {esp}, .natted = natted}, path);
        ASSERT_LE(onTheWire(esp, natted, bytes), path);
        ASSERT_GT(onTheWire(esp, natted, bytes + 1), path);
      }
}

TEST(PPPMTUTest, FitsEachOfSeveralProposals) {
  const auto fits = [](std::vector<ESPProposal> esp) {
    return pppMTUFor({.protocol = l2tp, .esp = std::move(esp)}, 1400);
  };
  EXPECT_EQ(fits({kAES256SHA256, kTripleDESSHA1}), std::min(fits({kAES256SHA256}), fits({kTripleDESSHA1})));
}

TEST(PPPMTUTest, KnowsL2TPWithoutIPSec) {
  EXPECT_EQ(pppMTUFor({.protocol = l2tp, .esp = {}, .natted = false}, 1500), 1458);
}

TEST(PPPMTUTest, SpeaksUpOnlyForLessThanTheDefault) {
  for (const TunnelForm &form : {TunnelForm{.protocol = pptp}, TunnelForm{.protocol = l2tp}}) {
    EXPECT_EQ(smallerPPPMTU(form, 1500), std::nullopt);
    EXPECT_EQ(smallerPPPMTU(form, 1492), std::nullopt);
    EXPECT_EQ(smallerPPPMTU(form, 1400), pppMTUFor(form, 1400));
    EXPECT_LT(pppMTUFor(form, 1400), 1400);
  }
}

}  // namespace
