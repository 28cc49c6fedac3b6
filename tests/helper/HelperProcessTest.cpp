// The helper as a process: what it does with what it was started with, and when it ends.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "helper/HelperProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace helper {
namespace {

using vpnctl::FileDescriptor;

constexpr int kDeadline = 20000;  // milliseconds; only a failure takes them

class HelperProcessTest : public ::testing::Test {
 protected:
  HelperProcessTest() { std::filesystem::copy_file(SCRIPTED_HELPER, program); }
  ~HelperProcessTest() override {
    if (process > 0) {
      ::kill(process, SIGKILL);
      ::waitpid(process, nullptr, 0);
    }
  }

  // Starts the helper with INPUT as descriptor 0, without those of CLOSED, and everything else inherited as it is.
  void start(int input, const std::vector<int> &closed = {}) {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input, 0);
    for (const int descriptor : closed) ::posix_spawn_file_actions_addclose(&actions, descriptor);
    std::string argument = program;
    std::string variable = "LD_BIND_NOW_OF_A_STRANGER=1";
    char *arguments[] = {argument.data(), nullptr};
    char *environment[] = {variable.data(), nullptr};
    ASSERT_EQ(::posix_spawn(&process, program.c_str(), &actions, nullptr, arguments, environment), 0);
    ::posix_spawn_file_actions_destroy(&actions);
  }

  void startWithSocket(const std::vector<int> &closed = {}) {
    int pair[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    socket.reset(pair[0]);
    const FileDescriptor its(pair[1]);
    start(its.get(), closed);
    // D-Bus's server speaks when it has been spoken to: its answer says that the helper is ready.
    const std::string greeting = std::string(1, '\0') + "AUTH EXTERNAL\r\nDATA\r\n";
    ASSERT_EQ(::write(socket.get(), greeting.data(), greeting.size()), static_cast<ssize_t>(greeting.size()));
    pollfd answer = {socket.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&answer, 1, kDeadline), 1);
    ASSERT_NE(answer.revents & POLLIN, 0);
  }

  // The status that waitpid gives.
  int wait() {
    int status = 0;
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    process = -1;
    return status;
  }

  std::string proc(const std::string &name) const { return "/proc/" + std::to_string(process) + "/" + name; }
  std::string statusLine(const std::string &name) const {
    const auto text = support::contentsOf(proc("status")).value_or("");
    const auto start = text.find("\n" + name + ":");
    if (start == std::string::npos) return {};
    const auto value = text.find_first_not_of(" \t", start + name.size() + 2);
    return text.substr(value, text.find('\n', value) - value);
  }

  support::TemporaryFolder folder;
  const std::string program = folder.path("vpnctl-helper");
  FileDescriptor socket;
  pid_t process = -1;
};

TEST_F(HelperProcessTest, KeepsNothingOfItsStarter) {
  const int leak = ::open("/dev/zero", O_RDONLY);  // not close-on-exec
  startWithSocket();
  ::close(leak);
  int sockets = 0;
  for (const auto &entry : std::filesystem::directory_iterator(proc("fd"))) {
    const std::string target = std::filesystem::read_symlink(entry.path()).string();
    EXPECT_NE(target, "/dev/zero");
    if (target.starts_with("socket:")) ++sockets;
    if (std::stoi(entry.path().filename().string()) <= 2) EXPECT_EQ(target, "/dev/null");
  }
  EXPECT_EQ(sockets, 1);
  EXPECT_EQ(::getsid(process), process);
  EXPECT_EQ(std::filesystem::read_symlink(proc("cwd")), "/");
  EXPECT_EQ(statusLine("Umask"), "0077");
  const auto limits = support::contentsOf(proc("limits")).value_or("");
  EXPECT_NE(limits.find("Max core file size        0                    0 "), std::string::npos) << limits;
}

// A descriptor that is missing would be the next file's, the PPP log's perhaps.
TEST_F(HelperProcessTest, HasItsStandardStreamsAlsoWithoutItsStarters) {
  for (const std::vector<int> &closed : {std::vector{1}, std::vector{2}, std::vector{1, 2}}) {
    startWithSocket(closed);
    for (const char *const descriptor : {"fd/0", "fd/1", "fd/2"})
      EXPECT_EQ(std::filesystem::read_symlink(proc(descriptor)), "/dev/null") << descriptor;
    ASSERT_EQ(::kill(process, SIGKILL), 0);
    wait();
  }
}

// Also where a collector takes all cores, which no limit keeps from it.
TEST_F(HelperProcessTest, LeavesNoCoreWhenItCrashes) {
  startWithSocket();
  ASSERT_EQ(::kill(process, SIGABRT), 0);
  const int status = wait();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  EXPECT_FALSE(WCOREDUMP(status));
}

TEST_F(HelperProcessTest, NothingOfItGoesToSwap) {
  if (::prctl(PR_CAPBSET_READ, CAP_IPC_LOCK) != 1) GTEST_SKIP() << "needs the right to lock memory";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer locks nothing";
#endif
  startWithSocket();
  EXPECT_GT(std::stoul(statusLine("VmLck")), 0U);
}

TEST_F(HelperProcessTest, TakesNoHugePages) {
  startWithSocket();
  EXPECT_EQ(std::stoul(statusLine("THP_enabled")), 0U);
}

// In a child of ours, which answers for itself.
TEST(PreparedHelper, IsNotDumpable) {
  int pair[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const int before = ::prctl(PR_GET_DUMPABLE);
    const bool prepared = ::dup2(pair[1], STDIN_FILENO) == STDIN_FILENO && prepareHelperProcess();
    ::_exit(prepared ? 10 * before + ::prctl(PR_GET_DUMPABLE) : 1);
  }
  ::close(pair[0]);
  ::close(pair[1]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 10) << "1 before, 0 afterwards";
}

// What a starter may leave to whatever it runs. Who has no right to raise it again, as in many a container, is only
// left what can be.
void setHostileLimits() {
  const bool mayRaise = ::prctl(PR_CAPBSET_READ, CAP_SYS_RESOURCE) == 1;
  const auto lower = [&](auto resource, rlim_t value) {
    rlimit limit = {};
    ::getrlimit(resource, &limit);
    limit.rlim_cur = value;
    if (mayRaise) limit.rlim_max = value;
    ::setrlimit(resource, &limit);
  };
  lower(RLIMIT_FSIZE, 50);
  lower(RLIMIT_NOFILE, 8);
  lower(RLIMIT_CPU, 60);
  constexpr itimerval kSoon{{}, {60, 0}};
  for (const auto timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) ::setitimer(timer, &kSoon, nullptr);
  ::prctl(PR_SET_TIMERSLACK, 1000000000UL, 0, 0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  ::setpriority(PRIO_PROCESS, 0, 19);
  constexpr sched_param kNoPriority = {};
  ::sched_setscheduler(0, SCHED_IDLE, &kNoPriority);
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(0, &first);
  ::sched_setaffinity(0, sizeof first, &first);
  constexpr int kIdle = 3 << 13;
  ::syscall(SYS_ioprio_set, 1, 0, kIdle);
  const FileDescriptor score(::open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
  if (::write(score.get(), "1000", 4) != 4) ::_exit(1);
  ::personality(ADDR_NO_RANDOMIZE);
}

// What is left of it, by name, the first; COUNT processors were ours before.
std::string hostileLimit(int count) {
  rlimit limit = {};
  if (::getrlimit(RLIMIT_FSIZE, &limit); limit.rlim_cur != RLIM_INFINITY) return "file size";
  if (::getrlimit(RLIMIT_NOFILE, &limit); limit.rlim_cur < 1024) return "descriptors";
  if (::getrlimit(RLIMIT_CPU, &limit); limit.rlim_cur != RLIM_INFINITY) return "processor time";
  for (const auto timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
    itimerval value = {};
    if (::getitimer(timer, &value); value.it_value.tv_sec != 0) return "timer";
  }
  int signal = 0;
  if (::prctl(PR_GET_PDEATHSIG, &signal, 0, 0, 0); signal != 0) return "its parent's death";
  if (::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0) > 1000000) return "timer slack";
  if (::getpriority(PRIO_PROCESS, 0) != 0) return "niceness";
  if (::sched_getscheduler(0) != SCHED_OTHER) return "scheduling policy";
  cpu_set_t processors;
  ::sched_getaffinity(0, sizeof processors, &processors);
  if (CPU_COUNT(&processors) < count) return "processors";
  if (::syscall(SYS_ioprio_get, 1, 0) >> 13 == 3) return "priority of input and output";
  if (support::contentsOf("/proc/self/oom_score_adj") != "0\n") return "out-of-memory score";
  if (::personality(0xffffffff) != PER_LINUX) return "personality";
  if (std::signal(SIGXFSZ, SIG_IGN) != SIG_IGN) return "signal of a large file";
  return "none";
}

// In a child of ours, which answers for itself.
TEST(PreparedHelper, HasLimitsOfItsOwn) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, who may raise limits";
  int pair[2] = {-1, -1};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  // It keeps no descriptor to answer on.
  constexpr std::size_t kSize = 64;
  void *const shared = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto *const answer = static_cast<char *>(shared);
  const pid_t child = ::fork();
  if (child == 0) {
    cpu_set_t processors;
    ::sched_getaffinity(0, sizeof processors, &processors);
    setHostileLimits();
    const bool prepared = ::dup2(pair[1], STDIN_FILENO) == STDIN_FILENO && prepareHelperProcess();
    std::strncpy(answer, prepared ? hostileLimit(CPU_COUNT(&processors)).c_str() : "not prepared", kSize - 1);
    ::_exit(0);
  }
  ::close(pair[0]);
  ::close(pair[1]);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_STREQ(answer, "none");
  ::munmap(shared, kSize);
}

TEST_F(HelperProcessTest, EveryDescriptorItOpensIsCloseOnExec) {
  startWithSocket();
  for (const auto &entry : std::filesystem::directory_iterator(proc("fdinfo"))) {
    if (std::stoi(entry.path().filename().string()) <= 2) continue;  // /dev/null, for whatever it starts
    const auto text = support::contentsOf(entry.path().string()).value_or("");
    const auto flags = std::stoul(text.substr(text.find("flags:") + 6), nullptr, 8);
    EXPECT_NE(flags & O_CLOEXEC, 0U) << entry.path() << "\n" << text;
  }
}

TEST_F(HelperProcessTest, EndsWhenTheSocketCloses) {
  startWithSocket();
  socket.reset();
  const int status = wait();
  EXPECT_TRUE(WIFEXITED(status)) << status;
}

TEST_F(HelperProcessTest, TakesNoSignalSettingsOver) {
  sigset_t one;
  sigset_t before;
  sigemptyset(&one);
  sigaddset(&one, SIGUSR2);
  std::signal(SIGUSR1, SIG_IGN);
  ASSERT_EQ(::sigprocmask(SIG_BLOCK, &one, &before), 0);
  startWithSocket();
  std::signal(SIGUSR1, SIG_DFL);
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
  const auto has = [this](const char *set, int number) {
    return (std::stoull(statusLine(set), nullptr, 16) >> (number - 1) & 1) != 0;
  };
  EXPECT_FALSE(has("SigIgn", SIGUSR1));
  EXPECT_FALSE(has("SigBlk", SIGUSR2));
  EXPECT_TRUE(has("SigBlk", SIGTERM)) << "this one it watches";
}

TEST_F(HelperProcessTest, EndsInOrderOnSignals) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    startWithSocket();
    ASSERT_EQ(::kill(process, number), 0);
    const int status = wait();
    EXPECT_TRUE(WIFEXITED(status)) << number << " " << status;
  }
}

TEST_F(HelperProcessTest, RefusesWithoutASocket) {
  const FileDescriptor null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  start(null.get());
  const int status = wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_NE(WEXITSTATUS(status), 0);
  EXPECT_FALSE(support::contentsOf(folder.path("ppp.log")).has_value());
}

// The real program: it says so in plain words, and leaves no trace.
TEST(HelperProgram, RefusesWhoIsNotRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to stop being it";
  int output[2] = {-1, -1};
  ASSERT_EQ(::pipe2(output, O_CLOEXEC), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(output[1], STDERR_FILENO);
    // By descriptor: the folder need not be one that the other user may enter.
    const int program = ::open(HELPER_PROGRAM, O_RDONLY | O_CLOEXEC);
    char name[] = "vpnctl-helper";
    char *arguments[] = {name, nullptr};
    char *environment[] = {nullptr};
    if (::setgid(65534) == 0 && ::setuid(65534) == 0) ::fexecve(program, arguments, environment);
    ::_exit(127);
  }
  ::close(output[1]);
  std::string text;
  char buffer[512];
  for (ssize_t count = 0; (count = ::read(output[0], buffer, sizeof(buffer))) > 0;)
    text.append(buffer, static_cast<std::size_t>(count));
  ::close(output[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_EQ(text, "vpnctl-helper: must be run by root; vpnctl starts it\n");
}

}  // namespace
}  // namespace helper
