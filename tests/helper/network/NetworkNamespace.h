// A network namespace of the test's own, with a wire to nowhere: wire0 has 10.1.0.2/24 and the default route
// via 10.1.0.1.

#pragma once

#include <gtest/gtest.h>
#include <sched.h>

#include <string>
#include <vector>

#include "linux/ChildProcess.h"

namespace support {

class NetworkNamespace : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::unshare(CLONE_NEWNET) < 0) GTEST_SKIP() << "no network namespace of one's own here";
    ASSERT_TRUE(ip({"link", "set", "lo", "up"}));
    ASSERT_TRUE(ip({"link", "add", "wire0", "type", "veth", "peer", "name", "wire1"}));
    for (const char *name : {"wire0", "wire1"}) ASSERT_TRUE(ip({"link", "set", name, "up"}));
    ASSERT_TRUE(ip({"addr", "add", "10.1.0.2/24", "dev", "wire0"}));
    ASSERT_TRUE(ip({"route", "add", "default", "via", "10.1.0.1"}));
  }
  static bool ip(std::vector<std::string> words) {
    words.insert(words.begin(), "/bin/ip");
    auto process = linux::ChildProcess::spawn(words, {}, {});
    return process && process->waitFor(std::chrono::seconds(20)) && process->end().exited && process->end().code == 0;
  }
};

}  // namespace support
