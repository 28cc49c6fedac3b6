#include "helper/ppp/PPPOptions.h"

#include <array>
#include <utility>

namespace helper {

namespace {

using Words = std::vector<std::string>;

// What is the same on every link. Everything that /etc/ppp/options (which pppd always reads) could turn against us is
// said explicitly, also where our wish is pppd's default.
const Words &always() {
  static const Words kWords{
      // `show-password` would write it into the log; `ktune` would change the kernel's settings for everybody.
      "nodetach", "nopersist", "maxfail", "1", "maxconnect", "0", "hide-password", "noktune",
      // The server need not authenticate itself. `require-*` would demand just that.
      "noauth", "noipdefault", "ipcp-accept-local", "ipcp-accept-remote", "noipv6",
      // Routes are ours to set and to take back.
      "nodefaultroute", "noreplacedefaultroute", "noproxyarp",
      // The first packet may come before the server's end listens; pppd's three seconds are long to wait for the next.
      "lcp-restart", "1", "lcp-max-configure", "10", "ipcp-restart", "1"};
  return kWords;
}

Words refusals(const std::set<AuthProtocol> &allowed) {
  static constexpr std::array<std::pair<AuthProtocol, const char *>, 5> kRefusals{
      {{AuthProtocol::pap, "refuse-pap"},
       {AuthProtocol::chap, "refuse-chap"},
       {AuthProtocol::mschap1, "refuse-mschap"},
       {AuthProtocol::mschap2, "refuse-mschap-v2"},
       {AuthProtocol::eap, "refuse-eap"}}};
  Words words;
  for (const auto &[protocol, refusal] : kRefusals)
    if (!allowed.contains(protocol)) words.emplace_back(refusal);
  return words;
}

// pppd knows no "if the server likes": with encryption asked for, a link in clear is not what was asked for.
Words encryption(MPPE mppe) {
  switch (mppe) {
    case MPPE::none:
      return {"noccp"};
    case MPPE::any:
      return {"nomppe-stateful", "nobsdcomp", "nodeflate", "require-mppe"};
    case MPPE::only40:
      return {"nomppe-stateful", "nobsdcomp", "nodeflate", "require-mppe-40"};
    case MPPE::only128:
      return {"nomppe-stateful", "nobsdcomp", "nodeflate", "require-mppe-128"};
  }
  return {};
}

}  // namespace

Words pppOptions(const PPPPlan &plan, const PPPPaths &paths) {
  // The plugin goes first: only then its own options mean something, and those of terminals no longer do.
  Words words{"plugin", paths.plugin};
  const auto append = [&words](const Words &more) { words.insert(words.end(), more.begin(), more.end()); };
  append(always());
  // One word, whatever is in it: blanks and backslashes arrive as they are.
  append({"user", plan.account});
  append(refusals(plan.authProtocols));
  append(encryption(plan.mppe));
  append({"mru", std::to_string(plan.mru), "mtu", std::to_string(plan.mtu)});
  append({"lcp-echo-interval", std::to_string(plan.echoInterval.count())});
  append({"lcp-echo-failure", std::to_string(plan.echoFailures)});
  append({"idle", std::to_string(plan.idleLimit.count())});
  if (plan.peerDNS) append({"vpnctl-peer-dns"});
  if (!plan.compressProtocolField) append({"nopcomp"});
  if (!plan.compressAddressAndControlField) append({"noaccomp"});
  if (!plan.compressTCPHeaders) append({"novj"});
  if (plan.trace) append({"debug"});
  // The distribution's scripts would change routes and name servers behind our back.
  // 2 is what PPPDaemon reads.
  append(
      {"logfd", "2", "ip-up-script", paths.noScript, "ip-down-script", paths.noScript, "vpnctl-socket", paths.socket});
  return words;
}

}  // namespace helper
