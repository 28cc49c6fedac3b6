#include <gtest/gtest.h>

#include "cli/CommandHelp.h"
#include "tests/cli/ExampleCommand.h"
#include "tests/cli/StreamCapture.h"

using GB::CommandLine;

TEST(CommandHelp, OfAProgramWithCommands) {
  EXPECT_EQ(GB::helpText({&kExample}),
            "Usage: my-tool [OPTIONS] COMMAND\n"
            "\n"
            "Does what it is told.\n"
            "\n"
            "Options:\n"
            "  -v, --[no-]verbose  Say what is done\n"
            "  -q, --quiet         Say nothing\n"
            "  -m, --mode MODE     How it is done, in a sentence that is too long for what is\n"
            "                      left of the line (fast, slow, very slow; default: fast)\n"
            "  -l, --level[=N]     (default: 3)\n"
            "  -h, --help          Print this text and end\n"
            "      --version       Print the version and end\n"
            "\n"
            "Commands:\n"
            "  start  Starts a server\n"
            "  stop   Stops it\n");
}

TEST(CommandHelp, OfACommandHasTheOptionsAbove) {
  const std::string text = GB::helpText({&kExample, &kExampleCommands[0]});
  EXPECT_TRUE(
      text.starts_with("Usage: my-tool start --config FILE [OPTIONS] NAME [FILE...]\n\nStarts a server\n\n"
                       "Options:\n"
                       "  -p, --port PORT      Listen on PORT (1 to 65535; default: 80)\n"
                       "  -c, --config FILE    Read FILE (required)\n"
                       "\n"
                       "Rarely needed:\n"
                       "      --folder FOLDER  Where it [it's] is: here\n"
                       "\n"
                       "Options of my-tool:\n"
                       "  -v, --[no-]verbose   Say what is done\n"))
      << text;
  EXPECT_EQ(text.find("secret"), std::string::npos);
  EXPECT_NE(GB::helpText({&kExample, &kExampleCommands[1]}).find("(at least 0)"), std::string::npos);
}

TEST(CommandHelp, OfAProgramWithoutAnything) {
  static constexpr GB::Command kNothing = {.name = "nothing"};
  EXPECT_EQ(GB::helpText({&kNothing}), "Usage: nothing [OPTIONS]\n\nOptions:\n  -h, --help  Print this text and end\n");
}

TEST(CommandHelp, WideNamesHaveTheirTextOnTheNextLine) {
  static constexpr GB::Option kWide[] = {{.name = "a-name-that-is-far-too-long-for-its-column", .description = "Text"},
                                         {.name = "help", .letter = 'h', .description = "Own"}};
  static constexpr GB::Command kProgram = {.name = "wide", .options = kWide};
  EXPECT_EQ(GB::helpText({&kProgram}),
            "Usage: wide [OPTIONS]\n\nOptions:\n"
            "      --a-name-that-is-far-too-long-for-its-column\n"
            "              Text\n"
            "  -h, --help  Own\n");
}

TEST(CommandHelp, LinesAreAtMostEightyWide) {
  for (const GB::CommandPath &path : {GB::CommandPath{&kExample}, GB::CommandPath{&kExample, &kExampleCommands[0]}}) {
    const std::string text = GB::helpText(path);
    for (std::size_t start = 0, end = 0; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
      EXPECT_LE(end - start, 80U) << text.substr(start, end - start);
  }
}

TEST(CommandHelp, WhatIsAskedIsPrinted) {
  const auto printed = [](std::vector<std::string> arguments) {
    return printedBy(stdout, [&] {
      const auto line = CommandLine::parse(kExample, arguments);
      ASSERT_TRUE(line);
      EXPECT_EQ(GB::printWhatIsAsked(*line), line->request() != CommandLine::Request::run);
    });
  };
  EXPECT_EQ(printed({"--version"}), "my-tool 1.0\n");
  EXPECT_EQ(printed({"stop", "--help"}), GB::helpText({&kExample, &kExampleCommands[1]}));
  EXPECT_EQ(printed({"stop"}), "");
}

TEST(CommandHelp, AnErrorSaysWhereHelpIs) {
  EXPECT_EQ(printedBy(
                stderr,
                [] {
                  const std::vector<std::string> arguments = {"strat"};
                  EXPECT_EQ(GB::printUsageError(kExample, CommandLine::parse(kExample, arguments).error()), 2);
                }),
            "my-tool: there is no command \"strat\"; did you mean start?\nTry \"my-tool --help\".\n");
}
