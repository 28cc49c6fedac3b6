#include "companions/doctor/ServerCheck.h"

#include <string>

#include "companions/doctor/FindingList.h"
#include "companions/probe/PPPMTU.h"
#include "helper/common/IPv4Address.h"
#include "helper/isakmp/Proposals.h"

namespace companions {

namespace {

using helper::textOf;

std::vector<helper::isakmp::IKEProposal> ikeProposals(const helper::EngineSettings::IKE &settings) {
  if (settings.proposals.empty()) return helper::isakmp::defaultIKEProposals();
  auto named = helper::isakmp::parseIKEProposals(settings.proposals);
  return named ? *named : helper::isakmp::defaultIKEProposals();
}

std::vector<helper::isakmp::ESPProposal> espProposals(const helper::EngineSettings::IKE &settings) {
  if (settings.espProposals.empty()) return helper::isakmp::defaultESPProposals();
  auto named = helper::isakmp::parseESPProposals(settings.espProposals);
  return named ? *named : helper::isakmp::defaultESPProposals();
}

// For the remedy: where a setting for this server alone is written.
std::string settingsFile(const Situation &situation) {
  return std::string(helper::EngineSettings::kFolder) + "/engine.d/" + situation.server() + ".conf";
}

void tellRoute(const ServerRoute &route, const std::string &server, FindingList &found) {
  using Kind = ServerRoute::Kind;
  const char *no = "No packet reaches the server.";
  const std::string look = "ip route get " + server;
  switch (route.kind) {
    case Kind::way:
      if (route.link == ServerRoute::Link::tunnel)
        found.hinders("server.route", "The way to " + server + " goes through the tunnel " + route.interface + ".",
                      "The connection lasts no longer than that tunnel, and its packets must be smaller.",
                      "end the other VPN, or leave it so if it is meant to be");
      return found.fine("server.route", "The way to " + server + " goes over " + route.interface + ".");
    case Kind::ownAddress:
      return found.prevents("server.route", server + " is an address of this machine.",
                            "A connection to oneself leads nowhere.", "write the server's address into ip");
    case Kind::none:
      return found.prevents("server.route", "No route leads to " + server + ".", no, look);
    case Kind::unreachable:
    case Kind::blackhole:
    case Kind::prohibited:
      return found.prevents("server.route", "A route of this machine refuses packets to " + server + ".", no, look);
    case Kind::unknown:
      return found.unseen("server.route", "The way to " + server + " could not be seen: " + route.reason + ".", no,
                          look);
  }
}

// A sentence part: why there was no contact.
std::string silence(const std::optional<ICMPReport> &icmp, const std::string &reason) {
  if (icmp) return textOf(icmp->from) + " reports: " + icmp->text();
  return reason.empty() ? "nothing came back" : reason;
}

void tellGRE(const PPTPFinding &pptp, FindingList &found) {
  using Packets = PPTPFinding::Packets;
  constexpr char kWhy[] = "PPTP carries everything in GRE (IP protocol 47).";
  if (pptp.packets == Packets::none)
    found.prevents("server.gre", "The server took a call, and none of its GRE packets came back.", kWhy,
                   "let IP protocol 47 through the firewalls on the way, and have routers with NAT pass PPTP");
  else if (pptp.packets == Packets::arrived)
    found.fine("server.gre", "GRE packets come back.");
  else if (pptp.started())
    found.unseen("server.gre", "Whether GRE packets come back was not seen.", kWhy,
                 "run vpnctl-doctor as root, which may listen for them");
}

void tellPPTP(const PPTPFinding &pptp, FindingList &found) {
  if (pptp.contact != PPTPFinding::Contact::connected)
    return found.prevents("server.pptp",
                          "TCP port 1723 of the server does not answer: " +
                              (pptp.contact == PPTPFinding::Contact::refused ? "it refuses the connection"
                                                                             : silence(pptp.icmp, pptp.reason)) +
                              ".",
                          "PPTP begins there.", "ask the server's administrator, or a firewall's on the way");
  if (!pptp.started())
    return found.prevents("server.pptp",
                          "TCP port 1723 of the server answers, but not as a PPTP server: " +
                              (pptp.fault.empty() ? "it refuses to begin" : "it " + pptp.fault) + ".",
                          "PPTP begins there.", "ask the server's administrator");
  if (pptp.call && !pptp.tookCall())
    return found.hinders("server.pptp",
                         "The PPTP server took no call (result " + std::to_string(pptp.call->result) + ").",
                         "It may have no place free.", "try again later");
  const std::string vendor = pptp.start->vendor.empty() ? "" : " (" + pptp.start->vendor + ")";
  found.fine("server.pptp", "A PPTP server answers" + vendor + ".");
  tellGRE(pptp, found);
}

void tellProposals(const Situation &situation, const ProposalFindings &proposals, FindingList &found) {
  using Kind = ProposalFinding::Kind;
  std::string taken;
  std::string others;
  for (const ProposalFinding &proposal : proposals.proposals) {
    std::string &list = proposal.kind == Kind::taken ? taken : others;
    if (proposal.kind != Kind::notAsked) list += (list.empty() ? "" : ", ") + proposal.proposal.text();
  }
  if (!taken.empty()) return found.fine("server.proposals", "The server takes, for IKE: " + taken + ".");
  found.prevents("server.proposals", "The server takes none of what is offered for IKE: " + others + ".",
                 "Without a proposal that both have there is no IPSec.",
                 "ask the server's administrator for one that it takes, and name it in " + settingsFile(situation) +
                     ": ike = { proposals = [\"aes256-sha256-modp2048\"]; };");
}

void tellIKE(const Situation &situation, const ServerAnswers &answers, FindingList &found) {
  const IKEFinding &plain = *answers.ike;
  const IKEFinding &encapsulated = *answers.ikeEncapsulated;
  if (!plain.answered() && !encapsulated.answered())
    return found.prevents("server.ike",
                          "No IKE server answers: UDP port 500: " + silence(plain.icmp, plain.reason) +
                              "; UDP port 4500: " + silence(encapsulated.icmp, encapsulated.reason) + ".",
                          "IPSec begins there, with IKE version 1.",
                          "ask the server's administrator, or a firewall's on the way");
  if (plain.answered() && !encapsulated.answered())
    found.hinders(
        "server.ike",
        "UDP port 500 of the server answers, and 4500 does not: " + silence(encapsulated.icmp, encapsulated.reason) +
            ".",
        "Behind a router with NAT no connection comes about.", "let UDP port 4500 through the firewalls on the way");
  found.fine("server.ike", plain.answered() ? "An IKE server answers on UDP ports 500 and 4500."
                                            : "An IKE server answers on UDP port 4500, which suffices.");
  if (answers.proposals) tellProposals(situation, *answers.proposals, found);
  found.unseen("server.esp", "Whether ESP packets come back shows only in a connection.",
               "Without NAT on the way everything is carried in ESP (IP protocol 50), with NAT in UDP port 4500.",
               "let both through the firewalls on the way");
}

void tellMTU(const Situation &situation, const ServerAnswers &answers, FindingList &found) {
  const PathMTU &path = *answers.mtu;
  if (path.method == PathMTU::Method::none)
    return found.unseen("server.mtu", "How large packets to the server may be was not found out: " + path.reason + ".",
                        "Where they are too large, connections through the tunnel hang.",
                        "if they do, set mtu = 1300; in the group ppp of " + settingsFile(situation));
  const bool isPPTP = !answers.ike;
  const TunnelForm form{.protocol = isPPTP ? TunnelForm::Protocol::pptp : TunnelForm::Protocol::l2tp,
                        .esp = espProposals(situation.settings.ike)};
  const std::string size = std::to_string(path.bytes) + " bytes";
  const int fits = pppMTUFor(form, path.bytes);
  const auto &set = situation.settings.ppp.mtu;
  if (set ? *set > fits : smallerPPPMTU(form, path.bytes).has_value())
    found.hinders("server.mtu",
                  "Packets to the server may have " + size + (path.saidBy ? ", says " + textOf(*path.saidBy) : "") +
                      "; the tunnel's would be larger.",
                  "Connections through the tunnel hang, or are slow.",
                  "write into " + settingsFile(situation) + ": ppp = { mtu = " + std::to_string(fits) + "; };");
  found.fine("server.mtu", "Packets of " + size + " reach the server, which is enough.");
}

}  // namespace

Findings ServerCheck::findingsOf(const Situation &situation, const ServerAnswers &answers) {
  FindingList found;
  if (answers.address.addresses.empty()) {
    found.prevents("server.address", answers.address.reason, "The server is not known.",
                   "check ip in the configuration, and this machine's name servers");
    return found.take();
  }
  const std::string server = textOf(answers.address.addresses.front());
  found.fine("server.address", situation.server() == server ? "The server's address is " + server + "."
                                                            : situation.server() + " is " + server + ".");
  if (answers.route) tellRoute(*answers.route, server, found);
  if (answers.pptp) tellPPTP(*answers.pptp, found);
  if (answers.ike) tellIKE(situation, answers, found);
  if (answers.mtu) tellMTU(situation, answers, found);
  return found.take();
}

Findings ServerCheck::look(const Situation &situation) {
  if (situation.server().empty()) return {};
  return findingsOf(situation, ServerAnswers::ask({.server = situation.server(),
                                                   .pptp = situation.concerns("pptp"),
                                                   .l2tp = situation.concerns("l2tp"),
                                                   .proposals = ikeProposals(situation.settings.ike),
                                                   .mayHearGRE = situation.isRoot()}));
}

}  // namespace companions
