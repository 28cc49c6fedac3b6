#include <gtest/gtest.h>

#include <csignal>
#include <set>
#include <string>
#include <vector>

#include "companions/run/Outcome.h"

using namespace companions;
using Kind = Outcome::Kind;
using Type = Outcome::News::Type;

namespace {

const std::string kTime = "Mon Nov 23 14:16:18 2026 : ";

Kind kindOf(const std::vector<std::string> &lines, int status = 0) {
  Outcome outcome("192.0.2.1");
  for (const std::string &line : lines) outcome.hear(line);
  outcome.ended(true, status);
  return outcome.kind();
}

Kind kindOfFailure(const std::string &sentence, int cause = 8) {
  return kindOf({"Initializing PPP network connection", "Connecting PPP link", kTime + sentence,
                 "Error: Exec format error, cause: " + std::to_string(cause), "PPP Network connection disconnected",
                 "Exit."});
}

Kind kindOfLoss(int cause) {
  return kindOf({"PPP Connected", "Disconnecting PPP link", "Error: Some text, cause: " + std::to_string(cause),
                 "PPP Network connection disconnected", "Exit."});
}

TEST(Outcome, SaysNothingWithoutALine) { EXPECT_EQ(kindOf({}), Kind::unknown); }

TEST(Outcome, AConfigurationThatCannotBeRead) {
  EXPECT_EQ(kindOf({"error parse config: nowhere.conf", "(null):0 - file I/O error"}, 1), Kind::configuration);
}

TEST(Outcome, SettingsThatAreMissingWithoutANewlineBetween) {
  EXPECT_EQ(kindOf({"Invalid config! Missing password!Invalid config! Missing shared_secret!terminate called after"}),
            Kind::configuration);
}

TEST(Outcome, NoAuthorizationWithoutANewline) {
  EXPECT_EQ(kindOf({"Cannot get authorization!"}, 1), Kind::authorization);
}

TEST(Outcome, CausesBeforeTheConnectionStood) {
  EXPECT_EQ(kindOfFailure("", 5), Kind::byRequest);
  EXPECT_EQ(kindOfFailure("", 8), Kind::unknown);
  EXPECT_EQ(kindOfFailure("", 10), Kind::notNegotiated);
  EXPECT_EQ(kindOfFailure("", 15), Kind::notNegotiated);
  EXPECT_EQ(kindOfFailure("", 16), Kind::notNegotiated);
  EXPECT_EQ(kindOfFailure("", 0), Kind::notNegotiated);
  EXPECT_EQ(kindOfFailure("", 19), Kind::accountRefused);
  EXPECT_EQ(kindOfFailure("", 1), Kind::unknown);
}

TEST(Outcome, CausesOfWhatStood) {
  for (const int cause : {0, 1, 8, 10, 12, 15, 16}) EXPECT_EQ(kindOfLoss(cause), Kind::lost) << cause;
  EXPECT_EQ(kindOfLoss(5), Kind::byRequest);
  EXPECT_EQ(kindOfLoss(19), Kind::accountRefused);
}

TEST(Outcome, AHelperThatDied) {
  EXPECT_EQ(kindOf({"PPP Connected", "Error: Invalid argument", "Unknown status", "Exit."}), Kind::lost);
  EXPECT_EQ(kindOf({"Connecting PPP link", "Error: Invalid argument", "Unknown status", "Exit."}), Kind::unknown);
}

TEST(Outcome, RequestsCountBeforeAllElse) {
  Outcome outcome;
  outcome.hear("Error: Some text, cause: 16");
  outcome.requested();
  outcome.ended(true, 0);
  EXPECT_EQ(outcome.kind(), Kind::byRequest);
}

TEST(Outcome, TheSignalBeforeTheAuthorization) {
  Outcome outcome;
  outcome.ended(false, SIGUSR1);
  EXPECT_EQ(outcome.kind(), Kind::byRequest);
  Outcome crashed;
  crashed.ended(false, SIGSEGV);
  EXPECT_EQ(crashed.kind(), Kind::unknown);
}

TEST(Outcome, PhasesHaveShortNames) {
  Outcome outcome;
  const auto news = outcome.hear("PPP Authenticating");
  EXPECT_EQ(news.type, Type::phase);
  EXPECT_EQ(news.phase, "authenticating");
  EXPECT_EQ(news.text, "PPP Authenticating");
  EXPECT_FALSE(outcome.isConnected());
  outcome.hear("PPP Connected");
  EXPECT_TRUE(outcome.isConnected());
  outcome.hear("Terminating PPP connection");
  EXPECT_TRUE(outcome.isConnected());
  outcome.hear("PPP Network connection disconnected");
  EXPECT_FALSE(outcome.isConnected());
  EXPECT_TRUE(outcome.wasConnected());
}

TEST(Outcome, AddressesAreFoundInPPPDsLines) {
  Outcome outcome("192.0.2.1");
  EXPECT_EQ(outcome.hear("Using interface ppp0").type, Type::address);
  EXPECT_EQ(outcome.hear("[192.0.2.1] local  IP address 10.99.0.2").type, Type::address);
  EXPECT_FALSE(outcome.hasAddresses());
  EXPECT_EQ(outcome.hear("remote IP address 10.99.0.1").type, Type::address);
  EXPECT_TRUE(outcome.hasAddresses());
  EXPECT_EQ(outcome.interface(), "ppp0");
  EXPECT_EQ(outcome.address(), "10.99.0.2");
  EXPECT_EQ(outcome.peer(), "10.99.0.1");
  EXPECT_EQ(outcome.hear("MPPE 128-bit stateless compression enabled").type, Type::line);
}

TEST(Outcome, LinesOfOtherConnectionsAreNotOurs) {
  Outcome outcome("192.0.2.1");
  outcome.hear("[192.0.2.2] local  IP address 10.99.0.3");
  outcome.hear(kTime + "[192.0.2.2] The PPTP server 192.0.2.2 refuses the call: busy (result 4, error 0), cause 0.");
  outcome.hear("Error: Exec format error, cause: 8");
  outcome.ended(true, 0);
  EXPECT_EQ(outcome.address(), "");
  EXPECT_EQ(outcome.sentence(), "");
  EXPECT_EQ(outcome.kind(), Kind::unknown);
}

TEST(Outcome, OurOwnLabelIsTakenOff) {
  Outcome outcome("192.0.2.1");
  outcome.hear(kTime + "[192.0.2.1] The PPTP server 192.0.2.1 refuses the call: busy (result 4, error 0), cause 0.");
  outcome.hear("Error: Exec format error, cause: 8");
  outcome.ended(true, 0);
  EXPECT_EQ(outcome.kind(), Kind::callRefused);
  EXPECT_EQ(outcome.sentence(), "The PPTP server 192.0.2.1 refuses the call: busy (result 4, error 0), cause 0.");
}

TEST(Outcome, LabelsArePrintable) {
  Outcome outcome("vpn.\xc3\xa9.example\t");
  outcome.hear("[vpn.??.example?] local  IP address 10.99.0.2");
  EXPECT_EQ(outcome.address(), "10.99.0.2");
}

TEST(Outcome, TheLatestSentenceWithAMeaningCounts) {
  Outcome outcome;
  outcome.hear(kTime + "The PPTP server 192.0.2.1 does not answer on TCP port 1723; check the address, ...");
  outcome.hear(kTime + "Trying the next address of vpn.example.org, 192.0.2.2.");
  outcome.hear(kTime + "The PPTP server 192.0.2.2 refuses the call: busy (result 4, error 0), cause 0.");
  outcome.hear(kTime + "Something else was said.");
  outcome.hear("Error: Exec format error, cause: 8");
  outcome.ended(true, 0);
  EXPECT_EQ(outcome.kind(), Kind::callRefused);
}

TEST(Outcome, WhatAServerSaysIsNotTakenForOurs) {
  EXPECT_EQ(kindOfFailure("The L2TP server 192.0.2.1 refuses the call: busy (result 8, error 0, \"The L2TP server "
                          "192.0.2.1 does not answer on UDP port 1701\")."),
            Kind::callRefused);
  // pppd's lines have no time before them, whatever a server makes pppd print.
  EXPECT_EQ(kindOf({"Remote message: " + kTime + "The PPTP server 192.0.2.1 refuses the call: ",
                    "The PPTP server 192.0.2.1 refuses the call: busy.", "Error: Exec format error, cause: 8"}),
            Kind::unknown);
}

TEST(Outcome, TheDayOfTheMonthMayHaveOneDigit) {
  Outcome outcome;
  EXPECT_EQ(outcome.hear("Sun Nov  1 00:00:00 2026 : The network has changed: this machine").type, Type::sentence);
  EXPECT_TRUE(outcome.networkChanged());
  EXPECT_EQ(outcome.hear("Sun Nov x1 00:00:00 2026 : The network").type, Type::line);
}

TEST(Outcome, CausesAreNumbers) {
  Outcome outcome;
  EXPECT_EQ(outcome.hear("Error: Some text, cause: many").type, Type::error);
  EXPECT_FALSE(outcome.cause());
  outcome.hear("Error: a text, cause: 3, cause: 10");
  EXPECT_EQ(outcome.cause(), 10);
  EXPECT_EQ(outcome.hear("Error: Some text, code: 3").type, Type::error);
  EXPECT_EQ(outcome.cause(), 10);
}

TEST(Outcome, EachKindHasAStatusANameAndASentence) {
  std::set<int> statuses;
  std::set<std::string_view> names;
  for (int i = 0; i <= static_cast<int>(Kind::lost); ++i) {
    const auto kind = static_cast<Kind>(i);
    statuses.insert(statusOf(kind));
    names.insert(nameOf(kind));
    EXPECT_TRUE(sentenceOf(kind).ends_with(".")) << i;
  }
  EXPECT_EQ(statuses.size(), 10U);
  EXPECT_EQ(names.size(), 10U);
  EXPECT_EQ(statusOf(Kind::byRequest), 0);
}

TEST(Outcome, SomeKindsAreNotTriedAgain) {
  for (const Kind kind : {Kind::byRequest, Kind::configuration, Kind::authorization, Kind::accountRefused})
    EXPECT_FALSE(mayComeRight(kind)) << nameOf(kind);
  for (const Kind kind :
       {Kind::unknown, Kind::notReached, Kind::ipsecRefused, Kind::callRefused, Kind::notNegotiated, Kind::lost})
    EXPECT_TRUE(mayComeRight(kind)) << nameOf(kind);
}

}  // namespace
