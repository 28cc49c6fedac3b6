#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "helper/common/IPv4Address.h"
#include "helper/journal/Journal.h"
#include "helper/journal/LinkNote.h"
#include "linux/Process.h"
#include "tests/support/TemporaryFolder.h"

using vpnctl::Value;
using namespace helper;

namespace {

in_addr address(const char *text) { return addressFrom(text).value(); }

LinkNote fullNote() {
  return {.helper = {4711, 0xffffffffffffULL},
          .server = "vpn.example.com",
          .protocol = "L2TP",
          .begun = std::chrono::seconds(100),
          .up = LinkNote::Up{.interface = "ppp3",
                             .server = address("192.0.2.7"),
                             .since = std::chrono::seconds(103),
                             .nameServers = {address("10.0.0.53"), address("10.0.1.53")},
                             .encryptedByPPP = true}};
}

class LinkNoteTest : public testing::Test {
 protected:
  const support::TemporaryFolder folder_;
  const std::string base_ = folder_.path("vpnctl");
};

TEST_F(LinkNoteTest, ComesBackAsItWas) {
  EXPECT_EQ(noteFrom(noteValue(fullNote())), fullNote());
  LinkNote begun = fullNote();
  begun.up.reset();
  EXPECT_EQ(noteFrom(noteValue(begun)), begun);
}

TEST_F(LinkNoteTest, WhatMakesNoSenseIsNone) {
  EXPECT_FALSE(noteFrom(Value()));
  EXPECT_FALSE(noteFrom(Value("text")));
  const auto with = [](const char *key, const Value &changed) {
    Value value = noteValue(fullNote());
    value.set(key, changed);
    return noteFrom(value);
  };
  EXPECT_TRUE(with("Later", "what a newer version adds"));
  EXPECT_FALSE(with("HelperPID", 1));
  EXPECT_FALSE(with("HelperPID", std::int64_t{1} << 40));
  EXPECT_FALSE(with("Protocol", ""));
  EXPECT_FALSE(with("Up", "yes"));
  const auto withUp = [&](const char *key, const Value &changed) {
    Value up = noteValue(fullNote())["Up"];
    up.set(key, changed);
    return with("Up", up);
  };
  EXPECT_FALSE(withUp("Interface", ""));
  EXPECT_FALSE(withUp("Server", "nowhere"));
  EXPECT_FALSE(withUp("NameServers", Value::Array{Value("nowhere")}));
}

TEST_F(LinkNoteTest, IsSeenBesideTheJournal) {
  auto first = Journal::create(base_);
  auto second = Journal::create(base_);
  ASSERT_TRUE(first && second);
  ASSERT_TRUE(second->note(ProtectedFlow{7}));
  ASSERT_TRUE(second->describe(fullNote()));
  struct stat attributes {};
  ASSERT_EQ(::stat((second->folder() + "/link.plist").c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 0777, 0600U);
  const auto seen = Journal::look(base_);
  ASSERT_TRUE(seen) << seen.error().message;
  ASSERT_EQ(seen->size(), 2U);
  EXPECT_EQ((*seen)[0].number, 1U);
  EXPECT_FALSE((*seen)[0].note);
  EXPECT_TRUE((*seen)[0].entries.empty());
  EXPECT_EQ((*seen)[1].number, 2U);
  EXPECT_EQ((*seen)[1].note, fullNote());
  EXPECT_EQ((*seen)[1].entries, second->entries());
  first->remove();
  second->remove();
  EXPECT_FALSE(std::filesystem::exists(base_)) << "the note goes with its folder";
}

TEST_F(LinkNoteTest, IsInNobodysWay) {
  std::string folder;
  {
    auto dead = Journal::create(base_);
    ASSERT_TRUE(dead && dead->note(ProtectedFlow{7}) && dead->describe(fullNote()));
    folder = dead->folder();
  }
  ASSERT_TRUE(Journal::look(base_));
  std::vector<vpnctl::Error> errors;
  // The next helper reads the journal and removes the folder, with a note in it and without.
  auto found = Journal::abandoned(base_, errors);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].entries(), (std::vector<JournalEntry>{ProtectedFlow{7}}));
  // It is locked now.
  EXPECT_EQ(Journal::look(base_)->size(), 1U);
  found[0].remove();
  EXPECT_TRUE(errors.empty());
  EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST_F(LinkNoteTest, ThatCannotBeReadIsLeftOut) {
  auto journal = Journal::create(base_);
  ASSERT_TRUE(journal && journal->note(ProtectedFlow{7}) && journal->describe(fullNote()));
  std::filesystem::resize_file(journal->folder() + "/link.plist", 100);
  std::filesystem::resize_file(journal->folder() + "/journal.plist", 100);
  const auto seen = Journal::look(base_);
  ASSERT_TRUE(seen);
  ASSERT_EQ(seen->size(), 1U);
  EXPECT_FALSE(seen->front().note);
  EXPECT_TRUE(seen->front().entries.empty());
}

TEST_F(LinkNoteTest, WithoutAnyLinkThereIsNone) {
  const auto seen = Journal::look(base_);
  ASSERT_TRUE(seen) << seen.error().message;
  EXPECT_TRUE(seen->empty());
  support::writeFile(base_, "no folder");
  EXPECT_FALSE(Journal::look(base_));
}

TEST_F(LinkNoteTest, TimeIsThatOfProcesses) {
  // A process's start is counted from the machine's, too, in ticks of which no machine has more than 1000 a second.
  const auto started = linux::startTimeOf(::getpid());
  ASSERT_TRUE(started);
  const auto seconds = std::chrono::seconds(*started / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK)));
  EXPECT_GE(timeSinceBoot(), seconds);
  EXPECT_LT(timeSinceBoot(), seconds + std::chrono::hours(1));
}

}  // namespace
