#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "cli/GBSettings.h"

using GB::GBSettings;
using GB::GBSettingsArgumentsKey;
using vpnctl::Value;

namespace {

const std::string kArguments(GBSettingsArgumentsKey);

Value list(Value::Array elements) { return Value(std::move(elements)); }

class TwoLayers : public ::testing::Test {
 protected:
  std::shared_ptr<GBSettings> bottom = GBSettings::settingsWithName("bottom", nullptr);
  std::shared_ptr<GBSettings> top = GBSettings::settingsWithName("top", bottom);
};

using GBSettingsLayers = TwoLayers;

// Two empty layers between where a value is and where it is asked for.
class FourLayers : public TwoLayers {
 protected:
  std::shared_ptr<GBSettings> above = GBSettings::settingsWithName("above", top);
  std::shared_ptr<GBSettings> highest = GBSettings::settingsWithName("highest", above);
};

using GBSettingsDeepLayers = FourLayers;

}  // namespace

TEST_F(GBSettingsLayers, TheNearestLayerWins) {
  bottom->setObjectForKey(1, "a");
  top->setObjectForKey(2, "a");
  EXPECT_EQ(top->objectForKey("a"), Value(2));
  EXPECT_EQ(bottom->objectForKey("a"), Value(1));
}

TEST_F(GBSettingsDeepLayers, AReadFallsThroughHoweverManyLayers) {
  bottom->setObjectForKey("deep", "a");
  EXPECT_EQ(highest->objectForKey("a"), Value("deep"));
  EXPECT_EQ(highest->settingsForKey("a"), bottom.get());
  EXPECT_TRUE(highest->objectForLocalKey("a").isNull());
  top->setObjectForKey("nearer", "a");
  EXPECT_EQ(highest->objectForKey("a"), Value("nearer"));
  EXPECT_EQ(highest->settingsForKey("a"), top.get());
}

TEST_F(GBSettingsDeepLayers, ArrayKeysAndArgumentsGatherFromHoweverManyLayers) {
  highest->registerArrayForKey("k");
  bottom->setObjectForKey(list({"deep"}), "k");
  top->setObjectForKey(list({"middle"}), "k");
  highest->setObjectForKey("own", "k");
  EXPECT_EQ(highest->objectForKey("k"), list({"own", "middle", "deep"}));
  EXPECT_EQ(highest->settingsForArrayValue("deep", "k"), bottom.get());
  bottom->addArgument("argument");
  EXPECT_EQ(highest->arguments(), list({"argument"}));
  EXPECT_EQ(highest->settingsForArgument("argument"), bottom.get());
  std::string names;
  highest->enumerateSettings([&](GBSettings &layer, bool *) { names += layer.name() + " "; });
  EXPECT_EQ(names, "highest above top bottom ");
}

TEST_F(GBSettingsLayers, AValueMayBePartOfWhatItChanges) {
  top->registerArrayForKey("k");
  top->setObjectForLocalKey("z", "k");
  top->setObjectForKey(top->storage().at("k"), "k");
  EXPECT_EQ(top->objectForLocalKey("k"), list({"z", "z"}));
  top->setObjectForKey(top->storage().at("k"), "k");
  EXPECT_EQ(top->objectForLocalKey("k"), list({"z", "z", "z", "z"}));
  top->setObjectForKey(top->storage().at("k").array().front(), "k");
  EXPECT_EQ(top->objectForLocalKey("k"), list({"z", "z", "z", "z", "z"}));

  top->setObjectForKey("whole", "ordinary");
  top->setObjectForKey(top->storage().at("ordinary"), "ordinary");
  EXPECT_EQ(top->objectForKey("ordinary"), Value("whole"));
  top->setObjectForKey(top->storage().at("k"), "ordinary");
  EXPECT_EQ(top->objectForKey("ordinary"), top->objectForLocalKey("k"));
}

TEST_F(GBSettingsLayers, ArrayKeyOfTheTopGathersWhatIsAnOrdinaryValueBelow) {
  top->registerArrayForKey("inputs");
  top->setObjectForKey("x", "inputs");
  bottom->setObjectForKey(list({"y"}), "inputs");
  EXPECT_EQ(top->objectForKey("inputs"), list({"x", "y"}));
  EXPECT_EQ(bottom->objectForKey("inputs"), list({"y"}));
  EXPECT_TRUE(top->isKeyArray("inputs"));
  EXPECT_FALSE(bottom->isKeyArray("inputs"));
}

TEST_F(GBSettingsLayers, OnlyThisLayersArrayKeysCount) {
  bottom->registerArrayForKey("inputs");
  bottom->setObjectForKey("y", "inputs");
  top->setObjectForKey("x", "inputs");
  EXPECT_EQ(top->objectForKey("inputs"), Value("x"));
  EXPECT_EQ(bottom->objectForKey("inputs"), list({"y"}));
}

TEST_F(GBSettingsLayers, WritingAnArrayKeyTwiceAppendsAndReplacingLocallyReplacesTheWhole) {
  top->registerArrayForKey("k");
  top->setObjectForKey("a", "k");
  top->setObjectForKey(list({"b", "c"}), "k");
  EXPECT_EQ(top->objectForKey("k"), list({"a", "b", "c"}));
  EXPECT_TRUE(top->objectForLocalKey("k").isMutableArray());
  top->setObjectForLocalKey("z", "k");
  EXPECT_EQ(top->objectForLocalKey("k"), Value("z"));
  top->setObjectForKey("new", "k");
  EXPECT_EQ(top->objectForLocalKey("k"), list({"z", "new"}));
}

TEST_F(GBSettingsLayers, APlainArrayStoredLocallyBecomesTheFirstElementOnAppend) {
  top->registerArrayForKey("k");
  top->setObjectForLocalKey(list({"y"}), "k");
  top->setObjectForKey("new", "k");
  EXPECT_EQ(top->objectForLocalKey("k"), list({list({"y"}), "new"}));
}

TEST_F(GBSettingsLayers, AMutableArrayStoredLocallyIsAppendedTo) {
  top->registerArrayForKey("k");
  top->setObjectForLocalKey(Value::mutableArray({"y"}), "k");
  top->setObjectForKey("new", "k");
  EXPECT_EQ(top->objectForLocalKey("k"), list({"y", "new"}));
}

TEST_F(GBSettingsLayers, TheArrayTestIsMadeOnTheKeySoAnArrayValueNeverReplaces) {
  top->registerArrayForKey("k");
  top->setObjectForKey(list({"a"}), "k");
  top->setObjectForKey(list({"b"}), "k");
  EXPECT_EQ(top->objectForKey("k"), list({"a", "b"}));
  // For an ordinary key an array is a value like any other.
  top->setObjectForKey(list({"a"}), "ordinary");
  top->setObjectForKey(list({"b"}), "ordinary");
  EXPECT_EQ(top->objectForKey("ordinary"), list({"b"}));
}

TEST_F(GBSettingsLayers, AnArrayReadIsFreshEachTime) {
  top->addArgument("1");
  Value read = top->arguments();
  read.append("2");
  EXPECT_EQ(top->arguments(), list({"1"}));
  top->addArgument("3");
  EXPECT_EQ(read, list({"1", "2"}));
}

TEST_F(GBSettingsLayers, ArgumentsOfAFreshLayerAreAnEmptyArrayAndSetArgumentsAdds) {
  EXPECT_TRUE(top->arguments().isArray());
  EXPECT_EQ(top->arguments(), list({}));
  top->addArgument("1");
  top->setArguments(list({"2"}));
  EXPECT_EQ(top->arguments(), list({"1", "2"}));
  bottom->addArgument("0");
  EXPECT_EQ(top->arguments(), list({"1", "2", "0"}));
}

TEST_F(GBSettingsLayers, AValueThatIsNoArrayCountsAsOneElementOfAnArrayRead) {
  top->registerArrayForKey("k");
  bottom->setObjectForKey("single", "k");
  top->setObjectForKey("x", "k");
  EXPECT_EQ(top->objectForKey("k"), list({"x", "single"}));
  EXPECT_EQ(top->settingsForArrayValue("single", "k"), bottom.get());
}

TEST_F(GBSettingsLayers, AKeyThatNoLayerHoldsIsNull) {
  EXPECT_EQ(top->settingsForKey("none"), nullptr);
  EXPECT_TRUE(top->objectForKey("none").isNull());
  EXPECT_TRUE(top->objectForLocalKey("none").isNull());
}

TEST_F(GBSettingsLayers, QueriesNameTheLayer) {
  bottom->setObjectForKey(1, "a");
  bottom->addArgument("same");
  top->addArgument("same");
  bottom->addArgument("low");
  EXPECT_EQ(top->settingsForKey("a"), bottom.get());
  EXPECT_EQ(top->settingsForArgument("same"), top.get());
  EXPECT_EQ(top->settingsForArgument("low"), bottom.get());
  EXPECT_EQ(top->settingsForArgument("none"), nullptr);
  EXPECT_TRUE(bottom->isKeyPresentAtThisLevel("a"));
  EXPECT_FALSE(top->isKeyPresentAtThisLevel("a"));
}

TEST_F(GBSettingsLayers, EnumerationGoesDownUntilItIsStopped) {
  std::vector<std::string> names;
  top->enumerateSettings([&](GBSettings &layer, bool *) { names.push_back(layer.name()); });
  EXPECT_EQ(names, (std::vector<std::string>{"top", "bottom"}));
  names.clear();
  const GBSettings &reading = *top;
  reading.enumerateSettings([&](const GBSettings &layer, bool *stop) {
    names.push_back(layer.name());
    *stop = true;
  });
  EXPECT_EQ(names, std::vector<std::string>{"top"});
}

TEST_F(GBSettingsLayers, TypedAccessors) {
  top->setBool(true, "b");
  top->setInteger(-5, "i");
  top->setUnsignedInteger(7, "u");
  top->setFloat(2.5, "f");
  EXPECT_TRUE(top->boolForKey("b"));
  EXPECT_EQ(top->integerForKey("i"), -5);
  EXPECT_EQ(top->unsignedIntegerForKey("u"), 7u);
  EXPECT_EQ(top->floatForKey("f"), 2.5);
  EXPECT_EQ(top->objectForKey("b").type(), Value::Type::boolean);
  EXPECT_EQ(top->objectForKey("i").type(), Value::Type::signedInteger);
  EXPECT_EQ(top->objectForKey("u").type(), Value::Type::unsignedInteger);
  EXPECT_EQ(top->objectForKey("f").type(), Value::Type::real);
  EXPECT_FALSE(top->boolForKey("none"));
  EXPECT_EQ(top->integerForKey("none"), 0);
  EXPECT_EQ(top->unsignedIntegerForKey("none"), 0u);
  EXPECT_EQ(top->floatForKey("none"), 0.0);
  top->setObjectForKey(" 12abc", "text");
  EXPECT_EQ(top->integerForKey("text"), 12);
}

TEST_F(GBSettingsLayers, TypedSettersAppendToAnArrayKeyToo) {
  top->registerArrayForKey("k");
  top->setBool(true, "k");
  top->setInteger(-5, "k");
  top->setUnsignedInteger(7, "k");
  top->setFloat(2.5, "k");
  const Value gathered = top->objectForKey("k");
  ASSERT_EQ(gathered, list({true, -5, 7, 2.5}));
  std::vector<Value::Type> types;
  for (const Value &element : gathered.array()) types.push_back(element.type());
  EXPECT_EQ(types, (std::vector<Value::Type>{Value::Type::boolean, Value::Type::signedInteger,
                                             Value::Type::unsignedInteger, Value::Type::real}));
}

TEST_F(GBSettingsLayers, TheUnsignedGetterGoesThroughTheSignedConversion) {
  // Text above the signed range saturates where the signed conversion does.
  top->setObjectForKey("18446744073709551615", "text");
  EXPECT_EQ(top->unsignedIntegerForKey("text"), std::uint64_t{std::numeric_limits<std::int64_t>::max()});
  top->setFloat(1e19, "real");
  EXPECT_EQ(top->unsignedIntegerForKey("real"), std::uint64_t{std::numeric_limits<std::int64_t>::max()});
  top->setUnsignedInteger(std::numeric_limits<std::uint64_t>::max(), "wrapped");
  EXPECT_EQ(top->integerForKey("wrapped"), -1);
  EXPECT_EQ(top->unsignedIntegerForKey("wrapped"), std::numeric_limits<std::uint64_t>::max());
}

TEST_F(GBSettingsLayers, ANullObjectIsRefusedAndChangesNothing) {
  top->registerArrayForKey("k");
  EXPECT_THROW(top->setObjectForKey(Value(), "k"), std::invalid_argument);
  EXPECT_THROW(top->setObjectForKey(Value(), "a"), std::invalid_argument);
  EXPECT_THROW(top->setObjectForLocalKey(Value(), "a"), std::invalid_argument);
  EXPECT_TRUE(top->storage().empty());
}

TEST_F(GBSettingsLayers, PropertiesCanBeSet) {
  top->setName("other");
  top->setParent(nullptr);
  top->setArrayKeys({"only"});
  top->setStorage({{"a", 1}});
  EXPECT_EQ(top->name(), "other");
  EXPECT_EQ(top->parent(), nullptr);
  EXPECT_FALSE(top->isKeyArray(kArguments));
  EXPECT_EQ(top->objectForKey("a"), Value(1));
  EXPECT_EQ(kArguments, "B450A340-EC4F-40EC-B18D-B52DB881A16A");
}
