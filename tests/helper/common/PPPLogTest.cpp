#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <thread>

#include "helper/common/PPPLog.h"
#include "tests/support/TemporaryFolder.h"

namespace helper {
namespace {

class PPPLogTest : public ::testing::Test {
 protected:
  support::TemporaryFolder folder;
  const std::string path = folder.path("ppp.log");
};

TEST_F(PPPLogTest, IsMadeReadableForEverybodyWhateverTheUmask) {
  const mode_t old = ::umask(077);
  const auto log = PPPLog::open(path);
  ::umask(old);
  ASSERT_TRUE(log);
  struct stat attributes = {};
  ASSERT_EQ(::stat(path.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0644U);
  EXPECT_EQ(log->lastWrite(), std::chrono::steady_clock::time_point());
}

TEST_F(PPPLogTest, AppendsOneDatedLinePerSentence) {
  support::writeFile(path, "what was there\n");
  auto log = PPPLog::open(path);
  ASSERT_TRUE(log);
  const auto before = std::chrono::steady_clock::now();
  log->write("One.");
  log->write("Two.");
  EXPECT_GE(log->lastWrite(), before);
  const std::string date = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}";
  const auto text = support::contentsOf(path).value_or("");
  EXPECT_TRUE(std::regex_match(text, std::regex("what was there\n" + date + " : One\\.\n" + date + " : Two\\.\n")))
      << text;
}

TEST_F(PPPLogTest, ALimitHoldsForAllWhoWriteAndTellsWhatWasLeftOut) {
  auto log = PPPLog::open(path);
  ASSERT_TRUE(log);
  PPPLog other = log->labelled([] { return std::string("label "); });
  log->limit({10, 20});
  for (int line = 0; line < 50; ++line) {
    log->copy("one");
    other.copy("other");
  }
  const auto lines = [this] {
    const std::string text = support::contentsOf(path).value_or("");
    return std::ranges::count(text, '\n');
  };
  EXPECT_GE(lines(), 10);
  EXPECT_LT(lines(), 50);
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  const auto before = lines();
  other.write("Again.");
  const std::string text = support::contentsOf(path).value_or("");
  EXPECT_NE(text.find(" : " + std::to_string(100 - before) + " lines were left out here: "), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with("label Again.\n")) << text;
}

TEST_F(PPPLogTest, IsPlainASCIIOfAtMostAThousandBytesALine) {
  auto log = PPPLog::open(path);
  ASSERT_TRUE(log);
  log->write("a\nb\tc\xC3\xA4 \x1B[0m");
  log->write(std::string(5000, 'x'));
  const auto text = support::contentsOf(path).value_or("");
  EXPECT_NE(text.find("a?b?c?? ?[0m\n"), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
  EXPECT_EQ(text.size() - text.find('\n') - 1, 1000U);
}

TEST_F(PPPLogTest, CopiesALineWithoutADate) {
  auto log = PPPLog::open(path);
  ASSERT_TRUE(log);
  log->copy("local  IP address 10.0.0.1\x1b");
  EXPECT_EQ(support::contentsOf(path), "local  IP address 10.0.0.1?\n");
  EXPECT_EQ(log->lastWrite(), std::chrono::steady_clock::time_point()) << "nobody waits for it to be read";
}

TEST_F(PPPLogTest, LabelsTheLinesOfOneOfSeveral) {
  auto log = PPPLog::open(path);
  ASSERT_TRUE(log);
  std::string label = "[a] ";
  PPPLog labelled = log->labelled([&] { return label; });
  labelled.write("One.");
  labelled.copy("two");
  label.clear();
  labelled.copy("three");
  log->copy("four");
  const std::string text = support::contentsOf(path).value();
  EXPECT_TRUE(text.ends_with(" : [a] One.\n[a] two\nthree\nfour\n")) << text;
  EXPECT_EQ(labelled.path(), path);
  EXPECT_EQ(log->lastWrite(), std::chrono::steady_clock::time_point{}) << "each knows its own";
}

// Whoever follows the file that was opened first, and whoever looks into the one that stands there, reads everything.
TEST_F(PPPLogTest, GoesOnInBothFilesWhenItIsRotated) {
  auto log = PPPLog::open(path);
  ASSERT_TRUE(log);
  log->copy("one");
  for (const char *const older : {"ppp.log.1", "ppp.log.2"}) {
    std::filesystem::rename(path, folder.path(older));
    log->copy("between");
    EXPECT_FALSE(std::filesystem::exists(path)) << "it is for whoever rotates to make";
    support::writeFile(path, "");
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    log->copy("new");
    EXPECT_EQ(support::contentsOf(path), "new\n");
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0640));
  }
  EXPECT_EQ(support::contentsOf(folder.path("ppp.log.1")), "one\nbetween\nnew\nbetween\nnew\n");
  EXPECT_EQ(support::contentsOf(folder.path("ppp.log.2")), "new\nbetween\n");
}

TEST_F(PPPLogTest, DoesNotGoOnInAFileOfSomebodyElses) {
  auto log = PPPLog::open(path);
  ASSERT_TRUE(log);
  std::filesystem::rename(path, folder.path("ppp.log.1"));
  support::writeFile(folder.path("target"), "");
  std::filesystem::create_symlink(folder.path("target"), path);
  log->copy("one");
  EXPECT_EQ(support::contentsOf(folder.path("target")), "");
  EXPECT_EQ(support::contentsOf(folder.path("ppp.log.1")), "one\n");
}

TEST_F(PPPLogTest, RefusesWhatIsNoRegularFile) {
  support::writeFile(folder.path("target"), "");
  std::filesystem::create_symlink(folder.path("target"), path);
  EXPECT_FALSE(PPPLog::open(path));
  ASSERT_EQ(::mkfifo(folder.path("fifo").c_str(), 0600), 0);
  EXPECT_FALSE(PPPLog::open(folder.path("fifo")));
  EXPECT_FALSE(PPPLog::open(folder.path()));
  EXPECT_FALSE(PPPLog::open(folder.path("no/such/folder")));
}

TEST_F(PPPLogTest, RefusesAFileThatIsNotOursAlone) {
  support::writeFile(path, "");
  ASSERT_EQ(::link(path.c_str(), folder.path("second").c_str()), 0);
  EXPECT_FALSE(PPPLog::open(path));
  ASSERT_EQ(::unlink(folder.path("second").c_str()), 0);
  EXPECT_TRUE(PPPLog::open(path));
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  ASSERT_EQ(::chown(path.c_str(), 1, 1), 0);
  EXPECT_FALSE(PPPLog::open(path));
}

TEST_F(PPPLogTest, AnOlderLogKeepsItsMode) {
  support::writeFile(path, "old\n");
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  ASSERT_TRUE(PPPLog::open(path));
  struct stat attributes = {};
  ASSERT_EQ(::stat(path.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0640U);
}

}  // namespace
}  // namespace helper
