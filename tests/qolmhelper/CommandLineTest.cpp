// The command line of the tool: parse_options and its buffer.

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/qolmhelper/ToolProcess.h"

namespace TN {
namespace {

// A configuration that ends the run early and says which file was read.
std::string configurationNamed(const std::string &name) {
  return "protocol = \"" + name + "\"; ip = \"i\"; username = \"u\"; password = \"p\"; shared_secret = \"s\";";
}
std::string echoOf(const std::string &name) {
  return "protocol: " + name + "ip: iusername: upassword: pshared_secret: s";
}

Outcome runWithTwoFiles(std::vector<std::string> arguments) {
  Scene scene;
  scene.arguments = std::move(arguments);
  scene.configuration = configurationNamed("default");
  scene.files = {{"one", configurationNamed("one")}, {"two", configurationNamed("two")}};
  return run(scene);
}

TEST(CommandLine, WithoutArgumentsReadsTheFileInTheWorkingDirectory) {
  EXPECT_EQ(runWithTwoFiles({}).output, echoOf("default"));
}

TEST(CommandLine, TakesThePathInEachOfItsThreeForms) {
  EXPECT_EQ(runWithTwoFiles({"-c", "one"}).output, echoOf("one"));
  EXPECT_EQ(runWithTwoFiles({"-cone"}).output, echoOf("one"));
  EXPECT_EQ(runWithTwoFiles({"--config", "one"}).output, echoOf("one"));
  EXPECT_EQ(runWithTwoFiles({"--config=one"}).output, echoOf("one"));
}

TEST(CommandLine, TheLastPathWins) {
  EXPECT_EQ(runWithTwoFiles({"-c", "one", "--config=two"}).output, echoOf("two"));
  EXPECT_EQ(runWithTwoFiles({"--config", "two", "-c", "one"}).output, echoOf("one"));
}

TEST(CommandLine, AnUnknownOptionIsNamedAndOtherwiseIgnored) {
  const Outcome outcome = runWithTwoFiles({"-x", "-c", "one"});
  EXPECT_NE(outcome.error.find("invalid option -- 'x'\n"), std::string::npos) << outcome.error;
  EXPECT_EQ(outcome.output, echoOf("one"));
  EXPECT_EQ(runWithTwoFiles({"--nonsense"}).output, echoOf("default"));
}

TEST(CommandLine, AMissingPathIsNamedAndOtherwiseIgnored) {
  const Outcome outcome = runWithTwoFiles({"-c"});
  EXPECT_NE(outcome.error.find("option requires an argument -- 'c'\n"), std::string::npos) << outcome.error;
  EXPECT_EQ(outcome.output, echoOf("default"));
}

TEST(CommandLine, OtherArgumentsAreIgnored) {
  EXPECT_EQ(runWithTwoFiles({"stray", "-c", "one", "more"}).output, echoOf("one"));
}

TEST(CommandLine, ResultsThatNoCommandLineCanGive) {
  Scene scene;
  scene.program = VPNCTL_FAKE_WRAPPED;
  scene.configuration = configurationNamed("default");
  scene.environment = {{"VPNCTL_TEST_GETOPT", "0 63 0"}};
  EXPECT_EQ(run(scene).output, echoOf("default"));

  scene.environment = {{"VPNCTL_TEST_GETOPT", "0 118"}};
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.output, "Usage: vpnctl -c config\n\n");
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.status, 1);
}

// A path of LENGTH characters that names a file of the working directory: blocks of "./", and one "/" more if need be.
std::string pathOfLength(std::size_t length, const std::string &name) {
  std::string path;
  while (path.size() + 2 + name.size() <= length) path += "./";
  if (path.size() + name.size() < length) path += "/";
  return path + name;
}

class ConfigPath : public testing::TestWithParam<std::size_t> {};

// The buffer holds 1024 bytes, without a zero when they are full; what does not fit is cut off.
TEST_P(ConfigPath, OfALengthAroundTheBuffers) {
  const std::size_t fitting = std::min<std::size_t>(GetParam(), 1024);
  const std::string argument = pathOfLength(fitting, "file") + std::string(GetParam() - fitting, 'x');
  ASSERT_EQ(argument.size(), GetParam());
  Scene scene;
  scene.arguments = {"-c", argument};
  scene.files = {{"file", configurationNamed("long")}};
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.output, echoOf("long")) << outcome.error;
}
INSTANTIATE_TEST_SUITE_P(Lengths, ConfigPath, testing::Values(1022, 1023, 1024, 1025, 3000));

TEST(CommandLine, AnUnterminatedPathIsToldWithoutForeignBytes) {
  Scene scene;
  scene.arguments = {"-c", std::string(2000, 'm')};
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.error, "error parse config: " + std::string(1024, 'm') + "\n(null):0 - file I/O error\n");
  EXPECT_EQ(outcome.status, 1);
}

}  // namespace
}  // namespace TN
