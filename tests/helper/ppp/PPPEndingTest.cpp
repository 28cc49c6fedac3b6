#include <gtest/gtest.h>

#include "helper/ppp/PPPEnding.h"

using namespace helper;

namespace {

constexpr char kNothingArrived[] = "Not one packet came.";

PPPExpectations expected(bool mppeIsMissing = false) {
  return {.mppe = mppeIsMissing,
          .authProtocols = {AuthProtocol::mschap2},
          .kernelHasMPPE = !mppeIsMissing,
          .nothingArrived = kNothingArrived};
}

PPPEnd end(int code, int phase = 8, std::uint32_t packets = 10) {
  return {.exited = true,
          .code = code,
          .reported = true,
          .carried = true,
          .packetsReceived = packets,
          .furthestPhase = phase};
}

TEST(PPPEnding, IsOnePlainSentence) {
  for (int code = 0; code <= 22; ++code)
    for (const bool missing : {false, true}) {
      const std::string sentence = endingSentence(end(code), expected(missing));
      EXPECT_LT(sentence.size(), 900U);
      EXPECT_TRUE(sentence.ends_with('.')) << sentence;
      for (const char c : sentence) EXPECT_TRUE(c >= ' ' && c <= '~') << sentence;
    }
}

TEST(PPPEnding, SaysSoWhenNothingArrived) {
  EXPECT_EQ(endingSentence(end(16, 4, 0), expected()), kNothingArrived);
  EXPECT_EQ(endingSentence(end(10, 4, 0), expected(true)), kNothingArrived);
  EXPECT_NE(endingSentence(end(10, 4, 1), expected()), kNothingArrived);
  EXPECT_NE(endingSentence(end(16, 8, 0), expected()), kNothingArrived);
  PPPEnd never = end(8, 2, 0);
  never.carried = false;
  EXPECT_NE(endingSentence(never, expected()), kNothingArrived);
}

TEST(PPPEnding, NamesWhatIsMissing) {
  EXPECT_NE(endingSentence(end(4), expected()).find("modprobe ppp_generic"), std::string::npos);
  EXPECT_NE(endingSentence(end(10, 7), expected(true)).find("modprobe ppp_mppe"), std::string::npos);
  EXPECT_EQ(endingSentence(end(10, 7), expected()).find("ppp_mppe"), std::string::npos);
}

TEST(PPPEnding, TellsTheAccountFromTheLine) {
  EXPECT_NE(endingSentence(end(19, 5), expected()).find("password"), std::string::npos);
  EXPECT_NE(endingSentence(end(15), expected()).find("no longer answers"), std::string::npos);
  EXPECT_NE(endingSentence(end(16), expected()).find("lost"), std::string::npos);
}

TEST(PPPEnding, HasACauseAlsoAfterASignal) {
  EXPECT_EQ(lastCause(end(19)), 19);
  EXPECT_EQ(lastCause(PPPEnd{.exited = false, .code = 9}), kCauseFatal);
  EXPECT_EQ(lastCause(PPPEnd{.exited = false, .code = 9, .hungUp = true}), kCauseHungUp);
  EXPECT_NE(endingSentence(PPPEnd{.exited = false, .code = 9}, expected()).find("signal 9"), std::string::npos);
}

// ---- What the two do not agree on

struct Disagreement {
  const char *name;
  PPPDispute dispute;
  int phase;
  bool mppe;
  const char *sentence;  // a part of it
};

class PPPDisagreement : public ::testing::TestWithParam<Disagreement> {
 protected:
  PPPDisagreement() {
    end_ = end(10, GetParam().phase);
    end_.dispute = GetParam().dispute;
    expected_ = {.mppe = GetParam().mppe, .authProtocols = {AuthProtocol::mschap1, AuthProtocol::mschap2}};
  }
  PPPEnd end_;
  PPPExpectations expected_;
};

TEST_P(PPPDisagreement, IsNamedWhenPPPGivesUp) {
  const std::string sentence = endingSentence(end_, expected_);
  EXPECT_NE(sentence.find(GetParam().sentence), std::string::npos) << sentence;
  EXPECT_LT(sentence.size(), 900U);
}

TEST_P(PPPDisagreement, IsNamedWhenTheServerHangsUp) {
  end_.code = 16;
  const auto sentence = hangUpSentence(end_, expected_);
  ASSERT_TRUE(sentence);
  EXPECT_TRUE(sentence->starts_with("That was while ")) << *sentence;
  const bool named = std::string_view(GetParam().sentence).starts_with("the server ");
  EXPECT_EQ(sentence->find(GetParam().sentence) != std::string::npos, named) << *sentence;
}

INSTANTIATE_TEST_SUITE_P(
    PPPEnding, PPPDisagreement,
    ::testing::Values(
        Disagreement{"onlyPAP",
                     {.wantedAuthentication = 0xc02300},
                     4,
                     true,
                     "the server wants the account checked by PAP, which makes no keys for the encryption (MPPE)"},
        Disagreement{
            "onlyCHAP", {.wantedAuthentication = 0xc22305}, 4, true, "the server wants the account checked by CHAP,"},
        Disagreement{"onlyEAP",
                     {.wantedAuthentication = 0xc22700},
                     4,
                     false,
                     "the server wants the account checked by EAP, which is not allowed here"},
        Disagreement{
            "anAllowedOne", {.wantedAuthentication = 0xc22381}, 4, true, "could not agree on how to talk PPP; with"},
        Disagreement{"anUnknownOne", {.wantedAuthentication = 0x123400}, 4, false, "; ppp.debug in engine.conf shows"},
        Disagreement{"agreedOn", {.wantedAuthentication = 0xc02300}, 7, false, "; ppp.debug in engine.conf shows"},
        Disagreement{"noEncryption", {.encryption = true}, 7, true, "the server takes no encryption (MPPE)"},
        Disagreement{"noneNeeded", {.encryption = true}, 7, false, "; ppp.debug in engine.conf shows"},
        Disagreement{"noAddress", {.address = true}, 7, false, "the server gives this machine no address"}),
    [](const auto &test) { return test.param.name; });

TEST(PPPEnding, SaysWhatAHangUpInterrupted) {
  EXPECT_FALSE(hangUpSentence(end(16, 2), expected()));
  EXPECT_NE(hangUpSentence(end(16, 4), expected())->find("(LCP)"), std::string::npos);
  EXPECT_NE(hangUpSentence(end(16, 5), expected())->find("the account was checked"), std::string::npos);
  EXPECT_NE(hangUpSentence(end(16, 7), expected())->find("(CCP, IPCP)"), std::string::npos);
  EXPECT_EQ(hangUpSentence(end(19, 5), expected()), endingSentence(end(19, 5), expected()));
}

}  // namespace
