#include <gtest/gtest.h>

#include "foundation/RateLimit.h"
#include "helper/isakmp/DeadPeerDetection.h"
#include "helper/isakmp/Retransmission.h"

namespace helper::isakmp {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(Retransmission, TakesTwiceAsLongEachTime) {
  Retransmission retransmission;
  EXPECT_FALSE(retransmission.due());
  retransmission.start(seconds(10), Timing{}, Bytes{1, 2, 3});
  std::vector<long> times;
  while (const auto due = retransmission.due()) {
    times.push_back(due->count());
    const Bytes *message = retransmission.again(*due);
    if (message != nullptr) EXPECT_EQ(*message, (Bytes{1, 2, 3}));
  }
  EXPECT_EQ(times, (std::vector<long>{11000, 13000, 17000, 25000, 33000}));
}

TEST(Retransmission, MeasuresOnlyWhatWasSentOnce) {
  Retransmission retransmission;
  retransmission.start(seconds(10), Timing{}, Bytes{1});
  EXPECT_EQ(retransmission.roundTrip(milliseconds(10123)), milliseconds(123));
  retransmission.again(seconds(11));
  EXPECT_FALSE(retransmission.roundTrip(milliseconds(11123)));
  retransmission.start(seconds(20), Timing{}, Bytes{2});
  EXPECT_EQ(retransmission.roundTrip(milliseconds(20001)), milliseconds(1));
  retransmission.stop();
  EXPECT_FALSE(retransmission.due());
}

TEST(LastAnswer, IsForItsMessageAndNotForEver) {
  LastAnswer answer;
  EXPECT_EQ(answer.to(Bytes{}), nullptr);
  answer.keep(Bytes{1, 2}, Bytes{3});
  EXPECT_EQ(answer.to(Bytes{1}), nullptr);
  for (int i = 0; i < 8; ++i) ASSERT_NE(answer.to(Bytes{1, 2}), nullptr);
  EXPECT_EQ(answer.to(Bytes{1, 2}), nullptr);
  answer.keep(Bytes{1, 2}, Bytes{4});
  EXPECT_EQ(*answer.to(Bytes{1, 2}), Bytes{4});
}

TEST(RateLimit, AllowsABurstAndThenSoManyPerSecond) {
  vpnctl::RateLimit limit(5, 10);
  const auto allowed = [&](Instant now) {
    int count = 0;
    while (limit.allows(now)) ++count;
    return count;
  };
  EXPECT_EQ(allowed(seconds(100)), 5);
  EXPECT_EQ(allowed(milliseconds(100099)), 0);
  EXPECT_EQ(allowed(milliseconds(100100)), 1);
  EXPECT_EQ(allowed(milliseconds(100300)), 2);
  EXPECT_EQ(allowed(seconds(200)), 5);
}

TEST(DeadPeerDetection, AsksAFewTimes) {
  Timing timing;
  DeadPeerDetection detection(seconds(30), timing);
  EXPECT_FALSE(detection.due());
  detection.start(seconds(100), 7);
  EXPECT_EQ(detection.due(), seconds(130));
  EXPECT_EQ(detection.ask(seconds(130)), 8U);
  EXPECT_EQ(detection.due(), seconds(135));
  detection.heard(seconds(131));
  EXPECT_EQ(detection.due(), seconds(161));
  for (std::uint32_t i = 0; i < 4; ++i) EXPECT_EQ(detection.ask(seconds(161 + 5 * i)), 9 + i);
  EXPECT_EQ(detection.due(), seconds(181));
  EXPECT_FALSE(detection.ask(seconds(181)));
  EXPECT_FALSE(detection.due());
}

TEST(DeadPeerDetection, MayBeNone) {
  DeadPeerDetection detection(seconds(0), Timing{});
  detection.start(seconds(100), 7);
  EXPECT_FALSE(detection.due());
}

}  // namespace
}  // namespace helper::isakmp
