#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>

#include "platform/SCErrorState.h"
#include "platform/SystemConfiguration.h"

namespace platform {
namespace {

TEST(SCErrorString, HasAPhraseOfItsOwnForEachStatus) {
  std::set<std::string> phrases;
  for (const std::int32_t status : {0,    1001, 1002, 1003, 1004, 1005, 1006, 1007, 2001, 2002,
                                    2003, 3001, 3002, 3003, 3004, 3005, 3006, 4001, 5001, 5002}) {
    const std::string phrase = SCErrorString(status);
    EXPECT_FALSE(phrase.starts_with("Unknown error")) << status;
    EXPECT_TRUE(phrases.insert(phrase).second) << phrase;
  }
}

TEST(SCErrorString, GivesTheErrnoTextFrom1To106) {
  for (const std::int32_t status : {1, 5, 8, 16, 19, 105, 106}) EXPECT_EQ(SCErrorString(status), std::strerror(status));
}

TEST(SCErrorString, KnowsNothingElse) {
  for (const std::int32_t status : {-1, 107, 110, 1000, 1008, 2000, 5003})
    EXPECT_EQ(SCErrorString(status), "Unknown error: " + std::to_string(status));
}

TEST(SCErrorState, IsEachThreadsOwn) {
  setSCError(3005);
  std::thread([] {
    EXPECT_EQ(SCError(), 0);
    setSCError(1001);
  }).join();
  EXPECT_EQ(SCError(), 3005);
  setSCError(0);
}

TEST(SCErrorState, ANullArgumentLeavesTheFirstCauseStanding) {
  setSCError(3005);
  setSCErrorForNullArgument();
  EXPECT_EQ(SCError(), 3005);
  setSCError(0);
  setSCErrorForNullArgument();
  EXPECT_EQ(SCError(), 1002);
  setSCError(0);
}

}  // namespace
}  // namespace platform
