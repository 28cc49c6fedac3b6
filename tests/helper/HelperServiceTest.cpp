#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <thread>

#include "foundation/PropertyList.h"
#include "helper/HelperService.h"
#include "linux/SystemdOwners.h"
#include "tests/support/ScriptedAuthority.h"
#include "tests/support/ScriptedLink.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/HelperInterface.h"
#include "wire/Messages.h"
#include "wire/StatusCodes.h"

namespace helper {
namespace {

using vpnctl::FileDescriptor;
using vpnctl::Value;

constexpr char kServiceID[] = "0123ABCD-4567-4EF0-89AB-0123456789AB";

// The service on a thread of its own, and a plain D-Bus client.
class HelperServiceTest : public ::testing::Test {
 protected:
  HelperServiceTest() {
    connect(socketPair());
    if (::geteuid() != 0) call(newCall(wire::kAuthorize, wire::Authorize{1}));
  }
  ~HelperServiceTest() override { close(); }

  // Of the process's user of this moment.
  static std::array<int, 2> socketPair() {
    std::array<int, 2> pair = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
    return pair;
  }

  void connect(const std::array<int, 2> &pair) {
    server = std::thread([this, socket = pair[1]] { serve(FileDescriptor(socket)); });
    EXPECT_GE(sd_bus_new(linux::Out(bus)), 0);
    EXPECT_GE(sd_bus_set_fd(bus.get(), pair[0], pair[0]), 0);
    EXPECT_GE(sd_bus_start(bus.get()), 0);
  }
  // Returns when the service has ended, which it does when its client goes.
  void close() {
    bus.reset();
    if (server.joinable()) server.join();
  }

  void serve(FileDescriptor socket) {
    auto log = PPPLog::open(folder.path("ppp.log"));
    linux::EventLoop event;
    ASSERT_TRUE(log);
    ASSERT_GE(sd_event_new(linux::Out(event)), 0);
    vpnctl::PosixFileSystem fileSystem;
    PreferencesStore preferences(folder.path("preferences.plist"), fileSystem, *log);
    Keychain keychain(folder.path("keychain"), fileSystem, *log);
    testing::ScriptedAuthority asked(event.get(), verdict);
    authority = &asked;
    HelperService service(event.get(), preferences, keychain, testing::scriptedLinks(event.get()),
                          {asked, auditTrail()}, *log, std::chrono::milliseconds(20));
    ASSERT_TRUE(service.serve(std::move(socket)));
    loopResult = sd_event_loop(event.get());
    EXPECT_GE(loopResult, 0);
  }

  // Read it when the service has ended.
  HelperService::AuditTrail auditTrail() {
    return [this](const std::string &sentence, const linux::JournalFields &fields) {
      std::string &line = trail.emplace_back(sentence);
      for (const auto &[name, value] : fields) line += " " + name + "=" + value;
    };
  }

  using Message = linux::BusMessage;

  Message newCall(const char *member) { return newCall(member, wire::Nothing()); }
  template <class Call>
  Message newCall(const char *member, const Call &contents) {
    Message message;
    EXPECT_GE(sd_bus_message_new_method_call(bus.get(), linux::Out(message), nullptr, wire::kObjectPath,
                                             wire::kInterface, member),
              0);
    EXPECT_GE(wire::append(message.get(), contents), 0);
    return message;
  }

  // The answer, or the name of the D-Bus error.
  Message call(const Message &message, std::string *errorName = nullptr) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    Message reply;
    if (sd_bus_call(bus.get(), message.get(), 20'000'000, &error, linux::Out(reply)) < 0 && errorName != nullptr)
      *errorName = error.name;
    sd_bus_error_free(&error);
    return reply;
  }

  template <class Reply>
  Reply replyTo(const Message &message) {
    Reply reply;
    const auto answer = call(message);
    EXPECT_TRUE(answer);
    if (answer) EXPECT_GE(wire::read(answer.get(), &reply), 0);
    return reply;
  }

  // Of an answer that begins with it.
  std::int32_t codeOf(const Message &reply) {
    wire::Code code{-1};
    EXPECT_TRUE(reply);
    if (reply) EXPECT_GE(wire::read(reply.get(), &code), 0);
    return code.code;
  }

  std::string errorOf(const Message &message) {
    std::string name;
    EXPECT_FALSE(call(message, &name));
    return name;
  }

  std::int32_t commit(std::string_view propertyList) {
    return codeOf(call(newCall(wire::kCommitPreferences, wire::CommitPreferences{propertyList, {}})));
  }

  void commitService(const char *script) {
    const Value service =
        Value::Dictionary{{"Interface", Value::Dictionary{{"Type", "PPP"}, {"SubType", "PPTP"}}},
                          {"PPP", Value::Dictionary{{"AuthPassword", kServiceID}, {"CommRemoteAddress", script}}}};
    const Value root = Value::Dictionary{{"NetworkServices", Value::Dictionary{{kServiceID, service}}}};
    ASSERT_EQ(commit(*vpnctl::xmlPropertyList(root)), wire::kSCStatusOK);
  }

  Message startCall(const std::string &serviceID, std::string_view options = {}, bool linger = false) {
    return newCall(wire::kStartLink, wire::StartLink{serviceID, options, linger});
  }

  // Waits for signals until one has STATUS; how many came.
  int waitForStatus(std::int32_t status) {
    int count = 0;
    while (true) {
      Message signal;
      const int result = sd_bus_process(bus.get(), linux::Out(signal));
      if (result < 0) return -1;
      if (signal && sd_bus_message_is_signal(signal.get(), wire::kInterface, wire::kLinkStatusChanged) > 0) {
        wire::LinkStatusChanged change;
        EXPECT_GE(wire::read(signal.get(), &change), 0);
        EXPECT_EQ(change.serviceID, kServiceID);
        ++count;
        if (change.state.status == status) return count;
      }
      if (result == 0 && sd_bus_wait(bus.get(), 20'000'000) <= 0) return -1;
    }
  }

  // From now on the client is somebody who is not root.
  void connectAsUser(std::optional<Authority::Verdict> says = Authority::Verdict::granted) {
    close();
    verdict = says;
    constexpr uid_t kNobody = 65534;
    ASSERT_EQ(::seteuid(kNobody), 0);
    const auto pair = socketPair();
    ASSERT_EQ(::seteuid(0), 0);
    connect(pair);
  }
  std::int32_t authorize(std::int32_t flags = 1) {
    return codeOf(call(newCall(wire::kAuthorize, wire::Authorize{flags})));
  }

  support::TemporaryFolder folder;
  std::optional<Authority::Verdict> verdict = Authority::Verdict::granted;
  testing::ScriptedAuthority *authority = nullptr;  // the service's, while it lives
  std::thread server;
  std::vector<std::string> trail;
  int loopResult = -1;  // once the server has been joined
  linux::Bus bus;
};

TEST_F(HelperServiceTest, AFreshSystemHasNoBytesButASignature) {
  const auto reply = replyTo<wire::ReadPreferencesReply>(newCall(wire::kReadPreferences));
  EXPECT_EQ(reply.error, wire::kSCStatusOK);
  EXPECT_EQ(reply.propertyList, "");
  EXPECT_NE(reply.signature, "");
  EXPECT_EQ(codeOf(call(newCall(wire::kApplyPreferences))), wire::kSCStatusOK);
}

TEST_F(HelperServiceTest, ACommitOfAnythingButPreferencesIsRefused) {
  for (const char *bytes :
       {"", "garbage", "<plist version=\"1.0\"><array/></plist>",
        "<plist version=\"1.0\"><dict><key>CurrentSet</key><string>/Sets/none</string></dict></plist>"})
    EXPECT_EQ(commit(bytes), wire::kSCStatusInvalidArgument) << bytes;
  EXPECT_FALSE(support::contentsOf(folder.path("preferences.plist")).has_value());
}

TEST_F(HelperServiceTest, AMalformedCallIsADBusError) {
  EXPECT_EQ(errorOf(newCall("Format")), SD_BUS_ERROR_UNKNOWN_METHOD);
  auto message = newCall(wire::kCommitPreferences);
  EXPECT_GE(sd_bus_message_append(message.get(), "s", "text"), 0);
  EXPECT_EQ(errorOf(message), SD_BUS_ERROR_INVALID_ARGS);

  const wire::DeleteKeychainItem outside{"../../etc/passwd"};
  EXPECT_EQ(errorOf(newCall(wire::kDeleteKeychainItem, outside)), SD_BUS_ERROR_INVALID_ARGS);

  EXPECT_EQ(errorOf(startCall(std::string(1000, 'A'))), SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(errorOf(startCall(kServiceID, "garbage")), SD_BUS_ERROR_INVALID_ARGS);

  message = newCall(wire::kFindKeychainItems);
  EXPECT_GE(sd_bus_message_append(message.get(), "a(uay)", 2, kLabelAttribute, 1, 'a', kLabelAttribute, 1, 'b'), 0);
  EXPECT_EQ(errorOf(message), SD_BUS_ERROR_INVALID_ARGS);

  // And it goes on to serve.
  EXPECT_EQ(codeOf(call(newCall(wire::kApplyPreferences))), wire::kSCStatusOK);
}

TEST_F(HelperServiceTest, ANonsenseOnTheSocketEndsIt) {
  ASSERT_EQ(codeOf(call(newCall(wire::kApplyPreferences))), wire::kSCStatusOK);
  const std::string nonsense(64, 'x');
  ASSERT_EQ(::send(sd_bus_get_fd(bus.get()), nonsense.data(), nonsense.size(), MSG_NOSIGNAL), 64);
  server.join();
}

TEST_F(HelperServiceTest, KeychainItems) {
  const auto add = [this](std::uint32_t tag) {
    const wire::AddKeychainItem item{{{tag, "S"}}, "secret", "access", {"/usr/sbin/pppd"}};
    return replyTo<wire::AddKeychainItemReply>(newCall(wire::kAddKeychainItem, item));
  };
  const auto added = add(kServiceAttribute);
  EXPECT_EQ(added.status, wire::errSecSuccess);
  EXPECT_EQ(add(kServiceAttribute).status, wire::errSecDuplicateItem);
  EXPECT_EQ(add(0x12345678).status, wire::errSecParam);
  const wire::FindKeychainItems wanted{{{kServiceAttribute, "S"}}};
  const auto found = replyTo<wire::FindKeychainItemsReply>(newCall(wire::kFindKeychainItems, wanted));
  EXPECT_EQ(found.status, wire::errSecSuccess);
  EXPECT_EQ(found.items, std::vector{added.item});
  for (const std::int32_t expected : {+wire::errSecSuccess, +wire::errSecItemNotFound})
    EXPECT_EQ(codeOf(call(newCall(wire::kDeleteKeychainItem, wire::DeleteKeychainItem{added.item}))), expected);
}

// Once a caller has an item of a service stored, no other commit makes it one of another server.
TEST_F(HelperServiceTest, AnItemIsBoundToItsServiceAndUser) {
  commitService("up");
  const wire::AddKeychainItem item{{{kServiceAttribute, kServiceID}}, "secret", "access", {}};
  const auto added = replyTo<wire::AddKeychainItemReply>(newCall(wire::kAddKeychainItem, item));
  ASSERT_EQ(added.status, wire::errSecSuccess);
  const wire::AddKeychainItem other{{{kServiceAttribute, "nobody's"}}, "secret", "access", {}};
  const auto unbound = replyTo<wire::AddKeychainItemReply>(newCall(wire::kAddKeychainItem, other));
  ASSERT_EQ(unbound.status, wire::errSecSuccess);
  commitService("at-once");
  const auto keychain = vpnctl::propertyListFromFile(folder.path("keychain/System.keychain"));
  ASSERT_TRUE(keychain);
  const Value &use = (*keychain)["Items"][added.item]["Use"];
  EXPECT_EQ(use["Owner"], Value(std::int64_t{::geteuid()}));
  EXPECT_EQ(use["Service"]["PPP"]["CommRemoteAddress"], Value("up"));
  EXPECT_EQ(use["Service"]["Interface"]["SubType"], Value("PPTP"));
  EXPECT_EQ((*keychain)["Items"][unbound.item].find("Use"), nullptr);
}

TEST_F(HelperServiceTest, OnlyRootMayLinger) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to stop being it";
  commitService("up");
  ASSERT_NO_FATAL_FAILURE(connectAsUser());
  ASSERT_EQ(authorize(), 0);
  EXPECT_EQ(codeOf(call(startCall(kServiceID, {}, true))), wire::kSCStatusAccessError);
  EXPECT_NE(support::contentsOf(folder.path("ppp.log")).value_or("").find("only root may"), std::string::npos);
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), wire::kSCStatusOK);
  EXPECT_EQ(waitForStatus(2), 6);
}

// ---- Who is not root

class HelperServiceForUsers : public HelperServiceTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to stop being it";
  }
};

TEST_F(HelperServiceForUsers, NothingButAPingIsAnsweredBeforeTheyAreAuthorized) {
  ASSERT_NO_FATAL_FAILURE(connectAsUser());
  Message ping;
  ASSERT_GE(sd_bus_message_new_method_call(bus.get(), linux::Out(ping), nullptr, wire::kObjectPath,
                                           "org.freedesktop.DBus.Peer", "Ping"),
            0);
  EXPECT_TRUE(call(ping));
  const wire::Attributes attributes;
  EXPECT_EQ(errorOf(newCall(wire::kReadPreferences)), SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf(newCall(wire::kCommitPreferences, wire::CommitPreferences{"x", {}})), SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf(newCall(wire::kApplyPreferences)), SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf(newCall(wire::kAddKeychainItem, wire::AddKeychainItem{attributes, "x", "x", {}})),
            SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf(newCall(wire::kFindKeychainItems, wire::FindKeychainItems{attributes})),
            SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf(newCall(wire::kDeleteKeychainItem, wire::DeleteKeychainItem{kServiceID})),
            SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf(startCall(kServiceID)), SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf(newCall(wire::kStopLink, wire::StopLink{kServiceID, true})), SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(errorOf(newCall(wire::kLinkStatus, wire::LinkStatus{kServiceID})), SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(authorize(), 0);
  EXPECT_EQ(authority->askedOf, ::getpid());
  EXPECT_EQ(codeOf(call(newCall(wire::kReadPreferences))), wire::kSCStatusOK);
  EXPECT_EQ(authorize(), 0) << "what has been granted stays granted";
  EXPECT_EQ(authority->questions, 1);
}

TEST_F(HelperServiceForUsers, RootIsNotAskedAbout) {
  EXPECT_EQ(authorize(), 0);
  EXPECT_EQ(authority->questions, 0);
}

TEST_F(HelperServiceForUsers, EachVerdictHasItsCodeAndARefusalItsSentence) {
  using Verdict = Authority::Verdict;
  for (const auto &[says, code] : {std::pair{Verdict::denied, wire::errAuthorizationDenied},
                                   {Verdict::dismissed, wire::errAuthorizationCanceled},
                                   {Verdict::nobodyToAsk, wire::errAuthorizationInteractionNotAllowed},
                                   {Verdict::interactionWanted, wire::errAuthorizationInteractionNotAllowed},
                                   {Verdict::unavailable, wire::errAuthorizationInternal}}) {
    ASSERT_NO_FATAL_FAILURE(connectAsUser(says));
    EXPECT_EQ(authorize(), code);
    EXPECT_EQ(errorOf(newCall(wire::kReadPreferences)), SD_BUS_ERROR_ACCESS_DENIED) << code;
  }
  const std::string log = support::contentsOf(folder.path("ppp.log")).value_or("");
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 5) << log;
  EXPECT_NE(log.find("What the authority says."), std::string::npos);
}

TEST_F(HelperServiceForUsers, TheAuthorityHearsWhetherAPersonMayBeAsked) {
  ASSERT_NO_FATAL_FAILURE(connectAsUser(Authority::Verdict::denied));
  authorize(0);
  EXPECT_FALSE(authority->interactive);
  authorize(1);
  EXPECT_TRUE(authority->interactive);
}

TEST_F(HelperServiceForUsers, WhoCanBringSomebodyToAskIsNotToldOfBeforeHeHasTried) {
  ASSERT_NO_FATAL_FAILURE(connectAsUser(Authority::Verdict::nobodyToAsk));
  EXPECT_EQ(authorize(wire::kInteractionAllowed | wire::kWillAskAgain), wire::errAuthorizationInteractionNotAllowed);
  EXPECT_EQ(support::contentsOf(folder.path("ppp.log")).value_or(""), "");
  EXPECT_EQ(authorize(wire::kInteractionAllowed), wire::errAuthorizationInteractionNotAllowed);
  EXPECT_NE(support::contentsOf(folder.path("ppp.log")).value_or(""), "");
}

TEST_F(HelperServiceForUsers, OneQuestionAtATime) {
  ASSERT_NO_FATAL_FAILURE(connectAsUser(std::nullopt));
  std::uint64_t cookie = 0;
  ASSERT_GE(sd_bus_send(bus.get(), newCall(wire::kAuthorize, wire::Authorize{1}).get(), &cookie), 0);
  EXPECT_EQ(authorize(), wire::errAuthorizationDenied);
  EXPECT_EQ(authority->questions, 1);
  close();  // while a person is still thinking: the service ends all the same
}

TEST_F(HelperServiceForUsers, WhoAsksAndAsksIsCutOff) {
  ASSERT_NO_FATAL_FAILURE(connectAsUser());
  ASSERT_EQ(authorize(), 0);
  int answered = 0;
  while (answered < 3 * HelperService::kCallsAtOnce && call(newCall(wire::kApplyPreferences))) ++answered;
  EXPECT_GE(answered, HelperService::kCallsAtOnce / 2);
  EXPECT_LT(answered, 3 * HelperService::kCallsAtOnce);
  server.join();
  EXPECT_NE(support::contentsOf(folder.path("ppp.log")).value_or("").find("asks and asks"), std::string::npos);
}

TEST_F(HelperServiceForUsers, AdministratorsReadWhoAskedForWhat) {
  commitService("up");
  ASSERT_NO_FATAL_FAILURE(connectAsUser());
  trail.clear();
  ASSERT_EQ(authorize(), 0);
  ASSERT_EQ(codeOf(call(startCall(kServiceID))), wire::kSCStatusOK);
  EXPECT_EQ(waitForStatus(2), 6);
  close();
  const std::string who = " VPNCTL_USER=65534 VPNCTL_PROCESS=" + std::to_string(::getpid());
  ASSERT_EQ(trail.size(), 2U);
  EXPECT_TRUE(trail[0].ends_with(who)) << trail[0];
  EXPECT_EQ(trail[1], "User 65534 connects this machine to up." + who + " VPNCTL_SERVER=up");
}

TEST_F(HelperServiceTest, AFileThatEverybodyMayReadIsTold) {
  EXPECT_EQ(codeOf(call(newCall(wire::kTellOfReadableSecrets, wire::TellOfReadableSecrets{"/a\n\x1B[0m"}))), 0);
  const std::string log = support::contentsOf(folder.path("ppp.log")).value_or("");
  EXPECT_NE(
      log.find(" : Everybody on this machine can read /a??[0m, and it holds secrets: chmod 600 would keep them.\n"),
      std::string::npos)
      << log;
}

TEST_F(HelperServiceTest, ALinkIsStartedToldAndStopped) {
  commitService("up");
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), wire::kSCStatusOK);
  EXPECT_EQ(waitForStatus(2), 6);
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), wire::kSCStatusFailed);
  const auto state = replyTo<wire::LinkStatusReply>(newCall(wire::kLinkStatus, wire::LinkStatus{kServiceID}));
  EXPECT_EQ(state.status, 2);
  EXPECT_EQ((*wire::dictionaryFrom(state.extendedStatus))["PPP"]["Status"], Value(8));
  EXPECT_EQ(codeOf(call(newCall(wire::kStopLink, wire::StopLink{kServiceID, true}))), wire::kSCStatusOK);
  EXPECT_EQ(waitForStatus(0), 3);
}

TEST_F(HelperServiceTest, AServiceThatIsNoneIsSaidToBe) {
  EXPECT_EQ(codeOf(call(startCall("no such service"))), wire::kSCStatusConnectionNoService);
  EXPECT_NE(support::contentsOf(folder.path("ppp.log")).value_or("").find("no such service"), std::string::npos);
}

TEST_F(HelperServiceTest, EndsWithItsClientAfterTheLinkIsDown) {
  commitService("at-once");
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), wire::kSCStatusOK);
  close();  // joins: the service has ended by itself
}

TEST_F(HelperServiceTest, LosesPatienceWithALinkThatDoesNotEnd) {
  commitService("stuck");
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), wire::kSCStatusOK);
  close();
}

TEST_F(HelperServiceTest, ALingeringLinkOutlivesItsClient) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, who alone may";
  commitService("refused");
  EXPECT_EQ(codeOf(call(startCall(kServiceID, {}, true))), wire::kSCStatusOK);
  close();  // this one comes down by itself, and then the service ends
}

TEST_F(HelperServiceTest, AnExceptionWhileAnsweringEndsItInOrder) {
  commitService("throws");
  EXPECT_NE(errorOf(startCall(kServiceID)), "");
  server.join();  // by itself: the client is still there
  EXPECT_EQ(loopResult, EMFILE);
}

TEST_F(HelperServiceTest, AnExceptionInTheLoopEndsItInOrder) {
  commitService("throws-later");
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), wire::kSCStatusOK);
  server.join();
  EXPECT_EQ(loopResult, EMFILE);
}

TEST_F(HelperServiceTest, APeerThatNeverReadsIsLeft) {
  const Value root = Value::Dictionary{{"Filler", std::string(std::size_t{1} << 20, 'x')}};
  ASSERT_EQ(commit(*vpnctl::xmlPropertyList(root)), wire::kSCStatusOK);
  for (std::uint64_t i = 0; i < 4 * HelperService::kMaximumUnread; ++i) {
    std::uint64_t cookie = 0;  // without one, no answer would be wanted
    ASSERT_GE(sd_bus_send(bus.get(), newCall(wire::kReadPreferences).get(), &cookie), 0);
  }
  server.join();
  EXPECT_EQ(loopResult, 0);
  EXPECT_NE(support::contentsOf(folder.path("ppp.log")).value_or("").find("does not read the answers"),
            std::string::npos);
}

TEST_F(HelperServiceTest, TenThousandCallsInARow) {
  for (int i = 0; i < 5000; ++i) {
    ASSERT_EQ(codeOf(call(newCall(wire::kApplyPreferences))), wire::kSCStatusOK);
    ASSERT_EQ(errorOf(startCall(kServiceID, "garbage")), SD_BUS_ERROR_INVALID_ARGS);
  }
}

}  // namespace
}  // namespace helper
