#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

#include "helper/authorization/Authority.h"
#include "platform/linux/HelperPath.h"
#include "tests/platform/linux/HelperFixture.h"
#include "tests/platform/linux/SocketActivation.h"

namespace platform {
namespace {

using AuthorizationTest = testing::HelperFixture;

const AuthorizationRights kSystemPreferences = {{"system.preferences"}};

AuthorizationRef created() {
  AuthorizationRef authorization;
  EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 19, &authorization), errAuthorizationSuccess);
  return authorization;
}

TEST_F(AuthorizationTest, StartsTheHelperAndIsReadyWhenTheLogIsThere) {
  const auto authorization = authorize();
  EXPECT_TRUE(support::contentsOf(logPath()).has_value());
  EXPECT_EQ(helperProcesses().size(), 1U);
}

TEST_F(AuthorizationTest, AsksForARightItHasWithoutASecondHelper) {
  const auto authorization = authorize();
  AuthorizationRights granted;
  EXPECT_EQ(AuthorizationCopyRights(authorization, kSystemPreferences, nullptr, 0, &granted), errAuthorizationSuccess);
  ASSERT_EQ(granted.size(), 1U);
  EXPECT_EQ(granted[0].name, "system.preferences");
  EXPECT_EQ(helperProcesses().size(), 1U);
}

TEST_F(AuthorizationTest, RefusesAnUnknownRight) {
  EXPECT_EQ(AuthorizationCopyRights(created(), {{"system.privilege.admin"}}, nullptr, 19, nullptr),
            errAuthorizationDenied);
}

TEST_F(AuthorizationTest, GrantsWhatItCanWhenAskedForParts) {
  AuthorizationRights granted;
  const AuthorizationRights wanted = {{"system.privilege.admin"}, {"system.preferences"}};
  EXPECT_EQ(AuthorizationCopyRights(created(), wanted, nullptr, 19 | kAuthorizationFlagPartialRights, &granted),
            errAuthorizationSuccess);
  ASSERT_EQ(granted.size(), 1U);
  EXPECT_EQ(granted[0].name, "system.preferences");
}

TEST_F(AuthorizationTest, RefusesToExtendWithoutTheFlag) {
  EXPECT_EQ(AuthorizationCopyRights(created(), kSystemPreferences, nullptr, 0, nullptr), errAuthorizationDenied);
}

TEST_F(AuthorizationTest, TellsFlagsSetsAndReferencesThatAreNone) {
  AuthorizationRef authorization;
  EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 0x20, &authorization), errAuthorizationInvalidFlags);
  EXPECT_FALSE(authorization);
  EXPECT_EQ(AuthorizationCopyRights({}, kSystemPreferences, nullptr, 19, nullptr), errAuthorizationInvalidRef);
  EXPECT_EQ(AuthorizationCopyRights(created(), kSystemPreferences, nullptr, 1U << 31, nullptr),
            errAuthorizationInvalidFlags);
  EXPECT_EQ(AuthorizationCopyRights(created(), {{""}}, nullptr, 19, nullptr), errAuthorizationInvalidSet);
  EXPECT_EQ(AuthorizationCopyRights(created(), {{"system.preferences", 1, nullptr, 0}}, nullptr, 19, nullptr),
            errAuthorizationInvalidSet);
}

TEST_F(AuthorizationTest, AMissingHelperCannotBeExecuted) {
  testing::setHelperPath(folder().path("missing"));
  EXPECT_EQ(AuthorizationCopyRights(created(), kSystemPreferences, nullptr, 19, nullptr),
            errAuthorizationToolExecuteFailure);
}

TEST_F(AuthorizationTest, AHelperThatEndsWithoutAnAnswerIsAFailure) {
  testing::setHelperPath("/bin/true");
  EXPECT_EQ(AuthorizationCopyRights(created(), kSystemPreferences, nullptr, 19, nullptr),
            errAuthorizationToolExecuteFailure);
}

// Somebody who is not root, where the system offers the helper by a socket.
class AuthorizationOfUsers : public AuthorizationTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to stop being it";
    ASSERT_EQ(::chmod(folder().path(".").c_str(), 0711), 0);
  }
  void offer() { offer_.emplace(helperSocket(), helperPath()); }
  void say(helper::Authority::Verdict verdict) { std::ofstream(folder().path("verdict")) << static_cast<int>(verdict); }
  int offered() const { return offer_->connections(); }

  // In a process of its own, which ends with ACT's result.
  static int asUser(const std::function<int()> &act) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(::seteuid(65534) == 0 ? act() : 99);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 98;
  }
  // What asking for the right gives: 0 for EXPECTED.
  static int ask(OSStatus expected) {
    return asUser([expected] {
      return AuthorizationCopyRights(created(), kSystemPreferences, nullptr, 19, nullptr) == expected ? 0 : 1;
    });
  }

 private:
  std::optional<testing::SocketActivation> offer_;
};

TEST_F(AuthorizationOfUsers, WithoutTheSocketThereIsNoHelperForThem) {
  EXPECT_EQ(ask(errAuthorizationToolExecuteFailure), 0);
}

TEST_F(AuthorizationOfUsers, EachVerdictHasItsCode) {
  using Verdict = helper::Authority::Verdict;
  offer();
  for (const auto &[verdict, code] : {std::pair{Verdict::granted, errAuthorizationSuccess},
                                      {Verdict::denied, errAuthorizationDenied},
                                      {Verdict::dismissed, errAuthorizationCanceled},
                                      {Verdict::nobodyToAsk, errAuthorizationInteractionNotAllowed},
                                      {Verdict::unavailable, errAuthorizationInternal}}) {
    say(verdict);
    EXPECT_EQ(ask(code), 0) << code;
  }
  EXPECT_EQ(offered(), 5);
}

TEST_F(AuthorizationOfUsers, AGrantedOneMayChangeThePreferences) {
  offer();
  EXPECT_EQ(asUser([this] {
              const auto authorization = authorize();
              const bool saved = !commitService(authorization, "up").empty();
              return saved && !HasFailure() ? 0 : 1;
            }),
            0);
  EXPECT_TRUE(support::contentsOf(preferencesPath()).value_or("").find("test up") != std::string::npos);
}

TEST_F(AuthorizationOfUsers, AHelperThatDiesIsFollowedByAnotherThatRepairs) {
  offer();
  EXPECT_EQ(asUser([this] {
              const auto authorization = authorize();
              const auto serviceID = commitService(authorization, "dies");
              Recorder recorder;
              const auto connection = connect(serviceID, recorder);
              if (!SCNetworkConnectionStart(connection, {}, false)) return 2;
              CFRunLoopRun();
              return HasFailure() ? 1 : 0;
            }),
            0);
  for (int wait = 0; wait < 200 && offered() < 2; ++wait) ::usleep(10'000);
  EXPECT_EQ(offered(), 2);
}

TEST_F(AuthorizationTest, TheHelperInheritsNothing) {
  // One of everything that could be inherited: a descriptor that is not close-on-exec, a blocked signal, an ignored
  // one.
  const int leak = ::dup(STDERR_FILENO);
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto oldAction = std::signal(SIGUSR1, SIG_IGN);
  const auto authorization = authorize();
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  std::signal(SIGUSR1, oldAction);
  ::close(leak);

  const auto processes = helperProcesses();
  ASSERT_EQ(processes.size(), 1U);
  const std::string process = "/proc/" + processes[0];
  for (const auto &entry : std::filesystem::directory_iterator(process + "/fd")) {
    const std::string target = std::filesystem::read_symlink(entry.path()).string();
    const int number = std::stoi(entry.path().filename().string());
    if (number <= 2)
      EXPECT_EQ(target, "/dev/null") << number;
    else
      EXPECT_TRUE(target.starts_with("socket:") || target.starts_with("anon_inode:") || target == logPath()) << target;
  }
  const auto status = support::contentsOf(process + "/status").value_or("");
  // The helper blocks and ignores what it wants for itself; SIGUSR1 (bit 9) and SIGUSR2 (bit 11) are not among it.
  const auto mask = [&](const std::string &name) {
    return std::stoull(status.substr(status.find(name + ":") + name.size() + 1), nullptr, 16);
  };
  EXPECT_EQ(mask("SigBlk") & (1U << (SIGUSR2 - 1)), 0U);
  EXPECT_EQ(mask("SigIgn") & (1U << (SIGUSR1 - 1)), 0U);
  EXPECT_EQ(::getsid(std::stoi(processes[0])), std::stoi(processes[0]));
}

}  // namespace
}  // namespace platform
