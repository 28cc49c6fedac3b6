#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "helper/network/FileReplacement.h"
#include "helper/repair/Repair.h"
#include "helper/repair/Undo.h"
#include "tests/helper/network/RecordingRouting.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using support::contentsOf;
using support::writeFile;
namespace fs = std::filesystem;

namespace {

class RepairTest : public testing::Test {
 protected:
  RepairTest() { writeFile(file_, "before\n"); }

  // A link that has replaced the file by TEXT.
  Journal link(const std::string &text) {
    auto journal = Journal::create(bases_.running);
    EXPECT_TRUE(journal) << journal.error().message;
    const auto lasting = journal->openLasting(bases_.lasting);
    EXPECT_TRUE(lasting) << lasting.error().message;
    EXPECT_TRUE(replaceFile(**lasting, file_, [&](const std::string &) { return text; }));
    return std::move(*journal);
  }
  void failPower(std::optional<Journal> &link) {
    link.reset();
    fs::remove_all(bases_.running);  // it lies in memory
  }
  void repair() {
    repairAbandoned([this](const std::string &sentence) { said_.push_back(sentence); }, bases_);
  }
  // The link's own end.
  void end(Journal &journal) {
    support::RecordingRouting routes;
    Undo(routes, [this](const std::string &sentence) { said_.push_back(sentence); }).takeBack(journal);
  }
  std::ptrdiff_t saidOfFile() const {
    return std::ranges::count_if(
        said_,
        [](const std::string &sentence) { return sentence.find("was changed by somebody else") != std::string::npos; });
  }

  const support::TemporaryFolder folder_;
  const JournalBases bases_{folder_.path("run"), folder_.path("var/replaced")};
  const std::string file_ = folder_.path("resolv.conf");
  std::vector<std::string> said_;
};

TEST_F(RepairTest, PutsAFileBackAfterAPowerFailure) {
  std::optional<Journal> first = link("ours\n");
  ASSERT_EQ(fs::status(bases_.lasting).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(bases_.lasting + "/link.1/journal.plist").permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
  failPower(first);
  repair();
  EXPECT_EQ(contentsOf(file_), "before\n");
  EXPECT_FALSE(fs::exists(bases_.lasting));
  EXPECT_EQ(said_.size(), 1U);
  repair();
  EXPECT_EQ(said_.size(), 1U) << "there is nothing left to do";
}

TEST_F(RepairTest, PutsALinkAndAMissingFileBackAfterAPowerFailure) {
  for (const bool isLink : {true, false}) {
    fs::remove(file_);
    if (isLink) fs::create_symlink("elsewhere", file_);
    std::optional<Journal> dead = link("ours\n");
    failPower(dead);
    repair();
    EXPECT_EQ(fs::is_symlink(file_), isLink);
    EXPECT_FALSE(fs::exists(file_));
  }
}

TEST_F(RepairTest, PutsBackWhatWasThereBeforeTheFirstOfTwo) {
  std::optional<Journal> first = link("first\n");
  std::optional<Journal> second = link("second\n");
  failPower(first);
  failPower(second);
  repair();
  EXPECT_EQ(contentsOf(file_), "before\n");
  EXPECT_FALSE(fs::exists(bases_.lasting));
}

TEST_F(RepairTest, LeavesWhatALivingLinkDid) {
  Journal living = link("ours\n");
  repair();
  EXPECT_EQ(contentsOf(file_), "ours\n");
  EXPECT_TRUE(said_.empty());
  end(living);
  EXPECT_EQ(contentsOf(file_), "before\n");
  EXPECT_FALSE(fs::exists(bases_.lasting));
  EXPECT_FALSE(fs::exists(bases_.running));
}

// The link of before the failure has a number that the next one gets, too.
TEST_F(RepairTest, ALinkOverWhatAFailureLeftKnowsWhatWasThereBeforeBoth) {
  std::optional<Journal> dead = link("dead\n");
  failPower(dead);
  Journal living = link("living\n");
  ASSERT_EQ(living.number(), 1U);
  EXPECT_EQ(living.lasting()->number(), 2U);
  repair();
  EXPECT_EQ(contentsOf(file_), "living\n");
  end(living);
  EXPECT_EQ(contentsOf(file_), "before\n");
}

TEST_F(RepairTest, ALinkThatIsUpEarlierButYoungerStaysOnTop) {
  auto older = Journal::create(bases_.running);
  ASSERT_TRUE(older);
  Journal younger = link("younger\n");
  ASSERT_TRUE(older->openLasting(bases_.lasting));
  EXPECT_TRUE(replaceFile(*older->lasting(), file_, [](const std::string &) { return "older\n"; }));
  EXPECT_EQ(contentsOf(file_), "younger\n");
  end(younger);
  EXPECT_EQ(contentsOf(file_), "older\n");
  end(*older);
  EXPECT_EQ(contentsOf(file_), "before\n");
}

TEST_F(RepairTest, LeavesAFileThatSomebodyElseHasChangedSinceAndForgetsIt) {
  std::optional<Journal> dead = link("ours\n");
  failPower(dead);
  writeFile(file_, "theirs\n");
  repair();
  EXPECT_EQ(contentsOf(file_), "theirs\n");
  EXPECT_EQ(saidOfFile(), 1);
  EXPECT_FALSE(fs::exists(bases_.lasting)) << "what somebody else does much later is none of our business";
}

TEST_F(RepairTest, SaysOnceThatAFileIsSomebodyElses) {
  {
    Journal living = link("ours\n");
    writeFile(file_, "theirs\n");
    const auto ours = isFileStillReplaced(*living.lasting(), 0);
    ASSERT_TRUE(ours);
    EXPECT_FALSE(*ours);
    end(living);
    EXPECT_EQ(contentsOf(file_), "theirs\n");
    EXPECT_EQ(saidOfFile(), 0) << "whoever asked has said it";
    EXPECT_FALSE(fs::exists(bases_.running));
  }
  // He may yet put back what he found.
  ASSERT_TRUE(fs::exists(bases_.lasting));
  repair();
  EXPECT_EQ(saidOfFile(), 0);
  EXPECT_FALSE(fs::exists(bases_.lasting));
}

TEST_F(RepairTest, PutsBackWhatSomebodyElseHasGivenBackInTheEnd) {
  {
    Journal living = link("ours\n");
    writeFile(file_, "theirs\n");
    end(living);
  }
  EXPECT_EQ(saidOfFile(), 1);
  writeFile(file_, "ours\n");
  repair();
  EXPECT_EQ(contentsOf(file_), "before\n");
  EXPECT_EQ(saidOfFile(), 1);
}

TEST_F(RepairTest, KnowsTheWorkOfOtherLinks) {
  Journal first = link("first\n");
  std::optional<Journal> second = link("second\n");
  const auto isOurs = [&] { return isFileStillReplaced(*first.lasting(), 0).value(); };
  EXPECT_TRUE(isOurs());
  second.reset();  // its helper dies
  EXPECT_TRUE(isOurs());
  repair();
  EXPECT_EQ(contentsOf(file_), "first\n");
  EXPECT_TRUE(isOurs());
  writeFile(file_, "before\n");
  EXPECT_FALSE(isOurs()) << "whoever wrote the old text has changed it all the same";
}

TEST_F(RepairTest, RemembersForAWhileThatAServerWasNotToldOfAnEnd) {
  using Servers = std::set<std::string>;
  const auto repaired = [this] { return repairAbandoned([](const std::string &) {}, bases_); };
  EXPECT_EQ(repaired(), Servers());
  {
    auto journal = Journal::create(bases_.running);
    ASSERT_TRUE(journal);
    const PolicyRule way{.kind = PolicyRule::Kind::wayToServer, .server = {htonl(0xc0000207)}, .table = 7001};
    ASSERT_TRUE(journal->note(AddedRules{{way}}));
    ASSERT_TRUE(journal->note(ProtectedFlow{7}));
  }
  EXPECT_EQ(repaired(), Servers{"192.0.2.7"});
  EXPECT_EQ(repaired(), Servers{"192.0.2.7"}) << "the next one hears it, too";
  const std::string mark = bases_.running + "/l2tp-not-told.192.0.2.7";
  ASSERT_TRUE(fs::exists(mark));
  fs::last_write_time(mark, fs::last_write_time(mark) - std::chrono::minutes(3));
  EXPECT_EQ(repaired(), Servers());
  EXPECT_FALSE(fs::exists(mark));
}

}  // namespace
