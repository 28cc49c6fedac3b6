#include <gtest/gtest.h>

#include "cli/GBCommandLineParser.h"
#include "foundation/ProcessInfo.h"
#include "tests/cli/StreamCapture.h"

using GB::GBCommandLineParser;
using GB::GBSettings;
using vpnctl::Value;

namespace {

using Arguments = std::vector<std::string>;
using Options = Value::Dictionary;

// One call of the block.
struct Event {
  GB::GBParseEvent event;
  std::optional<std::string> option;
  Value value;
  bool operator==(const Event &) const = default;
};

class GBCommandLineParserParsing : public ::testing::Test {
 protected:
  GBCommandLineParserParsing() {
    parser.registerOption("output", 'o', GB::GBOptionRequiresValue);
    parser.registerOption("level", GB::GBOptionValueOptional);
    parser.registerSwitch("verbose", 'v');
    parser.registerSettings(settings);
  }

  void registerBuildGroup() {
    parser.beginRegisterOptionGroup("build");
    parser.registerOption("output", 'o', GB::GBOptionRequiresValue);
    parser.registerSwitch("quiet", 'q');
    parser.endRegisterOptionGroup();
  }

  // The simplified parse; what it printed on standard error is in `printed`.
  bool parse(const Arguments &arguments) {
    bool result = false;
    printed = printedBy(stderr, [&] { result = parser.parseOptionsWithArguments(arguments, "tool"); });
    return result;
  }

  bool parseRecording(const Arguments &arguments) {
    events.clear();
    return parser.parseOptionsWithArguments(
        arguments, "tool", [this](GB::GBParseEvent event, const auto &option, const Value &value, bool *) {
          events.push_back({event, option, value});
        });
  }

  GBCommandLineParser parser;
  std::shared_ptr<GBSettings> settings = std::make_shared<GBSettings>("command line");
  std::string printed;
  std::vector<Event> events;
};

}  // namespace

TEST_F(GBCommandLineParserParsing, ValueAfterEqualsOrAsNextArgument) {
  for (const Arguments &arguments :
       {Arguments{"--output=a.txt"}, Arguments{"-o", "a.txt"}, Arguments{"--output", "a.txt"}, Arguments{"-o=a.txt"}}) {
    ASSERT_TRUE(parse(arguments));
    EXPECT_EQ(parser.parsedOptions(), (Options{{"output", "a.txt"}}));
    EXPECT_EQ(settings->objectForKey("output"), Value("a.txt"));
    EXPECT_EQ(parser.valueForOption("output"), Value("a.txt"));
    EXPECT_EQ(printed, "");
  }
}

TEST_F(GBCommandLineParserParsing, AnArrayKeyOfTheSettingsCollectsWhatIsGivenMoreThanOnce) {
  settings->registerArrayForKey("output");
  settings->registerArrayForKey("verbose");
  ASSERT_TRUE(parse({"--output=a", "-o", "b", "-v", "--verbose=no"}));
  EXPECT_EQ(settings->objectForKey("output"), Value(Value::Array{"a", "b"}));
  EXPECT_EQ(settings->objectForKey("verbose"), Value(Value::Array{true, false}));
  // The parser itself keeps the last.
  EXPECT_EQ(parser.parsedOptions(), (Options{{"output", "b"}, {"verbose", false}}));
}

TEST_F(GBCommandLineParserParsing, MissingValueAsTheLastArgumentIsReportedAndTheResultIsStillYes) {
  EXPECT_TRUE(parse({"--output"}));
  EXPECT_TRUE(parser.parsedOptions().empty());
  EXPECT_TRUE(settings->storage().empty());
  EXPECT_EQ(printed, "Missing value for command line option output, try --help!\n");
}

TEST_F(GBCommandLineParserParsing, MissingValueBeforeAnOptionRecordsThatOptionsText) {
  EXPECT_TRUE(parseRecording({"--output", "--verbose"}));
  EXPECT_EQ(events, (std::vector<Event>{{GB::GBParseEventMissingValue, "output", "--verbose"},
                                        {GB::GBParseEventOption, "verbose", true}}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"output", "--verbose"}, {"verbose", true}}));
}

TEST_F(GBCommandLineParserParsing, WhatGoesWrongStoresNothingInTheSettings) {
  EXPECT_TRUE(parse({"--output", "--verbose"}));
  EXPECT_EQ(printed, "Missing value for command line option output, try --help!\n");
  EXPECT_EQ(settings->storage(), (Options{{"verbose", true}}));
  EXPECT_FALSE(parse({"--unknown=1"}));
  registerBuildGroup();
  EXPECT_FALSE(parse({"build", "--level=1"}));
  EXPECT_EQ(settings->storage(), (Options{{"verbose", true}, {"build", true}}));
  EXPECT_EQ(settings->objectForKey("build").type(), Value::Type::boolean);
}

TEST_F(GBCommandLineParserParsing, MissingValueBeforeAGroupName) {
  registerBuildGroup();
  EXPECT_TRUE(parseRecording({"--output", "build"}));
  EXPECT_EQ(events, (std::vector<Event>{{GB::GBParseEventMissingValue, "output", "build"},
                                        {GB::GBParseEventOption, "build", true}}));
}

TEST_F(GBCommandLineParserParsing, OptionalValue) {
  ASSERT_TRUE(parse({"--level", "3"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"level", "3"}}));
  ASSERT_TRUE(parse({"--level", "-v"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"level", true}, {"verbose", true}}));
  EXPECT_EQ(parser.valueForOption("level").type(), Value::Type::boolean);
  ASSERT_TRUE(parse({"--level=7"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"level", "7"}}));
  ASSERT_TRUE(parse({"--level"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"level", true}}));
  registerBuildGroup();
  ASSERT_TRUE(parse({"--level", "build"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"level", true}}));
}

TEST_F(GBCommandLineParserParsing, SwitchesAndTheirNegatedForm) {
  ASSERT_TRUE(parse({"--verbose=no"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"verbose", false}}));
  EXPECT_EQ(parser.valueForOption("verbose").type(), Value::Type::boolean);
  ASSERT_TRUE(parse({"--no-verbose"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"no-verbose", false}}));
  EXPECT_EQ(settings->storage(), (Options{{"verbose", false}, {"no-verbose", false}}));
  EXPECT_EQ(parser.valueForOption("no-verbose").type(), Value::Type::boolean);
  ASSERT_TRUE(parse({"--no-verbose=no"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"no-verbose", 1}}));
  EXPECT_EQ(parser.valueForOption("no-verbose").type(), Value::Type::signedInteger);
  ASSERT_TRUE(parse({"--no-verbose=yes"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"no-verbose", 0}}));
  ASSERT_TRUE(parse({"-v"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"verbose", true}}));
  ASSERT_TRUE(parse({"-v=0"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"verbose", false}}));
  // The value that follows a switch is not its own.
  ASSERT_TRUE(parse({"-v", "no"}));
  EXPECT_EQ(parser.arguments(), Arguments{"no"});
}

TEST_F(GBCommandLineParserParsing, TheBooleanValueOfATextIsThePlatforms) {
  for (const char *yes : {"y", "Yes", "t", "TRUE", " +001x", "9", "-Y", "0yes", "00t"}) {
    ASSERT_TRUE(parse({std::string("--verbose=") + yes}));
    EXPECT_EQ(parser.valueForOption("verbose"), Value(true)) << yes;
  }
  for (const char *no : {"", "no", "0", "-0", "on", "x1"}) {
    ASSERT_TRUE(parse({std::string("--verbose=") + no}));
    EXPECT_EQ(parser.valueForOption("verbose"), Value(false)) << no;
  }
}

TEST_F(GBCommandLineParserParsing, ASwitchWhoseOwnNameBeginsWithNoIsNegatedByIt) {
  parser.registerSwitch("no-color", 'c');
  ASSERT_TRUE(parse({"--no-color"}));
  EXPECT_EQ(parser.valueForOption("no-color"), Value(false));
  // A shortcut never negates.
  ASSERT_TRUE(parse({"-c"}));
  EXPECT_EQ(parser.valueForOption("no-color"), Value(true));
}

TEST_F(GBCommandLineParserParsing, UnknownOptions) {
  const auto message = [](const std::string &option) {
    return "Unknown command line option " + option + ", try --help!\n";
  };
  for (const char *option : {"--unknown", "-x", "-", "--", "-vo", "--Output", "--x=1"}) {
    EXPECT_FALSE(parse({option})) << option;
    EXPECT_EQ(printed, message(option));
  }
  EXPECT_FALSE(parse({"--", "-x", "-v"}));
  EXPECT_EQ(printed, "Unknown command line option --, try --help!\nUnknown command line option -x, try --help!\n");
  EXPECT_EQ(parser.parsedOptions(), (Options{{"verbose", true}}));
}

TEST_F(GBCommandLineParserParsing, EveryEventsValueIsStored) {
  registerBuildGroup();
  EXPECT_FALSE(parse({"--x=1", "build", "--level=2", "--no-quiet=y"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"--x=1", "1"}, {"--level=2", "2"}, {"--no-quiet=y", "y"}}));
  EXPECT_EQ(parser.valueForOption("--x=1"), Value("1"));
  EXPECT_TRUE(parser.valueForOption("x").isNull());
}

TEST_F(GBCommandLineParserParsing, AfterTheFirstPositionalArgumentEverythingIsPositional) {
  EXPECT_TRUE(parse({"a.txt", "--verbose"}));
  EXPECT_EQ(parser.arguments(), (Arguments{"a.txt", "--verbose"}));
  EXPECT_TRUE(parser.parsedOptions().empty());
  EXPECT_EQ(settings->arguments(), Value(Value::Array{"a.txt", "--verbose"}));
  EXPECT_TRUE(parseRecording({"a.txt", "-x"}));
  EXPECT_EQ(events, (std::vector<Event>{{GB::GBParseEventArgument, std::nullopt, "a.txt"},
                                        {GB::GBParseEventArgument, std::nullopt, "-x"}}));
}

TEST_F(GBCommandLineParserParsing, OptionsOutsideTheActiveGroup) {
  registerBuildGroup();
  EXPECT_FALSE(parse({"build", "--verbose"}));
  EXPECT_EQ(printed, "Invalid option --verbose for group build!\n");
  EXPECT_TRUE(parse({"build", "--output=x"}));
  EXPECT_EQ(settings->objectForKey("build"), Value(true));
  EXPECT_EQ(settings->objectForKey("output"), Value("x"));
  // The group itself is not among the parsed options.
  EXPECT_EQ(parser.parsedOptions(), (Options{{"output", "x"}}));
  EXPECT_FALSE(parseRecording({"build", "--verbose=1"}));
  EXPECT_EQ(events.back(), (Event{GB::GBParseEventOptionNotInGroup, "--verbose=1", "1"}));
}

TEST_F(GBCommandLineParserParsing, TheNegatedFormIsAlwaysRefusedInsideAGroup) {
  registerBuildGroup();
  EXPECT_TRUE(parse({"build", "--quiet"}));
  EXPECT_TRUE(parse({"--no-quiet", "build", "-q"}));
  EXPECT_FALSE(parse({"build", "--no-quiet"}));
  EXPECT_EQ(printed, "Invalid option --no-quiet for group build!\n");
}

TEST_F(GBCommandLineParserParsing, AGroupNameSwitchesTheGroupForTheRestOfTheParse) {
  registerBuildGroup();
  parser.beginRegisterOptionGroup("test");
  parser.registerSwitch("fast");
  parser.endRegisterOptionGroup();
  EXPECT_FALSE(parse({"-v", "build", "-q", "test", "--fast", "-q"}));
  EXPECT_EQ(printed, "Invalid option -q for group test!\n");
  // The next parse starts without a group, but remembers the name.
  EXPECT_TRUE(parse({"-v"}));
  EXPECT_EQ(parser.currentOptionsGroupName(), "test");
  parser.endRegisterOptionGroup();
  EXPECT_EQ(parser.currentOptionsGroupName(), std::nullopt);
}

TEST_F(GBCommandLineParserParsing, TheGroupOfTheLastParseIsStillCurrentWhenRegistrationGoesOn) {
  registerBuildGroup();
  EXPECT_TRUE(parse({"build"}));
  parser.registerOption("late", GB::GBOptionRequiresValue);
  EXPECT_TRUE(parser.registeredOptionGroupsByNames().at("build")->contains("late"));
  EXPECT_TRUE(parse({"build", "--late=1"}));
}

TEST_F(GBCommandLineParserParsing, TheLastEqualsSplits) {
  Value value;
  EXPECT_EQ(parser.optionDataForOption("--define=a=b", &value), nullptr);
  EXPECT_EQ(value, Value("b"));
  parser.registerOption("define=a", GB::GBOptionRequiresValue);
  ASSERT_TRUE(parse({"--define=a=b"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"define=a", "b"}}));
  ASSERT_TRUE(parse({"--output="}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"output", ""}}));
}

TEST_F(GBCommandLineParserParsing, LookupLeavesTheValueAloneWhereThereIsNone) {
  registerBuildGroup();
  Value value = "kept";
  EXPECT_EQ(parser.optionDataForOption("--output", &value), parser.registeredOptionsByLongNames().at("output"));
  EXPECT_EQ(parser.optionDataForOption("a=b", &value), GBCommandLineParser::notAnOptionSentinel());
  EXPECT_EQ(parser.optionDataForOption("build", &value), GBCommandLineParser::groupSentinel());
  EXPECT_EQ(value, Value("kept"));
  EXPECT_EQ(parser.optionDataForOption("-o=x", nullptr), parser.registeredOptionsByShortNames().at("o"));
}

TEST_F(GBCommandLineParserParsing, SentinelsAreToldByIdentity) {
  EXPECT_NE(GBCommandLineParser::groupSentinel(), GBCommandLineParser::notAnOptionSentinel());
  // A record with a sentinel's contents is a record all the same.
  *parser.registeredOptionsByLongNames().at("verbose") = *GBCommandLineParser::notAnOptionSentinel();
  EXPECT_TRUE(parseRecording({"--verbose", "x"}));
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.front().event, GB::GBParseEventOption);
  EXPECT_TRUE(parser.arguments().empty());
}

TEST_F(GBCommandLineParserParsing, StopOnTheFirstPositionalArgumentReturnsNoAfterAddingIt) {
  int calls = 0;
  EXPECT_FALSE(parser.parseOptionsWithArguments({"-v", "a", "b"}, "tool",
                                                [&](GB::GBParseEvent event, const auto &, const Value &, bool *stop) {
                                                  ++calls;
                                                  *stop = event == GB::GBParseEventArgument;
                                                }));
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(parser.arguments(), Arguments{"a"});
}

TEST_F(GBCommandLineParserParsing, StopAtAnOptionReturnsNoBeforeStoringIt) {
  EXPECT_FALSE(parser.parseOptionsWithArguments(
      {"-v", "--level=1", "a"}, "tool",
      [](GB::GBParseEvent, const auto &option, const Value &, bool *stop) { *stop = option == "level"; }));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"verbose", true}}));
  EXPECT_TRUE(parser.arguments().empty());
}

TEST_F(GBCommandLineParserParsing, StopIsIgnoredForAGroupName) {
  registerBuildGroup();
  int calls = 0;
  const auto stopAtGroup = [&](GB::GBParseEvent, const auto &option, const Value &, bool *stop) {
    ++calls;
    if (option == "build") *stop = true;
  };
  EXPECT_TRUE(parser.parseOptionsWithArguments({"build"}, "tool", stopAtGroup));
  EXPECT_TRUE(parser.parseOptionsWithArguments({"build", "build"}, "tool", stopAtGroup));
  EXPECT_EQ(calls, 3);
  // The flag itself is the parse's own, and it is seen behind the next event that looks at it.
  EXPECT_FALSE(parser.parseOptionsWithArguments({"build", "-q", "-q"}, "tool", stopAtGroup));
  EXPECT_EQ(calls, 5);
}

TEST_F(GBCommandLineParserParsing, ACountOf0LeavesTheOldResults) {
  ASSERT_TRUE(parse({"-v", "a"}));
  bool called = false;
  EXPECT_TRUE(parser.parseOptionsWithArguments(
      nullptr, 0, [&](GB::GBParseEvent, const auto &, const Value &, bool *) { called = true; }));
  EXPECT_TRUE(parser.parseOptionsWithArguments(nullptr, 0));
  EXPECT_FALSE(called);
  EXPECT_EQ(parser.parsedOptions(), (Options{{"verbose", true}}));
  EXPECT_EQ(parser.arguments(), Arguments{"a"});
}

TEST_F(GBCommandLineParserParsing, ACVectorIsParsedBehindItsFirstElement) {
  const char *const vector[] = {"--not-looked-at", "--output=gr\u00fcn", "b"};
  EXPECT_TRUE(parser.parseOptionsWithArguments(vector, 3));
  EXPECT_EQ(settings->objectForKey("output"), Value("gr\u00fcn"));
  EXPECT_EQ(parser.arguments(), Arguments{"b"});
  EXPECT_TRUE(parser.parseOptionsWithArguments(vector, 1));
  EXPECT_TRUE(parser.parsedOptions().empty());
}

TEST_F(GBCommandLineParserParsing, ACVectorWithoutTextEndsInAnException) {
  const char *const notUTF8[] = {"tool", "\xff"};
  EXPECT_THROW(static_cast<void>(parser.parseOptionsWithArguments(notUTF8, 2)), std::invalid_argument);
  const char *const null[] = {"tool", nullptr};
  EXPECT_THROW(static_cast<void>(parser.parseOptionsWithArguments(null, 2)), std::invalid_argument);
}

TEST_F(GBCommandLineParserParsing, DefaultArgumentsAreTheProcessesOwn) {
  Arguments expected = vpnctl::ProcessInfo::arguments();
  ASSERT_FALSE(expected.empty());
  expected.erase(expected.begin());
  Arguments seen;
  static_cast<void>(parser.parseOptionsUsingDefaultArgumentsWithBlock(
      [&](GB::GBParseEvent, const auto &option, const Value &value, bool *) {
        seen.push_back(option ? *option : value.string());
      }));
  EXPECT_EQ(seen, expected);
}

TEST_F(GBCommandLineParserParsing, TheCountIsReadAfreshOnEachPass) {
  Arguments arguments = {"-v"};
  ASSERT_TRUE(parser.parseOptionsWithArguments(arguments, "tool",
                                               [&](GB::GBParseEvent, const auto &option, const Value &, bool *) {
                                                 if (option == "verbose") arguments.push_back("--level=2");
                                                 if (option == "level") arguments.push_back("more");
                                               }));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"level", "2"}, {"verbose", true}}));
  EXPECT_EQ(parser.arguments(), Arguments{"more"});
}

TEST_F(GBCommandLineParserParsing, Requirement3ParsesLikeASwitchWithoutANegatedForm) {
  parser.registerOption("odd", static_cast<GB::GBOptionRequirement>(3));
  ASSERT_TRUE(parse({"--odd", "x"}));
  EXPECT_EQ(parser.valueForOption("odd"), Value(true));
  EXPECT_FALSE(parse({"--no-odd"}));
}

TEST_F(GBCommandLineParserParsing, WithoutSettingsTheSimplifiedBlockStoresNothing) {
  parser.registerSettings(nullptr);
  EXPECT_TRUE(parse({"-v", "a"}));
  EXPECT_EQ(parser.parsedOptions(), (Options{{"verbose", true}}));
  EXPECT_EQ(parser.arguments(), Arguments{"a"});
}

TEST_F(GBCommandLineParserParsing, EachSimplifiedParseValidatesWithItsOwnSelectorFirst) {
  struct Validating : GBCommandLineParser {
    void validateSimplifiedOptionsWithSelector(std::string_view selector) override {
      selectors.emplace_back(selector);
      EXPECT_EQ(arguments(), Arguments{}) << "nothing is parsed yet";
    }
    Arguments selectors;
  } byDefault, ofC, ofArguments;
  const char *const words[] = {"tool", "a"};
  static_cast<void>(printedBy(stderr, [&] {
    static_cast<void>(byDefault.parseOptionsUsingDefaultArguments());
    static_cast<void>(ofC.parseOptionsWithArguments(words, 2));
    static_cast<void>(ofArguments.parseOptionsWithArguments(Arguments{"a"}, "tool"));
  }));
  EXPECT_EQ(byDefault.selectors, Arguments{"parseOptionsUsingDefaultArguments"});
  EXPECT_EQ(ofC.selectors, Arguments{"parseOptionsWithArguments:count:"});
  EXPECT_EQ(ofArguments.selectors, Arguments{"parseOptionsWithArguments:commandLine:"});
  EXPECT_EQ(ofC.arguments(), Arguments{"a"});
}
