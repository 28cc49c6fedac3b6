#include <gtest/gtest.h>

#include "helper/common/ModuleBlacklist.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;

namespace {

class ModuleBlacklistTest : public testing::Test {
 protected:
  std::optional<std::string> find() { return moduleBlacklist("l2tp_ppp", {folder_.path("none"), folder_.path()}); }

  const support::TemporaryFolder folder_;
};

TEST_F(ModuleBlacklistTest, FindsNothingWhereNothingIsForbidden) {
  EXPECT_EQ(find(), std::nullopt);
  folder_.write("a.conf",
                "blacklist l2tp_netlink\n# blacklist l2tp_ppp\noptions l2tp_ppp x=1\nalias net l2tp_ppp\nblacklist\n");
  folder_.write("b.conf.rpmsave", "blacklist l2tp_ppp\n");
  EXPECT_EQ(find(), std::nullopt);
}

TEST_F(ModuleBlacklistTest, NamesTheFile) {
  folder_.write("a.conf", "blacklist pptp\n");
  folder_.write("b.conf", "# rare protocols\n  blacklist   l2tp-ppp\n");
  EXPECT_EQ(find(), folder_.path("b.conf"));
}

TEST_F(ModuleBlacklistTest, KnowsTheOtherWayToForbid) {
  folder_.write("rare.conf", "install l2tp_ppp /bin/true\n");
  EXPECT_EQ(find(), folder_.path("rare.conf"));
}

}  // namespace
