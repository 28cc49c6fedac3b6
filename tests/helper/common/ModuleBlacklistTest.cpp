#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "helper/common/ModuleBlacklist.h"

using namespace helper;

namespace {

class ModuleBlacklistTest : public testing::Test {
 protected:
  ModuleBlacklistTest() : folder_(testing::TempDir() + "modprobe-" + std::to_string(::getpid())) {
    std::filesystem::create_directories(folder_);
  }
  ~ModuleBlacklistTest() override { std::filesystem::remove_all(folder_); }
  void put(const std::string &name, const std::string &lines) { std::ofstream(folder_ + "/" + name) << lines; }
  std::optional<std::string> find() { return moduleBlacklist("l2tp_ppp", {folder_ + "/none", folder_}); }

  const std::string folder_;
};

TEST_F(ModuleBlacklistTest, FindsNothingWhereNothingIsForbidden) {
  EXPECT_EQ(find(), std::nullopt);
  put("a.conf", "blacklist l2tp_netlink\n# blacklist l2tp_ppp\noptions l2tp_ppp x=1\nalias net l2tp_ppp\nblacklist\n");
  put("b.conf.rpmsave", "blacklist l2tp_ppp\n");
  EXPECT_EQ(find(), std::nullopt);
}

TEST_F(ModuleBlacklistTest, NamesTheFile) {
  put("a.conf", "blacklist pptp\n");
  put("b.conf", "# rare protocols\n  blacklist   l2tp-ppp\n");
  EXPECT_EQ(find(), folder_ + "/b.conf");
}

TEST_F(ModuleBlacklistTest, KnowsTheOtherWayToForbid) {
  put("rare.conf", "install l2tp_ppp /bin/true\n");
  EXPECT_EQ(find(), folder_ + "/rare.conf");
}

}  // namespace
