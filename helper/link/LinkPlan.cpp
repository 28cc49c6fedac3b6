#include "helper/link/LinkPlan.h"

#include <array>
#include <string_view>
#include <utility>

#include "helper/link/TunnelKinds.h"

namespace helper {

using vpnctl::Value;

namespace {

constexpr std::array<std::pair<std::string_view, AuthProtocol>, 5> kAuthProtocols{{{"PAP", AuthProtocol::pap},
                                                                                   {"CHAP", AuthProtocol::chap},
                                                                                   {"MSCHAP1", AuthProtocol::mschap1},
                                                                                   {"MSCHAP2", AuthProtocol::mschap2},
                                                                                   {"EAP", AuthProtocol::eap}}};

// An entity's entries with those of the start options laid over them.
Value entity(const Value &service, const Value &startOptions, const char *name) {
  Value entries = service[name];
  for (const auto &[key, entry] : startOptions[name].dictionary()) entries.set(key, entry);
  return entries;
}

bool flag(const Value &entries, const char *key, bool missing) {
  const Value *value = entries.find(key);
  return value == nullptr ? missing : value->boolValue();
}

struct Range {
  int lowest;
  int highest;
};

// What the machine says, else what the service says, else FALLBACK; the service's numbers only if they are in RANGE.
int number(const std::optional<int> &machine, const Value &entries, const char *key, Range range, int fallback) {
  if (machine) return *machine;
  const std::int64_t value = entries[key].integerValue();
  return entries.find(key) != nullptr && value >= range.lowest && value <= range.highest ? static_cast<int>(value)
                                                                                         : fallback;
}

MPPE mppeOf(const Value &ppp, EngineSettings::MPPE machine) {
  switch (machine) {
    case EngineSettings::MPPE::require128:
      return MPPE::only128;
    case EngineSettings::MPPE::none:
      return MPPE::none;
    case EngineSettings::MPPE::service:
      break;
  }
  const bool weak = flag(ppp, "CCPMPPE40Enabled", true);
  const bool strong = flag(ppp, "CCPMPPE128Enabled", true);
  if (!flag(ppp, "CCPEnabled", false) || !(weak || strong)) return MPPE::none;
  if (weak && strong) return MPPE::any;
  return strong ? MPPE::only128 : MPPE::only40;
}

std::set<AuthProtocol> authProtocolsOf(const Value &ppp, const std::vector<std::string> &machine, MPPE mppe) {
  std::set<std::string> names(machine.begin(), machine.end());
  if (machine.empty())
    for (const Value &name : ppp["AuthProtocol"].array()) names.insert(name.string());
  if (names.empty()) {
    // The keys of MPPE come from MS-CHAP's exchange; no other protocol makes any.
    if (mppe != MPPE::none) return {AuthProtocol::mschap1, AuthProtocol::mschap2};
    return {AuthProtocol::pap, AuthProtocol::chap, AuthProtocol::mschap1, AuthProtocol::mschap2};
  }
  std::set<AuthProtocol> protocols;
  for (const auto &[name, protocol] : kAuthProtocols)
    if (names.contains(std::string(name))) protocols.insert(protocol);
  return protocols;
}

PPPPlan pppPlan(const Value &ppp, const TunnelKindRow &kind, const EngineSettings &settings) {
  const EngineSettings::PPP &machine = settings.ppp;
  const bool echoes = flag(ppp, "LCPEchoEnabled", true);
  const std::int64_t idle = ppp["DisconnectOnIdleTimer"].integerValue();
  const bool idles = flag(ppp, "DisconnectOnIdle", false) && idle > 0 && idle <= 1000000;
  PPPPlan plan;
  plan.account = ppp["AuthName"].string();
  plan.passwordItem = ppp["AuthPassword"].string();
  // Over IPSec the packets are encrypted already.
  if (!kind.needsIPSec) plan.mppe = mppeOf(ppp, settings.pptp.mppe);
  plan.authProtocols = authProtocolsOf(ppp, machine.authProtocols, plan.mppe);
  plan.mtu = number(machine.mtu, ppp, "LCPMTU", {128, 16384}, kind.mtu);
  plan.mru = number(machine.mru, ppp, "LCPMRU", {128, 16384}, 1500);
  plan.echoInterval =
      std::chrono::seconds(echoes ? number(machine.echoInterval, ppp, "LCPEchoInterval", {1, 3600}, 20) : 0);
  plan.echoFailures = echoes ? number(machine.echoFailures, ppp, "LCPEchoFailure", {1, 1000}, 15) : 0;
  plan.peerDNS = machine.dns.value_or(flag(ppp, "IPCPUsePeerDNS", true));
  plan.compressProtocolField = flag(ppp, "LCPCompressionPField", false);
  plan.compressAddressAndControlField = flag(ppp, "LCPCompressionACField", false);
  plan.compressTCPHeaders = flag(ppp, "IPCPCompressionVJ", false);
  plan.idleLimit = std::chrono::seconds(idles ? idle : 0);
  plan.verbose = flag(ppp, "VerboseLogging", false);
  plan.trace = machine.debug.value_or(plan.verbose);
  return plan;
}

RoutePlan routePlan(bool carriesEverything, const EngineSettings::PPP &machine) {
  RoutePlan plan;
  if (carriesEverything) plan.networks.push_back({});
  for (const std::string &network : machine.routes) plan.networks.push_back(networkFrom(network).value());
  plan.refuseIPv6 = carriesEverything && machine.ipv6 == EngineSettings::IPv6::refuse;
  plan.localNetworks = machine.localNetworks.value_or(true);
  return plan;
}

std::string carriedBy(const LinkPlan &plan) {
  if (plan.carriesEverything) return plan.routes.refuseIPv6 ? "everything and no IPv6" : "everything but IPv6";
  std::string networks = "its own network";
  for (const IPv4Network &network : plan.routes.networks) networks += " and " + textOf(network);
  return networks;
}

std::string nameOf(MPPE mppe) {
  switch (mppe) {
    case MPPE::none:
      return "none";
    case MPPE::any:
      return "40 or 128 bits";
    case MPPE::only40:
      return "40 bits";
    case MPPE::only128:
      return "128 bits";
  }
  return {};
}

std::string namesOf(const std::set<AuthProtocol> &protocols) {
  std::string names;
  for (const auto &[name, protocol] : kAuthProtocols)
    if (protocols.contains(protocol)) names.append(names.empty() ? "" : " ").append(name);
  return names;
}

}  // namespace

vpnctl::Result<LinkPlan> LinkPlan::make(const Value &root, const LinkRequest &request, const EngineSettings &settings) {
  const auto &[serviceID, startOptions, user, process] = request;
  const Value *service = root["NetworkServices"].find(serviceID);
  if (service == nullptr) return vpnctl::Error{"Link", 0, "there is no network service " + serviceID};
  const Value &interface = (*service)["Interface"];
  if (!service->isDictionary() || interface["Type"].string() != "PPP" || !interface["SubType"].isString())
    return vpnctl::Error{"Link", 0, "the network service " + serviceID + " is no PPP service"};
  const TunnelKindRow *kind = tunnelKindCalled(interface["SubType"].string());
  if (kind == nullptr)
    return vpnctl::Error{"Link", 0, "tunnels of the kind \"" + interface["SubType"].string() + "\" are not supported"};
  if (const auto allowed = checkStartOptions(*service, startOptions); !allowed) return allowed.error();
  const Value ppp = entity(*service, startOptions, "PPP");
  const Value ipv4 = entity(*service, startOptions, "IPv4");
  LinkPlan plan;
  plan.serviceID = serviceID;
  plan.kind = kind->kind;
  plan.server = ppp["CommRemoteAddress"].string();
  if (kind->needsIPSec) plan.sharedSecretItem = (*service)["IPSec"]["SharedSecret"].string();
  plan.secretUse = SecretUse::of(*service, user);
  plan.ppp = pppPlan(ppp, *kind, settings);
  plan.carriesEverything =
      settings.ppp.routes.empty() && settings.ppp.defaultRoute.value_or(ipv4["OverridePrimary"].boolValue());
  plan.routes = routePlan(plan.carriesEverything, settings.ppp);
  plan.domains = settings.ppp.domains;
  plan.pptp = settings.pptp;
  plan.l2tp = settings.l2tp;
  plan.ike = settings.ike;
  plan.pppDeadline = settings.ppp.deadline;
  plan.endsWithSessionOf = flag(ppp, "DisconnectOnLogout", true) ? process : 0;
  return plan;
}

bool LinkPlan::isInClear() const { return !tunnelKind(kind).needsIPSec && pptp.mppe == EngineSettings::MPPE::none; }

std::string LinkPlan::description() const {
  const auto bytes = [](int count) { return std::to_string(count) + " bytes"; };
  return std::string(tunnelKind(kind).name) + " to " + server + ", account " + ppp.account + ", authentication " +
         namesOf(ppp.authProtocols) + ", MPPE " + nameOf(ppp.mppe) + ", MTU " + bytes(ppp.mtu) + ", MRU " +
         bytes(ppp.mru) + ", carries " + carriedBy(*this) + ", " +
         (ppp.peerDNS ? "asks for name servers" : "asks for no name servers") + ", within " +
         std::to_string((tunnelKind(kind).deadline(*this) + pppDeadline).count()) + " ms";
}

}  // namespace helper
