#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "linux/SystemdOwners.h"
#include "wire/Messages.h"

namespace wire {
namespace {

using vpnctl::Value;

constexpr std::uint32_t kTag = 0x6c61626c;

// Messages that are written, sealed and read again, without a connection.
class MessagesTest : public ::testing::Test {
 protected:
  MessagesTest() {
    int pair[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    EXPECT_EQ(sd_bus_new(linux::Out(bus)), 0);
    EXPECT_GE(sd_bus_set_fd(bus.get(), pair[0], pair[0]), 0);
    other = pair[1];
    EXPECT_GE(sd_bus_start(bus.get()), 0);
    renew();
  }
  ~MessagesTest() override { ::close(other); }

  void renew() { EXPECT_GE(sd_bus_message_new_signal(bus.get(), linux::Out(message), "/a", "a.b", "C"), 0); }

  sd_bus_message *sealed() {
    EXPECT_GE(sd_bus_message_seal(message.get(), 1, 0), 0);
    EXPECT_GE(sd_bus_message_rewind(message.get(), 1), 0);
    return message.get();
  }

  // CONTENTS as the other end reads them; its views are the message's.
  template <class Contents>
  Contents passed(const Contents &contents) {
    renew();
    EXPECT_GE(append(message.get(), contents), 0);
    Contents got;
    EXPECT_GE(read(sealed(), &got), 0);
    EXPECT_STREQ(sd_bus_message_get_signature(message.get(), 1), Contents::kSignature);
    EXPECT_GT(sd_bus_message_at_end(message.get(), 1), 0);
    return got;
  }

  // What reading CONTENTS gives when they are written as they are.
  template <class Contents>
  int resultOf(const Contents &contents) {
    renew();
    EXPECT_GE(append(message.get(), contents), 0);
    Contents got;
    return read(sealed(), &got);
  }

  void appendAttribute(std::uint32_t tag, std::string_view bytes) {
    EXPECT_GE(sd_bus_message_open_container(message.get(), 'r', "uay"), 0);
    EXPECT_GE(sd_bus_message_append_basic(message.get(), 'u', &tag), 0);
    EXPECT_GE(sd_bus_message_append_array(message.get(), 'y', bytes.data(), bytes.size()), 0);
    EXPECT_GE(sd_bus_message_close_container(message.get()), 0);
  }

  linux::Bus bus;
  linux::BusMessage message;
  int other = -1;
};

TEST_F(MessagesTest, PreferencesPass) {
  const std::string bytes("a\0b", 3);
  const auto read = passed(ReadPreferencesReply{3005, bytes, "s"});
  EXPECT_EQ(read.error, 3005);
  EXPECT_EQ(read.propertyList, bytes);
  EXPECT_EQ(read.signature, "s");
  const auto commit = passed(CommitPreferences{bytes, ""});
  EXPECT_EQ(commit.propertyList, bytes);
  EXPECT_EQ(commit.signature, "");
  const auto committed = passed(CommitPreferencesReply{-1, "s"});
  EXPECT_EQ(committed.error, -1);
  EXPECT_EQ(committed.signature, "s");
  EXPECT_EQ(passed(Code{1001}).code, 1001);
  passed(Nothing());
}

TEST_F(MessagesTest, KeychainItemsPass) {
  const Attributes attributes = {{kTag, std::string("a\0b", 3)}, {kTag + 1, ""}};
  const auto add = passed(AddKeychainItem{attributes, "secret", "access", {"/a", "/b"}});
  EXPECT_EQ(add.attributes, attributes);
  EXPECT_EQ(add.secret, "secret");
  EXPECT_EQ(add.accessDescription, "access");
  EXPECT_EQ(add.trustedPaths, (std::vector<std::string>{"/a", "/b"}));
  const auto added = passed(AddKeychainItemReply{-25299, "item"});
  EXPECT_EQ(added.status, -25299);
  EXPECT_EQ(added.item, "item");
  EXPECT_EQ(passed(FindKeychainItems{attributes}).attributes, attributes);
  EXPECT_TRUE(passed(FindKeychainItems()).attributes.empty());
  const auto found = passed(FindKeychainItemsReply{-50, std::vector<std::string>(1000, "item")});
  EXPECT_EQ(found.status, -50);
  EXPECT_EQ(found.items, std::vector<std::string>(1000, "item"));
  EXPECT_EQ(passed(DeleteKeychainItem{"item"}).item, "item");
}

TEST_F(MessagesTest, LinksPass) {
  for (const bool flag : {false, true}) {
    const auto start = passed(StartLink{"service", "options", flag});
    EXPECT_EQ(start.serviceID, "service");
    EXPECT_EQ(start.userOptions, "options");
    EXPECT_EQ(start.linger, flag);
    const auto stop = passed(StopLink{"service", flag});
    EXPECT_EQ(stop.serviceID, "service");
    EXPECT_EQ(stop.force, flag);
  }
  EXPECT_EQ(passed(LinkStatus{"service"}).serviceID, "service");
  const auto state = passed(LinkStatusReply{2, 1003, "status"});
  EXPECT_EQ(state.status, 2);
  EXPECT_EQ(state.error, 1003);
  EXPECT_EQ(state.extendedStatus, "status");
  const auto changed = passed(LinkStatusChanged{"service", {2, 1003, "status"}});
  EXPECT_EQ(changed.serviceID, "service");
  EXPECT_EQ(changed.state.status, 2);
  EXPECT_EQ(changed.state.error, 1003);
  EXPECT_EQ(changed.state.extendedStatus, "status");
}

TEST_F(MessagesTest, WhatIsLargerThanItMayBeIsRefused) {
  const auto text = [](std::size_t size) { return std::string(size, 'a'); };
  EXPECT_GE(resultOf(DeleteKeychainItem{text(kMaximumIdentifier)}), 0);
  EXPECT_EQ(resultOf(DeleteKeychainItem{text(kMaximumIdentifier + 1)}), -EMSGSIZE);
  EXPECT_EQ(resultOf(LinkStatus{text(kMaximumIdentifier + 1)}), -EMSGSIZE);
  EXPECT_EQ(resultOf(StopLink{text(kMaximumIdentifier + 1)}), -EMSGSIZE);
  EXPECT_EQ(resultOf(StartLink{text(kMaximumIdentifier + 1), "", false}), -EMSGSIZE);
  EXPECT_GE(resultOf(StartLink{"", text(kMaximumOptions), false}), 0);
  EXPECT_EQ(resultOf(StartLink{"", text(kMaximumOptions + 1), false}), -EMSGSIZE);
  EXPECT_GE(resultOf(AddKeychainItem{{}, "", text(kMaximumText), {kMaximumPaths, text(kMaximumText)}}), 0);
  EXPECT_EQ(resultOf(AddKeychainItem{{}, "", text(kMaximumText + 1), {}}), -EMSGSIZE);
  EXPECT_EQ(resultOf(AddKeychainItem{{}, "", "", {text(kMaximumText + 1)}}), -EMSGSIZE);
  EXPECT_EQ(resultOf(AddKeychainItem{{}, "", "", {kMaximumPaths + 1, "/a"}}), -EMSGSIZE);
  Attributes attributes;
  for (std::uint32_t tag = 0; tag < kMaximumAttributes; ++tag) attributes[tag] = "";
  EXPECT_GE(resultOf(FindKeychainItems{attributes}), 0);
  attributes[kTag] = "";
  EXPECT_EQ(resultOf(FindKeychainItems{attributes}), -EMSGSIZE);
}

TEST_F(MessagesTest, AFailureLeavesWhatWasThere) {
  ASSERT_GE(append(message.get(), StopLink{std::string(kMaximumIdentifier + 1, 'a'), true}), 0);
  StopLink stop{"before", false};
  EXPECT_EQ(read(sealed(), &stop), -EMSGSIZE);
  EXPECT_EQ(stop.serviceID, "before");
  renew();
  ASSERT_GE(append(message.get(), LinkStatus{"service"}), 0);  // what a StopLink begins with, and nothing behind it
  EXPECT_LT(read(sealed(), &stop), 0);
  EXPECT_EQ(stop.serviceID, "before");
}

TEST_F(MessagesTest, AnAttributeThatComesTwiceIsRefused) {
  ASSERT_GE(sd_bus_message_open_container(message.get(), 'a', "(uay)"), 0);
  appendAttribute(kTag, "a");
  appendAttribute(kTag, "b");
  ASSERT_GE(sd_bus_message_close_container(message.get()), 0);
  FindKeychainItems find;
  EXPECT_EQ(read(sealed(), &find), -EINVAL);
  EXPECT_TRUE(find.attributes.empty());
}

TEST_F(MessagesTest, OptionsAreADictionaryOrNothing) {
  const Value options = Value::Dictionary{{"PPP", Value::Dictionary()}};
  EXPECT_EQ(*dictionaryFrom(bytesOf(options)), options);
  EXPECT_EQ(bytesOf({}), "");
  EXPECT_TRUE(dictionaryFrom("")->isNull());
  EXPECT_FALSE(dictionaryFrom("<plist version=\"1.0\"><array/></plist>"));
  EXPECT_FALSE(dictionaryFrom("garbage"));
  EXPECT_EQ(bytesOf(Value::Dictionary{{"text", std::string("\x01")}}), "");  // no XML can hold it
}

TEST_F(MessagesTest, DictionariesHaveLimits) {
  const auto refusal = [](const Value &value) {
    const auto read = dictionaryFrom(bytesOf(value));
    return read ? "" : read.error().message;
  };
  EXPECT_NE(refusal(Value::Dictionary{{"text", std::string(kDictionaryLimits.bytes, 'x')}}).find("larger than"),
            std::string::npos);
  EXPECT_NE(refusal(Value::Dictionary{{"many", Value::Array(kDictionaryLimits.elements, true)}}).find("elements"),
            std::string::npos);
  Value deep = Value::Dictionary();
  for (int level = 0; level < kDictionaryLimits.depth; ++level) deep = Value::Dictionary{{"deeper", deep}};
  EXPECT_NE(refusal(deep).find("levels deep"), std::string::npos);
}

}  // namespace
}  // namespace wire
