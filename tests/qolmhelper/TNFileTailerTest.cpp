#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "qolmhelper/TNFileTailer.h"
#include "tests/qolmhelper/TailedFile.h"
#include "tests/support/TemporaryFolder.h"

namespace TN {
namespace {

// How long this program's threads have asked to sleep.
class AskedSleeps {
 public:
  void add(std::chrono::nanoseconds sleep) {
    const std::lock_guard lock(mutex_);
    sleeps_.push_back(sleep);
  }
  std::vector<std::chrono::nanoseconds> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(sleeps_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::chrono::nanoseconds> sleeps_;
};
AskedSleeps askedSleeps;

}  // namespace

extern "C" {
int __real_nanosleep(const timespec *request, timespec *left);
int __wrap_nanosleep(const timespec *request, timespec *left) {
  askedSleeps.add(std::chrono::seconds(request->tv_sec) + std::chrono::nanoseconds(request->tv_nsec));
  return __real_nanosleep(request, left);
}
}

namespace {

class TNFileTailerTest : public testing::Test {
 protected:
  TNFileTailerTest() { support::writeFile(path_, "old text\nunfinished old text"); }

  void start() {
    tailer_ = TNFileTailer::initWithPath(path_);
    ASSERT_NE(tailer_, nullptr);
    tailer_->tail(lines_.callback());
  }
  void append(const std::string &text) { support::appendToFile(path_, text); }
  // Ends the loop; what it has held back must have been brought to an end, as the buffer is the next test's too.
  void stop() {
    tailer_->stop();
    append("\n");  // wakes it
    lines_.waitForEnd();
  }

  support::TemporaryFolder folder_;
  std::string path_ = folder_.path("log");
  Lines lines_;
  std::shared_ptr<TNFileTailer> tailer_;
};

TEST_F(TNFileTailerTest, DeliversWhatIsAppendedAndNothingOld) {
  start();
  append("one\ntwo\n");
  EXPECT_EQ(lines_.next(), "one\n");
  EXPECT_EQ(lines_.next(), "two\n");
  append("three\n");
  EXPECT_EQ(lines_.next(), "three\n");
  EXPECT_NE(lines_.thread(), std::this_thread::get_id());
  EXPECT_EQ(lines_.threadName(), "TNFileTailer") << "a queue's label is its thread's name";
  stop();
}

TEST_F(TNFileTailerTest, WhatComesBetweenMakingAndStartingIsNew) {
  tailer_ = TNFileTailer::initWithPath(path_);
  append("between\n");
  tailer_->tail(lines_.callback());
  EXPECT_EQ(lines_.next(), "between\n");
  stop();
}

TEST_F(TNFileTailerTest, AnUnfinishedLineWaitsForItsEnd) {
  start();
  append("first\nbeg");
  EXPECT_EQ(lines_.next(), "first\n");
  append("in");
  append("ning\n");
  EXPECT_EQ(lines_.next(), "beginning\n");
  append("\n");
  EXPECT_EQ(lines_.next(), "\n");
  stop();
}

TEST_F(TNFileTailerTest, ALineOf1022CharactersIsOnePiece) {
  start();
  const std::string line(1022, 'a');
  append(line + "\n");
  EXPECT_EQ(lines_.next(), line + "\n");
  stop();
}

TEST_F(TNFileTailerTest, ALineOf1023CharactersIsParted) {
  start();
  const std::string line(1023, 'a');
  append(line + "\n");
  EXPECT_EQ(lines_.next(), line);
  EXPECT_EQ(lines_.next(), "\n");
  stop();
}

TEST_F(TNFileTailerTest, ALongLineComesInPiecesOf1023Characters) {
  start();
  std::string line;
  for (int i = 0; i < 2000; ++i) line += static_cast<char>('a' + i % 26);
  append(line);
  EXPECT_EQ(lines_.next(), line.substr(0, 1023));
  append("end\n");
  EXPECT_EQ(lines_.next(), line.substr(1023) + "end\n");
  stop();
}

TEST_F(TNFileTailerTest, ManyLinesInOneBlockAllArrive) {
  start();
  std::string text;
  for (int i = 0; i < 2000; ++i) text += std::to_string(i) + "\n";
  append(text);
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(lines_.next(), std::to_string(i) + "\n");
  stop();
}

TEST_F(TNFileTailerTest, APieceThatIsNotUTF8IsNone) {
  start();
  append("\xff\xfe\n\xc3\xa4\n");
  EXPECT_EQ(lines_.next(), std::nullopt);
  EXPECT_EQ(lines_.next(), "\xc3\xa4\n");
  stop();
}

TEST_F(TNFileTailerTest, ACharacterThatFallsAcrossThePiecesIsNone) {
  start();
  append(std::string(1022, 'a') + "\xc3\xa4\n");
  EXPECT_EQ(lines_.next(), std::nullopt);
  EXPECT_EQ(lines_.next(), std::nullopt);
  stop();
}

TEST_F(TNFileTailerTest, AZeroByteEndsItsPiecesText) {
  start();
  append(std::string("ab\0cd\nef\n", 9));
  EXPECT_EQ(lines_.next(), "ab");
  EXPECT_EQ(lines_.next(), "ef\n");
  stop();
}

TEST_F(TNFileTailerTest, AByteOf255IsNotTheEnd) {
  start();
  append("a\xff");
  append("b\nnext\n");
  EXPECT_EQ(lines_.next(), std::nullopt);
  EXPECT_EQ(lines_.next(), "next\n");
  stop();
}

TEST_F(TNFileTailerTest, ATruncatedFileIsSilentUntilItHasGrownPastTheOldOffset) {
  start();
  append("seen\n");
  EXPECT_EQ(lines_.next(), "seen\n");
  const std::size_t offset = std::filesystem::file_size(path_);
  std::filesystem::resize_file(path_, 0);
  append("unseen\n");
  append(std::string(offset - 8, 'x') + "\nafter\n");
  EXPECT_EQ(lines_.next(), "after\n");
  stop();
}

TEST_F(TNFileTailerTest, AReplacedFileIsNotFollowed) {
  start();
  std::filesystem::rename(path_, folder_.path("rotated"));
  support::writeFile(path_, std::string(1000, 'x') + "\nin the new file\n");
  support::appendToFile(folder_.path("rotated"), "in the old file\n");
  EXPECT_EQ(lines_.next(), "in the old file\n");
  EXPECT_TRUE(lines_.empty());
  tailer_->stop();
  support::appendToFile(folder_.path("rotated"), "\n");
  lines_.waitForEnd();
}

TEST_F(TNFileTailerTest, StopIsNoticedAtTheNextCharacter) {
  tailer_ = TNFileTailer::initWithPath(path_);
  append("one\ntwo\n");
  TNFileTailer::Callback inner = lines_.callback();
  tailer_->tail([this, inner = std::exchange(inner, nullptr)](const std::optional<std::string> &line) {
    inner(line);
    tailer_->stop();
  });
  EXPECT_EQ(lines_.next(), "one\n");
  lines_.waitForEnd();
  EXPECT_TRUE(lines_.empty()) << "the second line was there, and was not read";

  Lines second;
  tailer_->tail(second.callback());
  EXPECT_EQ(second.next(), "two\n") << "it goes on where it stood";
  tailer_->stop();
  append("\n");
  second.waitForEnd();
}

TEST_F(TNFileTailerTest, AStopInTheMiddleOfABlockLeavesTheRest) {
  WatchedFile file;
  tailer_ = TNFileTailer::initWithStream(file.open());
  file.append("one\ntwo\n");
  file.duringNextText([this] { tailer_->stop(); });
  tailer_->tail(lines_.callback());
  lines_.waitForEnd();
  EXPECT_TRUE(lines_.empty()) << "it was read, but not looked at";

  Lines second;
  tailer_->tail(second.callback());
  EXPECT_EQ(second.next(), "one\n");
  EXPECT_EQ(second.next(), "two\n");
  tailer_->stop();
  second.waitForEnd();
}

TEST_F(TNFileTailerTest, StopIsNoticedWithoutAnyNewText) {
  start();
  tailer_->stop();
  lines_.waitForEnd();
  EXPECT_TRUE(lines_.empty());
}

TEST_F(TNFileTailerTest, ARestartContinuesWithThePartialLine) {
  WatchedFile file;
  tailer_ = TNFileTailer::initWithStream(file.open());
  file.append("half ");
  tailer_->tail(lines_.callback());
  file.waitUntilRead();
  tailer_->stop();
  lines_.waitForEnd();
  EXPECT_TRUE(lines_.empty());

  Lines second;
  file.append("and half\n");
  tailer_->tail(second.callback());
  EXPECT_EQ(second.next(), "half and half\n");
  tailer_->stop();
  second.waitForEnd();
}

TEST_F(TNFileTailerTest, ThePartialLineIsSharedByAllTailers) {
  WatchedFile file;
  tailer_ = TNFileTailer::initWithStream(file.open());
  file.append("one file's ");
  tailer_->tail(lines_.callback());
  file.waitUntilRead();
  tailer_->stop();
  lines_.waitForEnd();

  Lines second;
  WatchedFile other;
  tailer_ = TNFileTailer::initWithStream(other.open());
  other.append("and another's\n");
  tailer_->tail(second.callback());
  EXPECT_EQ(second.next(), "one file's and another's\n");
  tailer_->stop();
  second.waitForEnd();
}

TEST_F(TNFileTailerTest, WhileItRunsASecondStartIsDropped) {
  start();
  testing::internal::CaptureStderr();
  Lines dropped;
  tailer_->tail(dropped.callback());
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(log.ends_with("] Already running!\n")) << log;
  dropped.waitForEnd();
  append("line\n");
  EXPECT_EQ(lines_.next(), "line\n");
  EXPECT_TRUE(dropped.empty());
  stop();
}

TEST_F(TNFileTailerTest, ARunningTailerKeepsItselfAlive) {
  start();
  const std::weak_ptr<TNFileTailer> weak = tailer_;
  tailer_.reset();
  EXPECT_FALSE(weak.expired());
  append("still here\n");
  EXPECT_EQ(lines_.next(), "still here\n");
  weak.lock()->stop();
  append("\n");
  lines_.waitForEnd();
}

TEST_F(TNFileTailerTest, GrowthIsSeenAtOnce) {
  start();
  const auto before = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    append("line\n");
    EXPECT_EQ(lines_.next(), "line\n");
  }
  // A look once a second would take about twenty.
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10));
  stop();
}

TEST_F(TNFileTailerTest, AFileThatIsNotThereIsLogged) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(TNFileTailer::initWithPath(folder_.path("missing")), nullptr);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(log.ends_with("] Could not open file " + folder_.path("missing") + "\n")) << log;
}

TEST_F(TNFileTailerTest, AStreamWithoutAnEndIsLoggedAndClosed) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(TNFileTailer::initWithStream(fdopen(ends[0], "r")), nullptr);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(log.ends_with("] Could not seek to the end of the file! err_code: -1, err: Unknown error -1\n")) << log;
  EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
  close(ends[1]);
}

TEST_F(TNFileTailerTest, DestructionClosesTheStream) {
  std::FILE *const stream = std::fopen(path_.c_str(), "r");
  const int fd = fileno(stream);
  TNFileTailer::initWithStream(stream).reset();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

// Also in that a second is waited for; stdio may meet both errors at once. Nothing can wake it from a file in memory.
TEST_F(TNFileTailerTest, AReadErrorIsLikeTheEnd) {
  const auto begun = WatchedFile::Clock::now();
  WatchedFile file;
  tailer_ = TNFileTailer::initWithStream(file.open());
  file.failReads(2);
  file.append("behind the errors\n");
  tailer_->tail(lines_.callback());
  EXPECT_EQ(lines_.next(), "behind the errors\n");
  EXPECT_EQ(file.failuresLeft(), 0);
  EXPECT_GE(WatchedFile::Clock::now() - begun, std::chrono::milliseconds(900));
  EXPECT_TRUE(lines_.empty());
  tailer_->stop();
  lines_.waitForEnd();
}

// Nothing can wake it from a file in memory.
TEST_F(TNFileTailerTest, AtTheEndItWaitsASecond) {
  WatchedFile file;
  tailer_ = TNFileTailer::initWithStream(file.open());
  askedSleeps.take();
  tailer_->tail(lines_.callback());
  const auto ends = file.ends(3);
  tailer_->stop();
  lines_.waitForEnd();
  ASSERT_GE(ends.size(), 3u);
  EXPECT_GE(std::min(ends[1] - ends[0], ends[2] - ends[1]), std::chrono::milliseconds(900));
  // A busy machine makes any wait longer than it was meant.
  const auto asked = askedSleeps.take();
  ASSERT_GE(asked.size(), 2u);
  for (const std::chrono::nanoseconds sleep : asked) EXPECT_EQ(sleep, std::chrono::seconds(1));
}

}  // namespace
}  // namespace TN
