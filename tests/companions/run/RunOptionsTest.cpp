#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "companions/run/Outcome.h"
#include "companions/run/Run.h"
#include "companions/run/RunOptions.h"
#include "tests/support/TemporaryFolder.h"

using namespace companions;
using Kind = Outcome::Kind;

namespace {

vpnctl::Result<RunOptions> optionsOf(const std::vector<std::string> &arguments) {
  const auto line = GB::CommandLine::parse(kRunCommand, arguments);
  if (!line) return line.error();
  return RunOptions::from(*line);
}

std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) result += c == '-' ? "\\-" : std::string(1, c);
  return result;
}

TEST(RunOptions, Usual) {
  const auto options = optionsOf({"-c", "office.conf"});
  ASSERT_TRUE(options);
  EXPECT_EQ(options->configuration, "office.conf");
  EXPECT_FALSE(options->passwordFile);
  EXPECT_FALSE(options->secretFile);
  EXPECT_FALSE(options->ask);
  EXPECT_FALSE(options->reconnect);
  EXPECT_FALSE(options->reconnectLimit);
  EXPECT_EQ(options->reconnectPause, std::chrono::seconds(2));
  EXPECT_FALSE(options->up);
  EXPECT_FALSE(options->down);
  EXPECT_EQ(options->hookDeadline, std::chrono::seconds(30));
  EXPECT_FALSE(options->json);
  EXPECT_FALSE(options->progress);
}

TEST(RunOptions, EveryOneIsTakenOver) {
  const auto options = optionsOf({"--config=a", "--config=b", "-a", "--password-from", "p", "--secret-from=s", "-r",
                                  "--reconnect-limit=5", "--reconnect-pause=7", "--up=/bin/true", "--down",
                                  "/bin/false", "--hook-timeout=9", "-j", "--no-progress"});
  ASSERT_TRUE(options);
  EXPECT_EQ(options->configuration, "b");
  EXPECT_EQ(options->passwordFile, "p");
  EXPECT_EQ(options->secretFile, "s");
  EXPECT_TRUE(options->ask);
  EXPECT_TRUE(options->reconnect);
  EXPECT_EQ(options->reconnectLimit, 5);
  EXPECT_EQ(options->reconnectPause, std::chrono::seconds(7));
  EXPECT_EQ(options->up, "/bin/true");
  EXPECT_EQ(options->down, "/bin/false");
  EXPECT_EQ(options->hookDeadline, std::chrono::seconds(9));
  EXPECT_TRUE(options->json);
  EXPECT_EQ(options->progress, false);
}

TEST(RunOptions, LimitsHold) {
  for (const char *option : {"--reconnect-limit=-1", "--reconnect-limit=x", "--reconnect-pause=0",
                             "--reconnect-pause=301", "--hook-timeout=0", "--hook-timeout=86401", "--json=yes"})
    EXPECT_FALSE(optionsOf({"-c", "a", option})) << option;
}

TEST(RunOptions, TheManPageHasEveryOption) {
  const std::string page = support::contentsOf(MAN_PAGE).value();
  for (const GB::Option &option : kRunCommand.options) {
    if (option.isHeading()) continue;
    EXPECT_NE(page.find("\\-\\-" + escaped(option.name)), std::string::npos) << option.name;
    if (option.negatable) EXPECT_NE(page.find("\\-\\-no\\-" + escaped(option.name)), std::string::npos) << option.name;
    if (option.letter != 0) EXPECT_NE(page.find(std::string("\\-") + option.letter), std::string::npos) << option.name;
  }
  const std::regex name(R"(\\-\\-((?:[a-z]|\\-)+))");
  for (std::sregex_iterator match(page.begin(), page.end(), name); match != std::sregex_iterator(); ++match) {
    const std::string said = std::regex_replace((*match)[1].str(), std::regex(R"(\\-)"), "-");
    bool known = said == "help" || said == "version";
    for (const GB::Option &option : kRunCommand.options)
      known = known || said == option.name || (option.negatable && said == "no-" + std::string(option.name));
    EXPECT_TRUE(known) << said;
  }
}

TEST(RunOptions, TheManPageHasEveryStatus) {
  const std::string page = support::contentsOf(MAN_PAGE).value();
  for (int i = 0; i <= static_cast<int>(Kind::lost); ++i) {
    const auto kind = static_cast<Kind>(i);
    EXPECT_NE(page.find(".B " + std::to_string(statusOf(kind)) + "\n" + escaped(nameOf(kind)) + ":"), std::string::npos)
        << nameOf(kind);
  }
  EXPECT_NE(page.find(".B " + std::to_string(kUpFailedStatus) + "\n"), std::string::npos);
}

TEST(RunOptions, TheUnitGivesUpWhereAnotherAttemptCannotHelp) {
  std::string expected = "\nRestartPreventExitStatus=";
  const char *between = "";
  for (int i = 0; i <= static_cast<int>(Kind::lost); ++i) {
    const auto kind = static_cast<Kind>(i);
    if (kind == Kind::byRequest || mayComeRight(kind)) continue;
    expected += between + std::to_string(statusOf(kind));
    between = " ";
  }
  EXPECT_NE(support::contentsOf(UNIT).value().find(expected + "\n"), std::string::npos) << expected;
}

}  // namespace
