#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <thread>

#include "helper/network/FileReplacement.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
namespace fs = std::filesystem;

namespace {

class FileReplacementTest : public testing::Test {
 protected:
  FileReplacementTest() { write("before\n"); }

  void write(const std::string &text) { support::writeFile(path_, text); }
  std::string read() { return support::contentsOf(path_).value_or(""); }
  Journal begin() {
    auto journal = Journal::create(folder_.path("vpnctl"));
    EXPECT_TRUE(journal) << journal.error().message;
    return std::move(*journal);
  }
  // A link that has replaced the file by its NAME and the text before.
  Journal link(const std::string &name) {
    Journal journal = begin();
    replace(journal, name);
    return journal;
  }
  void replace(Journal &journal, const std::string &name) {
    const auto replaced = replaceFile(journal, path_, [&](const std::string &before) { return name + " " + before; });
    EXPECT_TRUE(replaced) << replaced.error().message;
  }
  // The link's end; whether the file is none of its business any more.
  static bool end(Journal &journal) {
    const auto back = takeFileBack(journal, 0);
    EXPECT_TRUE(back) << back.error().message;
    if (back && *back) journal.remove();
    return back && *back;
  }
  // Its helper dies.
  static void kill(std::optional<Journal> &journal) { journal.reset(); }
  std::vector<Journal> abandoned() {
    std::vector<vpnctl::Error> errors;
    auto found = Journal::abandoned(folder_.path("vpnctl"), errors);
    EXPECT_TRUE(errors.empty());
    return found;
  }

  const support::TemporaryFolder folder_;
  const std::string path_ = folder_.path("resolv.conf");
};

TEST_F(FileReplacementTest, TwoLinksEndInTheOrderTheyBegan) {
  Journal first = link("first");
  Journal second = link("second");
  EXPECT_EQ(read(), "second before\n");
  EXPECT_TRUE(end(first));
  EXPECT_EQ(read(), "second before\n");
  EXPECT_TRUE(end(second));
  EXPECT_EQ(read(), "before\n");
  EXPECT_FALSE(fs::exists(folder_.path("vpnctl")));
}

TEST_F(FileReplacementTest, TwoLinksEndTheOtherWayRound) {
  Journal first = link("first");
  Journal second = link("second");
  EXPECT_TRUE(end(second));
  EXPECT_EQ(read(), "first before\n");
  EXPECT_TRUE(end(first));
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, TwoLinksEndAtTheSameMoment) {
  for (int time = 0; time < 200; ++time) {
    Journal first = link("first");
    Journal second = link("second");
    std::thread other([&] { end(first); });
    EXPECT_TRUE(end(second));
    other.join();
    ASSERT_EQ(read(), "before\n") << "time " << time;
  }
}

TEST_F(FileReplacementTest, ThreeLinksEndFromTheMiddle) {
  Journal first = link("first");
  Journal second = link("second");
  Journal third = link("third");
  EXPECT_TRUE(end(second));
  EXPECT_EQ(read(), "third before\n");
  EXPECT_TRUE(end(third));
  EXPECT_EQ(read(), "first before\n");
  EXPECT_TRUE(end(first));
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, TheNewestLinkIsOnTopWhoeverIsFaster) {
  Journal first = begin();
  Journal second = link("second");
  replace(first, "first");
  EXPECT_EQ(read(), "second before\n");
  EXPECT_TRUE(end(second));
  EXPECT_EQ(read(), "first before\n");
  EXPECT_TRUE(end(first));
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, TwoLinksMayWriteTheSame) {
  Journal first = link("same");
  Journal second = link("same");
  EXPECT_TRUE(end(first));
  EXPECT_EQ(read(), "same before\n");
  EXPECT_TRUE(end(second));
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, ALinkAndItsTextComeBackThroughTwoLinks) {
  fs::rename(path_, folder_.path("target"));
  fs::create_symlink("target", path_);
  Journal first = link("first");
  Journal second = link("second");
  EXPECT_EQ(read(), "second before\n");
  EXPECT_TRUE(end(first));
  EXPECT_TRUE(end(second));
  EXPECT_EQ(fs::read_symlink(path_), "target");
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, ADeadLinksWorkIsNotPutBackAndIsRepaired) {
  std::optional<Journal> first = link("first");
  Journal second = link("second");
  kill(first);
  EXPECT_TRUE(end(second));
  EXPECT_EQ(read(), "before\n") << "nobody lives whose work could be put there";
  auto dead = abandoned();
  ASSERT_EQ(dead.size(), 1U);
  EXPECT_TRUE(end(dead[0]));
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, TheDeadOnTopIsRepairedToTheLivingBelow) {
  Journal first = link("first");
  std::optional<Journal> second = link("second");
  kill(second);
  auto dead = abandoned();
  ASSERT_EQ(dead.size(), 1U);
  EXPECT_TRUE(end(dead[0]));
  EXPECT_EQ(read(), "first before\n");
  EXPECT_TRUE(end(first));
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, ALinkOverADeadOneKnowsWhatWasThereBeforeBoth) {
  std::optional<Journal> first = link("first");
  kill(first);
  Journal second = link("second");
  EXPECT_EQ(read(), "second before\n");
  auto dead = abandoned();
  ASSERT_EQ(dead.size(), 1U);
  EXPECT_TRUE(end(dead[0]));
  EXPECT_EQ(read(), "second before\n");
  EXPECT_TRUE(end(second));
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, AllDeadAreRepairedInAnyOrder) {
  std::optional<Journal> first = link("first");
  std::optional<Journal> second = link("second");
  kill(first);
  kill(second);
  auto dead = abandoned();
  ASSERT_EQ(dead.size(), 2U);
  EXPECT_TRUE(end(dead[0]));
  EXPECT_TRUE(end(dead[1]));
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, WhatSomebodyElseWroteInBetweenComesBackAfterTheSecond) {
  Journal first = link("first");
  write("theirs\n");
  Journal second = link("second");
  EXPECT_EQ(read(), "second theirs\n");
  EXPECT_FALSE(end(first));
  EXPECT_EQ(read(), "second theirs\n");
  EXPECT_TRUE(end(second));
  EXPECT_EQ(read(), "theirs\n");
}

TEST_F(FileReplacementTest, IsNotedFirstOrNotDone) {
  Journal journal = begin();
  fs::remove_all(journal.folder());
  EXPECT_FALSE(replaceFile(journal, path_, [](const std::string &) { return "never"; }));
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, NothingIsNotedOfWhatCannotBeDone) {
  fs::create_directory(path_ + ".vpnctl-new");
  Journal journal = begin();
  EXPECT_FALSE(replaceFile(journal, path_, [](const std::string &) { return "never"; }));
  EXPECT_TRUE(journal.entries().empty());
  EXPECT_EQ(read(), "before\n");
}

TEST_F(FileReplacementTest, KeepsModeAndLeavesNothingBeside) {
  ASSERT_EQ(::chmod(path_.c_str(), 0604), 0);
  Journal journal = link("ours");
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0604));
  EXPECT_TRUE(end(journal));
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0604));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_.path()), fs::directory_iterator()), 1);
}

}  // namespace
