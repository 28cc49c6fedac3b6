#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "foundation/DDLog.h"

namespace vpnctl {
namespace {

class RecordingLogger : public DDLogger {
 public:
  void logMessage(const DDLogMessage &message) override {
    const std::lock_guard lock(mutex_);
    messages_.push_back(message);
    threads_.push_back(std::this_thread::get_id());
    changed_.notify_all();
  }

  std::vector<DDLogMessage> messages() {
    const std::lock_guard lock(mutex_);
    return messages_;
  }
  std::vector<DDLogMessage> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return messages_.size() >= count; });
    return messages_;
  }
  std::vector<std::thread::id> threads() {
    const std::lock_guard lock(mutex_);
    return threads_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<DDLogMessage> messages_;
  std::vector<std::thread::id> threads_;
};

class DDLogTest : public testing::Test {
 protected:
  void SetUp() override { DDLog::addLogger(logger_); }
  void TearDown() override { DDLog::removeLogger(logger_); }
  std::shared_ptr<RecordingLogger> logger_ = std::make_shared<RecordingLogger>();
};

void say(bool asynchronous, const char *text) {
  DDLog::log(asynchronous, DDLogLevelVerbose, DDLogFlagInfo, 0, "file", "function", 1, nullptr, "%s", text);
}

TEST_F(DDLogTest, ASynchronousMessageHasArrivedWhenLogReturns) {
  const int tag = 0;
  DDLog::log(false, DDLogLevelVerbose, DDLogFlagError, -7, "TNConnector.m", "-[TNConnector authorize]", 32, &tag,
             "failed with %d", -60005);
  const std::vector<DDLogMessage> messages = logger_->messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_FALSE(messages[0].asynchronous);
  EXPECT_EQ(messages[0].level, DDLogLevelVerbose);
  EXPECT_EQ(messages[0].flag, DDLogFlagError);
  EXPECT_EQ(messages[0].context, -7);
  EXPECT_EQ(messages[0].file, "TNConnector.m");
  EXPECT_EQ(messages[0].function, "-[TNConnector authorize]");
  EXPECT_EQ(messages[0].line, 32U);
  EXPECT_EQ(messages[0].tag, &tag);
  EXPECT_EQ(messages[0].message, "failed with -60005");
}

TEST_F(DDLogTest, AsynchronousMessagesKeepTheirOrderOnAnotherThread) {
  for (const char *text : {"1", "2", "3"}) say(true, text);
  const std::vector<DDLogMessage> messages = logger_->waitFor(3);
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_TRUE(messages[0].asynchronous);
  EXPECT_EQ(messages[0].message + messages[1].message + messages[2].message, "123");
  EXPECT_NE(logger_->threads()[0], std::this_thread::get_id());
}

TEST_F(DDLogTest, ASynchronousMessageDoesNotOvertake) {
  say(true, "first");
  say(false, "second");
  const std::vector<DDLogMessage> messages = logger_->messages();
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[1].message, "second");
}

TEST_F(DDLogTest, EveryLoggerGetsEveryMessageUntilItIsRemoved) {
  const auto second = std::make_shared<RecordingLogger>();
  DDLog::addLogger(second);
  say(false, "both");
  DDLog::removeLogger(second);
  say(false, "one");
  EXPECT_EQ(logger_->messages().size(), 2U);
  EXPECT_EQ(second->messages().size(), 1U);
}

TEST_F(DDLogTest, MissingNamesAreEmpty) {
  DDLog::log(false, 0, 0, 0, nullptr, nullptr, 0, nullptr, "text");
  ASSERT_EQ(logger_->messages().size(), 1U);
  EXPECT_EQ(logger_->messages()[0].file, "");
  EXPECT_EQ(logger_->messages()[0].function, "");
}

TEST(DDLogWithoutLoggersTest, MessagesGoNowhere) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  say(false, "unheard");
  say(true, "unheard");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(DDLogReentryTest, ALoggerMayLogItself) {
  class Chatty : public DDLogger {
   public:
    void logMessage(const DDLogMessage &message) override {
      texts.push_back(message.message);
      if (message.message == "outer") say(false, "inner");
    }
    std::vector<std::string> texts;
  };
  const auto chatty = std::make_shared<Chatty>();
  DDLog::addLogger(chatty);
  say(false, "outer");
  DDLog::removeLogger(chatty);
  EXPECT_EQ(chatty->texts, (std::vector<std::string>{"outer", "inner"}));
}

}  // namespace
}  // namespace vpnctl
