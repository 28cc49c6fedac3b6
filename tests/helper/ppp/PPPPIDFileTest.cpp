#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "helper/ppp/PPPPIDFile.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;

namespace {

bool exists(const std::string &path) { return ::access(path.c_str(), F_OK) == 0; }

TEST(PPPPIDFile, OnlyThatOfTheKilledProcessGoes) {
  const support::TemporaryFolder folder;
  const std::string base = folder.path();
  std::ofstream(base + "/ppp0.pid") << "4711\n";
  std::ofstream(base + "/ppp12.pid") << "4712\n";
  std::ofstream(base + "/ppp3.pid") << "no number";
  std::ofstream(base + "/other.pid") << "4712\n";

  removePIDFileOfPPPD(4712, base);

  EXPECT_TRUE(exists(base + "/ppp0.pid"));
  EXPECT_FALSE(exists(base + "/ppp12.pid"));
  EXPECT_TRUE(exists(base + "/ppp3.pid"));
  EXPECT_TRUE(exists(base + "/other.pid"));
  removePIDFileOfPPPD(4711, base + "/nowhere");
}

}  // namespace
