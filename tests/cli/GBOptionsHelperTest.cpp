#include <gtest/gtest.h>

#include "cli/GBOptionsHelper.h"
#include "tests/cli/StreamCapture.h"

using namespace GB;

namespace {

// The list in short: flags and names.
std::vector<std::string> entries(const GBOptionsHelper &helper) {
  std::vector<std::string> result;
  helper.enumerateOptions([&](const OptionDefinition &definition, bool *) {
    result.push_back(std::to_string(definition.flags()) + " " + definition.longOption().value_or("null") + " " +
                     definition.description().value_or("null"));
  });
  return result;
}

using Entries = std::vector<std::string>;

}  // namespace

TEST(GBOptionsHelper, ATableWhoseFirstEntryIsTheTerminatorRegistersNothing) {
  const GBOptionDefinition table[] = {{}};
  GBOptionsHelper helper;
  helper.registerOptionsFromDefinitions(table);
  EXPECT_TRUE(helper.registeredOptions().empty());
}

TEST(GBOptionsHelper, ATerminatorMayHaveALetterAndFlags) {
  const GBOptionDefinition table[] = {{'v', "verbose", "Talk", GBOptionNoValue},
                                      {0, nullptr, "Heading", GBOptionFlagSeparator},
                                      {0, "bare", nullptr, 0},
                                      {'x', nullptr, nullptr, 0xff},
                                      {'y', "behind", "not reached", 0}};
  GBOptionsHelper helper;
  helper.registerOptionsFromDefinitions(table);
  EXPECT_EQ(entries(helper), (Entries{"2 verbose Talk", "8 null Heading", "0 bare null"}));
  EXPECT_EQ(helper.registeredOptions().front().shortOption(), 'v');
}

TEST(GBOptionsHelper, ASeparatorHasFlagsExactly8AndNeverReachesTheParser) {
  GBOptionsHelper helper;
  helper.registerSeparator("text");
  const OptionDefinition &separator = helper.registeredOptions().at(0);
  EXPECT_EQ(separator.flags(), 0x8u);
  EXPECT_EQ(separator.shortOption(), 0);
  EXPECT_EQ(separator.longOption(), std::nullopt);
  EXPECT_EQ(GBOptionsHelper::requirements(separator), GBOptionRequiresValue);
  EXPECT_TRUE(helper.isCmdLine(separator) && helper.isPrint(separator) && helper.isHelp(separator));
  GBCommandLineParser parser;
  parser.registerOptions(helper);
  EXPECT_TRUE(parser.registeredOptionsByLongNames().empty());
}

TEST(GBOptionsHelper, AGroupOffTheCommandLineStillSendsItsEnd) {
  GBOptionsHelper helper;
  helper.registerGroup("hidden", "text", GBOptionFlagNoCmdLine,
                       [](GBOptionsHelper &group) { group.registerOption('m', "member", "text", 0); });
  GBCommandLineParser parser;
  parser.beginRegisterOptionGroup("outer");
  parser.registerOptions(helper);
  EXPECT_FALSE(parser.isOptionGroupName("hidden"));
  // The member went into the group that was open, which the unbalanced end has closed.
  EXPECT_TRUE(parser.registeredOptionGroupsByNames().at("outer")->contains("member"));
  EXPECT_EQ(parser.currentOptionsGroupOptions(), nullptr);
}

TEST(GBOptionsHelper, AnEmptyOptionsBlockYieldsOpeningAndEndBackToBack) {
  GBOptionsHelper helper;
  int calls = 0;
  helper.registerGroup("g", "text", [&](GBOptionsHelper &group) {
    ++calls;
    EXPECT_EQ(&group, &helper);
  });
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(entries(helper), (Entries{"16 g text", "1024 null null"}));
}

TEST(GBOptionsHelper, AGroupsFlagsGoToTheOpeningAlone) {
  GBOptionsHelper helper;
  helper.registerGroup("g", "text", GBOptionFlagNoHelp, [](GBOptionsHelper &group) {
    group.registerOption('m', "member", "text", GBOptionValueOptional);
  });
  EXPECT_EQ(entries(helper), (Entries{"144 g text", "1 member text", "1024 null null"}));
}

TEST(GBOptionsHelper, ASeparatorThatIsAGroupTooIsTreatedAsASeparator) {
  GBOptionsHelper helper;
  helper.registerOption(0, "g", "text", GBOptionFlagSeparator | GBOptionFlagGroup);
  GBCommandLineParser parser;
  helper.registerOptionsToCommandLineParser(parser);
  EXPECT_FALSE(parser.isOptionGroupName("g"));
}

TEST(GBOptionsHelper, Requirement3IsStoredAndPassedThrough) {
  GBOptionsHelper helper;
  helper.registerOption('t', "three", "text", 3);
  EXPECT_EQ(GBOptionsHelper::requirements(helper.registeredOptions().at(0)), 3u);
  GBCommandLineParser parser;
  parser.registerOptions(helper);
  EXPECT_EQ(parser.registeredOptionsByLongNames().at("three")->at("requirement"), vpnctl::Value(3));
  EXPECT_FALSE(parser.registeredOptionsByLongNames().contains("no-three"));
}

TEST(GBOptionsHelper, BitsWithoutAMeaningAreStoredAndIgnored) {
  GBOptionsHelper helper;
  for (const std::uint64_t bit : {0x4u, 0x100u, 0x200u, 0x800u}) {
    helper.registerOption(0, "switch", "text", GBOptionNoValue | bit);
    const OptionDefinition &definition = helper.registeredOptions().back();
    EXPECT_EQ(definition.flags(), GBOptionNoValue | bit);
    EXPECT_EQ(GBOptionsHelper::requirements(definition), GBOptionNoValue) << bit;
    GBCommandLineParser parser;
    parser.registerOptions(helper);
    EXPECT_TRUE(parser.registeredOptionsByLongNames().contains("no-switch")) << bit;
  }
}

TEST(GBOptionsHelper, WhatOpensAndEndsAGroupAtOnceOpensIt) {
  GBOptionsHelper helper;
  helper.registerOption(0, "g", "text", GBOptionFlagGroup | std::uint64_t{GBOptionFlagGroupEnd});
  helper.registerOption(0, "member", "text", 0);
  GBCommandLineParser parser;
  parser.registerOptions(helper);
  ASSERT_TRUE(parser.isOptionGroupName("g"));
  EXPECT_TRUE(parser.registeredOptionGroupsByNames().at("g")->contains("member"));
}

TEST(GBOptionsHelper, OptionsAndGroupsReachTheParserInOrder) {
  GBOptionsHelper helper;
  helper.registerOption('v', "verbose", "text", GBOptionNoValue | GBOptionFlagNoHelp | GBOptionFlagNoPrint);
  helper.registerOption(0, "file-only", "text", GBOptionFlagNoCmdLine);
  helper.registerGroup("build", "text", [](GBOptionsHelper &group) { group.registerOption('o', "output", "text", 0); });
  helper.registerOption(0, "after", "text", GBOptionValueOptional);
  GBCommandLineParser parser;
  parser.registerOptions(helper);
  EXPECT_EQ(parser.registeredOptionsByLongNames().size(), 4u);
  EXPECT_EQ(parser.registeredOptionsByShortNames().size(), 2u);
  EXPECT_FALSE(parser.registeredOptionsByLongNames().contains("file-only"));
  EXPECT_EQ(parser.registeredOptionGroupsByNames().at("build")->size(), 1u);
  EXPECT_TRUE(parser.registeredOptionGroupsByNames().at("build")->contains("output"));
}

TEST(GBOptionsHelper, ANullLongNameReachesTheParserAsNull) {
  GBOptionsHelper helper;
  helper.registerOption('x', std::nullopt, "text", 0);
  GBCommandLineParser parser;
  EXPECT_THROW(parser.registerOptions(helper), std::invalid_argument);
}

TEST(GBOptionsHelper, EnumerationStops) {
  GBOptionsHelper helper;
  helper.registerSeparator("1");
  helper.registerSeparator("2");
  int calls = 0;
  helper.enumerateOptions([&](const OptionDefinition &, bool *stop) {
    ++calls;
    *stop = true;
  });
  EXPECT_EQ(calls, 1);
}

TEST(GBOptionsHelper, TheFlagsAreTheseNumbers) {
  const std::vector<std::uint64_t> flags = {GBOptionFlagRequirementMask, GBOptionFlagSeparator, GBOptionFlagGroup,
                                            GBOptionFlagNoCmdLine,       GBOptionFlagNoPrint,   GBOptionFlagNoHelp,
                                            GBOptionFlagGroupEnd};
  EXPECT_EQ(flags, (std::vector<std::uint64_t>{0x3, 0x8, 0x10, 0x20, 0x40, 0x80, 0x400}));
}

TEST(GBOptionsHelper, FlagTestsReadOnlyTheFlags) {
  OptionDefinition definition;
  EXPECT_TRUE(GBOptionsHelper::isCmdLine(definition));
  EXPECT_TRUE(GBOptionsHelper::isPrint(definition));
  EXPECT_TRUE(GBOptionsHelper::isHelp(definition));
  definition.setFlags(0x104u | ~std::uint64_t{0x7ff});
  EXPECT_FALSE(GBOptionsHelper::isSeparator(definition));
  EXPECT_FALSE(GBOptionsHelper::isOptionGroup(definition));
  EXPECT_FALSE(GBOptionsHelper::isOptionGroupEnd(definition));
  EXPECT_TRUE(GBOptionsHelper::isHelp(definition));
  definition.setFlags(0x4f8);
  EXPECT_TRUE(GBOptionsHelper::isSeparator(definition));
  EXPECT_TRUE(GBOptionsHelper::isOptionGroup(definition));
  EXPECT_TRUE(GBOptionsHelper::isOptionGroupEnd(definition));
  EXPECT_FALSE(GBOptionsHelper::isCmdLine(definition));
  EXPECT_FALSE(GBOptionsHelper::isPrint(definition));
  EXPECT_FALSE(GBOptionsHelper::isHelp(definition));
}
