#include <gtest/gtest.h>

#include <set>

#include "foundation/PropertyList.h"
#include "helper/store/KeychainItem.h"

namespace helper {
namespace {

using vpnctl::Value;

KeychainItem item() {
  return {"0123ABCD-4567-4EF0-89AB-0123456789AB",
          {{kLabelAttribute, "label"}, {kAccountAttribute, ""}, {kServiceAttribute, "S\xC3"}},
          {"access", {"/a", "/b"}},
          SecretUse{1000, Value::Dictionary{{"PPP", Value::Dictionary{{"CommRemoteAddress", "vpn.example.org"}}}}},
          std::string("\0\xff", 2)};
}

TEST(KeychainItem, SurvivesThePropertyList) {
  const auto bytes = vpnctl::xmlPropertyList(item().value());
  ASSERT_TRUE(bytes) << bytes.error().message;
  const auto value = vpnctl::propertyListFromData(*bytes, "item");
  ASSERT_TRUE(value);
  const auto read = KeychainItem::fromValue(item().identifier, *value);
  ASSERT_TRUE(read) << read.error().message;
  EXPECT_EQ(read->attributes, item().attributes);
  EXPECT_EQ(read->access, item().access);
  EXPECT_EQ(read->sealedSecret, item().sealedSecret);
  ASSERT_TRUE(read->use);
  EXPECT_EQ(read->use->owner, 1000U);
  EXPECT_EQ(read->use->terms, item().use->terms);
  EXPECT_EQ(read->associatedData(), item().associatedData());
  EXPECT_TRUE((*value)["Attributes"]["labl"].isString());
  EXPECT_EQ((*value)["Attributes"]["svce"].type(), Value::Type::data);
}

TEST(KeychainItem, MatchesAllThatIsAsked) {
  EXPECT_TRUE(item().matches({}));
  EXPECT_TRUE(item().matches({{kLabelAttribute, "label"}, {kServiceAttribute, "S\xC3"}}));
  EXPECT_TRUE(item().matches({{kDescriptionAttribute, ""}}));
  EXPECT_FALSE(item().matches({{kLabelAttribute, "Label"}}));
  EXPECT_FALSE(item().matches({{kLabelAttribute, "label"}, {kAccountAttribute, "a"}}));
}

// What is moved from one place to another within an item must change what its secret is bound to.
TEST(KeychainItem, NoTwoItemsHaveTheSameAssociatedData) {
  std::vector<KeychainItem> items(12, item());
  items[1].identifier = "1123ABCD-4567-4EF0-89AB-0123456789AB";
  items[2].attributes[kAccountAttribute] = "label";
  items[2].attributes[kLabelAttribute] = "";
  items[3].attributes.erase(kAccountAttribute);
  items[4].access.trustedPaths = {"/b", "/a"};
  items[5].access.trustedPaths = {"/a/b"};
  items[6].access.trustedPaths = {"/a"};
  items[7].access = {"", {"access", "/a", "/b"}};
  items[8].attributes[kServiceAttribute] = "S";
  items[9].use.reset();
  items[10].use->owner = 0;
  items[11].use->terms = Value::Dictionary();
  std::set<std::string> distinct;
  for (const auto &each : items) distinct.insert(each.associatedData());
  EXPECT_EQ(distinct.size(), items.size());
}

TEST(KeychainItem, AnotherShapeIsAnError) {
  const Value good = item().value();
  ASSERT_TRUE(KeychainItem::fromValue("X", good));
  for (const char *key : {"Attributes", "Access", "Secret", "Use"}) {
    Value bad = good;
    bad.remove(key);
    // Items that are older than their uses have none.
    EXPECT_EQ(static_cast<bool>(KeychainItem::fromValue("X", bad)), std::string_view(key) == "Use") << key;
    bad.set(key, "text");
    EXPECT_FALSE(KeychainItem::fromValue("X", bad)) << key;
  }
  Value bad = good;
  bad.set("Attributes", Value::Dictionary{{"label", "x"}});
  EXPECT_FALSE(KeychainItem::fromValue("X", bad));
  bad.set("Attributes", Value::Dictionary{{"labl", 1}});
  EXPECT_FALSE(KeychainItem::fromValue("X", bad));
  for (const Value &owner : {Value("root"), Value(-1), Value(std::int64_t{1} << 32)}) {
    bad = good;
    bad.set("Use", Value::Dictionary{{"Owner", owner}, {"Service", Value::Dictionary()}});
    EXPECT_FALSE(KeychainItem::fromValue("X", bad)) << owner.description();
  }
  bad = good;
  bad.set("Access", Value::Dictionary{{"Description", ""}, {"TrustedApplications", Value::Array{1}}});
  EXPECT_FALSE(KeychainItem::fromValue("X", bad));
}

TEST(KeychainItem, PlainText) {
  EXPECT_TRUE(isPlainText(""));
  EXPECT_TRUE(isPlainText("M\xC3\xBCller"));
  EXPECT_FALSE(isPlainText("M\xC3"));
  EXPECT_FALSE(isPlainText("a\nb"));
  EXPECT_FALSE(isPlainText(std::string_view("a\0b", 3)));
}

}  // namespace
}  // namespace helper
