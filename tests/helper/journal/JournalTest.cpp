#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "helper/common/IPv4Address.h"
#include "helper/journal/Journal.h"
#include "tests/support/FewDescriptors.h"
#include "tests/support/TemporaryFolder.h"

using vpnctl::Value;
using namespace helper;

namespace {

in_addr address(const char *text) { return addressFrom(text).value(); }

std::vector<JournalEntry> oneOfEach() {
  ReplacedFile file;
  file.path = "/etc/resolv.conf";
  file.bytes = std::string("nameserver 10.0.0.1\n\xff\x00 odd", 26);
  file.mode = 0640;
  file.owner = 1;
  file.group = 2;
  file.replacement = "other\n";
  ReplacedFile link;
  link.path = "/etc/resolv.conf";
  link.linkTarget = "../run/x";
  return {StartedProcess{4711, 0xffffffffffffULL},
          AddedRules{{{PolicyRule::Kind::wayToServer, false, address("192.0.2.7"), 7001},
                      {PolicyRule::Kind::localNetworks, true, {}, 0}}},
          FilledTable{UINT32_MAX, {IPv4Network{}, networkFrom("10.0.0.0/8").value()}},
          ResolvconfRecord{"/sbin/resolvconf", "ppp0.vpnctl"},
          file,
          link,
          ProtectedFlow{UINT32_MAX}};
}

class JournalTest : public testing::Test {
 protected:
  std::vector<Journal> abandoned() { return Journal::abandoned(base_, errors_); }

  const support::TemporaryFolder folder_;
  const std::string base_ = folder_.path("vpnctl");
  std::vector<vpnctl::Error> errors_;
};

TEST_F(JournalTest, EntriesComeBackAsTheyWere) {
  const auto entries = journalEntries(journalValue(oneOfEach()));
  ASSERT_TRUE(entries) << entries.error().message;
  EXPECT_EQ(*entries, oneOfEach());
}

TEST_F(JournalTest, RefusesWhatMakesNoSense) {
  EXPECT_FALSE(journalEntries(Value()));
  EXPECT_FALSE(journalEntries(Value("text")));
  const auto withEntry = [](const char *key, const Value &changed, std::size_t index) {
    const Value value = journalValue(oneOfEach());
    Value::Array entries = value["Entries"].array();
    entries[index].set(key, changed);
    Value result{Value::Dictionary{}};
    result.set("Version", 1);
    result.set("Entries", entries);
    return result;
  };
  EXPECT_FALSE(journalEntries(withEntry("Kind", "Reboot", 0)));
  EXPECT_FALSE(journalEntries(withEntry("PID", 1, 0)));
  EXPECT_FALSE(journalEntries(withEntry("PID", -1, 0)));
  EXPECT_FALSE(journalEntries(withEntry("PID", "junk", 0)));
  const auto withRule = [&](const char *key, const Value &changed) {
    Value rule = journalValue(oneOfEach())["Entries"].array()[1]["Rules"].array()[0];
    rule.set(key, changed);
    return withEntry("Rules", Value::Array{rule}, 1);
  };
  EXPECT_TRUE(journalEntries(withRule("IPv6", true)));
  EXPECT_FALSE(journalEntries(withRule("Rule", "Reboot")));
  EXPECT_FALSE(journalEntries(withRule("Server", "nowhere")));
  for (const Value &table : {Value(255), Value(std::uint64_t{1} << 32)}) {
    EXPECT_FALSE(journalEntries(withRule("Table", table)));
    EXPECT_FALSE(journalEntries(withEntry("Table", table, 2))) << "255 holds this machine's addresses";
  }
  EXPECT_FALSE(journalEntries(withEntry("Networks", Value::Array{Value("everything")}, 2)));
  EXPECT_FALSE(journalEntries(withEntry("Program", "resolvconf", 3)));
  EXPECT_FALSE(journalEntries(withEntry("Path", "etc/resolv.conf", 4)));
  EXPECT_FALSE(journalEntries(withEntry("ReqID", 0, 6)));
  EXPECT_FALSE(journalEntries(withEntry("ReqID", std::uint64_t{1} << 32, 6)));
}

TEST_F(JournalTest, AnAssociationForgetsItsOwnEntries) {
  auto journal = Journal::create(base_);
  ASSERT_TRUE(journal);
  IPSecJournal &seam = *journal;
  const ProtectedFlow flow{7};
  const StartedProcess process{4712, 17};
  ASSERT_TRUE(seam.noteFlow(flow));
  ASSERT_TRUE(seam.noteProcess(process));
  ASSERT_TRUE(journal->note(StartedProcess{4711, 1}));
  seam.forgetProcess(process);
  seam.forgetProcess(process);
  EXPECT_EQ(journal->entries(), (std::vector<JournalEntry>{flow, StartedProcess{4711, 1}}));
  seam.forgetFlow(flow);
  EXPECT_EQ(journal->entries(), (std::vector<JournalEntry>{StartedProcess{4711, 1}}));
}

TEST_F(JournalTest, IsWrittenBeforeTheChangeAndForgottenAfter) {
  auto journal = Journal::create(base_);
  ASSERT_TRUE(journal) << journal.error().message;
  struct stat attributes {};
  ASSERT_EQ(::stat(journal->folder().c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 0777, 0700U);
  for (const JournalEntry &entry : oneOfEach()) EXPECT_TRUE(journal->note(entry));
  EXPECT_TRUE(journal->forgetLast());
  EXPECT_EQ(journal->entries().size(), oneOfEach().size() - 1);
  journal->remove();
  EXPECT_FALSE(std::filesystem::exists(base_)) << "the last one out takes the base along";
}

TEST_F(JournalTest, OfTheLivingIsNotTouched) {
  auto journal = Journal::create(base_);
  ASSERT_TRUE(journal);
  EXPECT_TRUE(abandoned().empty());
  EXPECT_TRUE(errors_.empty());
  EXPECT_TRUE(std::filesystem::exists(journal->folder()));
}

TEST_F(JournalTest, OfTheDeadIsFoundWithItsEntries) {
  auto living = Journal::create(base_);
  ASSERT_TRUE(living);
  {
    auto dead = Journal::create(base_);
    ASSERT_TRUE(dead);
    for (const JournalEntry &entry : oneOfEach()) ASSERT_TRUE(dead->note(entry));
  }
  auto found = abandoned();
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].entries(), oneOfEach());
  // Locked now: a third does not see it.
  EXPECT_TRUE(abandoned().empty());
  found[0].remove();
  EXPECT_TRUE(std::filesystem::exists(base_));
  living->remove();
  EXPECT_TRUE(errors_.empty());
}

TEST_F(JournalTest, NumbersTheLinksThatAreThereAtTheSameTime) {
  auto first = Journal::create(base_);
  auto second = Journal::create(base_);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->number(), 1U);
  EXPECT_EQ(second->number(), 2U);
  first->remove();
  auto third = Journal::create(base_);
  ASSERT_TRUE(third);
  EXPECT_EQ(third->number(), 3U);
  second->remove();
  third->remove();
  EXPECT_EQ(Journal::create(base_)->number(), 1U);
}

TEST_F(JournalTest, ShowsTheOthersTheirWork) {
  auto own = Journal::create(base_);
  auto living = Journal::create(base_);
  ASSERT_TRUE(own && living);
  ASSERT_TRUE(living->note(StartedProcess{4711, 1}));
  {
    auto dead = Journal::create(base_);
    ASSERT_TRUE(dead && dead->note(StartedProcess{4712, 1}));
  }
  ASSERT_TRUE(own->note(StartedProcess{4713, 1}));
  ASSERT_TRUE(own->lockOthersOut());
  auto others = own->others();
  std::sort(others.begin(), others.end(), [](const auto &a, const auto &b) { return a.number < b.number; });
  ASSERT_EQ(others.size(), 2U);
  EXPECT_EQ(others[0].number, 2U);
  EXPECT_TRUE(others[0].alive);
  EXPECT_EQ(others[0].entries, living->entries());
  EXPECT_EQ(others[1].number, 3U);
  EXPECT_FALSE(others[1].alive);
  EXPECT_EQ(others[1].entries, (std::vector<JournalEntry>{StartedProcess{4712, 1}}));
  EXPECT_EQ(abandoned().size(), 1U) << "looking holds nothing";
}

TEST_F(JournalTest, IsLookedAtWithoutATrace) {
  EXPECT_TRUE(Journal::look(base_)->empty());
  EXPECT_FALSE(std::filesystem::exists(base_)) << "looking makes nothing";
  auto living = Journal::create(base_);
  ASSERT_TRUE(living && living->note(StartedProcess{4711, 1}));
  std::string deadFolder;
  {
    auto dead = Journal::create(base_);
    ASSERT_TRUE(dead && dead->note(StartedProcess{4712, 1}));
    deadFolder = dead->folder();
  }
  std::filesystem::resize_file(deadFolder + "/journal.plist", 100);
  std::filesystem::create_directory(base_ + "/broken.7");
  for (int time = 0; time < 2; ++time) {
    auto seen = Journal::look(base_);
    ASSERT_TRUE(seen) << seen.error().message;
    std::ranges::sort(*seen, {}, &Journal::Sight::folder);
    ASSERT_EQ(seen->size(), 2U);
    EXPECT_EQ(seen->at(0).folder, living->folder());
    EXPECT_TRUE(seen->at(0).alive);
    EXPECT_TRUE(seen->at(0).readable);
    EXPECT_EQ(seen->at(1).folder, deadFolder);
    EXPECT_FALSE(seen->at(1).alive);
    EXPECT_FALSE(seen->at(1).readable);
  }
  EXPECT_TRUE(abandoned().empty());
  EXPECT_EQ(errors_.size(), 1U) << "it was still there to be found";
}

TEST_F(JournalTest, ThatCannotBeReadIsReported) {
  std::string folder;
  {
    auto dead = Journal::create(base_);
    ASSERT_TRUE(dead);
    ASSERT_TRUE(dead->note(StartedProcess{4711, 1}));
    folder = dead->folder();
  }
  std::filesystem::resize_file(folder + "/journal.plist", 100);
  EXPECT_TRUE(abandoned().empty());
  ASSERT_EQ(errors_.size(), 1U);
  EXPECT_NE(errors_[0].message.find("journal.plist"), std::string::npos);
  // Kept as it was, and never looked at again.
  const std::string aside = base_ + "/broken." + folder.substr(folder.rfind('.') + 1);
  EXPECT_NE(errors_[0].message.find(aside), std::string::npos) << errors_[0].message;
  EXPECT_EQ(std::filesystem::file_size(aside + "/journal.plist"), 100U);
  EXPECT_TRUE(abandoned().empty());
  EXPECT_EQ(errors_.size(), 1U);
}

// Another day, another helper: nothing is wrong with it.
TEST_F(JournalTest, ThatNobodyHasDescriptorsToReadIsLeft) {
  {
    auto dead = Journal::create(base_);
    ASSERT_TRUE(dead);
    ASSERT_TRUE(dead->note(StartedProcess{4711, 1}));
  }
  unsigned left = 0;
  for (bool found = false; !found; ++left) {
    ASSERT_LT(left, 20U);
    const support::FewDescriptors few(left);
    errors_.clear();
    found = !abandoned().empty();
    EXPECT_EQ(errors_.empty(), found) << left;
  }
  EXPECT_GT(left, 3U);
  EXPECT_EQ(abandoned().size(), 1U);
}

TEST_F(JournalTest, ThatNobodyHasDescriptorsToMakeLeavesNothing) {
  auto other = Journal::create(base_);
  ASSERT_TRUE(other);
  for (unsigned left = 0;; ++left) {
    ASSERT_LT(left, 20U);
    const support::FewDescriptors few(left);
    if (Journal::create(base_)) break;
    EXPECT_FALSE(std::filesystem::exists(base_ + "/link.2")) << left;
  }
}

TEST_F(JournalTest, AFolderThatWasMadeForNothingGoes) {
  for (unsigned left = 0;; ++left) {
    ASSERT_LT(left, 20U);
    const support::FewDescriptors few(left);
    auto journal = Journal::create(base_);
    if (journal) {
      journal->remove();
      break;
    }
    EXPECT_FALSE(std::filesystem::exists(base_)) << left;
  }
  ASSERT_TRUE(std::filesystem::create_directory(base_));
  EXPECT_TRUE(abandoned().empty());
  EXPECT_TRUE(errors_.empty());
  EXPECT_FALSE(std::filesystem::exists(base_));
}

TEST_F(JournalTest, DoesNotWaitForEverForOneWhoHoldsTheLock) {
  auto holder = Journal::create(base_);
  ASSERT_TRUE(holder);
  auto other = Journal::create(base_, std::chrono::milliseconds(30));
  ASSERT_TRUE(other);
  const auto lock = holder->lockOthersOut();
  ASSERT_TRUE(lock);
  EXPECT_EQ(Journal::create(base_, std::chrono::milliseconds(30)).error().code, EWOULDBLOCK);
  EXPECT_EQ(other->lockOthersOut().error().code, EWOULDBLOCK);
  EXPECT_TRUE(Journal::abandoned(base_, errors_, std::chrono::milliseconds(30)).empty());
  EXPECT_EQ(errors_.size(), 1U);
  other->remove();
  EXPECT_FALSE(std::filesystem::exists(other->folder()));
  EXPECT_TRUE(std::filesystem::exists(holder->folder()));
}

TEST_F(JournalTest, LiesInAFolderThatIsOurs) {
  ASSERT_TRUE(std::filesystem::create_directory(base_));
  ASSERT_EQ(::chmod(base_.c_str(), 0777), 0);
  ASSERT_TRUE(Journal::create(base_));
  struct stat attributes {};
  ASSERT_EQ(::stat(base_.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0700U);
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
  ASSERT_EQ(::chown(base_.c_str(), 1, 1), 0);
  EXPECT_FALSE(Journal::create(base_));
  EXPECT_TRUE(abandoned().empty());
  EXPECT_EQ(errors_.size(), 1U);
}

TEST_F(JournalTest, WithoutAnyChangeIsNoError) {
  { ASSERT_TRUE(Journal::create(base_)); }
  EXPECT_EQ(abandoned().size(), 1U);
  EXPECT_TRUE(errors_.empty());
}

TEST_F(JournalTest, ThatCannotBeWrittenForbidsTheChange) {
  auto journal = Journal::create(base_);
  ASSERT_TRUE(journal);
  std::filesystem::remove_all(journal->folder());
  EXPECT_FALSE(journal->note(StartedProcess{4711, 1}));
  EXPECT_TRUE(journal->entries().empty());
}

TEST_F(JournalTest, LocksAreClosedOnExec) {
  auto journal = Journal::create(base_);
  ASSERT_TRUE(journal);
  int seen = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = std::stoi(entry.path().filename().string());
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) != journal->folder()) continue;
    ++seen;
    EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
  }
  EXPECT_EQ(seen, 1);
}

TEST(StartTime, TellsAProcessFromItsSuccessor) {
  const auto own = linux::startTimeOf(::getpid());
  ASSERT_TRUE(own);
  EXPECT_GT(*own, 0U);
  EXPECT_EQ(linux::startTimeOf(::getpid()), own);
  EXPECT_FALSE(linux::startTimeOf(0x3fffffff));
}

}  // namespace
