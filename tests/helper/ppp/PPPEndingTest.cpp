#include <gtest/gtest.h>

#include "helper/ppp/PPPEnding.h"

using namespace helper;

namespace {

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
    for (const auto &[type, missing] : {std::pair("PPTP", false), std::pair("PPTP", true), std::pair("L2TP", false)}) {
      const std::string sentence = endingSentence(end(code), type, missing);
      EXPECT_LT(sentence.size(), 900U);
      EXPECT_TRUE(sentence.ends_with('.')) << sentence;
      for (const char c : sentence) EXPECT_TRUE(c >= ' ' && c <= '~') << sentence;
    }
}

TEST(PPPEnding, NamesGREWhenNothingArrived) {
  EXPECT_NE(endingSentence(end(16, 4, 0), "PPTP", false).find("GRE"), std::string::npos);
  EXPECT_NE(endingSentence(end(10, 4, 0), "PPTP", true).find("GRE"), std::string::npos);
  EXPECT_EQ(endingSentence(end(10, 4, 1), "PPTP", false).find("GRE"), std::string::npos);
  PPPEnd never = end(8, 2, 0);
  never.carried = false;
  EXPECT_EQ(endingSentence(never, "PPTP", false).find("GRE"), std::string::npos);
}

TEST(PPPEnding, DoesNotNameGREToThoseWhoUseL2TP) {
  const std::string sentence = endingSentence(end(16, 4, 0), "L2TP", false);
  EXPECT_EQ(sentence.find("GRE"), std::string::npos);
  EXPECT_NE(sentence.find("not one packet of PPP arrived"), std::string::npos);
  EXPECT_NE(endingSentence(end(16, 8), "L2TP", false).find("lost"), std::string::npos);
}

TEST(PPPEnding, NamesWhatIsMissing) {
  EXPECT_NE(endingSentence(end(4), "PPTP", false).find("modprobe ppp_generic"), std::string::npos);
  EXPECT_NE(endingSentence(end(10, 7), "PPTP", true).find("modprobe ppp_mppe"), std::string::npos);
  EXPECT_EQ(endingSentence(end(10, 7), "PPTP", false).find("ppp_mppe"), std::string::npos);
}

TEST(PPPEnding, TellsTheAccountFromTheLine) {
  EXPECT_NE(endingSentence(end(19, 5), "PPTP", false).find("password"), std::string::npos);
  EXPECT_NE(endingSentence(end(15), "PPTP", false).find("no longer answers"), std::string::npos);
  EXPECT_NE(endingSentence(end(16), "PPTP", false).find("lost"), std::string::npos);
}

TEST(PPPEnding, HasACauseAlsoAfterASignal) {
  EXPECT_EQ(lastCause(end(19)), 19);
  EXPECT_EQ(lastCause(PPPEnd{.exited = false, .code = 9}), kCauseFatal);
  EXPECT_EQ(lastCause(PPPEnd{.exited = false, .code = 9, .hungUp = true}), kCauseHungUp);
  EXPECT_NE(endingSentence(PPPEnd{.exited = false, .code = 9}, "PPTP", false).find("signal 9"), std::string::npos);
}

}  // namespace
