// The configuration file: what is echoed, what is missing, what cannot be read.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "tests/qolmhelper/ToolProcess.h"

namespace TN {
namespace {

const std::map<std::string, std::string> kKeys{
    {"protocol", kProtocol}, {"ip", "192.0.2.1"}, {"username", "ann"}, {"password", "pw"}, {"shared_secret", "ss"}};

std::string configurationOf(const std::map<std::string, std::string> &values) {
  std::string text;
  for (const auto &[key, value] : values) text += key + " = \"" + value + "\";\n";
  return text;
}

Outcome runConfigured(const std::string &configuration, const std::string &script = "fail AuthorizationCreate -60008") {
  Scene scene;
  scene.configuration = configuration;
  scene.script = script;
  return run(scene);
}

TEST(Configuration, EchoesTheFiveSettingsOnOneLine) {
  const Outcome outcome = runConfigured(kConfiguration);
  EXPECT_EQ(outcome.output, kEcho);
  EXPECT_EQ(outcome.error, "Cannot get authorization!");
  EXPECT_EQ(outcome.status, 1);
}

TEST(Configuration, IgnoresOtherSettingsAndTheirOrder) {
  const Outcome outcome =
      runConfigured(std::string("shared_secret = \"ss\"; other = 5; group = { protocol = \"l2tp\"; };") +
                    "password = \"pw\"; username = \"ann\"; ip = \"192.0.2.1\"; protocol = \"" + kProtocol + "\";");
  EXPECT_EQ(outcome.output, kEcho);
  EXPECT_EQ(outcome.error, "Cannot get authorization!");
}

TEST(Configuration, AMissingFileIsAnError) {
  Scene scene;
  scene.arguments = {"-c", "missing"};
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.error, "error parse config: missing\n(null):0 - file I/O error\n");
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(outcome.calls.empty());
}

TEST(Configuration, AFolderIsAnError) {
  Scene scene;
  scene.arguments = {"-c", "."};
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.error, "error parse config: .\n(null):0 - file I/O error\n");
  EXPECT_EQ(outcome.status, 1);
}

TEST(Configuration, AnUnreadableFileIsAnError) {
  Scene scene;
  scene.arguments = {"-c", "secret"};
  // For root every file is readable, unless it gives that up.
  if (geteuid() == 0) {
    scene.launcher = {"setpriv", "--bounding-set=-dac_override,-dac_read_search"};
    if (std::system("setpriv --bounding-set=-dac_override,-dac_read_search true") != 0) GTEST_SKIP() << "needs setpriv";
  }
  scene.files = {{"secret", kConfiguration}};
  scene.fileModes = {{"secret", 0}};
  const Outcome outcome = run(scene);
  EXPECT_EQ(outcome.error, "error parse config: secret\n(null):0 - file I/O error\n");
  EXPECT_EQ(outcome.status, 1);
}

TEST(Configuration, ASyntaxErrorIsToldWithItsLine) {
  const Outcome outcome = runConfigured("protocol = \"pptp\";\nip = ;\n");
  EXPECT_EQ(outcome.error, "error parse config: config.qolm\nconfig.qolm:2 - syntax error\n");
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.status, 1);
}

TEST(Configuration, AFileThatIsCutOffIsAnError) {
  const std::string whole = kConfiguration;
  const Outcome outcome = runConfigured(whole.substr(0, whole.find("ann") + 2));
  EXPECT_EQ(outcome.error, "error parse config: config.qolm\nconfig.qolm:3 - syntax error\n");
  EXPECT_EQ(outcome.status, 1);
}

TEST(Configuration, BytesThatAreNoTextAreAnError) {
  std::string bytes;
  for (int byte = 255; byte >= 0; --byte) bytes += static_cast<char>(byte);
  const Outcome outcome = runConfigured(bytes);
  EXPECT_EQ(outcome.error, "error parse config: config.qolm\nconfig.qolm:1 - syntax error\n");
  EXPECT_EQ(outcome.status, 1);
}

// As C flushes what does not go to a terminal.
TEST(Configuration, IsEchoedWhenTheToolEnds) {
  Scene scene;
  scene.script = "up status 2 ppp=8";
  ToolProcess tool(scene);
  ASSERT_TRUE(tool.waitForError("PPP Connected\n"));
  EXPECT_EQ(tool.output(), "");
  tool.send(SIGUSR1);
  EXPECT_EQ(tool.finish().output, kEcho);
}

// Neither before it has tried nor at its end, however long the echo is.
TEST(Configuration, AnEchoThatNobodyReadsDoesNotEndTheTool) {
  for (const std::size_t length : {1, 100000}) {
    auto values = kKeys;
    values["username"] = std::string(length, 'u');
    Scene scene;
    scene.configuration = configurationOf(values);
    scene.script = "up status 2 ppp=8\nup status 0 ppp=0";
    scene.hasReader = false;
    const Outcome outcome = run(scene);
    EXPECT_TRUE(outcome.error.ends_with("PPP Connected\nPPP Network connection disconnected\nExit.\n")) << length;
    EXPECT_EQ(outcome.signal, 0) << length;
    EXPECT_EQ(outcome.status, 0) << length;
  }
}

class MissingKey : public testing::TestWithParam<std::string> {};

// In the order of the look-ups.
std::string echoWithout(const std::string &missing) {
  std::string echo;
  for (const std::string key : {"protocol", "ip", "username", "password", "shared_secret"})
    if (key != missing) echo += key + ": " + kKeys.at(key);
  return echo;
}

TEST_P(MissingKey, IsToldAndEndsTheProcessAbnormally) {
  auto values = kKeys;
  values.erase(GetParam());
  const Outcome outcome = runConfigured(configurationOf(values));
  EXPECT_TRUE(outcome.error.starts_with("Invalid config! Missing " + GetParam() + "!")) << outcome.error;
  EXPECT_EQ(outcome.error.find("Cannot get authorization!"), std::string::npos);
  EXPECT_EQ(outcome.output, echoWithout(GetParam())) << "the other settings are told all the same";
  EXPECT_EQ(outcome.signal, SIGABRT);
  EXPECT_TRUE(outcome.calls.empty());
}

TEST_P(MissingKey, AsANumberIsMissing) {
  auto values = kKeys;
  values.erase(GetParam());
  const Outcome outcome = runConfigured(configurationOf(values) + GetParam() + " = 5;\n");
  EXPECT_TRUE(outcome.error.starts_with("Invalid config! Missing " + GetParam() + "!")) << outcome.error;
  EXPECT_EQ(outcome.output, echoWithout(GetParam()));
  EXPECT_EQ(outcome.signal, SIGABRT);
}

INSTANTIATE_TEST_SUITE_P(Keys, MissingKey, testing::Values("protocol", "ip", "username", "password", "shared_secret"),
                         [](const auto &parameter) { return parameter.param; });

class MissingKeyOfUnknownProtocol : public testing::TestWithParam<std::string> {};

TEST_P(MissingKeyOfUnknownProtocol, DoesNotStopTheTool) {
  auto values = kKeys;
  values["protocol"] = "sstp";
  values.erase(GetParam());
  const Outcome outcome = runConfigured(configurationOf(values));
  EXPECT_EQ(outcome.error, "Invalid config! Missing " + GetParam() + "!Cannot get authorization!");
  EXPECT_EQ(outcome.status, 1);
}
INSTANTIATE_TEST_SUITE_P(Keys, MissingKeyOfUnknownProtocol,
                         testing::Values("ip", "username", "password", "shared_secret"),
                         [](const auto &parameter) { return parameter.param; });

TEST(Configuration, AnEmptyFileLacksEverything) {
  const Outcome outcome = runConfigured("");
  EXPECT_TRUE(outcome.error.starts_with(
      "Invalid config! Missing protocol!Invalid config! Missing ip!Invalid config! Missing username!"
      "Invalid config! Missing password!Invalid config! Missing shared_secret!"))
      << outcome.error;
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.signal, SIGABRT);
}

class UnknownProtocol : public testing::TestWithParam<std::string> {};

TEST_P(UnknownProtocol, GetsNoAuthorization) {
  auto values = kKeys;
  values["protocol"] = GetParam();
  const Outcome outcome = runConfigured(configurationOf(values), "");
  EXPECT_EQ(outcome.error, "Cannot get authorization!");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(outcome.calls.empty());
}
INSTANTIATE_TEST_SUITE_P(Values, UnknownProtocol,
                         testing::Values("PPTP", "Pptp", "pptp ", " pptp", "", "sstp", "ppt", "pptpp", "\\xff", "L2TP",
                                         "l2tp ", "l2t"));

TEST(Configuration, ValuesReachTheServiceAsTheyAre) {
  for (const std::string ip : {"vpn.example.net", "", "2001:db8::1", "not an address !"}) {
    auto values = kKeys;
    values["ip"] = ip;
    const Outcome outcome = runConfigured(configurationOf(values), "up status 0 ppp=0");
    ASSERT_EQ(outcome.count("SCNetworkInterfaceSetConfiguration"), 1);
    bool found = false;
    for (const std::string &call : outcome.calls) {
      found |= call.starts_with("SCNetworkInterfaceSetConfiguration") &&
               call.find("CommRemoteAddress=\"" + ip + "\"") != std::string::npos;
    }
    EXPECT_TRUE(found) << ip;
    EXPECT_EQ(outcome.status, 0);
  }
}

TEST(Configuration, UserNamesMayHoldBlanksAndBackslashes) {
  auto values = kKeys;
  values["username"] = "DOMAIN\\\\first last";
  const Outcome outcome = runConfigured(configurationOf(values), "up status 0 ppp=0");
  EXPECT_NE(outcome.output.find("username: DOMAIN\\first lastpassword"), std::string::npos) << outcome.output;
  bool found = false;
  for (const std::string &call : outcome.calls) {
    found |= call.starts_with("SCNetworkInterfaceSetConfiguration") &&
             call.find("AuthName=\"DOMAIN\\first last\"") != std::string::npos;
  }
  EXPECT_TRUE(found);
}

// The time it takes is a user's; a sanitizer's heap takes its own.
TEST(Configuration, ASettingOfMegabytesIsReadInASecond) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer brings a heap of its own";
#endif
  constexpr std::size_t kSize = std::size_t{4} << 20;
  std::string escaped;
  while (escaped.size() < kSize) escaped += "x\\\\";
  for (const std::string &value : {std::string(kSize, 'x'), escaped}) {
    auto values = kKeys;
    values["password"] = value;
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = runConfigured(configurationOf(values));
    // Several times what it takes on a machine that has other work.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
    EXPECT_EQ(outcome.error, "Cannot get authorization!");
    EXPECT_GT(outcome.output.size(), kSize / 2);
  }
}

TEST(Configuration, WhatIsWrongWithALongFileIsToldAsOfAShortOne) {
  const std::string longText = configurationOf(kKeys) + "long = \"" + std::string(100000, 'x') + "\";\n";
  const std::string zero("\0", 1);
  for (const std::string &end : {std::string("other = ;\n"), "other = " + zero + "5;\n"}) {
    const Outcome outcome = runConfigured(longText + end);
    EXPECT_EQ(outcome.error, "error parse config: config.qolm\nconfig.qolm:7 - syntax error\n");
    EXPECT_EQ(outcome.status, 1);
  }
  EXPECT_EQ(runConfigured(longText).output.find("protocol: " + kProtocol + "ip: 192.0.2.1"), 0U);
}

// Text that is not UTF-8 is a null object: a service cannot hold it, while a secret is then simply one of no bytes.
TEST(Configuration, AUserNameThatIsNotUTF8EndsTheProcess) {
  auto values = kKeys;
  values["username"] = "\\xff";
  EXPECT_EQ(runConfigured(configurationOf(values), "").signal, SIGABRT);
}

TEST(Configuration, APasswordThatIsNotUTF8IsStoredEmpty) {
  auto values = kKeys;
  values["password"] = "\\xff";
  const Outcome outcome = runConfigured(configurationOf(values), "up status 0 ppp=0");
  EXPECT_EQ(outcome.status, 0);
  bool found = false;
  for (const std::string &call : outcome.calls)
    found |= call.find("desc=\"PPP Password\"], 0, \"\"") != std::string::npos;
  EXPECT_TRUE(found);
}

}  // namespace
}  // namespace TN
