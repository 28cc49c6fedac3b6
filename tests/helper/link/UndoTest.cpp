#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "helper/ChildProcess.h"
#include "helper/link/Undo.h"

using namespace helper;

namespace {

class RecordingTable : public RouteTable {
 public:
  foundation::Result<Route> lookUp(in_addr) override { return foundation::Error{}; }
  foundation::Status add(const Route &) override { return foundation::Error{}; }
  foundation::Status detach(in_addr, const std::string &) override { return {}; }
  foundation::Status remove(const Route &route) override {
    removed.push_back(route.interface);
    if (route.interface == "stuck") return foundation::Error{"Netlink", 0, "it sticks"};
    return {};
  }
  std::vector<std::string> removed;
};

class UndoTest : public testing::Test {
 protected:
  UndoTest() {
    std::string name = testing::TempDir() + "undo.XXXXXX";
    EXPECT_NE(::mkdtemp(name.data()), nullptr);
    base_ = name;
  }
  ~UndoTest() override { std::filesystem::remove_all(base_); }

  // What is left of ENTRIES in the journal.
  std::vector<JournalEntry> undo(const std::vector<JournalEntry> &entries) {
    auto journal = Journal::create(base_ + "/vpnctl");
    EXPECT_TRUE(journal);
    for (const auto &entry : entries) EXPECT_TRUE(journal->note(entry));
    Undo(table_, [this](const std::string &sentence) { complaints_.push_back(sentence); }).finish(*journal);
    EXPECT_EQ(std::filesystem::exists(base_ + "/vpnctl"), !journal->entries().empty());
    return journal->entries();
  }

  std::string base_;
  RecordingTable table_;
  std::vector<std::string> complaints_;
};

TEST_F(UndoTest, GoesBackwardsAndPastWhatFailsAndKeepsThat) {
  const AddedRoute stuck{Route{{}, 1, {}, {}, "stuck"}};
  const auto left = undo({AddedRoute{Route{{}, 1, {}, {}, "first"}}, stuck, AddedRoute{Route{{}, 1, {}, {}, "last"}}});
  EXPECT_EQ(table_.removed, (std::vector<std::string>{"last", "stuck", "first"}));
  ASSERT_EQ(complaints_.size(), 1U);
  EXPECT_NE(complaints_[0].find("it sticks"), std::string::npos);
  EXPECT_EQ(left, std::vector<JournalEntry>{stuck});
}

TEST_F(UndoTest, KeepsWhatAFileHeldUntilItIsPutBack) {
  ReplacedFile file;
  file.path = base_ + "/resolv.conf";
  file.bytes = "before\n";
  file.replacement = "ours\n";
  std::ofstream(file.path) << "somebody else's\n";
  {
    auto journal = Journal::create(base_ + "/vpnctl");
    ASSERT_TRUE(journal);
    ASSERT_TRUE(journal->note(file));
    ASSERT_TRUE(journal->note(AddedRoute{Route{{}, 1, {}, {}, "last"}}));
    Undo(table_, [this](const std::string &sentence) { complaints_.push_back(sentence); }).finish(*journal);
    EXPECT_EQ(journal->entries(), std::vector<JournalEntry>{file});
  }
  EXPECT_EQ(complaints_.size(), 1U);
  // Whoever changed it has put back what was there: ours.
  std::ofstream(file.path) << file.replacement;
  std::vector<foundation::Error> errors;
  auto left = Journal::abandoned(base_ + "/vpnctl", errors);
  ASSERT_EQ(left.size(), 1U);
  Undo(table_, [this](const std::string &sentence) { complaints_.push_back(sentence); }).finish(left[0]);
  std::string line;
  std::getline(std::ifstream(file.path), line);
  EXPECT_EQ(line, "before");
  EXPECT_EQ(complaints_.size(), 1U);
  EXPECT_FALSE(std::filesystem::exists(base_ + "/vpnctl"));
}

TEST_F(UndoTest, EndsAProcessThatIsStillThere) {
  auto process = ChildProcess::spawn({"/bin/sleep", "1000"}, {}, {});
  ASSERT_TRUE(process);
  EXPECT_TRUE(undo({StartedProcess{process->pid(), startTimeOf(process->pid()).value()}}).empty());
  EXPECT_TRUE(process->waitFor(std::chrono::milliseconds(0)));
  EXPECT_TRUE(complaints_.empty());
}

TEST_F(UndoTest, LeavesAnotherProcessOfTheSameNumberAlone) {
  auto process = ChildProcess::spawn({"/bin/sleep", "1000"}, {}, {});
  ASSERT_TRUE(process);
  const std::uint64_t startTime = startTimeOf(process->pid()).value();
  EXPECT_TRUE(undo({StartedProcess{process->pid(), startTime + 1}, StartedProcess{0x3fffffff, 1}}).empty());
  EXPECT_FALSE(process->waitFor(std::chrono::milliseconds(50)));
}

TEST_F(UndoTest, ADaemonThatIsGoneHasNothingToGiveBack) {
  EXPECT_TRUE(undo({LoadedConnection{base_ + "/charon.vici", "vpnctl-1", 4711}}).empty());
  EXPECT_TRUE(complaints_.empty());
}

TEST_F(UndoTest, LeavesADaemonThatSomebodyStillUses) {
  const std::string useFile = base_ + "/use";
  const foundation::FileDescriptor user(::open(useFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::flock(user.get(), LOCK_SH), 0);
  auto program = ChildProcess::spawn({"/bin/sleep", "1000"}, {}, {});
  ASSERT_TRUE(program);
  EXPECT_TRUE(undo({StartedDaemon{program->pid(), startTimeOf(program->pid()).value_or(0), useFile, true}}).empty());
  EXPECT_FALSE(program->waitFor(std::chrono::milliseconds(0)));
  EXPECT_TRUE(std::filesystem::exists(useFile));
}

TEST_F(UndoTest, EndsADaemonThatNobodyUses) {
  const std::string useFile = base_ + "/use";
  auto program = ChildProcess::spawn({"/bin/sleep", "1000"}, {}, {});
  ASSERT_TRUE(program);
  const StartedDaemon daemon{program->pid(), startTimeOf(program->pid()).value_or(0), useFile, true};
  std::ofstream(useFile) << daemon.pid << " " << daemon.startTime << " 1\n";
  EXPECT_TRUE(undo({daemon}).empty());
  EXPECT_TRUE(program->waitFor(std::chrono::milliseconds(0)));
  EXPECT_FALSE(std::filesystem::exists(useFile));
}

}  // namespace
