#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "helper/WireArguments.h"

namespace helper {
namespace {

// Messages that are written, sealed and read again, without a connection.
class WireArgumentsTest : public ::testing::Test {
 protected:
  WireArgumentsTest() {
    int pair[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    EXPECT_EQ(sd_bus_new(&bus), 0);
    EXPECT_GE(sd_bus_set_fd(bus, pair[0], pair[0]), 0);
    other = pair[1];
    EXPECT_GE(sd_bus_start(bus), 0);
    EXPECT_GE(sd_bus_message_new_signal(bus, &message, "/a", "a.b", "C"), 0);
  }
  ~WireArgumentsTest() override {
    sd_bus_message_unref(message);
    sd_bus_close_unref(bus);
    ::close(other);
  }

  sd_bus_message *sealed() {
    EXPECT_GE(sd_bus_message_seal(message, 1, 0), 0);
    EXPECT_GE(sd_bus_message_rewind(message, 1), 0);
    return message;
  }

  void appendAttribute(std::uint32_t tag, std::string_view bytes) {
    EXPECT_GE(sd_bus_message_open_container(message, 'r', "uay"), 0);
    EXPECT_GE(sd_bus_message_append_basic(message, 'u', &tag), 0);
    EXPECT_GE(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), 0);
    EXPECT_GE(sd_bus_message_close_container(message), 0);
  }

  sd_bus *bus = nullptr;
  sd_bus_message *message = nullptr;
  int other = -1;
};

TEST_F(WireArgumentsTest, ReadsBytesTextAndLists) {
  ASSERT_GE(sd_bus_message_append(message, "ays", 3, 1, 2, 3, "text"), 0);
  ASSERT_GE(sd_bus_message_append(message, "as", 2, "a", "b"), 0);
  std::string_view bytes;
  std::string text;
  std::vector<std::string> texts;
  ASSERT_GE(readBytes(sealed(), &bytes), 0);
  EXPECT_EQ(bytes, "\x01\x02\x03");
  ASSERT_GE(readText(message, 4, &text), 0);
  EXPECT_EQ(text, "text");
  ASSERT_GE(readTexts(message, 2, &texts), 0);
  EXPECT_EQ(texts, (std::vector<std::string>{"a", "b"}));
}

TEST_F(WireArgumentsTest, WhatIsTooLongIsRefusedAndNothingWritten) {
  ASSERT_GE(sd_bus_message_append(message, "sas", "text", 2, "a", "b"), 0);
  std::string text = "before";
  std::vector<std::string> texts = {"before"};
  EXPECT_EQ(readText(sealed(), 3, &text), -EMSGSIZE);
  EXPECT_EQ(readTexts(message, 1, &texts), -EMSGSIZE);
  EXPECT_EQ(text, "before");
  EXPECT_EQ(texts, (std::vector<std::string>{"before"}));
}

TEST_F(WireArgumentsTest, ReadsAttributes) {
  ASSERT_GE(sd_bus_message_open_container(message, 'a', "(uay)"), 0);
  appendAttribute(kLabelAttribute, std::string_view("a\0b", 3));
  appendAttribute(kAccountAttribute, "");
  ASSERT_GE(sd_bus_message_close_container(message), 0);
  KeychainItem::Attributes attributes;
  ASSERT_GE(readAttributes(sealed(), &attributes), 0);
  EXPECT_EQ(attributes, (KeychainItem::Attributes{{kLabelAttribute, std::string("a\0b", 3)}, {kAccountAttribute, ""}}));
}

TEST_F(WireArgumentsTest, AnAttributeThatComesTwiceIsRefused) {
  ASSERT_GE(sd_bus_message_open_container(message, 'a', "(uay)"), 0);
  appendAttribute(kLabelAttribute, "a");
  appendAttribute(kLabelAttribute, "b");
  ASSERT_GE(sd_bus_message_close_container(message), 0);
  KeychainItem::Attributes attributes;
  EXPECT_EQ(readAttributes(sealed(), &attributes), -EINVAL);
  EXPECT_TRUE(attributes.empty());
}

TEST_F(WireArgumentsTest, AThousandAttributesAreTooMany) {
  ASSERT_GE(sd_bus_message_open_container(message, 'a', "(uay)"), 0);
  for (std::uint32_t tag = 0; tag < 1000; ++tag) appendAttribute(tag, "");
  ASSERT_GE(sd_bus_message_close_container(message), 0);
  KeychainItem::Attributes attributes;
  EXPECT_EQ(readAttributes(sealed(), &attributes), -EMSGSIZE);
}

TEST_F(WireArgumentsTest, OptionsAreADictionaryOrNothing) {
  const std::string dictionary = "<plist version=\"1.0\"><dict><key>PPP</key><dict/></dict></plist>";
  const std::string array = "<plist version=\"1.0\"><array/></plist>";
  for (const auto &bytes : {std::string(), dictionary, array, std::string("garbage"), std::string(100000, ' ')})
    ASSERT_GE(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), 0);
  foundation::Value value = 1;
  EXPECT_GE(readOptionalDictionary(sealed(), &value), 0);
  EXPECT_TRUE(value.isNull());
  EXPECT_GE(readOptionalDictionary(message, &value), 0);
  EXPECT_TRUE(value["PPP"].isDictionary());
  EXPECT_EQ(readOptionalDictionary(message, &value), -EINVAL);
  EXPECT_EQ(readOptionalDictionary(message, &value), -EINVAL);
  EXPECT_EQ(readOptionalDictionary(message, &value), -EMSGSIZE);
  EXPECT_TRUE(value["PPP"].isDictionary());
}

}  // namespace
}  // namespace helper
