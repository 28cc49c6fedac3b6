#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>
#include <utility>

#include "helper/ike/CharonProcess.h"
#include "helper/ike/RoutingRule.h"
#include "linux/Process.h"
#include "tests/helper/ike/RecordingJournal.h"
#include "tests/helper/ike/ViciServer.h"
#include "tests/support/FewDescriptors.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using helper::testing::RecordingJournal;
using helper::testing::ViciServer;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

// One helper that uses the daemon.
struct User {
  RecordingJournal journal;
  std::optional<std::string> socket;
  std::optional<std::string> failure;
  bool stopped = false;
  std::unique_ptr<CharonProcess> process;
};

class CharonProcessTest : public support::LoopFixture {
 protected:
  CharonProcessTest() {
    places_.controlSockets = {folder_.path("charon.vici")};
    places_.programs = {folder_.path("nobody"), folder_.path("charon")};
    places_.useFile = folder_.path("use");
    places_.ports = {};
    deadlines_.retry = milliseconds(5);
    std::filesystem::create_symlink(FAKE_CHARON, folder_.path("charon"));
  }

  void start(User &user) {
    user.process = std::make_unique<CharonProcess>(
        event_, user.journal, places_, deadlines_,
        CharonProcess::Handlers{.ready = [&user](const std::string &socket) { user.socket = socket; },
                                .failed = [&user](const std::string &sentence) { user.failure = sentence; },
                                .stopped = [&user] { user.stopped = true; }});
    user.process->start();
  }
  void getReady(User &user) {
    start(user);
    ASSERT_TRUE(runUntil([&] { return user.socket || user.failure; }));
    ASSERT_FALSE(user.failure) << *user.failure;
    EXPECT_EQ(*user.socket, folder_.path("charon.vici"));
  }
  void stop(User &user) {
    user.process->stop();
    EXPECT_FALSE(user.stopped);
    ASSERT_TRUE(runUntil([&] { return user.stopped; }));
  }
  void expectFailure(User &user, const std::string &part) {
    start(user);
    ASSERT_TRUE(runUntil([&] { return user.socket || user.failure; }));
    ASSERT_TRUE(user.failure);
    EXPECT_NE(user.failure->find(part), std::string::npos) << *user.failure;
    stop(user);
    EXPECT_TRUE(user.journal.daemons.empty());
    expectNothingLeft();
  }
  void expectNothingLeft() const {
    for (const auto &entry : std::filesystem::directory_iterator(folder_.path()))
      EXPECT_FALSE(entry.path().filename().string().starts_with("charon.") || entry.path().filename() == "use")
          << entry.path();
  }
  static bool lives(const StartedDaemon &daemon) { return linux::startTimeOf(daemon.pid) == daemon.startTime; }

  support::TemporaryFolder folder_;
  CharonProcess::Places places_;
  CharonProcess::Deadlines deadlines_;
  User one_;
  User two_;
};

TEST_F(CharonProcessTest, UsesTheSystemsOwnAndLeavesIt) {
  const ViciServer system(folder_.path("charon.vici"));
  getReady(one_);
  EXPECT_TRUE(one_.journal.daemons.empty());
  stop(one_);
  EXPECT_TRUE(std::filesystem::exists(folder_.path("charon.vici")));
  EXPECT_FALSE(std::filesystem::exists(folder_.path("use")));
}

TEST_F(CharonProcessTest, UsesTheSystemsOwnAlsoWhenTheFileNamesAnother) {
  const ViciServer system(folder_.path("charon.vici"));
  const std::string own = std::to_string(::getpid());
  // Nobody; a process that has ended; a later process of the number of the one that answers; one that does not answer.
  for (const std::string &named :
       {std::string(), std::string("1073741823 1 0\n"), own + " 1 0\n",
        std::to_string(::getppid()) + " " + std::to_string(linux::startTimeOf(::getppid()).value()) + " 0\n"}) {
    support::writeFile(folder_.path("use"), named);
    User user;
    getReady(user);
    EXPECT_TRUE(user.journal.daemons.empty()) << named;
    stop(user);
    EXPECT_EQ(support::contentsOf(folder_.path("use")), named);
  }
}

TEST_F(CharonProcessTest, WhatCannotBeSeenIsNeitherOursNorTheSystems) {
  getReady(one_);
  // One is for the control socket, the next for the file of its users, the third for the process.
  for (const unsigned more : {1U, 2U, 3U}) {
    User user;
    start(user);
    const support::FewDescriptors few(more);
    ASSERT_TRUE(runUntil([&] { return user.socket || user.failure; })) << more;
    ASSERT_TRUE(user.failure) << more;
    EXPECT_NE(user.failure->find("The IKE daemon cannot be used: "), std::string::npos) << *user.failure;
    stop(user);
  }
  getReady(two_);
  EXPECT_EQ(two_.journal.daemons, one_.journal.daemons);
  stop(two_);
  stop(one_);
  expectNothingLeft();
}

TEST_F(CharonProcessTest, StartsOneAndEndsIt) {
  getReady(one_);
  ASSERT_EQ(one_.journal.daemons.size(), 1U);
  const StartedDaemon daemon = one_.journal.daemons[0];
  EXPECT_TRUE(lives(daemon));
  EXPECT_EQ(daemon.useFile, folder_.path("use"));
  EXPECT_EQ(support::contentsOf(folder_.path("use")),
            std::to_string(daemon.pid) + " " + std::to_string(daemon.startTime) + (hasCharonRule() ? " 1\n" : " 0\n"));
  stop(one_);
  EXPECT_FALSE(lives(daemon));
  EXPECT_TRUE(one_.journal.daemons.empty());
  expectNothingLeft();
}

TEST_F(CharonProcessTest, KillsOneThatDoesNotEnd) {
  support::writeFile(folder_.path("stubborn"), "");
  deadlines_.stop = milliseconds(50);
  getReady(one_);
  const StartedDaemon daemon = one_.journal.daemons.at(0);
  stop(one_);
  EXPECT_FALSE(lives(daemon));
  expectNothingLeft();
}

TEST_F(CharonProcessTest, ASocketThatNobodyListensOnAnyMoreIsNoDaemon) {
  { ViciServer(folder_.path("charon.vici")).say("", {}); }
  support::writeFile(folder_.path("charon.vici"), "");
  getReady(one_);
  EXPECT_EQ(one_.journal.daemons.size(), 1U);
  stop(one_);
}

TEST_F(CharonProcessTest, TheStarterLeavesItToTheOther) {
  getReady(one_);
  getReady(two_);
  const StartedDaemon daemon = one_.journal.daemons.at(0);
  EXPECT_EQ(two_.journal.daemons, one_.journal.daemons);
  stop(one_);
  one_.process.reset();
  EXPECT_TRUE(lives(daemon));
  EXPECT_TRUE(one_.journal.daemons.empty());
  stop(two_);
  // It is still our child, and nobody's to wait for: that it has ended is all there is to see.
  EXPECT_TRUE(two_.journal.daemons.empty());
  expectNothingLeft();
}

TEST_F(CharonProcessTest, TheOtherLeavesItToTheStarter) {
  getReady(one_);
  getReady(two_);
  const StartedDaemon daemon = one_.journal.daemons.at(0);
  stop(two_);
  EXPECT_TRUE(lives(daemon));
  stop(one_);
  EXPECT_FALSE(lives(daemon));
  expectNothingLeft();
}

TEST_F(CharonProcessTest, TwoAtOnceStartOne) {
  start(one_);
  start(two_);
  ASSERT_TRUE(runUntil([&] { return one_.socket && two_.socket; }));
  EXPECT_EQ(one_.journal.daemons.size(), 1U);
  EXPECT_EQ(two_.journal.daemons, one_.journal.daemons);
  stop(one_);
  stop(two_);
  expectNothingLeft();
}

// He may die at that moment, and then nobody else would.
TEST_F(CharonProcessTest, WhoIsJustJoiningKeepsNobodyFromEndingIt) {
  getReady(one_);
  const StartedDaemon daemon = one_.journal.daemons.at(0);
  two_.journal.onNoteDaemon = [this, first = true]() mutable {
    if (std::exchange(first, false)) one_.process->stop();
  };
  getReady(two_);
  EXPECT_TRUE(one_.stopped);
  EXPECT_FALSE(lives(daemon));
  ASSERT_EQ(two_.journal.daemons.size(), 1U);
  EXPECT_NE(two_.journal.daemons[0], daemon);
  stop(two_);
  expectNothingLeft();
}

TEST_F(CharonProcessTest, WaitsForOneThatIsJustEnding) {
  support::writeFile(folder_.path("stubborn"), "");
  deadlines_.stop = milliseconds(100);
  getReady(one_);
  const StartedDaemon first = one_.journal.daemons.at(0);
  one_.process->stop();
  getReady(two_);
  EXPECT_TRUE(one_.stopped);
  EXPECT_NE(two_.journal.daemons.at(0), first);
  stop(two_);
  expectNothingLeft();
}

TEST_F(CharonProcessTest, DestroyedItEndsTheDaemon) {
  getReady(one_);
  const StartedDaemon daemon = one_.journal.daemons.at(0);
  one_.process.reset();
  EXPECT_TRUE(one_.journal.daemons.empty());
  expectNothingLeft();
}

TEST_F(CharonProcessTest, StoppedWhileItStarts) {
  support::writeFile(folder_.path("mute"), "");
  start(one_);
  ASSERT_TRUE(runUntil([&] { return !one_.journal.daemons.empty(); }));
  const StartedDaemon daemon = one_.journal.daemons[0];
  stop(one_);
  EXPECT_FALSE(lives(daemon));
  EXPECT_FALSE(one_.failure);
  expectNothingLeft();
}

TEST_F(CharonProcessTest, StoppedAtOnce) {
  start(one_);
  stop(one_);
  EXPECT_FALSE(one_.socket);
  expectNothingLeft();
}

TEST_F(CharonProcessTest, NoDaemonInstalled) {
  places_.programs = {folder_.path("nobody")};
  expectFailure(one_, "apt install strongswan-charon strongswan-swanctl");
}

TEST_F(CharonProcessTest, NoControlSocket) {
  support::writeFile(folder_.path("mute"), "");
  deadlines_.start = milliseconds(100);
  expectFailure(one_, "its control socket does not appear within 0 seconds; it needs the vici plugin");
}

TEST_F(CharonProcessTest, OneThatEndsAtOnce) {
  support::writeFile(folder_.path("dying"), "");
  expectFailure(one_, "ended while it started (status 3)");
}

TEST_F(CharonProcessTest, APortInOtherHands) {
  const foundation::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
  ASSERT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
  places_.ports = {ntohs(address.sin_port)};
  expectFailure(one_, "UDP port " + std::to_string(places_.ports[0]) +
                          ", which the IKE daemon needs, is held by helper_ike_test (process " +
                          std::to_string(::getpid()) + "); end that first.");
}

TEST_F(CharonProcessTest, WhatCannotBeWrittenDownIsTakenBack) {
  one_.journal.broken = true;
  expectFailure(one_, "cannot be started: no room");
}

// Dies in the middle of writing something down, and tells of what.
class DeadlyJournal : public RecordingJournal {
 public:
  explicit DeadlyJournal(int told) : told_(told) {}
  foundation::Status noteDaemon(const StartedDaemon &entry) override {
    ::_exit(::write(told_, &entry.pid, sizeof entry.pid) == sizeof entry.pid ? 19 : 1);
  }

 private:
  int told_;
};

TEST_F(CharonProcessTest, WhoeverDiesBeforeItIsWrittenDownLeavesNoDaemon) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const foundation::FileDescriptor told(ends[0]);
  const foundation::FileDescriptor tells(ends[1]);
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  const pid_t user = ::fork();
  if (user == 0) {
    sd_event *event = nullptr;
    sd_event_new(&event);
    DeadlyJournal journal(tells.get());
    CharonProcess process(event, journal, places_, deadlines_, {[](const auto &) {}, [](const auto &) {}, [] {}});
    process.start();
    while (sd_event_run(event, UINT64_MAX) >= 0) {
    }
    ::_exit(0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(user, &status, 0), user);
  EXPECT_EQ(WEXITSTATUS(status), 19);
  // What it left is our child now, and ends by itself without having been charon.
  pid_t left = -1;
  ASSERT_EQ(::read(told.get(), &left, sizeof left), static_cast<ssize_t>(sizeof left));
  const foundation::FileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, left, 0)));
  pollfd end{process.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&end, 1, 10000), 1);
  ::kill(left, SIGKILL);
  EXPECT_EQ(::waitpid(left, nullptr, 0), left);
  expectNothingLeft();
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(CharonProcessTest, AFileThatWasMadeInVainGoes) {
  // The system's own comes up while one of ours is being prepared.
  std::optional<ViciServer> system;
  one_.journal.onNoteDaemon = [&] { system.emplace(folder_.path("charon.vici")); };
  getReady(one_);
  EXPECT_TRUE(one_.journal.daemons.empty());
  EXPECT_FALSE(std::filesystem::exists(folder_.path("use")));
  stop(one_);
}

TEST_F(CharonProcessTest, AJournalsDaemonIsEndedUnlessSomebodyUsesIt) {
  getReady(one_);
  const StartedDaemon daemon = one_.journal.daemons.at(0);
  EXPECT_TRUE(CharonProcess::endDaemon(daemon, seconds(5), places_));
  EXPECT_TRUE(lives(daemon));
  // When its helper dies, the lock goes and the file stays: as if another file had taken its place.
  std::filesystem::rename(folder_.path("use"), folder_.path("held"));
  support::writeFile(folder_.path("use"), *support::contentsOf(folder_.path("held")));
  EXPECT_TRUE(CharonProcess::endDaemon(daemon, seconds(5), places_));
  expectNothingLeft();
}

TEST_F(CharonProcessTest, AJournalsDaemonThatCannotBeSeenMayStillRun) {
  getReady(one_);
  const StartedDaemon daemon = one_.journal.daemons.at(0);
  std::filesystem::rename(folder_.path("use"), folder_.path("held"));
  support::writeFile(folder_.path("use"), *support::contentsOf(folder_.path("held")));
  // Not even the file of its users; that, but not the process; both, but not when it started.
  for (const unsigned more : {0U, 1U, 2U}) {
    const support::FewDescriptors few(more);
    EXPECT_FALSE(CharonProcess::endDaemon(daemon, seconds(5), places_)) << more;
  }
  EXPECT_TRUE(lives(daemon));
  EXPECT_TRUE(CharonProcess::endDaemon(daemon, seconds(5), places_));
  expectNothingLeft();
}

TEST_F(CharonProcessTest, EndsItsDaemonAlsoWithoutAFreeDescriptor) {
  getReady(one_);
  const StartedDaemon daemon = one_.journal.daemons.at(0);
  {
    const support::FewDescriptors none(0);
    stop(one_);
  }
  EXPECT_FALSE(lives(daemon));
  EXPECT_TRUE(one_.journal.daemons.empty());
}

TEST_F(CharonProcessTest, WhatItCannotSettleWhenItIsDestroyedStaysNoted) {
  getReady(one_);
  const StartedDaemon daemon = one_.journal.daemons.at(0);
  std::filesystem::rename(folder_.path("use"), folder_.path("held"));
  std::filesystem::create_directory(folder_.path("use"));
  one_.process.reset();
  EXPECT_TRUE(lives(daemon));
  EXPECT_EQ(one_.journal.daemons, std::vector<StartedDaemon>{daemon});
  std::filesystem::remove(folder_.path("use"));
  std::filesystem::rename(folder_.path("held"), folder_.path("use"));
  EXPECT_TRUE(CharonProcess::endDaemon(daemon, seconds(5), places_));
  expectNothingLeft();
}

// Tests of the rule have a network of their own.
class CharonProcessRuleTest : public CharonProcessTest {
 protected:
  template <class Body>
  void inNetwork(Body body) {
    bool possible = true;
    std::thread([&] {
      possible = ::unshare(CLONE_NEWNET) == 0 && rule("add");
      if (possible) body();
    }).join();
    if (!possible) GTEST_SKIP() << "no network namespace or no rules for routes here";
  }
  static bool rule(const char *what) {
    auto ip = linux::ChildProcess::spawn({"/bin/ip", "rule", what, "priority", "220", "table", "220"}, {}, {});
    return ip && ip->waitFor(seconds(10)) && ip->end().exited && ip->end().code == 0;
  }
  // What is left of a daemon that was killed, by whoever repairs.
  void repair(bool ruleWasThere = false) {
    support::writeFile(folder_.path("use"), "");
    EXPECT_TRUE(CharonProcess::endDaemon({kNobody, 1, folder_.path("use"), ruleWasThere}, seconds(5), places_));
  }
  static constexpr pid_t kNobody = 0x3fffffff;
};

TEST_F(CharonProcessRuleTest, GoesWithAKilledDaemon) {
  inNetwork([this] {
    EXPECT_TRUE(hasCharonRule());
    repair();
    EXPECT_FALSE(hasCharonRule());
  });
}

TEST_F(CharonProcessRuleTest, StaysWhenItWasThereBefore) {
  inNetwork([this] {
    repair(true);
    EXPECT_TRUE(hasCharonRule());
  });
}

TEST_F(CharonProcessRuleTest, StaysWhenAnotherDaemonAnswers) {
  inNetwork([this] {
    const ViciServer administrators(folder_.path("charon.vici"));
    support::writeFile(folder_.path("charon.pid"), std::to_string(kNobody) + "\n");
    repair();
    EXPECT_TRUE(hasCharonRule());
  });
}

TEST_F(CharonProcessRuleTest, StaysWhenAnotherDaemonStarts) {
  inNetwork([this] {
    support::writeFile(folder_.path("charon.pid"), std::to_string(::getpid()) + "\n");
    repair();
    EXPECT_TRUE(hasCharonRule());
    EXPECT_TRUE(std::filesystem::exists(folder_.path("charon.pid")));
    support::writeFile(folder_.path("charon.pid"), std::to_string(kNobody) + "\n");
    repair();
    EXPECT_FALSE(hasCharonRule());
    EXPECT_FALSE(std::filesystem::exists(folder_.path("charon.pid")));
  });
}

TEST_F(CharonProcessRuleTest, CountsAsThereWhenItCannotBeSeen) {
  inNetwork([] {
    EXPECT_TRUE(rule("del"));
    EXPECT_FALSE(hasCharonRule());
    const support::FewDescriptors none(0);
    EXPECT_TRUE(hasCharonRule());
  });
}

TEST_F(CharonProcessTest, AnotherProcessOfThatNumberIsLeftAlone) {
  support::writeFile(folder_.path("use"), "");
  // Were it ended, this would be the end of the test.
  EXPECT_TRUE(CharonProcess::endDaemon({::getpid(), 1, folder_.path("use"), true}, seconds(5), places_));
  EXPECT_FALSE(std::filesystem::exists(folder_.path("use")));
}

}  // namespace
