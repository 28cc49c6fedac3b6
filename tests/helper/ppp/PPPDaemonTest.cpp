#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "helper/ppp/PPPDaemon.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;

namespace {

class PPPDaemonTest : public support::LoopFixture {
 protected:
  PPPDaemonTest()
      : daemon_(
            event_,
            PPPDaemon::Handlers{.phase = [this](int phase) { phases_.push_back(phase); },
                                .password =
                                    [this](const Peer &peer) {
                                      EXPECT_EQ(peer.pid(), daemon_.pid());
                                      return password_;
                                    },
                                .ipUp = [this](const PluginIPUp &up) { interface_ = up.interface; },
                                .ended =
                                    [this](const PPPEnd &end) {
                                      end_ = end;
                                      linesBeforeEnd_ = lines_.size();
                                    }},
            [this](std::string_view line) { lines_.emplace_back(line); }, FAKE_PPPD) {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    tunnel_.reset(ends[0]);
    channel_.reset(ends[1]);
  }

  void start(const std::string &mode) {
    ASSERT_TRUE(daemon_.start({mode, folder_.path("plugin")}, folder_.path("plugin")));
  }
  void goUp(const std::string &mode) {
    start(mode);
    daemon_.giveChannel(std::move(channel_));
    ASSERT_TRUE(runUntil([this] { return !interface_.empty(); }));
  }
  void expectEnd(bool exited, int code) {
    ASSERT_TRUE(runUntil([this] { return end_.has_value(); }));
    EXPECT_EQ(end_->exited, exited);
    EXPECT_EQ(end_->code, code);
    EXPECT_FALSE(daemon_.running());
  }

  const support::TemporaryFolder folder_;
  std::optional<vpnctl::Secret> password_ = vpnctl::Secret("pass word");
  std::vector<int> phases_;
  std::vector<std::string> lines_;
  std::size_t linesBeforeEnd_ = 0;
  std::string interface_;
  std::optional<PPPEnd> end_;
  vpnctl::FileDescriptor tunnel_;
  vpnctl::FileDescriptor channel_;
  PPPDaemon daemon_;
};

TEST_F(PPPDaemonTest, GoesUpAndEndsInOrder) {
  goUp("good");
  EXPECT_EQ(interface_, "ppp0");
  EXPECT_EQ(phases_, (std::vector<int>{4, 5, 7, 8}));
  std::array<char, 16> seen{};
  EXPECT_EQ(::read(tunnel_.get(), seen.data(), seen.size()), 9);
  EXPECT_STREQ(seen.data(), "pass word");
  daemon_.terminate(std::chrono::seconds(10));
  expectEnd(true, 5);
  EXPECT_EQ(phases_, (std::vector<int>{4, 5, 7, 8, 9, 10})) << "what it said at last is heard before its end";
  EXPECT_TRUE(end_->carried);
  EXPECT_EQ(end_->packetsReceived, 9U);
  EXPECT_EQ(end_->furthestPhase, 8);
}

TEST_F(PPPDaemonTest, HandsOnWhatItWritesBeforeItsEnd) {
  goUp("good");
  EXPECT_EQ(lines_, std::vector<std::string>{"up"}) << "written before the plugin said so";
  daemon_.terminate(std::chrono::seconds(10));
  expectEnd(true, 5);
  EXPECT_EQ(lines_, (std::vector<std::string>{"up", "ending", "without an end"}));
  EXPECT_EQ(linesBeforeEnd_, 3U);
}

TEST_F(PPPDaemonTest, HandsOnWhatItWritesAlsoOnAFinishedLoop) {
  goUp("good");
  finishLoop();
  daemon_.closeNow(std::chrono::seconds(10));
  EXPECT_EQ(lines_.size(), 3U);
}

TEST_F(PPPDaemonTest, WaitsForATunnelThatComesLater) {
  start("good");
  ASSERT_TRUE(runUntil([this] { return std::filesystem::exists(folder_.path("plugin")) == false; }));
  EXPECT_TRUE(phases_.empty());
  daemon_.giveChannel(std::move(channel_));
  ASSERT_TRUE(runUntil([this] { return !interface_.empty(); }));
}

TEST_F(PPPDaemonTest, EndsAsAfterAHangUp) {
  goUp("good");
  daemon_.hangUp(std::chrono::seconds(10));
  expectEnd(true, 16);
}

TEST_F(PPPDaemonTest, IsKilledWhenItDoesNotListen) {
  goUp("stubborn");
  daemon_.terminate(std::chrono::milliseconds(10));
  expectEnd(false, 9);
}

TEST_F(PPPDaemonTest, IsKilledWhenItDoesNotMindTheHangUp) {
  goUp("stubborn");
  daemon_.hangUp(std::chrono::milliseconds(10));
  expectEnd(false, 9);
  EXPECT_TRUE(end_->hungUp);
}

TEST_F(PPPDaemonTest, IsTakenDownWhileItWaitsForTheTunnel) {
  start("good");
  ASSERT_TRUE(runUntil([this] { return std::filesystem::exists(folder_.path("plugin")) == false; }));
  daemon_.hangUp(std::chrono::seconds(10));
  expectEnd(true, 8);
  EXPECT_FALSE(end_->carried);
}

TEST_F(PPPDaemonTest, TellsAnEndBeforeTheFirstWord) {
  start("early");
  expectEnd(true, 2);
  EXPECT_FALSE(end_->reported);
}

TEST_F(PPPDaemonTest, TellsTheReasonThatThePluginKnows) {
  goUp("hasty");
  expectEnd(true, 15);
}

TEST_F(PPPDaemonTest, SaysWhenThereIsNoPassword) {
  password_.reset();
  start("good");
  daemon_.giveChannel(std::move(channel_));
  expectEnd(true, 19);
}

TEST_F(PPPDaemonTest, CannotStartWhatIsNotThere) {
  PPPDaemon missing(event_, {}, {}, "/nowhere/pppd");
  EXPECT_FALSE(missing.start({}, folder_.path("plugin")));
  EXPECT_FALSE(missing.running());
}

TEST_F(PPPDaemonTest, CanBeWaitedForWithoutTheLoop) {
  goUp("good");
  daemon_.hangUp(std::chrono::seconds(10));
  daemon_.waitForEnd(std::chrono::seconds(10));
  EXPECT_FALSE(daemon_.running());
  EXPECT_FALSE(end_);
}

TEST_F(PPPDaemonTest, CanBeEndedOnAFinishedLoop) {
  goUp("good");
  finishLoop();
  daemon_.closeNow(std::chrono::seconds(10));
  EXPECT_FALSE(daemon_.running());
}

TEST_F(PPPDaemonTest, CanBeEndedOnAFinishedLoopWithoutItsTunnel) {
  start("good");
  finishLoop();
  daemon_.closeNow(std::chrono::seconds(10));
  EXPECT_FALSE(daemon_.running());
}

TEST_F(PPPDaemonTest, IsKilledAtOnceWhenNoTimeComesAnyMore) {
  goUp("stubborn");
  finishLoop();
  const auto start = std::chrono::steady_clock::now();
  daemon_.hangUp(std::chrono::seconds(10));
  daemon_.waitForEnd(std::chrono::seconds(10));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_FALSE(daemon_.running());
}

}  // namespace
