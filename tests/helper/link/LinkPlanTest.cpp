#include <gtest/gtest.h>

#include <cerrno>

#include "helper/link/LinkPlan.h"

using helper::AuthProtocol;
using helper::EngineSettings;
using helper::IPv4Network;
using helper::LinkPlan;
using helper::MPPE;
using helper::networkFrom;
using helper::RoutePlan;
using helper::TunnelKind;
using std::chrono::milliseconds;
using std::chrono::seconds;
using vpnctl::Value;

namespace {

using Entries = Value::Dictionary;
using Protocols = std::set<AuthProtocol>;

Value preferences(const Entries &ppp, const std::string &kind = "PPTP", const std::string &type = "PPP") {
  const Value service = Entries{{"Interface", Entries{{"Type", type}, {"SubType", kind}}},
                                {"PPP", ppp},
                                {"IPv4", Entries{{"OverridePrimary", 1}}},
                                {"IPSec", Entries{{"SharedSecret", "ID.SS"}}}};
  return Entries{{"NetworkServices", Entries{{"ID", service}}}};
}

LinkPlan planOf(const Entries &ppp, const std::string &kind = "PPTP", const EngineSettings &settings = {},
                const Value &startOptions = {}) {
  auto plan = LinkPlan::make(preferences(ppp, kind), {"ID", startOptions}, settings);
  EXPECT_TRUE(plan) << (plan ? "" : plan.error().message);
  return plan ? *plan : LinkPlan();
}

TEST(LinkPlan, ComesFromTheService) {
  const LinkPlan plan =
      planOf({{"AuthName", "DOM\\alice"}, {"AuthPassword", "ID"}, {"CommRemoteAddress", "vpn.example.org"}}, "L2TP");
  EXPECT_EQ(plan.serviceID, "ID");
  EXPECT_EQ(plan.kind, TunnelKind::l2tp);
  EXPECT_EQ(plan.server, "vpn.example.org");
  EXPECT_EQ(plan.ppp.account, "DOM\\alice");
  EXPECT_EQ(plan.ppp.passwordItem, "ID");
  EXPECT_EQ(plan.sharedSecretItem, "ID.SS");
  EXPECT_TRUE(plan.carriesEverything);
  EXPECT_EQ(plan.pppDeadline, milliseconds(60000));
}

TEST(LinkPlan, NeedsAServiceOfTheRightKind) {
  const auto refusal = [](const Value &root, const std::string &serviceID) {
    const auto plan = LinkPlan::make(root, {serviceID}, {});
    return plan ? std::string("none") : plan.error().message;
  };
  EXPECT_EQ(refusal(preferences({}), "OTHER"), "there is no network service OTHER");
  EXPECT_EQ(refusal(Value(), "ID"), "there is no network service ID");
  EXPECT_EQ(refusal(Value("text"), "ID"), "there is no network service ID");
  EXPECT_EQ(refusal(preferences({}, "PPTP", "Ethernet"), "ID"), "the network service ID is no PPP service");
  const Value noDictionary = Entries{{"NetworkServices", Entries{{"ID", "text"}}}};
  const Value whole = preferences({})["NetworkServices"]["ID"];
  EXPECT_EQ(LinkPlan::make(noDictionary, {"ID", whole}, {}).error().message, "the network service ID is no PPP service")
      << "what a start asks for makes no service";
  EXPECT_EQ(refusal(preferences({}, "PPPoE"), "ID"), "tunnels of the kind \"PPPoE\" are not supported");
  EXPECT_EQ(refusal(preferences({}, "l2tp"), "ID"), "tunnels of the kind \"l2tp\" are not supported");
}

TEST(LinkPlan, PPTPHasNoSharedSecret) { EXPECT_EQ(planOf({}).sharedSecretItem, ""); }

TEST(LinkPlan, HasTheTunnelsSizes) {
  EXPECT_EQ(planOf({}).ppp.mtu, 1448);
  EXPECT_EQ(planOf({}, "L2TP").ppp.mtu, 1400);
  EXPECT_EQ(planOf({}).ppp.mru, 1500);
  EXPECT_EQ(planOf({{"LCPMTU", 1300}, {"LCPMRU", 1310}}).ppp.mtu, 1300);
  EXPECT_EQ(planOf({{"LCPMTU", 1300}, {"LCPMRU", 1310}}).ppp.mru, 1310);
  for (const Value &unusable : {Value(7), Value(70000), Value("junk"), Value(-1)})
    EXPECT_EQ(planOf({{"LCPMTU", unusable}}).ppp.mtu, 1448);
}

TEST(LinkPlan, EncryptsAsTheKeysSay) {
  EXPECT_EQ(planOf({}).ppp.mppe, MPPE::none);
  EXPECT_EQ(planOf({{"CCPEnabled", 1}}).ppp.mppe, MPPE::any);
  EXPECT_EQ(planOf({{"CCPEnabled", 1}, {"CCPMPPE40Enabled", 0}}).ppp.mppe, MPPE::only128);
  EXPECT_EQ(planOf({{"CCPEnabled", 1}, {"CCPMPPE128Enabled", 0}}).ppp.mppe, MPPE::only40);
  EXPECT_EQ(planOf({{"CCPEnabled", 1}, {"CCPMPPE128Enabled", 0}, {"CCPMPPE40Enabled", 0}}).ppp.mppe, MPPE::none);
  EXPECT_EQ(planOf({{"CCPEnabled", 1}}, "L2TP").ppp.mppe, MPPE::none) << "IPSec does it";
}

TEST(LinkPlan, AllowsTheProtocolsThatServe) {
  const Protocols all{AuthProtocol::pap, AuthProtocol::chap, AuthProtocol::mschap1, AuthProtocol::mschap2};
  EXPECT_EQ(planOf({}).ppp.authProtocols, all);
  EXPECT_EQ(planOf({{"CCPEnabled", 1}}, "L2TP").ppp.authProtocols, all);
  EXPECT_EQ(planOf({{"CCPEnabled", 1}}).ppp.authProtocols, (Protocols{AuthProtocol::mschap1, AuthProtocol::mschap2}))
      << "no other makes MPPE's keys";
  EXPECT_EQ(planOf({{"AuthProtocol", Value::Array{"MSCHAP2", "EAP"}}}).ppp.authProtocols,
            (Protocols{AuthProtocol::mschap2, AuthProtocol::eap}));
  EXPECT_EQ(planOf({{"AuthProtocol", Value::Array{"unheard of"}}}).ppp.authProtocols, Protocols{});
}

TEST(LinkPlan, WatchesTheLineUnlessToldNotTo) {
  EXPECT_EQ(planOf({}).ppp.echoInterval, seconds(20));
  EXPECT_EQ(planOf({}).ppp.echoFailures, 15);
  const LinkPlan set = planOf({{"LCPEchoInterval", 5}, {"LCPEchoFailure", 3}});
  EXPECT_EQ(set.ppp.echoInterval, seconds(5));
  EXPECT_EQ(set.ppp.echoFailures, 3);
  EXPECT_EQ(planOf({{"LCPEchoInterval", 0}}).ppp.echoInterval, seconds(20));
  const LinkPlan off = planOf({{"LCPEchoEnabled", 0}, {"LCPEchoInterval", 5}, {"LCPEchoFailure", 3}});
  EXPECT_EQ(off.ppp.echoInterval, seconds(0));
  EXPECT_EQ(off.ppp.echoFailures, 0);
}

TEST(LinkPlan, FollowsTheSwitches) {
  const LinkPlan plain = planOf({});
  EXPECT_TRUE(plain.ppp.peerDNS);
  EXPECT_FALSE(plain.ppp.compressTCPHeaders);
  EXPECT_FALSE(plain.ppp.compressProtocolField);
  EXPECT_FALSE(plain.ppp.compressAddressAndControlField);
  EXPECT_FALSE(plain.ppp.verbose);
  EXPECT_FALSE(plain.ppp.trace);
  const LinkPlan switched = planOf({{"IPCPUsePeerDNS", 0},
                                    {"IPCPCompressionVJ", 1},
                                    {"LCPCompressionPField", 1},
                                    {"LCPCompressionACField", 1},
                                    {"VerboseLogging", 1}});
  EXPECT_FALSE(switched.ppp.peerDNS);
  EXPECT_TRUE(switched.ppp.compressTCPHeaders);
  EXPECT_TRUE(switched.ppp.compressProtocolField);
  EXPECT_TRUE(switched.ppp.compressAddressAndControlField);
  EXPECT_TRUE(switched.ppp.verbose);
  EXPECT_TRUE(switched.ppp.trace);
}

TEST(LinkPlan, EndsWhenIdleOnlyWhereBothKeysSaySo) {
  EXPECT_EQ(planOf({{"DisconnectOnIdle", 1}, {"DisconnectOnIdleTimer", 600}}).ppp.idleLimit, seconds(600));
  EXPECT_EQ(planOf({{"DisconnectOnIdleTimer", 600}}).ppp.idleLimit, seconds(0));
  EXPECT_EQ(planOf({{"DisconnectOnIdle", 1}}).ppp.idleLimit, seconds(0));
  EXPECT_EQ(planOf({{"DisconnectOnIdle", 1}, {"DisconnectOnIdleTimer", 1000001}}).ppp.idleLimit, seconds(0));
}

TEST(LinkPlan, EndsAtALogoutUnlessTheServiceSaysOtherwise) {
  const auto endsWith = [](const Entries &ppp, const Value &startOptions = {}) {
    const auto plan = LinkPlan::make(preferences(ppp, "PPTP"), {"ID", startOptions, 1000, 77}, {});
    return plan ? plan->endsWithSessionOf : -1;
  };
  EXPECT_EQ(endsWith({}), 77);
  EXPECT_EQ(endsWith({{"DisconnectOnLogout", 1}}), 77);
  EXPECT_EQ(endsWith({{"DisconnectOnLogout", 0}}), 0);
  EXPECT_EQ(endsWith({}, Entries{{"PPP", Entries{{"DisconnectOnLogout", 0}}}}), 0) << "a start may say so, too";
}

// ---- The start's options

TEST(LinkPlan, StartOptionsAreLaidOverTheService) {
  const Value options = Entries{{"PPP", Entries{{"LCPMRU", 1400}}}, {"IPv4", Entries{{"OverridePrimary", 0}}}};
  const LinkPlan plan = planOf({{"AuthName", "alice"}, {"LCPMTU", 1300}}, "PPTP", {}, options);
  EXPECT_EQ(plan.ppp.mru, 1400);
  EXPECT_EQ(plan.ppp.mtu, 1300) << "what they do not name stays";
  EXPECT_FALSE(plan.carriesEverything);
}

// Where a secret goes, and how safely, is the stored service's.
TEST(LinkPlan, AStartHasNoSayInWhereSecretsGo) {
  const Entries ppp = {{"AuthName", "alice"}, {"AuthPassword", "ID"}, {"CommRemoteAddress", "vpn.example.org"}};
  const auto codeWith = [&](const char *entity, const char *key, const Value &entry) {
    const auto plan = LinkPlan::make(preferences(ppp), {"ID", Entries{{entity, Entries{{key, entry}}}}}, {});
    if (plan) return 0;
    EXPECT_EQ(plan.error().message,
              "a start may not say " + std::string(entity) + "/" + key + " otherwise than the stored service");
    return plan.error().code;
  };
  EXPECT_EQ(codeWith("PPP", "CommRemoteAddress", "evil.example.org"), EINVAL);
  EXPECT_EQ(codeWith("PPP", "AuthName", "mallory"), EINVAL);
  EXPECT_EQ(codeWith("PPP", "AuthPassword", "OTHER"), EINVAL);
  EXPECT_EQ(codeWith("PPP", "AuthProtocol", Value::Array{"PAP"}), EINVAL);
  EXPECT_EQ(codeWith("PPP", "CCPEnabled", 1), EINVAL);
  EXPECT_EQ(codeWith("PPP", "CCPMPPE128Enabled", 0), EINVAL);
  EXPECT_EQ(codeWith("PPP", "WhatNobodyKnowsYet", 1), EINVAL);
  EXPECT_EQ(codeWith("Interface", "SubType", "L2TP"), EINVAL);
  EXPECT_EQ(codeWith("Interface", "Type", "Ethernet"), EINVAL);
  EXPECT_EQ(codeWith("IPSec", "SharedSecret", "OTHER.SS"), EINVAL);
  EXPECT_EQ(codeWith("PPP", "CommRemoteAddress", "vpn.example.org"), 0) << "what says the same is no change";
  EXPECT_EQ(codeWith("IPSec", "SharedSecret", "ID.SS"), 0);
}

TEST(LinkPlan, StartOptionsAreDictionaries) {
  EXPECT_EQ(LinkPlan::make(preferences({}), {"ID", Entries{{"PPP", "text"}}}, {}).error().code, EINVAL);
  for (const Value &none : {Value(), Value("text"), Value(Value::Array{1})})
    EXPECT_EQ(planOf({{"AuthName", "alice"}}, "PPTP", {}, none).ppp.account, "alice");
}

TEST(LinkPlan, SaysWhatItsSecretsMustHaveBeenStoredFor) {
  const Value root = preferences({{"CommRemoteAddress", "vpn.example.org"}}, "L2TP");
  const auto plan = LinkPlan::make(root, {"ID", {}, 1000}, {});
  ASSERT_TRUE(plan);
  EXPECT_EQ(plan->secretUse.owner, 1000U);
  EXPECT_EQ(plan->secretUse.terms, helper::SecretUse::of(root["NetworkServices"]["ID"], 1000).terms);
  EXPECT_EQ(plan->secretUse.terms["PPP"]["CommRemoteAddress"], Value("vpn.example.org"));
}

// ---- The machine's settings

TEST(LinkPlan, TheMachinesSettingsGoAboveAllOthers) {
  EngineSettings settings;
  settings.ppp.mtu = 1400;
  settings.ppp.mru = 1410;
  settings.ppp.echoInterval = 5;
  settings.ppp.echoFailures = 3;
  settings.ppp.authProtocols = {"MSCHAP2", "EAP"};
  settings.ppp.dns = false;
  settings.ppp.defaultRoute = false;
  settings.ppp.deadline = milliseconds(7000);
  const Value options = Entries{{"PPP", Entries{{"LCPMTU", 1350}}}};
  const LinkPlan plan = planOf({{"LCPMTU", 1300}, {"AuthProtocol", Value::Array{"PAP"}}}, "L2TP", settings, options);
  EXPECT_EQ(plan.ppp.mtu, 1400);
  EXPECT_EQ(plan.ppp.mru, 1410);
  EXPECT_EQ(plan.ppp.echoInterval, seconds(5));
  EXPECT_EQ(plan.ppp.echoFailures, 3);
  EXPECT_EQ(plan.ppp.authProtocols, (Protocols{AuthProtocol::mschap2, AuthProtocol::eap}));
  EXPECT_FALSE(plan.ppp.peerDNS);
  EXPECT_FALSE(plan.carriesEverything);
  EXPECT_EQ(plan.pppDeadline, milliseconds(7000));
  settings.ppp.domains = {"corp.example"};
  EXPECT_EQ(planOf({}, "L2TP", settings).domains, std::vector<std::string>{"corp.example"});
  settings.ppp.debug = false;
  EXPECT_FALSE(planOf({{"VerboseLogging", 1}}, "L2TP", settings).ppp.trace);
  settings.ppp.debug = true;
  EXPECT_TRUE(planOf({}, "L2TP", settings).ppp.trace);
  EXPECT_FALSE(planOf({}, "L2TP", settings).ppp.verbose);
  settings.ppp.dns = true;
  settings.ppp.defaultRoute = true;
  EXPECT_TRUE(planOf({{"IPCPUsePeerDNS", 0}}, "L2TP", settings).ppp.peerDNS);
  EXPECT_TRUE(planOf({}, "L2TP", settings).carriesEverything);
}

TEST(LinkPlan, CarriesEverythingAndRefusesIPv6MeanwhileUnlessTheMachineSaysOtherwise) {
  EngineSettings settings;
  RoutePlan routes = planOf({}, "PPTP", settings).routes;
  EXPECT_EQ(routes.networks, std::vector<IPv4Network>{IPv4Network{}});
  EXPECT_TRUE(routes.refuseIPv6);
  EXPECT_TRUE(routes.localNetworks);
  settings.ppp.ipv6 = EngineSettings::IPv6::leave;
  settings.ppp.localNetworks = false;
  routes = planOf({}, "PPTP", settings).routes;
  EXPECT_FALSE(routes.refuseIPv6);
  EXPECT_FALSE(routes.localNetworks);
}

TEST(LinkPlan, CarriesNetworksInsteadOfEverything) {
  EngineSettings settings;
  settings.ppp.routes = {"10.0.0.0/8"};
  settings.ppp.defaultRoute = true;
  const LinkPlan plan = planOf({}, "PPTP", settings);
  EXPECT_FALSE(plan.carriesEverything);
  EXPECT_EQ(plan.routes.networks, std::vector<IPv4Network>{networkFrom("10.0.0.0/8").value()});
  EXPECT_FALSE(plan.routes.refuseIPv6);
  EXPECT_NE(plan.description().find("carries its own network and 10.0.0.0/8,"), std::string::npos);
}

TEST(LinkPlan, CarriesNothingButItsOwnNetworkWhereNothingElseIsSaid) {
  EngineSettings settings;
  settings.ppp.defaultRoute = false;
  const RoutePlan routes = planOf({}, "PPTP", settings).routes;
  EXPECT_TRUE(routes.networks.empty());
  EXPECT_FALSE(routes.refuseIPv6);
}

TEST(LinkPlan, TheTunnelsSettingsTravelAlong) {
  EngineSettings settings;
  settings.ike.remoteIdentity = "10.0.0.1";
  settings.l2tp.sourcePort = EngineSettings::SourcePort::any;
  settings.pptp.deadline = milliseconds(1234);
  const LinkPlan plan = planOf({}, "L2TP", settings);
  EXPECT_EQ(plan.ike.remoteIdentity, "10.0.0.1");
  EXPECT_EQ(plan.l2tp.sourcePort, EngineSettings::SourcePort::any);
  EXPECT_EQ(plan.pptp.deadline, milliseconds(1234));
}

TEST(LinkPlan, TheMachineDecidesOnPPTPsEncryption) {
  EngineSettings settings;
  settings.pptp.mppe = EngineSettings::MPPE::require128;
  EXPECT_EQ(planOf({}, "PPTP", settings).ppp.mppe, MPPE::only128);
  EXPECT_FALSE(planOf({}, "PPTP", settings).isInClear());
  EXPECT_EQ(planOf({}, "L2TP", settings).ppp.mppe, MPPE::none);
  settings.pptp.mppe = EngineSettings::MPPE::none;
  EXPECT_EQ(planOf({{"CCPEnabled", 1}}, "PPTP", settings).ppp.mppe, MPPE::none);
  EXPECT_TRUE(planOf({{"CCPEnabled", 1}}, "PPTP", settings).isInClear());
  EXPECT_FALSE(planOf({}, "L2TP", settings).isInClear()) << "IPSec encrypts it";
}

TEST(LinkPlan, DescribesItselfWithoutSecrets) {
  const std::string text =
      planOf({{"AuthName", "alice"}, {"AuthPassword", "ITEM"}, {"CommRemoteAddress", "vpn.example.org"}}).description();
  EXPECT_EQ(
      text,
      "PPTP to vpn.example.org, account alice, authentication PAP CHAP MSCHAP1 MSCHAP2, MPPE none, MTU 1448 bytes, "
      "MRU 1500 bytes, carries everything and no IPv6, asks for name servers, within 70000 ms");
}

}  // namespace
