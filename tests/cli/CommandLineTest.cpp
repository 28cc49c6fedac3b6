#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "tests/cli/ExampleCommand.h"

using GB::Command;
using GB::CommandLine;
using GB::CommandLineFault;
using GB::Option;
using vpnctl::Result;

namespace {

constexpr Option kOptions[] = {
    {.name = "output", .letter = 'o', .value = "FILE"},
    {.name = "count", .letter = 'c', .value = "N", .kind = GB::OptionKind::integer, .minimum = -10, .maximum = 10},
    {.name = "any", .value = "N", .kind = GB::OptionKind::integer},
    {.name = "least", .value = "N", .kind = GB::OptionKind::integer, .minimum = 5, .standard = "7"},
    {.name = "mode", .value = "MODE", .kind = GB::OptionKind::choice, .choices = "fast|slow"},
    {.name = "level", .letter = 'l', .value = "N", .kind = GB::OptionKind::integer, .valueOptional = true},
    {.name = "verbose", .letter = 'v', .negatable = true},
    {.name = "all", .letter = 'a'},
    {.name = "hidden-one", .hidden = true}};
constexpr Command kTool = {
    .name = "tool", .version = "2", .options = kOptions, .operands = "[FILE...]", .maximumOperands = GB::kAnyNumber};

// Argument vectors end with the process: a command line views them.
const std::vector<std::string> &kept(std::vector<std::string> arguments) {
  static std::vector<std::unique_ptr<std::vector<std::string>>> &all =
      *new std::vector<std::unique_ptr<std::vector<std::string>>>;
  all.push_back(std::make_unique<std::vector<std::string>>(std::move(arguments)));
  return *all.back();
}

Result<CommandLine> parse(std::vector<std::string> arguments, const Command &command = kTool) {
  return CommandLine::parse(command, kept(std::move(arguments)));
}

CommandLine parsed(std::vector<std::string> arguments, const Command &command = kTool) {
  Result<CommandLine> line = parse(std::move(arguments), command);
  if (line) return *line;
  ADD_FAILURE() << line.error().message;
  return *CommandLine::parse(kTool, 0, nullptr);
}

// The fault's number and sentence.
std::string refusal(std::vector<std::string> arguments, CommandLineFault fault, const Command &command = kTool) {
  const Result<CommandLine> line = parse(std::move(arguments), command);
  if (line) return "no error";
  EXPECT_EQ(line.error().domain, GB::kCommandLineErrorDomain);
  EXPECT_EQ(line.error().code, static_cast<int>(fault)) << line.error().message;
  return line.error().message;
}

using Views = std::vector<std::string_view>;

}  // namespace

TEST(CommandLine, ValuesStandJoinedOrBehind) {
  for (const std::vector<std::string> &arguments :
       std::initializer_list<std::vector<std::string>>{{"--output=a.txt"},
                                                       {"--output", "a.txt"},
                                                       {"-o", "a.txt"},
                                                       {"-oa.txt"},
                                                       {"-o=a.txt"},
                                                       {"-va", "-oa.txt"},
                                                       {"-vaoa.txt"},
                                                       {"-vao", "a.txt"}})
    EXPECT_EQ(parsed(arguments).bytes("output").value(), "a.txt") << arguments[0];
}

TEST(CommandLine, TheFirstEqualsSignSplits) {
  EXPECT_EQ(parsed({"--output=a=b="}).bytes("output").value(), "a=b=");
  EXPECT_EQ(parsed({"-o=a=b"}).bytes("output").value(), "a=b");
  EXPECT_EQ(parsed({"--output="}).bytes("output").value(), "");
  EXPECT_EQ(parsed({"-o="}).bytes("output").value(), "");
}

TEST(CommandLine, SwitchesCombineAndAreTakenBack) {
  const CommandLine line = parsed({"-avv", "file"});
  EXPECT_TRUE(line.isOn("all"));
  EXPECT_EQ(line.count("verbose"), 2U);
  EXPECT_EQ(line.operands(), Views{"file"});
  EXPECT_FALSE(parsed({"-v", "--no-verbose"}).isOn("verbose"));
  EXPECT_TRUE(parsed({"-v", "--no-verbose"}).isGiven("verbose"));
  EXPECT_TRUE(parsed({"--no-verbose", "-v"}).isOn("verbose"));
  EXPECT_FALSE(parsed({}).isOn("verbose"));
  EXPECT_EQ(refusal({"--no-all"}, CommandLineFault::unknownOption), "there is no option --no-all");
  EXPECT_EQ(refusal({"--no-verbose=1"}, CommandLineFault::unexpectedValue), "option --no-verbose takes no value");
}

TEST(CommandLine, TwoDashesEndTheOptions) {
  EXPECT_EQ(parsed({"a", "--", "-v", "--", "--unknown"}).operands(), (Views{"a", "-v", "--", "--unknown"}));
  EXPECT_TRUE(parsed({"a", "-v", "b"}).isOn("verbose"));
  EXPECT_EQ(parsed({"-", "-v"}).operands(), Views{"-"});
}

TEST(CommandLine, NegativeNumbersAreValues) {
  EXPECT_EQ(parsed({"--count", "-5"}).integer("count").value(), -5);
  EXPECT_EQ(parsed({"-c-5"}).integer("count").value(), -5);
  EXPECT_EQ(parsed({"-5", "-1.5", "-.5", "-1e-3", "-2.", "--output", "-1E9"}).operands(),
            (Views{"-5", "-1.5", "-.5", "-1e-3", "-2."}));
  EXPECT_EQ(refusal({"-5x"}, CommandLineFault::unknownOption), "there is no option -5");
  EXPECT_EQ(refusal({"-."}, CommandLineFault::unknownOption), "there is no option -.");
  EXPECT_EQ(refusal({"-1e"}, CommandLineFault::unknownOption), "there is no option -1");
  constexpr Option kDigit[] = {{.name = "five", .letter = '5'}};
  EXPECT_TRUE(parsed({"-5"}, {.name = "digit", .options = kDigit}).isOn("five"));
}

TEST(CommandLine, AMissingValueIsAnError) {
  EXPECT_EQ(refusal({"--output"}, CommandLineFault::missingValue), "option --output needs a value (FILE)");
  EXPECT_EQ(refusal({"-vo"}, CommandLineFault::missingValue), "option -o needs a value (FILE)");
  EXPECT_EQ(refusal({"-o", "--", "x"}, CommandLineFault::missingValue), "option -o needs a value (FILE)");
  EXPECT_EQ(refusal({"--output", "-v"}, CommandLineFault::missingValue),
            "option --output needs a value (FILE); one that begins with a dash is written --output=FILE");
  EXPECT_EQ(parsed({"--output=-v"}).bytes("output").value(), "-v");
  EXPECT_EQ(parsed({"-o", "-"}).bytes("output").value(), "-");
}

TEST(CommandLine, AValueThatIsNotExpectedIsAnError) {
  EXPECT_EQ(refusal({"--all=yes"}, CommandLineFault::unexpectedValue), "option --all takes no value");
  EXPECT_EQ(refusal({"-a=yes"}, CommandLineFault::unexpectedValue), "option -a takes no value");
}

TEST(CommandLine, AnOptionalValueIsJoined) {
  EXPECT_EQ(parsed({"--level=4"}).integer("level").value(), 4);
  EXPECT_EQ(parsed({"-l4"}).integer("level").value(), 4);
  const CommandLine line = parsed({"--level", "5", "-l"});
  EXPECT_EQ(line.operands(), Views{"5"});
  EXPECT_EQ(line.count("level"), 2U);
  EXPECT_EQ(line.bytes("level").value(), "");
  EXPECT_EQ(parsed({"-l", "start", "-cx", "n"}, kExample).integer("level").value(), 3);
}

TEST(CommandLine, UnknownOptionsGetASuggestion) {
  EXPECT_EQ(refusal({"--ouput=x"}, CommandLineFault::unknownOption),
            "there is no option --ouput; did you mean --output?");
  EXPECT_EQ(refusal({"--verbsoe"}, CommandLineFault::unknownOption),
            "there is no option --verbsoe; did you mean --verbose?");
  EXPECT_EQ(refusal({"--verb"}, CommandLineFault::unknownOption), "there is no option --verb; did you mean --verbose?");
  EXPECT_EQ(refusal({"--hepl"}, CommandLineFault::unknownOption), "there is no option --hepl; did you mean --help?");
  EXPECT_EQ(refusal({"--hidden-on"}, CommandLineFault::unknownOption), "there is no option --hidden-on");
  EXPECT_EQ(refusal({"--quite-another"}, CommandLineFault::unknownOption), "there is no option --quite-another");
  EXPECT_EQ(refusal({"-x"}, CommandLineFault::unknownOption), "there is no option -x");
  EXPECT_EQ(refusal({"--" + std::string(100000, 'x')}, CommandLineFault::unknownOption),
            "there is no option --" + std::string(100000, 'x'));
  EXPECT_EQ(refusal({"--=x"}, CommandLineFault::unknownOption), "there is no option --");
}

TEST(CommandLine, WhatIsShownIsHarmless) {
  EXPECT_EQ(refusal({"--\x1b[2J"}, CommandLineFault::unknownOption), "there is no option \"--\\x1b[2J\"");
  EXPECT_EQ(refusal({"-\xc3\xa4"}, CommandLineFault::unknownOption), "there is no option -\"\xc3\xa4\"");
  EXPECT_EQ(refusal({"--count=\xff\n"}, CommandLineFault::badValue),
            "option --count: \"\\xff\\x0a\" is not a whole number");
}

TEST(CommandLine, NumbersAreReadWhole) {
  EXPECT_EQ(parsed({"--any=9223372036854775807"}).integer("any").value(), 9223372036854775807);
  EXPECT_EQ(parsed({"--any=-9223372036854775808"}).integer("any").value(), INT64_MIN);
  EXPECT_EQ(parsed({"--any=+5"}).integer("any").value(), 5);
  for (const char *text : {"", "x", "5x", " 5", "5 ", "0x5", "+-5", "++5", "1.5", "-"})
    EXPECT_EQ(refusal({std::string("--any=") + text}, CommandLineFault::badValue),
              "option --any: \"" + std::string(text) + "\" is not a whole number");
  EXPECT_EQ(refusal({"--count=11"}, CommandLineFault::badValue), "option --count: 11 is not from -10 to 10");
  EXPECT_EQ(refusal({"--least=4"}, CommandLineFault::badValue), "option --least: 4 is less than 5");
  EXPECT_EQ(refusal({"--any=9223372036854775808"}, CommandLineFault::badValue),
            "option --any: 9223372036854775808 is not from -9223372036854775808 to 9223372036854775807");
}

TEST(CommandLine, ReadsAreChecked) {
  const CommandLine line = parsed({"--output=\xff", "--mode=slow", "-c3", "\xfe"});
  EXPECT_EQ(line.bytes("output").value(), "\xff");
  EXPECT_EQ(line.text("output").error().message, "option --output: \"\\xff\" is not UTF-8");
  EXPECT_EQ(line.text("output").error().code, static_cast<int>(CommandLineFault::notText));
  EXPECT_EQ(line.operands(), Views{"\xfe"});
  EXPECT_EQ(line.operandText(0).error().message, "argument 1: \"\\xfe\" is not UTF-8");
  EXPECT_EQ(line.operandText(1).error().message, "argument 2 is not given");
  EXPECT_EQ(line.choice("mode").value(), 1U);
  EXPECT_EQ(line.text("mode").value(), "slow");
  EXPECT_EQ(line.integer("least").value(), 7);
  EXPECT_FALSE(line.isGiven("least"));
  EXPECT_EQ(line.integer("count", 4, 8).error().message, "option --count: 3 is not from 4 to 8");
  EXPECT_EQ(line.integer("count", -100, 3).value(), 3);
  EXPECT_EQ(line.integer("any").error().code, static_cast<int>(CommandLineFault::notGiven));
  EXPECT_EQ(line.integer("any").error().message, "option --any is not given");
  EXPECT_EQ(line.bytes("none").error().code, static_cast<int>(CommandLineFault::notDefined));
  EXPECT_EQ(line.choice("none").error().message, "option --none is not defined");
  EXPECT_FALSE(line.isOn("none"));
  EXPECT_FALSE(line.isGiven("none"));
}

TEST(CommandLine, ChoicesAreWholeWords) {
  EXPECT_EQ(refusal({"--mode=fas"}, CommandLineFault::badValue), "option --mode: \"fas\" is none of fast, slow");
  EXPECT_EQ(refusal({"--mode=fast|slow"}, CommandLineFault::badValue),
            "option --mode: \"fast|slow\" is none of fast, slow");
  EXPECT_EQ(parsed({"--mode=very slow", "stop"}, kExample).choice("mode").value(), 2U);
}

TEST(CommandLine, TheLastValueCountsAndAllAreKept) {
  const CommandLine line = parsed({"-oa", "--output=b", "-v", "-o", "c"});
  EXPECT_EQ(line.bytes("output").value(), "c");
  EXPECT_EQ(line.all("output"), (Views{"a", "b", "c"}));
  EXPECT_EQ(line.all("count"), Views{});
  EXPECT_EQ(line.all("none"), Views{});
}

TEST(CommandLine, CommandsHaveOptionsOfTheirOwnAndThoseAbove) {
  const CommandLine line = parsed({"-v", "start", "--mode=slow", "-c", "f", "name", "-p8080", "more"}, kExample);
  EXPECT_EQ(line.command().name, "start");
  EXPECT_EQ(line.commands().size(), 2U);
  EXPECT_TRUE(line.isOn("verbose"));
  EXPECT_EQ(line.text("mode").value(), "slow");
  EXPECT_EQ(line.text("config").value(), "f");
  EXPECT_EQ(line.integer("port").value(), 8080);
  EXPECT_EQ(line.operands(), (Views{"name", "more"}));
  EXPECT_EQ(refusal({"--port=1", "start"}, CommandLineFault::unknownOption, kExample), "there is no option --port");
  EXPECT_EQ(refusal({"strat"}, CommandLineFault::unknownCommand, kExample),
            "there is no command \"strat\"; did you mean start?");
  EXPECT_EQ(refusal({}, CommandLineFault::missingCommand, kExample), "a command is missing; there are: start, stop");
}

TEST(CommandLine, WhatIsRequiredIsThere) {
  EXPECT_EQ(refusal({"start", "name"}, CommandLineFault::missingOption, kExample), "option --config is required");
  EXPECT_EQ(refusal({"start", "-cx"}, CommandLineFault::tooFewOperands, kExample),
            "too few arguments; wanted: NAME [FILE...]");
  EXPECT_EQ(refusal({"start", "-cx", "1", "2", "3", "4"}, CommandLineFault::tooManyOperands, kExample),
            "unexpected argument \"4\"");
  EXPECT_EQ(refusal({"stop", "x"}, CommandLineFault::tooManyOperands, kExample), "unexpected argument \"x\"");
}

TEST(CommandLine, HelpAndVersionEndTheParse) {
  EXPECT_EQ(parsed({"--help", "--nonsense"}).request(), CommandLine::Request::help);
  EXPECT_EQ(parsed({"start", "-vh"}, kExample).request(), CommandLine::Request::help);
  EXPECT_EQ(parsed({"start", "-h"}, kExample).command().name, "start");
  EXPECT_EQ(parsed({"--version"}).request(), CommandLine::Request::version);
  EXPECT_EQ(parsed({}).request(), CommandLine::Request::run);
  EXPECT_EQ(refusal({"--version"}, CommandLineFault::unknownOption, {.name = "none"}), "there is no option --version");
  constexpr Option kOwn[] = {{.name = "help", .letter = 'h'}, {.name = "version"}};
  EXPECT_TRUE(parsed({"-h"}, {.name = "own", .version = "1", .options = kOwn}).isOn("help"));
  EXPECT_TRUE(parsed({"--version"}, {.name = "own", .version = "1", .options = kOwn}).isOn("version"));
}

TEST(CommandLine, ReadsTheVectorOfMain) {
  const char *arguments[] = {"tool", "-v", "file", nullptr};
  const auto line = CommandLine::parse(kTool, 3, arguments);
  ASSERT_TRUE(line);
  EXPECT_TRUE(line->isOn("verbose"));
  EXPECT_EQ(line->operands().front().data(), arguments[2]);
  EXPECT_TRUE(CommandLine::parse(kTool, 0, nullptr));
}

TEST(CommandLine, ALongOneFindsWhatAShortOneFinds) {
  // Past a few arguments options are found through an index.
  std::vector<std::string> arguments;
  for (int i = 0; i < 1000; ++i) {
    arguments.push_back("--output=" + std::to_string(i));
    arguments.push_back(i % 2 == 0 ? "-va" : "-c" + std::to_string(i % 10));
  }
  const CommandLine line = parsed(arguments);
  EXPECT_EQ(line.all("output").size(), 1000U);
  EXPECT_EQ(line.all("output")[500], "500");
  EXPECT_EQ(line.count("all"), 500U);
  EXPECT_EQ(line.integer("count").value(), 9);
  for (const std::string name : {"--ouput", "-x", "-\xff", "--"}) {
    std::vector<std::string> wrong = arguments;
    wrong.push_back(name + "=1");
    EXPECT_FALSE(parse(wrong)) << name;
  }
}

TEST(CommandLine, NoArgumentsAtAllAreTooMuchForNothing) {
  // Every pair of short arguments ends in a command line or in an error with a sentence.
  const std::string bytes[] = {"",    "-",    "--",    "---",    "-=",    "--=",         "-v", "-o",
                               "-v=", "-o=",  "-l",    "-c",     "-5",    "-.5",         "-e", "=",
                               "a",   "\xff", "-\xff", "--\xff", "--no-", "--no-verbose"};
  for (const std::string &first : bytes)
    for (const std::string &second : bytes)
      if (const auto line = parse({first, second}); !line) EXPECT_FALSE(line.error().message.empty());
}
