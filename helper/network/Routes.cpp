#include "helper/network/Routes.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace helper {

using vpnctl::Status;
using Kind = PolicyRule::Kind;

JournalledRoutes::JournalledRoutes(Routing &routing, Journal &journal, RoutePlan plan)
    : routing_(routing), journal_(journal), plan_(std::move(plan)), table_(Routing::kFirstTable + journal.number()) {}

Status JournalledRoutes::keepWay(in_addr server) {
  const PolicyRule way{.kind = Kind::wayToServer, .server = server, .table = table_};
  const auto earlier = std::ranges::find(rules_, Kind::wayToServer, &PolicyRule::kind);
  if (earlier == rules_.end()) return add({PolicyRule{.kind = Kind::end, .table = table_}, way});
  if (Status removed = routing_.remove(*earlier); !removed) return removed;
  rules_.erase(earlier);
  return add({way});
}

Status JournalledRoutes::keepServerOff(const std::string &interface, in_addr server) {
  return routing_.detach(server, interface);
}

std::optional<IPv4Network> JournalledRoutes::networkAround(in_addr address, const std::string &interface) {
  const auto networks = routing_.networks(interface);
  if (!networks) return std::nullopt;  // whoever cannot be asked is accused of nothing
  const auto around = std::ranges::find_if(*networks, [=](const IPv4Network &each) { return contains(each, address); });
  return around == networks->end() ? std::nullopt : std::optional(*around);
}

Status JournalledRoutes::carry(const std::string &interface) {
  interface_ = interface;
  if (plan_.networks.empty()) return {};
  if (filled_) return lead();
  if (Status filled = fillTable(); !filled) return filled;
  std::vector<PolicyRule> rules;
  for (const bool ipv6 : {false, true}) {
    if (ipv6 && !plan_.refuseIPv6) continue;
    // IPv6 is what it always was on the machine's own networks: without neighbours and routers there is no network.
    if (plan_.localNetworks || ipv6) rules.push_back({.kind = Kind::localNetworks, .ipv6 = ipv6});
    rules.push_back({.kind = Kind::ownTable, .ipv6 = ipv6, .table = table_});
  }
  Status added = add(rules);
  filled_ = static_cast<bool>(added);
  return added;
}

Status JournalledRoutes::fillTable() {
  const FilledTable table{table_, plan_.networks};
  if (Status noted = journal_.note(table); !noted) return noted;
  Status filled = refuse();
  if (filled) filled = lead();
  return filled;
}

Status JournalledRoutes::refuse() {
  for (const IPv4Network &network : plan_.networks)
    if (Status refused = routing_.refuse(table_, network); !refused) return refused;
  return plan_.refuseIPv6 ? routing_.refuseIPv6(table_) : Status();
}

Status JournalledRoutes::lead() {
  for (const IPv4Network &network : plan_.networks) {
    Status led = routing_.lead(table_, network, interface_);
    // Down again already: PPP negotiates anew, and says so when it stands.
    if (!led && led.error().code == ENETDOWN) return {};
    if (!led) return led;
  }
  return {};
}

Status JournalledRoutes::add(const std::vector<PolicyRule> &rules) {
  if (Status noted = journal_.note(AddedRules{rules}); !noted) return noted;
  for (auto rule = rules.begin(); rule != rules.end(); ++rule) {
    if (Status added = routing_.add(*rule); !added) {
      // What is not there must not be taken away: another link may have one that is alike.
      static_cast<void>(journal_.forgetLast());
      static_cast<void>(journal_.note(AddedRules{{rules.begin(), rule}}));
      return added;
    }
    rules_.push_back(*rule);
  }
  if (Status moved = tablesBehind(false); !moved) return moved;
  // A kernel without IPv6 has no rules for it.
  const auto there = routing_.rules();
  if (!there) return there.error();
  std::erase_if(rules_, [&](const PolicyRule &rule) { return std::ranges::find(*there, rule) == there->end(); });
  return {};
}

// Rules come in the order in which they were added. The tables of other links move behind ours, the newest first, and
// behind the way to our server: what is moved stands twice for a moment, never not at all. Other links may do the same
// meanwhile: each looks after it has added its own, so that what comes later was either seen or stands behind.
Status JournalledRoutes::tablesBehind(bool ours) {
  auto rules = routing_.rules();
  if (!rules) return rules.error();
  std::erase_if(*rules,
                [&](const PolicyRule &rule) { return rule.kind != Kind::ownTable || (rule.table == table_ && !ours); });
  std::ranges::stable_sort(*rules, std::ranges::greater(), &PolicyRule::table);
  for (const PolicyRule &rule : *rules) {
    if (Status added = routing_.add(rule); !added) return added;
    if (Status removed = routing_.remove(rule); !removed) return removed;
  }
  return {};
}

vpnctl::Result<bool> JournalledRoutes::putBack() {
  const auto there = routing_.rules();
  if (!there) return there.error();
  bool missing = false;
  for (const PolicyRule &rule : rules_) {
    if (std::ranges::find(*there, rule) != there->end()) continue;
    if (Status added = routing_.add(rule); !added) return added.error();
    missing = true;
  }
  if (filled_) {
    if (Status refused = refuse(); !refused) return refused.error();
    if (Status led = lead(); !led && led.error().code != ENODEV) return led.error();
  }
  if (missing)
    if (Status moved = tablesBehind(true); !moved) return moved.error();
  return missing;
}

}  // namespace helper
