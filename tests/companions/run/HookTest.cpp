#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>
#include <string>

#include "companions/run/Hook.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace companions;

namespace {

class HookTest : public support::LoopFixture {
 protected:
  std::string script(const std::string &text) {
    const std::string path = folder_.write("hook", "#!/bin/sh\n" + text);
    EXPECT_EQ(::chmod(path.c_str(), 0700), 0);
    return path;
  }
  void start(const std::string &text, std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    auto hook = Hook::start(event_, script(text), {"ONE=1", "PATH=/bin:/usr/bin"}, deadline,
                            [this](const vpnctl::Status &status) { status_ = status; });
    ASSERT_TRUE(hook);
    hook_ = std::move(*hook);
  }
  std::string failure() {
    EXPECT_TRUE(runUntil([this] { return status_.has_value(); }));
    return !status_ || *status_ ? "" : status_->error().message;
  }

  support::TemporaryFolder folder_;
  std::optional<vpnctl::Status> status_;
  std::unique_ptr<Hook> hook_;
};

TEST_F(HookTest, RunsWithItsEnvironmentAlone) {
  start("export -p | grep -v PWD >" + folder_.path("said"));
  EXPECT_EQ(failure(), "");
  EXPECT_EQ(folder_.read("said"), "export ONE='1'\nexport PATH='/bin:/usr/bin'\n");
}

TEST_F(HookTest, FailsByItsStatus) {
  start("exit 3");
  EXPECT_EQ(failure(), folder_.path("hook") + " ended with status 3");
}

TEST_F(HookTest, FailsByASignal) {
  start("kill -9 $$");
  EXPECT_EQ(failure(), folder_.path("hook") + " was ended by signal 9");
}

TEST_F(HookTest, FailsWhenItTakesTooLong) {
  start("exec sleep 100", std::chrono::milliseconds(10));
  EXPECT_EQ(failure(), folder_.path("hook") + " did not end in time");
}

TEST_F(HookTest, IsStopped) {
  start("exec sleep 100");
  hook_->stop();
  EXPECT_EQ(failure(), folder_.path("hook") + " was ended by signal 15");
}

TEST_F(HookTest, ProgramsThatCanBeRun) {
  const auto program = runnableProgram(script("exit 0"));
  ASSERT_TRUE(program);
  EXPECT_EQ(*program, folder_.path("hook"));
  EXPECT_FALSE(runnableProgram(folder_.path("nowhere")));
  EXPECT_FALSE(runnableProgram(folder_.path()));
  EXPECT_FALSE(runnableProgram(folder_.write("text", "no program")));
  EXPECT_FALSE(runnableProgram(""));
  // Not looked for in PATH.
  EXPECT_FALSE(runnableProgram("sh"));
}

}  // namespace
