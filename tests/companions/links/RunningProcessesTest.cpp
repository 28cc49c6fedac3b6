#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "companions/links/RunningProcesses.h"
#include "linux/Process.h"
#include "tests/support/TemporaryFolder.h"

using namespace companions;

namespace {

class RunningProcessesTest : public testing::Test {
 protected:
  void plant(const std::string &pid, const std::string &name, const std::string &parent,
             const std::string &arguments = {}) {
    const std::string place = folder_.path("proc/" + pid);
    std::filesystem::create_directories(place);
    support::writeFile(place + "/stat",
                       pid + " (" + name + ") S " + parent + " 1 1 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 1 0 4242 10000\n");
    support::writeFile(place + "/cmdline", arguments);
  }
  std::vector<RunningProcess> look() {
    auto found = runningProcesses(folder_.path("proc"), "/run/vpnctl", folder_.path("run"));
    std::ranges::sort(found, {}, &RunningProcess::pid);
    return found;
  }

  const support::TemporaryFolder folder_;
};

TEST_F(RunningProcessesTest, APPPDOfOursHasItsLinkAndInterface) {
  using namespace std::string_literals;
  std::filesystem::create_directories(folder_.path("run"));
  support::writeFile(folder_.path("run/ppp3.pid"), "101\n");
  support::writeFile(folder_.path("run/other.pid"), "103\n");
  plant("100", "vpnctl-helper", "1");
  plant("101", "pppd", "100", "/usr/sbin/pppd\0vpnctl-socket\0/run/vpnctl/link.12/plugin\0"s);
  plant("102", "pppd", "1", "/usr/sbin/pppd\0call\0provider\0"s);
  plant("103", "pppd", "100", "/usr/sbin/pppd\0vpnctl-socket\0/run/vpnctl/link.13/plugin\0"s);
  plant("104", "more) (than one", "7", "/run/vpnctl/link.14/");
  const auto found = look();
  ASSERT_EQ(found.size(), 5U);
  EXPECT_EQ(found[0].name, "vpnctl-helper");
  EXPECT_EQ(found[1].name, "pppd");
  EXPECT_EQ(found[1].parent, 100);
  EXPECT_EQ(found[1].startTime, 4242U);
  EXPECT_EQ(found[1].link, 12U);
  EXPECT_EQ(found[1].interface, "ppp3");
  EXPECT_EQ(found[2].link, 0U) << "somebody else's";
  EXPECT_EQ(found[3].link, 13U);
  EXPECT_EQ(found[3].interface, "") << "it has none yet";
  EXPECT_EQ(found[4].name, "more) (than one");
  EXPECT_EQ(found[4].parent, 7);
  EXPECT_EQ(found[4].link, 0U);
}

TEST_F(RunningProcessesTest, WhatIsNoProcessIsLeftOut) {
  plant("100", "init", "0");
  plant("self", "init", "0");
  std::filesystem::create_directories(folder_.path("proc/101"));  // has just ended
  support::writeFile(folder_.path("proc/102"), "");
  std::filesystem::create_directories(folder_.path("proc/103"));
  support::writeFile(folder_.path("proc/103/stat"), "103 (cut) S 1 1");
  const auto found = look();
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].pid, 100);
}

TEST_F(RunningProcessesTest, ThisProcessIsThere) {
  const auto found = runningProcesses("/proc", "/run/vpnctl", "/run");
  const auto self = std::ranges::find(found, ::getpid(), &RunningProcess::pid);
  ASSERT_NE(self, found.end());
  EXPECT_EQ(self->parent, ::getppid());
  EXPECT_EQ(self->startTime, linux::startTimeOf(::getpid()));
}

}  // namespace
