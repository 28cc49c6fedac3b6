#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include "foundation/PropertyList.h"
#include "helper/HelperService.h"
#include "tests/support/ScriptedLink.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/HelperInterface.h"
#include "wire/StatusCodes.h"

namespace helper {
namespace {

using foundation::FileDescriptor;
using foundation::Value;

constexpr char kServiceID[] = "0123ABCD-4567-4EF0-89AB-0123456789AB";

// The service on a thread of its own, and a plain D-Bus client.
class HelperServiceTest : public ::testing::Test {
 protected:
  HelperServiceTest() {
    int pair[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    server = std::thread([this, socket = pair[1]] { serve(FileDescriptor(socket)); });
    EXPECT_GE(sd_bus_new(&bus), 0);
    EXPECT_GE(sd_bus_set_fd(bus, pair[0], pair[0]), 0);
    EXPECT_GE(sd_bus_start(bus), 0);
  }
  ~HelperServiceTest() override { close(); }

  // Returns when the service has ended, which it does when its client goes.
  void close() {
    bus = sd_bus_close_unref(bus);
    if (server.joinable()) server.join();
  }

  void serve(FileDescriptor socket) {
    auto log = PPPLog::open(folder.path("ppp.log"));
    sd_event *event = nullptr;
    ASSERT_TRUE(log);
    ASSERT_GE(sd_event_new(&event), 0);
    {
      linux::PosixFileSystem fileSystem;
      PreferencesStore preferences(folder.path("preferences.plist"), fileSystem, *log);
      Keychain keychain(folder.path("keychain"), fileSystem, *log);
      HelperService service(event, preferences, keychain, testing::scriptedLinks(event), *log,
                            std::chrono::milliseconds(20));
      ASSERT_TRUE(service.serve(std::move(socket)));
      loopResult = sd_event_loop(event);
      EXPECT_GE(loopResult, 0);
    }
    sd_event_unref(event);
  }

  using Message = std::shared_ptr<sd_bus_message>;

  Message newCall(const char *member) {
    sd_bus_message *message = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(bus, &message, nullptr, wire::kObjectPath, wire::kInterface, member), 0);
    return {message, sd_bus_message_unref};
  }

  // The answer, or the name of the D-Bus error.
  Message call(const Message &message, std::string *errorName = nullptr) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message *reply = nullptr;
    if (sd_bus_call(bus, message.get(), 20'000'000, &error, &reply) < 0 && errorName != nullptr)
      *errorName = error.name;
    sd_bus_error_free(&error);
    return reply == nullptr ? Message() : Message(reply, sd_bus_message_unref);
  }

  std::int32_t codeOf(const Message &reply) {
    std::int32_t code = -1;
    EXPECT_TRUE(reply);
    if (reply) EXPECT_GT(sd_bus_message_read_basic(reply.get(), 'i', &code), 0);
    return code;
  }

  static void appendBytes(const Message &message, std::string_view bytes) {
    EXPECT_GE(sd_bus_message_append_array(message.get(), 'y', bytes.data(), bytes.size()), 0);
  }

  std::string errorOf(const Message &message) {
    std::string name;
    EXPECT_FALSE(call(message, &name));
    return name;
  }

  std::int32_t commit(std::string_view propertyList) {
    const auto message = newCall(wire::kCommitPreferences);
    appendBytes(message, propertyList);
    appendBytes(message, "");
    return codeOf(call(message));
  }

  void commitService(const char *script) {
    const Value service = Value::Dictionary{{"Interface", Value::Dictionary{{"Type", "PPP"}, {"SubType", "PPTP"}}},
                                            {"PPP", Value::Dictionary{{"CommRemoteAddress", script}}}};
    const Value root = Value::Dictionary{{"NetworkServices", Value::Dictionary{{kServiceID, service}}}};
    ASSERT_EQ(commit(*foundation::xmlPropertyList(root)), kSCStatusOK);
  }

  Message startCall(const char *serviceID, std::string_view options = {}, bool linger = false) {
    const auto message = newCall(wire::kStartLink);
    EXPECT_GE(sd_bus_message_append(message.get(), "s", serviceID), 0);
    appendBytes(message, options);
    EXPECT_GE(sd_bus_message_append(message.get(), "b", linger), 0);
    return message;
  }

  // Waits for signals until one has STATUS; how many came.
  int waitForStatus(std::int32_t status) {
    int count = 0;
    while (true) {
      sd_bus_message *signal = nullptr;
      const int result = sd_bus_process(bus, &signal);
      const Message owner(signal, sd_bus_message_unref);
      if (result < 0) return -1;
      if (signal != nullptr && sd_bus_message_is_signal(signal, wire::kInterface, wire::kLinkStatusChanged) > 0) {
        const char *serviceID = nullptr;
        std::int32_t told = -1;
        EXPECT_GT(sd_bus_message_read(signal, "si", &serviceID, &told), 0);
        EXPECT_STREQ(serviceID, kServiceID);
        ++count;
        if (told == status) return count;
      }
      if (result == 0 && sd_bus_wait(bus, 20'000'000) <= 0) return -1;
    }
  }

  support::TemporaryFolder folder;
  std::thread server;
  int loopResult = -1;  // once the server has been joined
  sd_bus *bus = nullptr;
};

TEST_F(HelperServiceTest, AFreshSystemHasNoBytesButASignature) {
  const auto reply = call(newCall(wire::kReadPreferences));
  EXPECT_EQ(codeOf(reply), kSCStatusOK);
  const void *bytes = nullptr;
  std::size_t size = 1;
  EXPECT_GE(sd_bus_message_read_array(reply.get(), 'y', &bytes, &size), 0);
  EXPECT_EQ(size, 0U);
  EXPECT_GE(sd_bus_message_read_array(reply.get(), 'y', &bytes, &size), 0);
  EXPECT_GT(size, 0U);
  EXPECT_EQ(codeOf(call(newCall(wire::kApplyPreferences))), kSCStatusOK);
}

TEST_F(HelperServiceTest, ACommitOfAnythingButPreferencesIsRefused) {
  for (const char *bytes :
       {"", "garbage", "<plist version=\"1.0\"><array/></plist>",
        "<plist version=\"1.0\"><dict><key>CurrentSet</key><string>/Sets/none</string></dict></plist>"})
    EXPECT_EQ(commit(bytes), kSCStatusInvalidArgument) << bytes;
  EXPECT_FALSE(support::contentsOf(folder.path("preferences.plist")).has_value());
}

TEST_F(HelperServiceTest, AMalformedCallIsADBusError) {
  EXPECT_EQ(errorOf(newCall("Format")), SD_BUS_ERROR_UNKNOWN_METHOD);
  auto message = newCall(wire::kCommitPreferences);
  EXPECT_GE(sd_bus_message_append(message.get(), "s", "text"), 0);
  EXPECT_EQ(errorOf(message), SD_BUS_ERROR_INVALID_ARGS);

  message = newCall(wire::kDeleteKeychainItem);
  EXPECT_GE(sd_bus_message_append(message.get(), "s", "../../etc/passwd"), 0);
  EXPECT_EQ(errorOf(message), SD_BUS_ERROR_INVALID_ARGS);

  EXPECT_EQ(errorOf(startCall(std::string(1000, 'A').c_str())), SD_BUS_ERROR_INVALID_ARGS);
  EXPECT_EQ(errorOf(startCall(kServiceID, "garbage")), SD_BUS_ERROR_INVALID_ARGS);

  message = newCall(wire::kFindKeychainItems);
  EXPECT_GE(sd_bus_message_append(message.get(), "a(uay)", 2, kLabelAttribute, 1, 'a', kLabelAttribute, 1, 'b'), 0);
  EXPECT_EQ(errorOf(message), SD_BUS_ERROR_INVALID_ARGS);

  // And it goes on to serve.
  EXPECT_EQ(codeOf(call(newCall(wire::kApplyPreferences))), kSCStatusOK);
}

TEST_F(HelperServiceTest, ANonsenseOnTheSocketEndsIt) {
  ASSERT_EQ(codeOf(call(newCall(wire::kApplyPreferences))), kSCStatusOK);
  const std::string nonsense(64, 'x');
  ASSERT_EQ(::send(sd_bus_get_fd(bus), nonsense.data(), nonsense.size(), MSG_NOSIGNAL), 64);
  server.join();
}

TEST_F(HelperServiceTest, KeychainItems) {
  const auto add = [this](std::uint32_t tag) {
    const auto message = newCall(wire::kAddKeychainItem);
    EXPECT_GE(sd_bus_message_append(message.get(), "a(uay)", 1, tag, 1, 'S'), 0);
    appendBytes(message, "secret");
    EXPECT_GE(sd_bus_message_append(message.get(), "sas", "access", 1, "/usr/sbin/pppd"), 0);
    return call(message);
  };
  const auto reply = add(kServiceAttribute);
  EXPECT_EQ(codeOf(reply), errSecSuccess);
  const char *item = nullptr;
  EXPECT_GT(sd_bus_message_read_basic(reply.get(), 's', &item), 0);
  EXPECT_EQ(codeOf(add(kServiceAttribute)), errSecDuplicateItem);
  EXPECT_EQ(codeOf(add(0x12345678)), errSecParam);
  for (const std::int32_t expected : {+errSecSuccess, +errSecItemNotFound}) {
    const auto message = newCall(wire::kDeleteKeychainItem);
    EXPECT_GE(sd_bus_message_append(message.get(), "s", item), 0);
    EXPECT_EQ(codeOf(call(message)), expected);
  }
}

TEST_F(HelperServiceTest, ALinkIsStartedToldAndStopped) {
  commitService("up");
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), kSCStatusOK);
  EXPECT_EQ(waitForStatus(2), 6);
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), kSCStatusFailed);
  auto message = newCall(wire::kLinkStatus);
  EXPECT_GE(sd_bus_message_append(message.get(), "s", kServiceID), 0);
  EXPECT_EQ(codeOf(call(message)), 2);
  message = newCall(wire::kStopLink);
  EXPECT_GE(sd_bus_message_append(message.get(), "sb", kServiceID, 1), 0);
  EXPECT_EQ(codeOf(call(message)), kSCStatusOK);
  EXPECT_EQ(waitForStatus(0), 3);
}

TEST_F(HelperServiceTest, AServiceThatIsNoneIsSaidToBe) {
  EXPECT_EQ(codeOf(call(startCall("no such service"))), kSCStatusConnectionNoService);
  EXPECT_NE(support::contentsOf(folder.path("ppp.log")).value_or("").find("no such service"), std::string::npos);
}

TEST_F(HelperServiceTest, EndsWithItsClientAfterTheLinkIsDown) {
  commitService("at-once");
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), kSCStatusOK);
  close();  // joins: the service has ended by itself
}

TEST_F(HelperServiceTest, LosesPatienceWithALinkThatDoesNotEnd) {
  commitService("stuck");
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), kSCStatusOK);
  close();
}

TEST_F(HelperServiceTest, ALingeringLinkOutlivesItsClient) {
  commitService("refused");
  EXPECT_EQ(codeOf(call(startCall(kServiceID, {}, true))), kSCStatusOK);
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
  EXPECT_EQ(codeOf(call(startCall(kServiceID))), kSCStatusOK);
  server.join();
  EXPECT_EQ(loopResult, EMFILE);
}

TEST_F(HelperServiceTest, APeerThatNeverReadsIsLeft) {
  const Value root = Value::Dictionary{{"Filler", std::string(std::size_t{1} << 20, 'x')}};
  ASSERT_EQ(commit(*foundation::xmlPropertyList(root)), kSCStatusOK);
  for (std::uint64_t i = 0; i < 4 * HelperService::kMaximumUnread; ++i) {
    std::uint64_t cookie = 0;  // without one, no answer would be wanted
    ASSERT_GE(sd_bus_send(bus, newCall(wire::kReadPreferences).get(), &cookie), 0);
  }
  server.join();
  EXPECT_EQ(loopResult, 0);
  EXPECT_NE(support::contentsOf(folder.path("ppp.log")).value_or("").find("does not read the answers"),
            std::string::npos);
}

TEST_F(HelperServiceTest, TenThousandCallsInARow) {
  for (int i = 0; i < 5000; ++i) {
    ASSERT_EQ(codeOf(call(newCall(wire::kApplyPreferences))), kSCStatusOK);
    ASSERT_EQ(errorOf(startCall(kServiceID, "garbage")), SD_BUS_ERROR_INVALID_ARGS);
  }
}

}  // namespace
}  // namespace helper
