#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <optional>

#include "linux/ChildProcess.h"
#include "linux/Process.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace linux;

namespace {

class ChildProcessTest : public support::LoopFixture {
 protected:
  ChildProcess &spawn(const std::vector<std::string> &arguments, const std::vector<std::string> &environment = {},
                      const ChildProcess::Streams &streams = {}) {
    auto process = ChildProcess::spawn(arguments, environment, streams);
    EXPECT_TRUE(process);
    process_.emplace(std::move(*process));
    process_->watch(event_, [this](const ChildProcess::End &end) { end_ = end; });
    return *process_;
  }
  // What SCRIPT says on its standard error.
  std::string said(const std::string &script, const std::vector<std::string> &environment = {}, int input = -1) {
    const vpnctl::FileDescriptor file(::memfd_create("output", MFD_CLOEXEC));
    spawn({"/bin/sh", "-c", "exec >&2; " + script}, environment, {.input = input, .error = file.get()});
    EXPECT_TRUE(runUntil([this] { return end_.has_value(); }));
    std::array<char, 4096> text{};
    const ssize_t size = ::pread(file.get(), text.data(), text.size(), 0);
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }

  std::optional<ChildProcess> process_;
  std::optional<ChildProcess::End> end_;
};

TEST_F(ChildProcessTest, TellsItsStatus) {
  spawn({"/bin/sh", "-c", "exit 19"});
  ASSERT_TRUE(runUntil([this] { return end_.has_value(); }));
  EXPECT_TRUE(end_->exited);
  EXPECT_EQ(end_->code, 19);
  EXPECT_FALSE(process_->running());
}

TEST_F(ChildProcessTest, ItsHandlerMayDestroyIt) {
  auto process = ChildProcess::spawn({"/bin/true"}, {}, {});
  ASSERT_TRUE(process);
  process_.emplace(std::move(*process));
  const std::string usual(100, 'x');
  std::string seen;
  // What it has captured must still be there afterwards.
  process_->watch(
      event_,
      [held = usual, this, &seen](const ChildProcess::End &end) {
        process_.reset();
        seen = held;
        end_ = end;
      });
  ASSERT_TRUE(runUntil([this] { return end_.has_value(); }));
  EXPECT_EQ(seen, usual);
  EXPECT_TRUE(end_->exited);
}

TEST_F(ChildProcessTest, PreparedItRunsWhenItIsReleased) {
  support::TemporaryFolder folder;
  // Deliberately not close-on-exec.
  const vpnctl::FileDescriptor leak(::open("/dev/zero", O_RDONLY));
  ::signal(SIGUSR1, SIG_IGN);
  auto process = ChildProcess::prepare(
      {"/bin/sh", "-c",
       "exec >" + folder.path("said") +
           "; export -p | grep -v PWD; for fd in 3 4 5 6 7 8 9; do [ -e /proc/$$/fd/$fd ] && echo $fd; done; "
           "read -r p c s pp pg sid rest </proc/$$/stat; [ $sid = $$ ] && echo own; "
           "while read a b; do case $a in SigBlk:|SigIgn:) echo ${b#????????};; esac; done </proc/$$/status; exit 19"},
      {"ONE=1", "PATH=/bin:/usr/bin"}, {});
  ASSERT_TRUE(process);
  process_.emplace(std::move(*process));
  process_->watch(event_, [this](const ChildProcess::End &end) { end_ = end; });
  const auto start = startTimeOf(process_->pid());
  EXPECT_FALSE(support::contentsOf(folder.path("said")));
  ASSERT_TRUE(process_->release());
  EXPECT_EQ(startTimeOf(process_->pid()), start);
  ASSERT_TRUE(runUntil([this] { return end_.has_value(); }));
  EXPECT_EQ(end_->code, 19);
  EXPECT_EQ(support::contentsOf(folder.path("said")),
            "export ONE='1'\nexport PATH='/bin:/usr/bin'\nown\n00000000\n00000000\n");
}

TEST_F(ChildProcessTest, PreparedFromNothingItCannotBeReleased) {
  auto process = ChildProcess::prepare({"/nowhere/at/all"}, {}, {});
  ASSERT_TRUE(process);
  const auto released = process->release();
  ASSERT_FALSE(released);
  EXPECT_EQ(released.error().code, ENOENT);
  EXPECT_FALSE(process->running());
}

// After spawn() /proc may say for a moment that it is what we are.
TEST_F(ChildProcessTest, ReleasedItIsWhatItRuns) {
  const auto program = std::filesystem::canonical("/bin/sleep");
  for (int time = 0; time < 100; ++time) {
    auto process = ChildProcess::prepare({"/bin/sleep", "100"}, {}, {});
    ASSERT_TRUE(process);
    ASSERT_TRUE(process->release());
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(process->pid()) + "/exe"), program);
  }
}

TEST_F(ChildProcessTest, PreparedItHasItsStreams) {
  const vpnctl::FileDescriptor input(::memfd_create("input", MFD_CLOEXEC));
  const vpnctl::FileDescriptor error(::memfd_create("error", MFD_CLOEXEC));
  ASSERT_EQ(::pwrite(input.get(), "heard", 5, 0), 5);
  auto process = ChildProcess::prepare({"/bin/sh", "-c", "read -r word; echo $word >&2"}, {},
                                       {.input = input.get(), .error = error.get()});
  ASSERT_TRUE(process);
  ASSERT_TRUE(process->release());
  ASSERT_TRUE(process->waitFor(std::chrono::seconds(30)));
  std::array<char, 10> said{};
  ASSERT_EQ(::pread(error.get(), said.data(), said.size(), 0), 6);
  EXPECT_STREQ(said.data(), "heard\n");
}

TEST_F(ChildProcessTest, PreparedItIgnoresTheSignalsThatItIsTo) {
  const vpnctl::FileDescriptor output(::memfd_create("output", MFD_CLOEXEC));
  auto process = ChildProcess::prepare(
      {"/bin/sh", "-c", "while read a b; do case $a in SigIgn:) echo $b;; esac; done </proc/$$/status"}, {},
      {.output = output.get(), .ignoredSignals = {SIGINT, SIGHUP}});
  ASSERT_TRUE(process);
  ASSERT_TRUE(process->release());
  ASSERT_TRUE(process->waitFor(std::chrono::seconds(30)));
  std::array<char, 20> said{};
  ASSERT_EQ(::pread(output.get(), said.data(), said.size(), 0), 17);
  EXPECT_STREQ(said.data(), "0000000000000003\n");
}

TEST_F(ChildProcessTest, PreparedItIsToldOfItsMakersEnd) {
  support::TemporaryFolder folder;
  const pid_t maker = ::fork();
  ASSERT_GE(maker, 0);
  if (maker == 0) {
    auto process = ChildProcess::prepare({"/bin/sh", "-c",
                                          "trap 'echo told >" + folder.path("told") + "; exit' USR1; echo >" +
                                              folder.path("ready") + "; while :; do sleep 0.01; done"},
                                         {"PATH=/bin:/usr/bin"}, {.signalWithoutUs = SIGUSR1});
    if (!process || !process->release()) _exit(1);
    while (!support::contentsOf(folder.path("ready"))) ::poll(nullptr, 0, 5);
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(maker, &status, 0), maker);
  EXPECT_EQ(status, 0);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (support::contentsOf(folder.path("told")) != "told\n" && std::chrono::steady_clock::now() < end)
    ::poll(nullptr, 0, 5);
  EXPECT_EQ(support::contentsOf(folder.path("told")), "told\n");
}

// With whoever prepared it: nobody else knows of it.
TEST_F(ChildProcessTest, PreparedItEndsWhenItIsNotReleased) {
  while (::waitpid(-1, nullptr, WNOHANG) > 0) {  // what tests before have left
  }
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  support::TemporaryFolder folder;
  const pid_t parent = ::fork();
  if (parent == 0) {
    const auto process = ChildProcess::prepare({"/bin/sh", "-c", "echo yes >" + folder.path("ran")}, {}, {});
    ::_exit(process ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(parent, &status, 0), parent);
  EXPECT_EQ(status, 0);
  // The only child that is left, ours now.
  EXPECT_GT(::waitpid(-1, &status, 0), 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_FALSE(support::contentsOf(folder.path("ran")));
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST_F(ChildProcessTest, CannotBeSpawnedFromNothing) { EXPECT_FALSE(ChildProcess::spawn({"/nowhere/at/all"}, {}, {})); }

TEST_F(ChildProcessTest, HasTheEnvironmentItWasGivenAndNoOther) {
  EXPECT_EQ(said("export -p | grep -v PWD | grep -v OLDPWD", {"ONE=1"}), "export ONE='1'\n");
}

TEST_F(ChildProcessTest, HasNoDescriptorsButTheStandardOnes) {
  // Deliberately not close-on-exec: even what others leak ends here.
  const vpnctl::FileDescriptor leak(::open("/dev/zero", O_RDONLY));
  ASSERT_TRUE(leak);
  EXPECT_EQ(said("for fd in 3 4 5 6 7 8 9; do [ -e /proc/$$/fd/$fd ] && echo $fd; done; true"), "");
}

TEST_F(ChildProcessTest, ReadsItsInput) {
  const vpnctl::FileDescriptor input(::memfd_create("input", MFD_CLOEXEC));
  ASSERT_EQ(::write(input.get(), "hello\n", 6), 6);
  ASSERT_EQ(::lseek(input.get(), 0, SEEK_SET), 0);
  EXPECT_EQ(said("cat", {"PATH=/bin:/usr/bin"}, input.get()), "hello\n");
}

TEST_F(ChildProcessTest, HasNoSignalBlockedOrIgnored) {
  ::signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  // The C library keeps its two internal signals, 32 and 33, to itself.
  EXPECT_EQ(said("while read a b; do case $a in SigBlk:|SigIgn:) echo ${b#????????};; esac; done </proc/$$/status"),
            "00000000\n80000000\n");
}

TEST_F(ChildProcessTest, HasASessionOfItsOwn) {
  EXPECT_EQ(said("read -r p c s pp pg sid rest </proc/$$/stat; [ $sid = $$ ] && echo own"), "own\n");
}

TEST_F(ChildProcessTest, EndsOnTerm) {
  spawn({"/bin/sleep", "1000"}).terminate(std::chrono::seconds(10));
  ASSERT_TRUE(runUntil([this] { return end_.has_value(); }));
  EXPECT_FALSE(end_->exited);
  EXPECT_EQ(end_->code, SIGTERM);
}

TEST_F(ChildProcessTest, EndsOnKillWhenItIgnoresTerm) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const vpnctl::FileDescriptor reader(ends[0]);
  vpnctl::FileDescriptor writer(ends[1]);
  auto &process = spawn({"/bin/sh", "-c", "trap '' TERM; echo ready >&2; exec sleep 1000"}, {"PATH=/bin:/usr/bin"},
                        {.error = writer.get()});
  char byte = 0;
  ASSERT_EQ(::read(reader.get(), &byte, 1), 1);
  process.terminate(std::chrono::milliseconds(10));
  ASSERT_TRUE(runUntil([this] { return end_.has_value(); }));
  EXPECT_EQ(end_->code, SIGKILL);
}

TEST_F(ChildProcessTest, DiesWithItsOwner) {
  const pid_t pid = spawn({"/bin/sleep", "1000"}).pid();
  process_.reset();
  EXPECT_EQ(::kill(pid, 0), -1);
}

TEST_F(ChildProcessTest, CanBeWaitedFor) {
  auto &process = spawn({"/bin/sleep", "1000"});
  EXPECT_FALSE(process.waitFor(std::chrono::milliseconds(1)));
  process.signal(SIGKILL);
  EXPECT_TRUE(process.waitFor(std::chrono::seconds(10)));
}

}  // namespace
