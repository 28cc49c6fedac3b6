#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "helper/repair/Undo.h"
#include "linux/ChildProcess.h"
#include "tests/helper/network/RecordingRouting.h"
#include "tests/support/FewDescriptors.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;

namespace {

AddedRules rule(std::uint32_t table) { return {{PolicyRule{.kind = PolicyRule::Kind::ownTable, .table = table}}}; }

// One rule cannot be removed.
class StickingRouting : public support::RecordingRouting {
 public:
  vpnctl::Status remove(const PolicyRule &rule) override {
    tables.push_back(rule.table);
    if (rule.table == kStuck) return vpnctl::Error{"Netlink", 0, "it sticks"};
    return {};
  }
  static constexpr std::uint32_t kStuck = 666;
  std::vector<std::uint32_t> tables;
};

class UndoTest : public testing::Test {
 protected:
  // What is left of ENTRIES in the journal.
  std::vector<JournalEntry> undo(const std::vector<JournalEntry> &entries) {
    auto journal = Journal::create(folder_.path("vpnctl"));
    EXPECT_TRUE(journal);
    for (const auto &entry : entries) EXPECT_TRUE(journal->note(entry));
    Undo(routing_, [this](const std::string &sentence) { complaints_.push_back(sentence); }).takeBack(*journal);
    EXPECT_EQ(std::filesystem::exists(folder_.path("vpnctl")), !journal->entries().empty());
    return journal->entries();
  }

  const support::TemporaryFolder folder_;
  StickingRouting routing_;
  std::vector<std::string> complaints_;
};

TEST_F(UndoTest, GoesBackwardsAndPastWhatFailsAndKeepsThat) {
  const AddedRules stuck = rule(StickingRouting::kStuck);
  const auto left = undo({rule(7001), stuck, rule(7002)});
  EXPECT_EQ(routing_.tables, (std::vector<std::uint32_t>{7002, StickingRouting::kStuck, 7001}));
  ASSERT_EQ(complaints_.size(), 1U);
  EXPECT_NE(complaints_[0].find("it sticks"), std::string::npos);
  EXPECT_EQ(left, std::vector<JournalEntry>{stuck});
}

TEST_F(UndoTest, KeepsWhatAFileHeldUntilItIsPutBack) {
  ReplacedFile file;
  file.path = folder_.path("resolv.conf");
  file.bytes = "before\n";
  file.replacement = "ours\n";
  std::ofstream(file.path) << "somebody else's\n";
  {
    auto journal = Journal::create(folder_.path("vpnctl"));
    ASSERT_TRUE(journal);
    ASSERT_TRUE(journal->note(file));
    ASSERT_TRUE(journal->note(rule(7002)));
    Undo(routing_, [this](const std::string &sentence) { complaints_.push_back(sentence); }).takeBack(*journal);
    ReplacedFile told = file;
    told.takenOver = true;
    EXPECT_EQ(journal->entries(), std::vector<JournalEntry>{told});
  }
  EXPECT_EQ(complaints_.size(), 1U);
  // Whoever changed it has put back what was there: ours.
  std::ofstream(file.path) << file.replacement;
  std::vector<vpnctl::Error> errors;
  auto left = Journal::abandoned(folder_.path("vpnctl"), errors);
  ASSERT_EQ(left.size(), 1U);
  Undo(routing_, [this](const std::string &sentence) { complaints_.push_back(sentence); }).takeBack(left[0]);
  std::string line;
  std::getline(std::ifstream(file.path), line);
  EXPECT_EQ(line, "before");
  EXPECT_EQ(complaints_.size(), 1U);
  EXPECT_FALSE(std::filesystem::exists(folder_.path("vpnctl")));
}

TEST_F(UndoTest, EndsAProcessThatIsStillThere) {
  auto process = linux::ChildProcess::spawn({"/bin/sleep", "1000"}, {}, {});
  ASSERT_TRUE(process);
  EXPECT_TRUE(undo({StartedProcess{process->pid(), linux::startTimeOf(process->pid()).value()}}).empty());
  EXPECT_TRUE(process->waitFor(std::chrono::milliseconds(0)));
  EXPECT_TRUE(complaints_.empty());
}

TEST_F(UndoTest, BeginsNothingAfterItsDeadline) {
  const std::vector<JournalEntry> entries{rule(7001), rule(7002)};
  std::vector<Journal> journals;
  for (const char *base : {"/one", "/two"}) {
    journals.push_back(std::move(Journal::create(folder_.path() + base).value()));
    for (const JournalEntry &entry : entries) ASSERT_TRUE(journals.back().note(entry));
  }
  Undo undo(
      routing_, [this](const std::string &sentence) { complaints_.push_back(sentence); }, Undo::Clock::now());
  for (Journal &journal : journals) undo.takeBack(journal);
  EXPECT_TRUE(routing_.tables.empty());
  EXPECT_EQ(complaints_.size(), 1U) << "said once";
  journals.clear();
  // The next one goes on with it.
  std::vector<vpnctl::Error> errors;
  for (const char *base : {"/one", "/two"}) {
    auto left = Journal::abandoned(folder_.path() + base, errors);
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0].entries(), entries);
  }
}

TEST_F(UndoTest, LeavesAProgramThatTakesLongerThanItsDeadline) {
  const std::string program = folder_.path("resolvconf");
  std::ofstream(program) << "#!/bin/sh\necho $$ >" << folder_.path() << "/pid\nexec sleep 1000\n";
  std::filesystem::permissions(program, std::filesystem::perms::owner_all);
  auto journal = Journal::create(folder_.path("vpnctl"));
  ASSERT_TRUE(journal);
  const ResolvconfRecord record{program, "ppp0"};
  ASSERT_TRUE(journal->note(record));
  const auto begin = Undo::Clock::now();
  Undo(
      routing_, [this](const std::string &sentence) { complaints_.push_back(sentence); },
      begin + std::chrono::milliseconds(300))
      .takeBack(*journal);
  EXPECT_LT(Undo::Clock::now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(journal->entries(), std::vector<JournalEntry>{record});
  ASSERT_EQ(complaints_.size(), 1U);
  EXPECT_NE(complaints_[0].find("does not end"), std::string::npos);
  pid_t left = -1;
  ASSERT_TRUE(std::ifstream(folder_.path("pid")) >> left);
  EXPECT_EQ(::kill(left, SIGKILL), 0) << "it still runs";
  EXPECT_EQ(::waitpid(left, nullptr, 0), left);
}

// Without descriptors nobody can see whose process it is.
TEST_F(UndoTest, KeepsAProcessThatCannotBeLookedAt) {
  auto process = linux::ChildProcess::spawn({"/bin/sleep", "1000"}, {}, {});
  ASSERT_TRUE(process);
  const StartedProcess entry{process->pid(), linux::startTimeOf(process->pid()).value()};
  auto journal = Journal::create(folder_.path("vpnctl"));
  ASSERT_TRUE(journal);
  ASSERT_TRUE(journal->note(entry));
  Undo undo(routing_, [this](const std::string &sentence) { complaints_.push_back(sentence); });
  for (unsigned left = 0; left < 2; ++left) {
    const support::FewDescriptors few(left);
    undo.takeBack(*journal);
  }
  EXPECT_EQ(journal->entries(), std::vector<JournalEntry>{entry});
  EXPECT_EQ(complaints_.size(), 2U);
  EXPECT_FALSE(process->waitFor(std::chrono::milliseconds(0)));
  undo.takeBack(*journal);
  EXPECT_TRUE(journal->entries().empty());
  EXPECT_TRUE(process->waitFor(std::chrono::milliseconds(0)));
}

TEST_F(UndoTest, LeavesAnotherProcessOfTheSameNumberAlone) {
  auto process = linux::ChildProcess::spawn({"/bin/sleep", "1000"}, {}, {});
  ASSERT_TRUE(process);
  const std::uint64_t startTime = linux::startTimeOf(process->pid()).value();
  EXPECT_TRUE(undo({StartedProcess{process->pid(), startTime + 1}, StartedProcess{0x3fffffff, 1}}).empty());
  EXPECT_FALSE(process->waitFor(std::chrono::milliseconds(50)));
}

TEST_F(UndoTest, AnAssociationThatIsGoneIsNoMatter) {
  EXPECT_TRUE(undo({ProtectedFlow{4711}}).empty());
  EXPECT_TRUE(complaints_.empty());
}

TEST_F(UndoTest, KeepsAnAssociationThatTheKernelMayStillHave) {
  auto journal = Journal::create(folder_.path("vpnctl"));
  ASSERT_TRUE(journal);
  ASSERT_TRUE(journal->note(ProtectedFlow{4711}));
  {
    const support::FewDescriptors none(0);
    Undo(routing_, [this](const std::string &sentence) { complaints_.push_back(sentence); }).takeBack(*journal);
  }
  EXPECT_EQ(journal->entries(), std::vector<JournalEntry>{ProtectedFlow{4711}});
  ASSERT_EQ(complaints_.size(), 1U);
  EXPECT_NE(complaints_[0].find("An IPSec association of a connection could not be taken back: "), std::string::npos);
}

}  // namespace
