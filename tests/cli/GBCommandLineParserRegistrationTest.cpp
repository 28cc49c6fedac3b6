#include <gtest/gtest.h>

#include "cli/GBCommandLineParser.h"
#include "tests/cli/StreamCapture.h"

using GB::GBCommandLineParser;
using vpnctl::Value;

namespace {

std::vector<std::string> names(const GBCommandLineParser::OptionsByName &options) {
  std::vector<std::string> result;
  for (const auto &[name, record] : options) result.push_back(name);
  return result;
}

// The members that are names.
std::vector<std::string> memberNames(const GB::GBOptionGroup &group) {
  std::vector<std::string> result;
  for (const auto &member : group)
    if (const auto *name = std::get_if<std::string>(&member)) result.push_back(*name);
  return result;
}

using Names = std::vector<std::string>;

}  // namespace

TEST(GBCommandLineParserRegistration, ASwitchWithAShortcutMakesThreeEntriesOfWhichTwoAreOneRecord) {
  GBCommandLineParser parser;
  parser.registerSwitch("verbose", 'v');
  EXPECT_EQ(names(parser.registeredOptionsByLongNames()), (Names{"no-verbose", "verbose"}));
  EXPECT_EQ(names(parser.registeredOptionsByShortNames()), Names{"v"});
  const GB::GBOptionRecord record = parser.registeredOptionsByLongNames().at("verbose");
  EXPECT_EQ(record, parser.registeredOptionsByShortNames().at("v"));
  EXPECT_EQ(*record, (Value::Dictionary{{"long", "verbose"}, {"requirement", 2}, {"short", int{'v'}}}));
  EXPECT_EQ(*parser.registeredOptionsByLongNames().at("no-verbose"),
            (Value::Dictionary{{"long", "no-verbose"}, {"requirement", 2}}));
  // A key that is added later is seen through both registries.
  (*record)["note"] = "seen";
  EXPECT_EQ(parser.registeredOptionsByShortNames().at("v")->at("note"), Value("seen"));
}

TEST(GBCommandLineParserRegistration, OnlySwitchesGetANegatedForm) {
  GBCommandLineParser parser;
  parser.registerOption("output", 'o', GB::GBOptionRequiresValue);
  parser.registerOption("level", GB::GBOptionValueOptional);
  parser.registerOption("odd", static_cast<GB::GBOptionRequirement>(3));
  EXPECT_EQ(names(parser.registeredOptionsByLongNames()), (Names{"level", "odd", "output"}));
  EXPECT_EQ(parser.registeredOptionsByLongNames().at("odd")->at("requirement"), Value(3));
}

TEST(GBCommandLineParserRegistration, AnOptionBeforeOrAfterAGroupIsInNoGroupsSet) {
  GBCommandLineParser parser;
  parser.registerOption("before", GB::GBOptionRequiresValue);
  parser.beginRegisterOptionGroup("g");
  parser.registerOption("inside", GB::GBOptionRequiresValue);
  parser.endRegisterOptionGroup();
  parser.registerOption("after", GB::GBOptionRequiresValue);
  EXPECT_EQ(memberNames(*parser.registeredOptionGroupsByNames().at("g")), Names{"inside"});
  EXPECT_EQ(parser.currentOptionsGroupOptions(), nullptr);
}

TEST(GBCommandLineParserRegistration, TheGroupsSetHoldsTheNegatedFormsRecordNotItsName) {
  GBCommandLineParser parser;
  parser.beginRegisterOptionGroup("g");
  parser.registerSwitch("quiet");
  const GB::GBOptionGroup &group = *parser.registeredOptionGroupsByNames().at("g");
  EXPECT_EQ(group.size(), 2u);
  EXPECT_EQ(memberNames(group), Names{"quiet"});
  EXPECT_TRUE(group.contains(parser.registeredOptionsByLongNames().at("no-quiet")));
}

TEST(GBCommandLineParserRegistration, AGroupBegunTwicePrintsTheMessageOnceAndGoesOnFilling) {
  GBCommandLineParser parser;
  const std::string printed = printedBy(stderr, [&] {
    parser.beginRegisterOptionGroup("build");
    parser.registerOption("one", GB::GBOptionRequiresValue);
    parser.endRegisterOptionGroup();
    parser.beginRegisterOptionGroup("build");
    parser.registerOption("two", GB::GBOptionRequiresValue);
  });
  EXPECT_EQ(printed, "Group build is already registered!");
  EXPECT_EQ(parser.registeredOptionGroupsByNames().size(), 1u);
  EXPECT_EQ(parser.registeredOptionGroupsByNames().at("build"), parser.currentOptionsGroupOptions());
  EXPECT_EQ(memberNames(*parser.currentOptionsGroupOptions()), (Names{"one", "two"}));
  EXPECT_EQ(parser.currentOptionsGroupName(), std::nullopt);
}

TEST(GBCommandLineParserRegistration, OptionNamesAreToldByTheirFirstCharacters) {
  const GBCommandLineParser parser;
  EXPECT_TRUE(parser.isShortOrLongOptionName("-"));
  EXPECT_TRUE(parser.isShortOrLongOptionName("--"));
  EXPECT_TRUE(parser.isShortOrLongOptionName("-5"));
  EXPECT_TRUE(parser.isShortOrLongOptionName("--unknown"));
  EXPECT_FALSE(parser.isShortOrLongOptionName("value"));
  EXPECT_FALSE(parser.isShortOrLongOptionName(""));
}

TEST(GBCommandLineParserRegistration, GroupNamesAreExact) {
  GBCommandLineParser parser;
  EXPECT_FALSE(parser.isOptionGroupName("build"));
  parser.beginRegisterOptionGroup("build");
  EXPECT_TRUE(parser.isOptionGroupName("build"));
  EXPECT_FALSE(parser.isOptionGroupName("Build"));
}

TEST(GBCommandLineParserRegistration, ArgumentsReturnsACopy) {
  GBCommandLineParser parser;
  parser.setParsedArguments({"a"});
  const std::vector<std::string> returned = parser.arguments();
  parser.setParsedArguments({"a", "b"});
  EXPECT_EQ(returned, Names{"a"});
  EXPECT_EQ(parser.arguments(), (Names{"a", "b"}));
}

TEST(GBCommandLineParserRegistration, AShortcutOf0OrWithTheTopBitSetIsNone) {
  GBCommandLineParser parser;
  parser.registerSwitch("none", 0);
  parser.registerSwitch("high", static_cast<char>(0xe4));
  EXPECT_TRUE(parser.registeredOptionsByShortNames().empty());
  EXPECT_FALSE(parser.registeredOptionsByLongNames().at("high")->contains("short"));
}

TEST(GBCommandLineParserRegistration, TheLaterOfTwoWinsANegatedFormToo) {
  GBCommandLineParser parser;
  parser.registerOption("no-color", GB::GBOptionRequiresValue);
  parser.registerSwitch("color", 'c');
  EXPECT_EQ(parser.registeredOptionsByLongNames().at("no-color")->at("requirement"), Value(2));
  parser.registerOption("no-color", 'c', GB::GBOptionRequiresValue);
  EXPECT_EQ(parser.registeredOptionsByLongNames().at("no-color")->at("requirement"), Value(0));
  EXPECT_EQ(parser.registeredOptionsByShortNames().at("c")->at("long"), Value("no-color"));
}

TEST(GBCommandLineParserRegistration, AnUnbalancedEndIsHarmlessAndANullNameEndsInAnException) {
  GBCommandLineParser parser;
  parser.endRegisterOptionGroup();
  EXPECT_THROW(parser.registerSwitch(std::nullopt), std::invalid_argument);
  EXPECT_THROW(parser.beginRegisterOptionGroup(std::nullopt), std::invalid_argument);
  EXPECT_TRUE(parser.registeredOptionsByLongNames().empty());
}

TEST(GBCommandLineParserRegistration, AFreshParserIsEmpty) {
  const GBCommandLineParser parser;
  EXPECT_EQ(parser.settings(), nullptr);
  EXPECT_EQ(parser.currentOptionsGroupOptions(), nullptr);
  EXPECT_EQ(parser.currentOptionsGroupName(), std::nullopt);
  EXPECT_TRUE(parser.registeredOptionGroupsByNames().empty());
  EXPECT_TRUE(parser.parsedOptions().empty());
  EXPECT_TRUE(parser.arguments().empty());
}
