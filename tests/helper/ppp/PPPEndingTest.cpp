#include <gtest/gtest.h>

#include "helper/ppp/PPPEnding.h"

using namespace helper;

namespace {

constexpr char kNothingArrived[] = "Not one packet came.";

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
      const std::string sentence = endingSentence(end(code), kNothingArrived, missing);
      EXPECT_LT(sentence.size(), 900U);
      EXPECT_TRUE(sentence.ends_with('.')) << sentence;
      for (const char c : sentence) EXPECT_TRUE(c >= ' ' && c <= '~') << sentence;
    }
}

TEST(PPPEnding, SaysSoWhenNothingArrived) {
  EXPECT_EQ(endingSentence(end(16, 4, 0), kNothingArrived, false), kNothingArrived);
  EXPECT_EQ(endingSentence(end(10, 4, 0), kNothingArrived, true), kNothingArrived);
  EXPECT_NE(endingSentence(end(10, 4, 1), kNothingArrived, false), kNothingArrived);
  EXPECT_NE(endingSentence(end(16, 8, 0), kNothingArrived, false), kNothingArrived);
  PPPEnd never = end(8, 2, 0);
  never.carried = false;
  EXPECT_NE(endingSentence(never, kNothingArrived, false), kNothingArrived);
}

TEST(PPPEnding, NamesWhatIsMissing) {
  EXPECT_NE(endingSentence(end(4), kNothingArrived, false).find("modprobe ppp_generic"), std::string::npos);
  EXPECT_NE(endingSentence(end(10, 7), kNothingArrived, true).find("modprobe ppp_mppe"), std::string::npos);
  EXPECT_EQ(endingSentence(end(10, 7), kNothingArrived, false).find("ppp_mppe"), std::string::npos);
}

TEST(PPPEnding, TellsTheAccountFromTheLine) {
  EXPECT_NE(endingSentence(end(19, 5), kNothingArrived, false).find("password"), std::string::npos);
  EXPECT_NE(endingSentence(end(15), kNothingArrived, false).find("no longer answers"), std::string::npos);
  EXPECT_NE(endingSentence(end(16), kNothingArrived, false).find("lost"), std::string::npos);
}

TEST(PPPEnding, HasACauseAlsoAfterASignal) {
  EXPECT_EQ(lastCause(end(19)), 19);
  EXPECT_EQ(lastCause(PPPEnd{.exited = false, .code = 9}), kCauseFatal);
  EXPECT_EQ(lastCause(PPPEnd{.exited = false, .code = 9, .hungUp = true}), kCauseHungUp);
  EXPECT_NE(endingSentence(PPPEnd{.exited = false, .code = 9}, kNothingArrived, false).find("signal 9"),
            std::string::npos);
}

}  // namespace
