#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <vector>

#include "helper/authorization/UserQuota.h"
#include "tests/support/TemporaryFolder.h"

namespace helper {
namespace {

class UserQuotaTest : public testing::Test {
 protected:
  std::vector<UserQuota::Place> takeAll(uid_t user) {
    std::vector<UserQuota::Place> taken;
    for (int place = 0; place < UserQuota::kPlaces; ++place) {
      auto one = quota.take(user);
      EXPECT_TRUE(one);
      if (one) taken.push_back(std::move(*one));
    }
    return taken;
  }

  support::TemporaryFolder folder;
  UserQuota quota{folder.path("users"), std::chrono::milliseconds(0)};
};

TEST_F(UserQuotaTest, HasSoManyPlacesForEachUser) {
  auto taken = takeAll(1000);
  const auto refused = quota.take(1000);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, EDQUOT);
  EXPECT_EQ(refused.error().message, "have another connection at the same time: 4 is the most");
  takeAll(1001);
  takeAll(999);
  taken.pop_back();
  EXPECT_TRUE(quota.take(1000));
}

TEST_F(UserQuotaTest, RootNeedsNoPlace) {
  std::vector<UserQuota::Place> taken = takeAll(0);
  EXPECT_TRUE(quota.take(0));
  EXPECT_FALSE(std::filesystem::exists(folder.path("users")));
}

TEST_F(UserQuotaTest, OneOfThoseTurnedAwayMaySaySo) {
  const auto taken = takeAll(1000);
  {
    const auto complaint = quota.takeComplaint(1000);
    EXPECT_TRUE(complaint);
    EXPECT_FALSE(quota.takeComplaint(1000));
    EXPECT_TRUE(quota.takeComplaint(1001));
    EXPECT_TRUE(quota.take(1001)) << "it takes nobody's place";
  }
  EXPECT_TRUE(quota.takeComplaint(1000));
}

TEST_F(UserQuotaTest, APlaceIsNotGivenBackAtOnce) {
  constexpr std::chrono::milliseconds kStay{150};
  const auto began = std::chrono::steady_clock::now();
  { const auto place = UserQuota(folder.path("users"), kStay).take(1000); }
  EXPECT_GE(std::chrono::steady_clock::now() - began, kStay);
}

TEST_F(UserQuotaTest, TheLargestNumberOfAUserHasPlacesToo) { takeAll(0xfffffffe); }

TEST_F(UserQuotaTest, AProcessThatIsKilledGivesItsPlaceBack) {
  const auto others = [this] {
    auto all = takeAll(1000);
    all.pop_back();
    return all;
  }();
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const auto place = quota.take(1000);
    static_cast<void>(::write(ready[1], place ? "y" : "n", 1));
    ::pause();
    ::_exit(0);
  }
  char said = 0;
  ASSERT_EQ(::read(ready[0], &said, 1), 1);
  EXPECT_EQ(said, 'y');
  EXPECT_FALSE(quota.take(1000));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(quota.take(1000));
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(UserQuotaTest, AFileThatIsALinkIsNotFollowed) {
  std::filesystem::create_symlink(folder.path("elsewhere"), folder.path("users"));
  const auto refused = quota.take(1000);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ELOOP);
  EXPECT_FALSE(std::filesystem::exists(folder.path("elsewhere")));
}

}  // namespace
}  // namespace helper
