// What was said to a real server is said again, byte for byte, when chance and the server are as they were.

#include <gtest/gtest.h>

#include <deque>
#include <sstream>

#include "helper/isakmp/Initiator.h"
#include "tests/helper/isakmp/Hex.h"
#include "tests/helper/isakmp/RecordedExchanges.h"

namespace helper::isakmp {
namespace {

struct Line {
  std::string what;
  std::uint16_t port = 0;  // of a datagram
  Bytes bytes;
};

bool isDatagram(const Line &line) { return line.what == ">" || line.what == "<"; }
bool isMoment(const Line &line) { return line.what == "due" || line.what == "stop"; }

std::vector<Line> linesOf(const char *text) {
  std::vector<Line> lines;
  std::istringstream stream(text);
  for (std::string each; std::getline(stream, each);) {
    if (each.empty()) continue;
    std::istringstream words(each);
    if (each.front() != ' ') {
      words >> lines.emplace_back().what;
      if (isDatagram(lines.back())) words >> lines.back().port;
    }
    std::string digits;
    words >> digits;
    append(lines.back().bytes, fromHex(digits));
  }
  return lines;
}

// What chance gave then, in the same order.
class RecordedRandomness : public Randomness {
 public:
  explicit RecordedRandomness(const std::vector<Line> &lines) {
    for (const Line &line : lines)
      if (!isDatagram(line) && !isMoment(line)) left_.push_back(line);
  }
  void fill(std::span<std::uint8_t> bytes) override {
    ASSERT_FALSE(left_.empty()) << bytes.size() << " bytes more than were asked for then";
    ASSERT_EQ(bytes.size(), left_.front().bytes.size()) << left_.front().what;
    std::copy(left_.front().bytes.begin(), left_.front().bytes.end(), bytes.begin());
    left_.pop_front();
  }
  bool isUsedUp() const { return left_.empty(); }

 private:
  std::deque<Line> left_;
};

Plan planOf(const RecordedExchange &recorded) {
  Plan plan;
  plan.local = kRecordedClient;
  plan.localPort = recorded.clientPort;
  plan.remote = kRecordedServer;
  plan.flowLocalPort = 1701;
  plan.otherFlowLocalPort = 50123;
  plan.identity = Identification::of(plan.local);
  plan.ike = *parseIKEProposals(recorded.ike);
  plan.esp = *parseESPProposals(recorded.esp);
  plan.startOn4500 = plan.forceEncapsulation = recorded.from4500;
  plan.deadPeerDelay = std::chrono::seconds(6);  // before a NAT has to be kept awake
  return plan;
}

class Replay {
 public:
  explicit Replay(const RecordedExchange &recorded)
      : lines_(linesOf(recorded.said)),
        random_(lines_),
        initiator_(planOf(recorded), vpnctl::Secret(std::string_view(kRecordedSecret)), random_) {}

  void run() {
    apply(initiator_.start(now_));
    for (const Line &line : lines_) {
      if (line.what == "<") apply(initiator_.received(now_, static_cast<ServerPort>(line.port), line.bytes));
      if (line.what == ">") expectSent(line);
      if (line.what == "due") apply(initiator_.due(now_ = initiator_.nextDue().value_or(now_)));
      if (line.what == "stop") apply(initiator_.stop(now_));
      if (testing::Test::HasFatalFailure()) return;
    }
    EXPECT_TRUE(sent_.empty());
    EXPECT_TRUE(random_.isUsedUp());
  }

  template <class T>
  std::vector<T> all() const {
    std::vector<T> found;
    for (const Output &output : told_)
      if (const auto *value = std::get_if<T>(&output)) found.push_back(*value);
    return found;
  }

 private:
  void expectSent(const Line &line) {
    ASSERT_FALSE(sent_.empty()) << "nothing is said where this was: " << hex(line.bytes);
    EXPECT_EQ(static_cast<std::uint16_t>(sent_.front().port), line.port);
    ASSERT_EQ(hex(sent_.front().datagram), hex(line.bytes));
    sent_.pop_front();
  }
  void apply(const Outputs &outputs) {
    for (const Output &output : outputs) {
      told_.push_back(output);
      if (const auto *send = std::get_if<Send>(&output)) sent_.push_back(*send);
      if (const auto *need = std::get_if<NeedSPI>(&output))
        apply(initiator_.allocated(now_, need->pair, kRecordedInboundSPI));
      if (const auto *state = std::get_if<InstallState>(&output))
        apply(initiator_.installed(now_, state->pair, state->direction));
    }
  }

  std::vector<Line> lines_;
  RecordedRandomness random_;
  Initiator initiator_;
  Instant now_{1000};
  std::deque<Send> sent_;  // and not yet compared
  Outputs told_;
};

void expectState(const InstallState &state, Direction direction, const RecordedState &there) {
  EXPECT_EQ(state.direction, direction);
  EXPECT_EQ(state.spi, there.spi);
  EXPECT_EQ(hex(state.cipherKey), there.cipherKey);
  EXPECT_EQ(hex(state.integrityKey), there.integrityKey);
}

class Recorded : public testing::TestWithParam<RecordedExchange> {};

TEST_P(Recorded, IsSaidAgainByteForByte) {
  const RecordedExchange &recorded = GetParam();
  Replay replay(recorded);
  replay.run();
  for (const Dropped &dropped : replay.all<Dropped>()) ADD_FAILURE() << dropped.why;
  const auto established = replay.all<Established>();
  ASSERT_EQ(established.size(), 1U);
  EXPECT_EQ(established[0].ike.text(), recorded.chosenIKE);
  EXPECT_EQ(established[0].esp.text(), recorded.chosenESP);
  EXPECT_EQ(established[0].encapsulated, recorded.encapsulated);
  EXPECT_EQ(established[0].flowLocalPort, recorded.flowPort);
  const auto states = replay.all<InstallState>();
  ASSERT_EQ(states.size(), 2U);
  expectState(states[0], Direction::inbound, recorded.inbound);
  expectState(states[1], Direction::outbound, recorded.outbound);
  EXPECT_EQ(replay.all<Stopped>().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Each, Recorded, testing::ValuesIn(recordedExchanges()),
                         [](const auto &row) { return std::string(row.param.name); });

}  // namespace
}  // namespace helper::isakmp
