#include "companions/doctor/OthersCheck.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "companions/doctor/FindingList.h"
#include "linux/FolderPaths.h"

namespace companions {

namespace fs = std::filesystem;

namespace {

constexpr std::uint8_t kOurs = 118;           // who has made a rule: vpnctl
constexpr std::uint32_t kLastOfVPNs = 32765;  // behind that stand the machine's own

bool isNumber(const std::string &text) {
  return std::ranges::all_of(
      text, [](unsigned char c) { return std::isdigit(c) != 0; });
}

void lookForDaemons(const std::string &proc, FindingList &found) {
  std::error_code ignored;
  auto paths = linux::pathsIn(proc, ignored);
  std::ranges::sort(paths);
  for (const std::string &path : paths) {
    const std::string number = fs::path(path).filename();
    if (!isNumber(number)) continue;
    std::string name;
    std::getline(std::ifstream(path + "/comm"), name);
    if (name == "charon" || name == "charon-systemd" || name == "pluto")
      found.hinders("others.ike", "Another program speaks IKE here: " + name + " (process " + number + ").",
                    "Both may run at the same time; but where it is connected to the same server, that may end one of "
                    "the two connections for the other.",
                    "end its connection to the same server, if there is one, before vpnctl connects");
  }
  found.fine("others.ike", "No other program speaks IKE here.");
}

std::string plural(std::size_t count, const std::string &thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

void lookAtPolicies(const NetworkState &state, FindingList &found) {
  if (!state.policies)
    found.unseen("others.policies", "Whether the kernel has another VPN's IPSec policies cannot be seen.",
                 "What they match would go that VPN's way.", "run vpnctl-doctor as root");
  else if (*state.policies > 0)
    found.hinders("others.policies",
                  "The kernel has IPSec policies of another program: " + plural(*state.policies, "outgoing one") + ".",
                  "What they match goes that program's way, or nowhere, instead of through the connection.",
                  "ip xfrm policy shows what they match; end that program's connection if it is the same networks");
  found.fine("others.policies", "The kernel has no IPSec policies.");
}

void lookAtRules(const NetworkState &state, FindingList &found) {
  for (const NetworkState::Rule &rule : state.rules) {
    if (rule.maker == kOurs || rule.table == RT_TABLE_LOCAL) continue;
    const std::string table = std::to_string(rule.table);
    if (rule.preference == 0)
      found.hinders("others.rules", "A routing rule of somebody else stands first: it leads into table " + table + ".",
                    "vpnctl's stand behind it: what it matches goes past the connection.",
                    "ip rule add the same with another pref, then ip rule del pref 0 lookup " + table);
    else if (rule.hasMark && rule.isInverted && rule.preference <= kLastOfVPNs)
      found.hinders(
          "others.tunnel",
          "Another VPN carries all that this machine sends: the rule " + std::to_string(rule.preference) +
              " leads into table " + table + ".",
          "The way to the server leads through it: packets have to be smaller, and the connection ends with it.",
          "end it if the server does not answer; wg-quick down does that for WireGuard");
  }
  found.fine("others.rules", "Nobody's routing rules stand before those of a connection.");
}

void lookAtHalves(const NetworkState &state, FindingList &found) {
  for (const NetworkState::Half &half : state.halves)
    found.hinders("others.tunnel",
                  "Another VPN carries half the world: " + half.destination + " goes to " + half.interface + ".",
                  "The way to the server may lead through it: packets have to be smaller, and the connection ends with "
                  "it.",
                  "end it if the server does not answer");
  found.fine("others.tunnel", "No other VPN carries all that this machine sends.");
}

}  // namespace

Findings OthersCheck::look(const Situation &situation) { return look(situation, NetworkState::read()); }

Findings OthersCheck::look(const Situation &situation, const vpnctl::Result<NetworkState> &state) {
  FindingList found;
  if (situation.concerns("l2tp")) lookForDaemons(situation.machine.proc, found);
  if (!state) {
    found.unseen("others.rules", "This machine's routes cannot be seen: " + state.error().message + ".",
                 "Another VPN's may stand before those of a connection.", "");
    return found.take();
  }
  lookAtPolicies(*state, found);
  lookAtRules(*state, found);
  lookAtHalves(*state, found);
  return found.take();
}

}  // namespace companions
