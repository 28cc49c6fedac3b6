// What a server's probes find, a line each, for the laboratory: probe_report SERVER.

#include <cstdio>
#include <string>

#include "companions/probe/IKEProbe.h"
#include "companions/probe/PPPMTU.h"
#include "companions/probe/PPTPProbe.h"
#include "companions/probe/PathMTU.h"
#include "companions/probe/ServerAddress.h"
#include "companions/probe/ServerRoute.h"
#include "helper/common/IPv4Address.h"

using namespace companions;
using helper::isakmp::ServerPort;

namespace {

void say(const std::string &what, const std::string &found) { std::printf("%s: %s\n", what.c_str(), found.c_str()); }

std::string text(const std::optional<in_addr> &address) { return address ? helper::textOf(*address) : "none"; }

template <class Kind, std::size_t Count>
std::string word(Kind kind, const char *const (&words)[Count]) {
  return words[static_cast<std::size_t>(kind)];
}

int tellRoute(in_addr server) {
  const ServerRoute route = ServerRoute::to(server);
  say("route", word(route.kind, {"way", "own address", "none", "unreachable", "blackhole", "prohibited", "unknown"}) +
                   " gateway " + text(route.gateway) + " mtu " + std::to_string(route.mtu()));
  return route.mtu();
}

void tellPPTP(in_addr server) {
  const sockaddr_in address{
      .sin_family = AF_INET, .sin_port = htons(PPTPProbe::kPort), .sin_addr = server, .sin_zero = {}};
  const PPTPFinding finding = PPTPProbe::ask(address, {.withCall = true});
  say("pptp", word(finding.contact, {"connected", "refused", "nothing", "unreachable", "failed"}) +
                  (finding.icmp ? " " + finding.icmp->text() + " from " + text(finding.icmp->from) : ""));
  if (finding.started()) say("pptp host", finding.start->hostName + ", vendor " + finding.start->vendor);
  if (finding.contact == PPTPFinding::Contact::connected)
    say("pptp call", std::string(finding.tookCall() ? "taken" : "not taken " + finding.fault) + ", packets " +
                         word(finding.packets, {"not asked", "arrived", "none", "not allowed"}) +
                         (finding.saidGoodbye ? ", goodbye" : ""));
}

void tellIKE(in_addr server, Pace &pace) {
  IKEProbe probe(pace, {});
  const auto offers = helper::isakmp::defaultIKEProposals();
  for (const ServerPort port : {ServerPort::ike, ServerPort::natTraversal}) {
    const IKEFinding finding = probe.ask(IKEEnd::of(server, port), offers);
    std::string found = word(finding.kind, {"nothing", "unreachable", "accepted", "refused", "strange", "failed"});
    if (finding.icmp) found += " " + finding.icmp->text() + " from " + text(finding.icmp->from);
    if (finding.answer.chosen) found += " " + finding.answer.chosen->text();
    for (const std::string &vendor : finding.answer.vendors) found += ", " + vendor;
    say("ike " + std::to_string(static_cast<int>(port)), found + finding.answer.notification + finding.answer.detail);
  }
  for (const ProposalFinding &each : probe.taken(IKEEnd::of(server, ServerPort::ike), offers).proposals)
    say(each.proposal.text(), word(each.kind, {"not asked", "taken", "refused", "strange", "no answer"}) +
                                  (each.detail.empty() ? "" : " " + each.detail));
}

void tellMTU(const std::string &how, const PathMTU &found) {
  say(how, word(found.method, {"none", "echo", "ike"}) + " " + std::to_string(found.bytes) + " said by " +
               text(found.saidBy) + (found.reason.empty() ? "" : ", " + found.reason));
  if (found.bytes == 0) return;
  for (const auto protocol : {TunnelForm::Protocol::pptp, TunnelForm::Protocol::l2tp}) {
    const auto smaller = smallerPPPMTU({.protocol = protocol}, found.bytes);
    say(how + (protocol == TunnelForm::Protocol::pptp ? " over pptp" : " over l2tp"),
        smaller ? std::to_string(*smaller) : "as usual");
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) return 64;
  const ServerAddress address = ServerAddress::find(argv[1]);
  if (address.addresses.empty()) {
    say("address", address.reason);
    return 1;
  }
  const in_addr server = address.addresses.front();
  say("address", text(server));
  const int mtu = tellRoute(server);
  tellPPTP(server);
  Pace pace;
  tellIKE(server, pace);
  tellMTU("mtu", PathMTU::findByEcho(server, mtu, pace, {}));
  tellMTU("mtu by ike", PathMTU::findByIKE(IKEEnd::of(server, ServerPort::ike), mtu, pace, {}));
  return 0;
}
