#include <gtest/gtest.h>

#include "platform/fake/FakeScript.h"
#include "tests/support/TemporaryFolder.h"

namespace platform::fake {
namespace {

class FakeScriptTest : public testing::Test {
 protected:
  FakeScriptTest() { platform_.reset(); }
  ~FakeScriptTest() override { platform_.reset(); }

  void read(const std::string &text) {
    support::writeFile(folder_.path("script"), text);
    readScript(folder_.path("script"), platform_);
  }

  FakePlatform &platform_ = FakePlatform::instance();
  support::TemporaryFolder folder_;
  support::TemporaryPlace place_{folder_};
};

TEST_F(FakeScriptTest, SetsTheScene) {
  read(
      "# a comment\n\nservice Name with blanks\nservice\nno-current-set\nitem Label Service Account\n"
      "status 2 ppp=8\nclobber-error\nup status 0 ppp=0 cause=8 error=5001 argument=3\nup log two words\nup raise 10\n"
      "down status 1 ppp=none\n");
  ASSERT_EQ(platform_.services.size(), 2u);
  EXPECT_EQ(platform_.services[0].name, "Name with blanks");
  EXPECT_EQ(platform_.services[1].name, std::nullopt);
  EXPECT_FALSE(platform_.hasCurrentSet);
  EXPECT_EQ(platform_.items.at(0).account, "Account");
  EXPECT_EQ(platform_.statusBeforeStart, 2);
  EXPECT_EQ(platform_.extendedStatusBeforeStart, extendedStatus(8));
  EXPECT_TRUE(platform_.readingStatusClobbersError);
  ASSERT_EQ(platform_.up.size(), 3u);
  const auto &change = std::get<StatusChange>(platform_.up[0]);
  EXPECT_EQ(change.extendedStatus, extendedStatus(0, 8));
  EXPECT_EQ(change.error, 5001);
  EXPECT_EQ(change.argument, 3);
  EXPECT_EQ(std::get<LogText>(platform_.up[1]).text, "two words\n");
  EXPECT_EQ(std::get<Raise>(platform_.up[2]).signal, 10);
  ASSERT_EQ(platform_.down.size(), 1u);
  EXPECT_TRUE(std::get<StatusChange>(platform_.down[0]).extendedStatus.isNull());
}

using FakeScriptDeathTest = FakeScriptTest;

TEST_F(FakeScriptDeathTest, AScriptThatIsNotUnderstoodEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  for (const char *const text :
       {"nonsense", "fail X", "fail X 1 often", "up nonsense", "up status", "up status 1 color=red", "raise X Y"})
    EXPECT_EXIT(read(text), testing::ExitedWithCode(97), "script:1: not an instruction") << text;
  EXPECT_EXIT(readScript(folder_.path("missing"), platform_), testing::ExitedWithCode(97), "missing:0: ");
}

}  // namespace
}  // namespace platform::fake
