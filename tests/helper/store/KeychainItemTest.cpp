#include <gtest/gtest.h>

#include <set>

#include "foundation/PropertyList.h"
#include "helper/store/KeychainItem.h"

namespace helper {
namespace {

using foundation::Value;

KeychainItem item() {
  return {"0123ABCD-4567-4EF0-89AB-0123456789AB",
          {{kLabelAttribute, "label"}, {kAccountAttribute, ""}, {kServiceAttribute, "S\xC3"}},
          {"access", {"/a", "/b"}},
          std::string("\0\xff", 2)};
}

TEST(KeychainItem, SurvivesThePropertyList) {
  const auto bytes = foundation::xmlPropertyList(item().value());
  ASSERT_TRUE(bytes) << bytes.error().message;
  const auto value = foundation::propertyListFromData(*bytes, "item");
  ASSERT_TRUE(value);
  const auto read = KeychainItem::fromValue(item().identifier, *value);
  ASSERT_TRUE(read) << read.error().message;
  EXPECT_EQ(read->attributes, item().attributes);
  EXPECT_EQ(read->access, item().access);
  EXPECT_EQ(read->sealedSecret, item().sealedSecret);
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
  std::vector<KeychainItem> items(9, item());
  items[1].identifier = "1123ABCD-4567-4EF0-89AB-0123456789AB";
  items[2].attributes[kAccountAttribute] = "label";
  items[2].attributes[kLabelAttribute] = "";
  items[3].attributes.erase(kAccountAttribute);
  items[4].access.trustedPaths = {"/b", "/a"};
  items[5].access.trustedPaths = {"/a/b"};
  items[6].access.trustedPaths = {"/a"};
  items[7].access = {"", {"access", "/a", "/b"}};
  items[8].attributes[kServiceAttribute] = "S";
  std::set<std::string> distinct;
  for (const auto &each : items) distinct.insert(each.associatedData());
  EXPECT_EQ(distinct.size(), items.size());
}

TEST(KeychainItem, AnotherShapeIsAnError) {
  const Value good = item().value();
  ASSERT_TRUE(KeychainItem::fromValue("X", good));
  for (const char *key : {"Attributes", "Access", "Secret"}) {
    Value bad = good;
    bad.remove(key);
    EXPECT_FALSE(KeychainItem::fromValue("X", bad)) << key;
    bad.set(key, "text");
    EXPECT_FALSE(KeychainItem::fromValue("X", bad)) << key;
  }
  Value bad = good;
  bad.set("Attributes", Value::Dictionary{{"label", "x"}});
  EXPECT_FALSE(KeychainItem::fromValue("X", bad));
  bad.set("Attributes", Value::Dictionary{{"labl", 1}});
  EXPECT_FALSE(KeychainItem::fromValue("X", bad));
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
