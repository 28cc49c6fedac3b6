// The example for launchd is a property list that launchd would take, and starts what the formula installs.

#include <gtest/gtest.h>

#include <filesystem>

#include "foundation/PropertyList.h"

namespace {

using vpnctl::Value;

TEST(LaunchdExample, StartsTheToolAtBootAndAgainAndEchoesNoSecret) {
  const std::filesystem::path path = LAUNCHD_EXAMPLE;
  const auto job = vpnctl::propertyListFromFile(path);
  ASSERT_TRUE(job) << job.error().message;
  EXPECT_EQ((*job)["Label"], Value(path.stem().string()));
  EXPECT_EQ((*job)["ProgramArguments"],
            Value(Value::Array{"/opt/homebrew/sbin/vpnctl", "--config", "/etc/vpnctl/office.conf"}));
  for (const char *const key : {"RunAtLoad", "KeepAlive"}) {
    EXPECT_EQ((*job)[key].type(), Value::Type::boolean) << key;
    EXPECT_EQ((*job)[key], Value(true)) << key;
  }
  EXPECT_EQ((*job)["ThrottleInterval"], Value(60));
  EXPECT_EQ((*job)["StandardOutPath"], Value("/dev/null")) << "the tool echoes its configuration there";
  EXPECT_EQ((*job)["StandardErrorPath"], Value("/var/log/vpnctl.log"));
}

}  // namespace
