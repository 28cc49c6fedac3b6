// The real parts of a link, with a program in pppd's place and everything below a temporary folder.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "helper/common/IPv4Address.h"
#include "helper/link/MachineParts.h"
#include "helper/ppp/PPPOptions.h"
#include "helper/ppp/PluginPath.h"
#include "linux/Process.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;

namespace {

namespace fs = std::filesystem;

class NoSecrets : public SecretSource {
 public:
  vpnctl::Result<vpnctl::Secret> secretForService(const std::string &, const SecretUse &, const Peer &) override {
    return vpnctl::Error{"Test", 1, "there is none"};
  }
};

class MachinePartsTest : public support::LoopFixture {
 protected:
  MachinePartsTest() {
    plan.server = "192.0.2.1";
    plan.ppp.account = "DOM\\al ice";
    // Its words come into the file in one piece.
    support::writeFile(pppd,
                       "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$0.new\"\nmv \"$0.new\" \"$0.words\"\nexec sleep 100\n");
    EXPECT_EQ(::chmod(pppd.c_str(), 0700), 0);
  }

  std::unique_ptr<MachineParts> make() {
    return std::make_unique<MachineParts>(event_, plan, secrets, *log,
                                          MachineParts::Paths{.journals = journals, .pppd = pppd});
  }
  // The only link's.
  std::string linkFolder() const { return fs::directory_iterator(journals)->path(); }
  // What the link has noted, as another link sees it.
  std::vector<JournalEntry> noted() const {
    auto other = Journal::create(journals);
    EXPECT_TRUE(other);
    const auto others = other->others();
    other->remove();
    return others.size() == 1 ? others.front().entries : std::vector<JournalEntry>();
  }
  static bool hasChildren() { return ::waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD; }

  support::TemporaryFolder folder;
  const std::string journals = folder.path("journals");
  const std::string pppd = folder.path("pppd");
  vpnctl::Result<PPPLog> log = PPPLog::open(folder.path("ppp.log"));
  NoSecrets secrets;
  LinkPlan plan;
};

TEST_F(MachinePartsTest, GivesPPPDThePlansWordsAndNotesIt) {
  const auto parts = make();
  ASSERT_TRUE(parts->open());
  const auto ppp = parts->startPPP({});
  ASSERT_TRUE(ppp) << ppp.error().message;
  EXPECT_TRUE((*ppp)->running());
  const auto entries = noted();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_TRUE(std::holds_alternative<StartedProcess>(entries.front()));

  std::vector<linux::Clock::Timer> looks;
  ASSERT_TRUE(runUntil([&] {
    looks.push_back(parts->clock().after(std::chrono::milliseconds(10), [] {}));
    return fs::exists(pppd + ".words");
  }));
  const std::string place = linkFolder();
  std::string words;
  for (const std::string &word :
       pppOptions(plan.ppp, {.plugin = pluginPath(), .socket = place + "/plugin", .noScript = place + "/none"}))
    words += word + "\n";
  EXPECT_EQ(support::contentsOf(pppd + ".words"), words);
  EXPECT_FALSE(fs::exists(place + "/none"));
  (*ppp)->closeNow(std::chrono::seconds(5));
  parts->takeBack();
}

TEST_F(MachinePartsTest, LeavesNothingWhenItHasTakenEverythingBack) {
  const auto parts = make();
  parts->takeBack();  // nothing has been opened
  ASSERT_TRUE(parts->open());
  const auto ppp = parts->startPPP({});
  ASSERT_TRUE(ppp) << ppp.error().message;
  (*ppp)->closeNow(std::chrono::seconds(5));
  EXPECT_TRUE(fs::exists(journals));
  parts->takeBack();
  EXPECT_FALSE(fs::exists(journals));
  parts->takeBack();
  EXPECT_FALSE(fs::exists(journals));
  EXPECT_FALSE(hasChildren());
  EXPECT_EQ(support::contentsOf(log->path()), "");
}

TEST_F(MachinePartsTest, WithoutAJournalNothingIsOpen) {
  support::writeFile(journals, "no folder");
  const auto parts = make();
  const auto opened = parts->open();
  ASSERT_FALSE(opened);
  EXPECT_NE(opened.error().message.find(journals), std::string::npos) << opened.error().message;
  parts->takeBack();
  EXPECT_EQ(support::contentsOf(journals), "no folder");
}

TEST_F(MachinePartsTest, AMissingPPPDIsNamedWithTheRemedy) {
  fs::remove(pppd);
  const auto parts = make();
  ASSERT_TRUE(parts->open());
  const auto ppp = parts->startPPP({});
  ASSERT_FALSE(ppp);
  EXPECT_EQ(ppp.error().message, "start " + pppd + ": No such file or directory (is the package ppp installed?)");
  EXPECT_TRUE(noted().empty());
  parts->takeBack();
  EXPECT_FALSE(fs::exists(journals));
}

TEST_F(MachinePartsTest, APPPDThatCannotBeNotedIsEnded) {
  const auto parts = make();
  ASSERT_TRUE(parts->open());
  // Nothing can take the journal's place.
  fs::create_directories(linkFolder() + "/journal.plist/full");
  const auto ppp = parts->startPPP({});
  ASSERT_FALSE(ppp);
  EXPECT_NE(ppp.error().message.find("journal.plist"), std::string::npos) << ppp.error().message;
  EXPECT_FALSE(hasChildren());
  parts->takeBack();
  EXPECT_FALSE(fs::exists(journals));
}

TEST_F(MachinePartsTest, DescribesTheLinkForWhoeverAsks) {
  const auto parts = make();
  ASSERT_TRUE(parts->open());
  auto seen = Journal::look(journals);
  ASSERT_TRUE(seen && seen->size() == 1 && seen->front().note);
  LinkNote note = *seen->front().note;
  EXPECT_EQ(note.helper, (StartedProcess{::getpid(), linux::startTimeOf(::getpid()).value()}));
  EXPECT_EQ(note.server, "192.0.2.1");
  EXPECT_EQ(note.protocol, "PPTP");
  EXPECT_LE(note.begun, timeSinceBoot());
  EXPECT_FALSE(note.up);

  PluginIPUp up;
  up.interface = "ppp7";
  up.dns = {addressFrom("10.0.0.53").value()};
  up.encrypted = true;
  parts->describe(addressFrom("192.0.2.2").value(), up);
  seen = Journal::look(journals);
  ASSERT_TRUE(seen && seen->size() == 1 && seen->front().note);
  note.up = LinkNote::Up{"ppp7", addressFrom("192.0.2.2").value(), seen->front().note->up->since, up.dns, true};
  EXPECT_EQ(seen->front().note, note);
  EXPECT_GE(note.up->since, note.begun);
  parts->takeBack();
  EXPECT_FALSE(fs::exists(journals));
}

TEST_F(MachinePartsTest, LooksForThePlansServer) {
  const auto parts = make();
  std::optional<in_addr> found;
  const auto question = parts->findServer([&found](const vpnctl::Result<std::vector<in_addr>> &server) {
    if (server && server->size() == 1) found = server->front();
  });
  EXPECT_FALSE(found) << "later, from the loop";
  ASSERT_TRUE(runUntil([&found] { return found.has_value(); }));
  EXPECT_EQ(ntohl(found->s_addr), 0xc0000201U);
}

TEST_F(MachinePartsTest, NamesItsServerInTheLogWhileThereAreSeveralLinks) {
  const auto parts = make();
  ASSERT_TRUE(parts->open());
  parts->log("One.");
  auto other = Journal::create(journals);
  ASSERT_TRUE(other);
  parts->log("Two.");
  other->remove();
  parts->log("Three.");
  const std::string text = support::contentsOf(log->path()).value();
  EXPECT_NE(text.find(" : One.\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" : [192.0.2.1] Two.\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" : Three.\n"), std::string::npos) << text;
}

}  // namespace
