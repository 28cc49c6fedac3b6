#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string>

#include "helper/authorization/PolkitAuthority.h"
#include "linux/Process.h"
#include "tests/support/LoopFixture.h"

namespace helper {
namespace {

using vpnctl::FileDescriptor;
using Verdict = Authority::Verdict;

// A polkit at the other end of a socket pair, without a bus between: it notes the question, and answers what it was
// told.
class PolkitAuthorityTest : public support::LoopFixture {
 protected:
  struct Question {
    std::string kind;
    std::uint32_t pid = 0;
    std::uint64_t startTime = 0;
    std::int32_t uid = -1;
    std::string action;
    std::uint32_t flags = 0;
    std::string cancellation;
  };
  enum class Answers { outcome, error, goesAway, never };

  PolkitAuthorityTest() {
    std::array<int, 2> pair{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
    ours.reset(pair[0]);
    theirs.reset(pair[1]);
    auto found = Peer::ofSocket(ours.get());
    peer.emplace(std::move(*found));
  }

  vpnctl::Result<linux::Bus> open() {
    if (noBus) return vpnctl::errnoError(ENOENT, "reach the system bus");
    std::array<int, 2> pair{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()), 0);
    static const sd_bus_vtable kMethods[] = {SD_BUS_VTABLE_START(0),
                                             SD_BUS_METHOD(
                                                 "CheckAuthorization", "(sa{sv})sa{ss}us", "(bba{ss})",
                                                 [](sd_bus_message *message, void *test, sd_bus_error *) {
                                                   return static_cast<PolkitAuthorityTest *>(test)->check(message);
                                                 },
                                                 SD_BUS_VTABLE_UNPRIVILEGED),
                                             SD_BUS_METHOD(
                                                 "CancelCheckAuthorization", "s", "",
                                                 [](sd_bus_message *message, void *test, sd_bus_error *) {
                                                   const char *name = nullptr;
                                                   sd_bus_message_read(message, "s", &name);
                                                   static_cast<PolkitAuthorityTest *>(test)->cancelled = name;
                                                   return sd_bus_reply_method_return(message, "");
                                                 },
                                                 SD_BUS_VTABLE_UNPRIVILEGED),
                                             SD_BUS_VTABLE_END};
    sd_id128_t identifier{};
    EXPECT_GE(sd_id128_randomize(&identifier), 0);
    EXPECT_GE(sd_bus_new(linux::Out(polkit)), 0);
    EXPECT_GE(sd_bus_set_fd(polkit.get(), pair[1], pair[1]), 0);
    EXPECT_GE(sd_bus_set_server(polkit.get(), 1, identifier), 0);
    EXPECT_GE(sd_bus_add_object_vtable(polkit.get(), nullptr, "/org/freedesktop/PolicyKit1/Authority",
                                       "org.freedesktop.PolicyKit1.Authority", kMethods, this),
              0);
    EXPECT_GE(sd_bus_start(polkit.get()), 0);
    EXPECT_GE(sd_bus_attach_event(polkit.get(), event_, SD_EVENT_PRIORITY_NORMAL), 0);
    linux::Bus bus;
    EXPECT_GE(sd_bus_new(linux::Out(bus)), 0);
    EXPECT_GE(sd_bus_set_fd(bus.get(), pair[0], pair[0]), 0);
    EXPECT_GE(sd_bus_start(bus.get()), 0);
    return bus;
  }

  int check(sd_bus_message *message) {
    Question asked;
    const char *kind = nullptr;
    EXPECT_GE(sd_bus_message_enter_container(message, 'r', "sa{sv}"), 0);
    EXPECT_GE(sd_bus_message_read(message, "s", &kind), 0);
    asked.kind = kind;
    EXPECT_GE(sd_bus_message_enter_container(message, 'a', "{sv}"), 0);
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
      const char *key = nullptr;
      EXPECT_GE(sd_bus_message_read(message, "s", &key), 0);
      const std::string name = key;
      if (name == "pid") EXPECT_GE(sd_bus_message_read(message, "v", "u", &asked.pid), 0);
      if (name == "start-time") EXPECT_GE(sd_bus_message_read(message, "v", "t", &asked.startTime), 0);
      if (name == "uid") EXPECT_GE(sd_bus_message_read(message, "v", "i", &asked.uid), 0);
      EXPECT_GE(sd_bus_message_exit_container(message), 0);
    }
    EXPECT_GE(sd_bus_message_exit_container(message), 0);
    EXPECT_GE(sd_bus_message_exit_container(message), 0);
    const char *action = nullptr;
    const char *cancellation = nullptr;
    EXPECT_GE(sd_bus_message_read(message, "s", &action), 0);
    EXPECT_GE(sd_bus_message_skip(message, "a{ss}"), 0);
    EXPECT_GE(sd_bus_message_read(message, "us", &asked.flags, &cancellation), 0);
    asked.action = action;
    asked.cancellation = cancellation;
    question = asked;
    switch (answers) {
      case Answers::outcome:
        return sd_bus_reply_method_return(message, "(bba{ss})", authorized, challenge, detail.empty() ? 0 : 1,
                                          detail.c_str(), "true");
      case Answers::error:
        return sd_bus_reply_method_errorf(message, detail.c_str(), "as polkit puts it");
      case Answers::goesAway:
        sd_bus_close(polkit.get());
        return 1;
      case Answers::never:
        break;
    }
    return 1;
  }

  void ask(bool mayInteract = true) {
    authority.emplace(event_, [this] { return open(); });
    authority->ask(*peer, mayInteract, [this](const Authority::Answer &said) {
      ++answered;
      answer = said;
    });
    EXPECT_EQ(answered, 0) << "not from the call itself";
  }
  void askAndWait(bool mayInteract = true) {
    ask(mayInteract);
    ASSERT_TRUE(runUntil([this] { return answered > 0; }));
  }
  bool says(const std::string &text) const { return answer.sentence.find(text) != std::string::npos; }

  FileDescriptor ours;
  FileDescriptor theirs;
  std::optional<Peer> peer;  // this process
  bool noBus = false;
  Answers answers = Answers::outcome;
  int authorized = 0;
  int challenge = 0;
  std::string detail;
  linux::Bus polkit;
  std::optional<Question> question;
  std::string cancelled;
  std::optional<PolkitAuthority> authority;
  int answered = 0;
  Authority::Answer answer;
};

TEST_F(PolkitAuthorityTest, AsksForTheProcessAtTheOtherEnd) {
  authorized = 1;
  ASSERT_NO_FATAL_FAILURE(askAndWait());
  EXPECT_EQ(answer.verdict, Verdict::granted);
  ASSERT_TRUE(question);
  EXPECT_EQ(question->kind, "unix-process");
  EXPECT_EQ(question->pid, static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(question->startTime, linux::startTimeOf(::getpid()));
  EXPECT_EQ(question->uid, static_cast<std::int32_t>(::getuid()));
  EXPECT_EQ(question->action, "org.vpnctl.system-preferences");
  EXPECT_EQ(question->flags, 1U);
  EXPECT_NE(question->cancellation, "");
}

TEST_F(PolkitAuthorityTest, AsksNobodyWhereTheCallerDoesNotWantThat) {
  challenge = 1;
  ASSERT_NO_FATAL_FAILURE(askAndWait(false));
  EXPECT_EQ(question->flags, 0U);
  EXPECT_EQ(answer.verdict, Verdict::interactionWanted);
}

TEST_F(PolkitAuthorityTest, ARefusalNamesTheAction) {
  ASSERT_NO_FATAL_FAILURE(askAndWait());
  EXPECT_EQ(answer.verdict, Verdict::denied);
  EXPECT_TRUE(says("User " + std::to_string(::getuid()))) << answer.sentence;
  EXPECT_TRUE(says("org.vpnctl.system-preferences")) << answer.sentence;
}

TEST_F(PolkitAuthorityTest, ADismissedDialogIsOne) {
  detail = "polkit.dismissed";
  ASSERT_NO_FATAL_FAILURE(askAndWait());
  EXPECT_EQ(answer.verdict, Verdict::dismissed);
}

TEST_F(PolkitAuthorityTest, WithoutAnAgentTheRemedyIsSaid) {
  challenge = 1;
  ASSERT_NO_FATAL_FAILURE(askAndWait());
  EXPECT_EQ(answer.verdict, Verdict::nobodyToAsk);
  EXPECT_TRUE(says("in a terminal")) << answer.sentence;
}

TEST_F(PolkitAuthorityTest, WithoutABusOnlyRootMay) {
  noBus = true;
  ASSERT_NO_FATAL_FAILURE(askAndWait());
  EXPECT_EQ(answer.verdict, Verdict::unavailable);
  EXPECT_TRUE(says("only root")) << answer.sentence;
}

TEST_F(PolkitAuthorityTest, WithoutPolkitThePackageIsNamed) {
  answers = Answers::error;
  for (const char *name : {"org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
                           "org.freedesktop.DBus.Error.Spawn.ChildExited", "org.freedesktop.systemd1.NoSuchUnit"}) {
    detail = name;
    answered = 0;
    ASSERT_NO_FATAL_FAILURE(askAndWait());
    EXPECT_EQ(answer.verdict, Verdict::unavailable) << name;
    EXPECT_TRUE(says("package polkitd")) << answer.sentence;
  }
}

TEST_F(PolkitAuthorityTest, WhatPolkitCannotTellIsPassedOn) {
  answers = Answers::error;
  detail = "org.freedesktop.PolicyKit1.Error.Failed";
  ASSERT_NO_FATAL_FAILURE(askAndWait());
  EXPECT_EQ(answer.verdict, Verdict::unavailable);
  EXPECT_TRUE(says("as polkit puts it")) << answer.sentence;
}

TEST_F(PolkitAuthorityTest, APolkitThatGoesAwayIsAnAnswer) {
  answers = Answers::goesAway;
  ASSERT_NO_FATAL_FAILURE(askAndWait());
  EXPECT_EQ(answer.verdict, Verdict::unavailable);
}

TEST_F(PolkitAuthorityTest, AQuestionThatNobodyWantsAnsweredIsWithdrawn) {
  answers = Answers::never;
  ask();
  ASSERT_TRUE(runUntil([this] { return question.has_value(); }));
  authority.reset();
  ASSERT_TRUE(runUntil([this] { return !cancelled.empty(); }));
  EXPECT_EQ(cancelled, question->cancellation);
  EXPECT_EQ(answered, 0);
}

}  // namespace
}  // namespace helper
