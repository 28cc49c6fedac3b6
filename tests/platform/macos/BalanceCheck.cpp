// Around each test of a program that links this: nothing of an earlier test is left in this thread, and what the test
// took of CoreFoundation it has given back.

#include <gtest/gtest.h>

#include "platform/RunLoop.h"
#include "platform/SCErrorState.h"
#include "tests/platform/macos/frameworks/Frameworks.h"
#include "tests/platform/macos/frameworks/Objects.h"

namespace {

class BalanceCheck : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo &) override {
    // A run takes a stop that nobody has waited for, and ends at once.
    platform::CFRunLoopStop(platform::CFRunLoopGetCurrent());
    platform::CFRunLoopRun();
    platform::setSCError(0);
  }
  void OnTestEnd(const testing::TestInfo &) override {
    for (const std::string &line : frameworks::unbalanced(false)) ADD_FAILURE() << "not given back: " << line;
  }
};

const bool added = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new BalanceCheck());
  return true;
}();

}  // namespace
