#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "cli/GBOptionsHelper.h"
#include "foundation/ProcessInfo.h"
#include "tests/cli/StreamCapture.h"

using vpnctl::Value;
using namespace GB;

namespace {

std::string expected(const std::string &name) {
  std::ifstream file(std::string(EXPECTED_FOLDER) + "/" + name, std::ios::binary);
  EXPECT_TRUE(file.good()) << name;
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string help(const GBOptionsHelper &helper) {
  return printedBy(
      stdout, [&] { helper.printHelp(); });
}

std::string values(const GBOptionsHelper &helper, const GBSettings &settings) {
  return printedBy(
      stdout, [&] { helper.printValuesFromSettings(settings); });
}

std::string version(const GBOptionsHelper &helper) {
  return printedBy(
      stdout, [&] { helper.printVersion(); });
}

// Three layers and a list with everything in it.
struct World {
  World() {
    helper.setApplicationName([] { return "Werkzeug \U0001f527"; });
    helper.setApplicationVersion([] { return "1.2"; });
    helper.setApplicationBuild([] { return "77"; });
    helper.setPrintHelpHeader([] { return "%APPNAME %APPVERSION (%APPBUILD)\n"; });
    helper.setPrintHelpFooter([] { return "%APPNAME, %APPNAME."; });
    helper.setPrintValuesHeader([] { return "Values of %APPNAME"; });
    helper.setPrintValuesArgumentsHeader([] { return "Arguments:"; });
    helper.setPrintValuesOptionsHeader([] { return "Options:"; });
    helper.setPrintValuesFooter([] { return "end"; });
    helper.registerSeparator("Allgemeines \u2014 \U0001f600:");
    helper.registerOption('v', "verbose", "Talk m\u00f6re", GBOptionNoValue);
    helper.registerOption(static_cast<signed char>(0xe4), "gr\u00f6\u00dfe-\U0001f600", "Size", GBOptionRequiresValue);
    helper.registerSeparator("replaced");
    helper.registerOption(0, "hidden", "nowhere", GBOptionFlagNoHelp | GBOptionFlagNoPrint);
    helper.registerSeparator("Rest:");
    helper.registerOption('l', "level", "How deep", GBOptionValueOptional);
    helper.registerGroup("build", "Making \u00e4ll things that there are", [](GBOptionsHelper &group) {
      group.registerOption('o', "output", std::nullopt, GBOptionRequiresValue);
      group.registerOption(0, "inputs", "What from", GBOptionRequiresValue);
    });
    helper.registerGroup("empty", "", [](GBOptionsHelper &) {});
    helper.registerSeparator("at the end, dropped");
    for (const auto &layer : {command, file, defaults}) layer->registerArrayForKey("inputs");
    defaults->setInteger(3, "level");
    defaults->setObjectForKey("d", "inputs");
    file->setObjectForKey("\u00fcber \U0001f600\U0001f600", "output");
    file->setObjectForKey(Value::Array{"f1", "f2"}, "inputs");
    file->addArgument("from-file");
    command->setBool(true, "verbose");
    command->setFloat(2.5, "gr\u00f6\u00dfe-\U0001f600");
    command->addArgument("\u00e4.txt");
    command->addArgument("--b");
  }

  GBOptionsHelper helper;
  std::shared_ptr<GBSettings> defaults = GBSettings::settingsWithName("defaults", nullptr);
  std::shared_ptr<GBSettings> file = GBSettings::settingsWithName("Datei \u00fc", defaults);
  std::shared_ptr<GBSettings> command = GBSettings::settingsWithName("command line", file);
};

}  // namespace

TEST(GBOptionsHelperPrinting, HelpIsTheExpectedFileByteForByte) {
  EXPECT_EQ(help(World().helper), expected("help.txt"));
}

TEST(GBOptionsHelperPrinting, ValuesAreTheExpectedFileByteForByte) {
  const World world;
  EXPECT_EQ(values(world.helper, *world.command), expected("values.txt"));
}

TEST(GBOptionsHelperPrinting, ValuesOfOneLevelAreTheExpectedFileByteForByte) {
  const World world;
  world.command->setParent(nullptr);
  EXPECT_EQ(values(world.helper, *world.command), expected("values-one-level.txt"));
}

TEST(GBOptionsHelperPrinting, AHelperWithoutDefinitionsAndBlocks) {
  const GBOptionsHelper helper;
  EXPECT_EQ(help(helper), "\n\n");
  EXPECT_EQ(values(helper, GBSettings("level")), "\n\nOption level \n\n");
}

TEST(GBOptionsHelperPrinting, TheWorkedLayout) {
  GBOptionsHelper helper;
  helper.registerOption('v', "verbose", "fourteen chars", GBOptionNoValue);
  helper.registerOption(0, "level", "five!", GBOptionRequiresValue);
  const std::string first = "-v --verbose       fourteen chars ";
  const std::string second = "   --level <value> five! ";
  EXPECT_EQ(first.size(), 34u);
  EXPECT_EQ(second.size(), 25u);
  EXPECT_EQ(help(helper), "\n" + first + "\n" + second + "\n\n");
}

TEST(GBOptionsHelperPrinting, TwoSeparatorsInARowLeaveOnlyTheLater) {
  GBOptionsHelper helper;
  helper.registerOption(0, "a", "", GBOptionNoValue);
  helper.registerSeparator("one");
  helper.registerSeparator("two");
  helper.registerOption(0, "hidden", "", GBOptionFlagNoHelp | GBOptionFlagNoPrint);
  helper.registerSeparator("three");
  helper.registerOption(0, "b", "", GBOptionNoValue);
  EXPECT_EQ(help(helper), "\n   --a  \n\nthree \n   --b  \n\n");
  EXPECT_EQ(values(helper, GBSettings("l")), "\n\nOption l \na        \n\nthree  \nb        \n\n");
}

TEST(GBOptionsHelperPrinting, ASeparatorFollowedOnlyByHiddenOptionsOrAtTheEndIsDropped) {
  GBOptionsHelper helper;
  helper.registerOption(0, "a", "", GBOptionNoValue);
  helper.registerSeparator("dropped");
  helper.registerOption(0, "hidden", "", GBOptionFlagNoHelp | GBOptionFlagNoPrint);
  EXPECT_EQ(help(helper), "\n   --a  \n\n");
  EXPECT_EQ(values(helper, GBSettings("l")), "\n\nOption l \na        \n\n");
}

TEST(GBOptionsHelperPrinting, ASeparatorAsTheFirstEntryIsKeptWithItsEmptyLine) {
  // In help it comes at 0 rows: the mark starts at the largest number, not at 0.
  GBOptionsHelper helper;
  helper.registerSeparator("first");
  helper.registerOption(0, "a", "", GBOptionNoValue);
  EXPECT_EQ(help(helper), "\n\nfirst \n   --a  \n\n");
  EXPECT_EQ(values(helper, GBSettings("l")), "\n\nOption l \n\nfirst  \na        \n\n");
  GBOptionsHelper lonely;
  lonely.registerSeparator("only");
  EXPECT_EQ(help(lonely), "\n\n");
  EXPECT_EQ(values(lonely, GBSettings("l")), "\n\nOption l \n\n");
}

TEST(GBOptionsHelperPrinting, GroupHeadingsNeverCollapseAndDoNotMoveTheMark) {
  GBOptionsHelper helper;
  helper.registerSeparator("kept");
  helper.registerGroup(
      "empty", "without members", [](GBOptionsHelper &) {});
  helper.registerGroup("hidden", std::nullopt, [](GBOptionsHelper &group) {
    group.registerOption(0, "member", "", GBOptionFlagNoHelp | GBOptionFlagNoPrint);
  });
  // The heading's rows stand behind the separator's, so the separator is not at the end.
  EXPECT_EQ(help(helper), "\n\nkept \n\nempty without members \n\nhidden \n\n");
  helper.registerSeparator("dropped");
  EXPECT_EQ(help(helper), "\n\nkept \n\nempty without members \n\nhidden \n\n");
}

TEST(GBOptionsHelperPrinting, WhatIsLeftOutMayBeASeparatorOrAHeading) {
  for (const std::uint64_t flag : {std::uint64_t{GBOptionFlagNoHelp}, std::uint64_t{GBOptionFlagNoPrint}}) {
    GBOptionsHelper helper;
    helper.registerOption(0, "a", "", GBOptionNoValue);
    helper.registerOption(0, std::nullopt, "separator", GBOptionFlagSeparator | flag);
    helper.registerGroup("group", std::nullopt, flag,
                         [](GBOptionsHelper &group) { group.registerOption(0, "member", "", GBOptionNoValue); });
    const bool inHelp = flag != GBOptionFlagNoHelp;
    EXPECT_EQ(help(helper), inHelp ? "\n   --a       \n\nseparator \n\ngroup \n   --member  \n\n"
                                   : "\n   --a       \n   --member  \n\n");
    EXPECT_EQ(values(helper, GBSettings("l")),
              inHelp ? "\n\nOption l \na        \nmember   \n\n"
                     : "\n\nOption l \na        \n\nseparator \n\ngroup  \nmember   \n\n");
  }
}

TEST(GBOptionsHelperPrinting, ASeparatorThatIsAGroupTooIsASeparator) {
  GBOptionsHelper helper;
  helper.registerOption(0, "name", "text", GBOptionFlagSeparator | GBOptionFlagGroup | std::uint64_t{0});
  helper.registerOption(0, "a", "", GBOptionNoValue);
  EXPECT_EQ(help(helper), "\n\ntext \n   --a  \n\n");
  EXPECT_EQ(values(helper, GBSettings("l")), "\n\nOption l \n\ntext   \na        \n\n");
}

TEST(GBOptionsHelperPrinting, Requirement3HasNoValueBehindItsName) {
  GBOptionsHelper helper;
  helper.registerOption('x', "odd", "text", 3);
  EXPECT_EQ(help(helper), "\n-x --odd text \n\n");
}

TEST(GBOptionsHelperPrinting, BitsWithoutAMeaningChangeNothing) {
  GBOptionsHelper helper;
  helper.registerOption('x', "odd", "text", GBOptionValueOptional | std::uint64_t{0x304});
  EXPECT_EQ(help(helper), "\n-x --odd [<value>] text \n\n");
  EXPECT_EQ(values(helper, GBSettings("l")), "\n\nOption l \nodd      \n\n");
}

TEST(GBOptionsHelperPrinting, WhatOpensAndEndsAGroupAtOnceHasNoHeading) {
  GBOptionsHelper helper;
  helper.registerOption(0, "g", "text", GBOptionFlagGroup | std::uint64_t{GBOptionFlagGroupEnd});
  EXPECT_EQ(help(helper), "\n\n");
  EXPECT_EQ(values(helper, GBSettings("l")), "\n\nOption l \n\n");
}

TEST(GBOptionsHelperPrinting, ALineEndsEvenWhereItsTextHoldsAZeroByte) {
  const std::string zero("a\0b", 3);
  GBOptionsHelper helper;
  helper.setApplicationName([&] { return zero; });
  helper.setPrintValuesHeader([&] { return zero; });
  helper.registerOption(0, "k", zero, GBOptionRequiresValue);
  const auto bottom = std::make_shared<GBSettings>("n");
  GBSettings settings("m", bottom);
  settings.setObjectForKey(zero, "k");
  settings.addArgument(zero);
  EXPECT_EQ(version(helper), zero + "\n");
  EXPECT_EQ(help(helper), "\n   --k <value> " + zero + " \n\n");
  EXPECT_EQ(values(helper, settings), zero + "\n\n- " + zero + " (m)\n\n\nOption m   n \nk      " + zero + "   \n\n");
}

TEST(GBOptionsHelperPrinting, AnEmptyItemCountsAsAnItemAlsoAsTheFirst) {
  GBOptionsHelper helper;
  helper.registerOption(0, "k", "", 0);
  GBSettings settings("l");
  settings.registerArrayForKey("k");
  settings.setObjectForKey(Value::Array{"", "x", ""}, "k");
  EXPECT_EQ(values(helper, settings), "\n\nOption l     \nk      , x,  \n\n");
}

TEST(GBOptionsHelperPrinting, TheWidestLongCellHasNoPadding) {
  GBOptionsHelper helper;
  helper.registerOption('a', "aa", "x", GBOptionValueOptional);
  helper.registerOption('b', "b", "y", GBOptionNoValue);
  EXPECT_EQ(help(helper), "\n-a --aa [<value>] x \n-b --b            y \n\n");
}

TEST(GBOptionsHelperPrinting, AppNameIsReplacedOnlyWhenABuildIsKnown) {
  GBOptionsHelper helper;
  helper.setApplicationName([] { return "tool"; });
  helper.setApplicationVersion([] { return "1.2"; });
  helper.setPrintHelpHeader([] { return "%APPNAME %APPVERSION %APPBUILD"; });
  EXPECT_EQ(help(helper), "%APPNAME 1.2 %APPBUILD\n\n");
  helper.setApplicationBuild([] { return "77"; });
  EXPECT_EQ(help(helper), "tool 1.2 77\n\n");
  // A block that has nothing to say is as good as none.
  helper.setApplicationBuild([] { return std::nullopt; });
  EXPECT_EQ(help(helper), "%APPNAME 1.2 %APPBUILD\n\n");
}

TEST(GBOptionsHelperPrinting, WhatAPlaceholderBecameMayHoldTheNext) {
  GBOptionsHelper helper;
  helper.setApplicationName([] { return "tool-%APPVERSION"; });
  helper.setApplicationVersion([] { return "1.2-%APPBUILD-%APPNAME"; });
  helper.setApplicationBuild([] { return "77-%APPVERSION"; });
  helper.setPrintHelpHeader([] { return "%APPNAME"; });
  EXPECT_EQ(help(helper), "tool-1.2-77-%APPVERSION-%APPNAME\n\n");
}

TEST(GBOptionsHelperPrinting, APlaceholderMayStandInItsOwnReplacement) {
  GBOptionsHelper helper;
  helper.setApplicationName([] { return "[%APPNAME]"; });
  helper.setApplicationVersion([] { return "%APPVERSION%APPVERSION"; });
  helper.setApplicationBuild([] { return "<%APPBUILD>"; });
  helper.setPrintHelpHeader([] { return "%APPNAME %APPVERSION %APPBUILD %APPNAME"; });
  EXPECT_EQ(help(helper), "[%APPNAME] %APPVERSION%APPVERSION <%APPBUILD> [%APPNAME]\n\n");
}

TEST(GBOptionsHelperPrinting, VersionLine) {
  GBOptionsHelper helper;
  EXPECT_EQ(version(helper), vpnctl::ProcessInfo::processName() + "\n");
  helper.setApplicationName([] { return "tool"; });
  EXPECT_EQ(version(helper), "tool\n");
  helper.setApplicationBuild([] { return "77"; });
  EXPECT_EQ(version(helper), "tool (build 77)\n");
  helper.setApplicationVersion([] { return "1.2"; });
  EXPECT_EQ(version(helper), "tool: version 1.2 (build 77)\n");
  helper.setApplicationBuild(nullptr);
  EXPECT_EQ(version(helper), "tool: version 1.2\n");
}

TEST(GBOptionsHelperPrinting, LevelsAreNamedBehindArgumentsOnlyWhenThereAreTwo) {
  const GBOptionsHelper helper;
  const auto bottom = std::make_shared<GBSettings>("bottom");
  GBSettings top("top", bottom);
  top.addArgument("a");
  bottom->addArgument("b");
  EXPECT_EQ(values(helper, top), "\n\n- a (top)\n- b (bottom)\n\n\nOption top bottom \n\n");
  EXPECT_EQ(values(helper, *bottom), "\n\n- b\n\n\nOption bottom \n\n");
}

TEST(GBOptionsHelperPrinting, WhatTwoLevelsHoldIsTheUpperOnesBothTimes) {
  GBOptionsHelper helper;
  helper.registerOption(0, "k", "", 0);
  const auto bottom = std::make_shared<GBSettings>("bottom");
  GBSettings top("top", bottom);
  for (GBSettings *level : {&top, bottom.get()}) {
    level->registerArrayForKey("k");
    level->addArgument("same");
  }
  top.setObjectForKey(Value::Array{"x", "y"}, "k");
  bottom->setObjectForKey(Value::Array{"x"}, "k");
  EXPECT_EQ(values(helper, top),
            "\n\n- same (top)\n- same (top)\n\n\nOption top     bottom \nk      x, y, x x      \n\n");
}

TEST(GBOptionsHelperPrinting, AnArrayWhoseItemsAllCameFromParentsShowsAnEmptyCell) {
  GBOptionsHelper helper;
  helper.registerOption(0, "k", "", 0);
  const auto bottom = std::make_shared<GBSettings>("b");
  GBSettings top("t", bottom);
  top.registerArrayForKey("k");
  top.setObjectForKey(Value::Array{}, "k");
  bottom->setObjectForKey(Value::Array{"x"}, "k");
  ASSERT_TRUE(top.isKeyPresentAtThisLevel("k"));
  EXPECT_EQ(top.objectForKey("k"), Value(Value::Array{"x"}));
  // The bottom knows no array key: its array is shown as any value is.
  EXPECT_EQ(values(helper, top), "\n\nOption t b         \nk        (\n    x\n) \n\n");
}

TEST(GBOptionsHelperPrinting, ANullTextWhereATableNeedsOneEndsInAnException) {
  GBOptionsHelper helper;
  helper.registerSeparator(std::nullopt);
  EXPECT_THROW(help(helper), std::invalid_argument);
  EXPECT_THROW(values(helper, GBSettings("l")), std::invalid_argument);
}

TEST(GBOptionsHelperPrinting, ANullLongNameIsTheNullObjectInHelp) {
  GBOptionsHelper helper;
  helper.registerOption('x', std::nullopt, "text", GBOptionNoValue);
  EXPECT_EQ(help(helper), "\n-x --(null) text \n\n");
}
