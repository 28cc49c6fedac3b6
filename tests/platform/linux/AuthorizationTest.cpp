#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "tests/platform/linux/HelperFixture.h"

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

TEST_F(AuthorizationTest, AnOrdinaryUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to stop being it";
  EXPECT_EXIT(
      {
        if (::seteuid(65534) != 0) ::_exit(3);
        AuthorizationRef authorization;
        AuthorizationCreate(nullptr, nullptr, 19, &authorization);
        const auto status = AuthorizationCopyRights(authorization, kSystemPreferences, nullptr, 19, nullptr);
        ::_exit(status == errAuthorizationDenied ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
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
