#include "helper/ppp/PPPOptions.h"

#include <array>
#include <optional>
#include <set>
#include <variant>

namespace helper {

using foundation::Value;

namespace {

using Words = std::vector<std::string>;

// A row of the table. Everything that /etc/ppp/options (which pppd always reads) could turn against us is said
// explicitly, also where our wish is pppd's default.
struct Always {
  Words words;
};
struct Number {
  const char *key;
  const char *option;
  int pptp;  // the value when the dictionary has none
  int l2tp;
  int lowest;
  int highest;
};
struct Switch {
  const char *key;
  bool unset;  // what a missing key means
  Words on;
  Words off;
};
struct Gate {
  const char *key;  // the number counts only while this is true; otherwise the option is 0
  bool unset;
  Number number;
};
struct Computed {
  Words (*words)(const Value &ppp, const PPPSurroundings &surroundings);
};
using Row = std::variant<Always, Number, Switch, Gate, Computed>;

bool flag(const Value &ppp, const char *key, bool unset) {
  const Value *value = ppp.find(key);
  return value == nullptr ? unset : value->boolValue();
}

Words user(const Value &ppp, const PPPSurroundings &) {
  // One word, whatever is in it: blanks and backslashes arrive as they are.
  return {"user", ppp["AuthName"].string()};
}

Words authentication(const Value &ppp, const PPPSurroundings &surroundings) {
  struct Protocol {
    const char *name;
    const char *refusal;
  };
  static constexpr std::array<Protocol, 5> kProtocols{{{"PAP", "refuse-pap"},
                                                       {"CHAP", "refuse-chap"},
                                                       {"MSCHAP1", "refuse-mschap"},
                                                       {"MSCHAP2", "refuse-mschap-v2"},
                                                       {"EAP", "refuse-eap"}}};
  std::set<std::string> allowed;
  for (const Value &protocol : ppp["AuthProtocol"].array()) allowed.insert(protocol.string());
  if (allowed.empty()) {
    // The keys of MPPE come from MS-CHAP's exchange; no other protocol makes any.
    allowed = {"MSCHAP1", "MSCHAP2"};
    if (!wantsMPPE(ppp, surroundings.tunnelType)) allowed.insert({"PAP", "CHAP"});
  }
  Words words;
  for (const Protocol &protocol : kProtocols)
    if (!allowed.contains(protocol.name)) words.emplace_back(protocol.refusal);
  return words;
}

Words compression(const Value &ppp, const PPPSurroundings &surroundings) {
  if (!wantsMPPE(ppp, surroundings.tunnelType)) return {"noccp"};
  // pppd knows no "if the server likes": with CCP switched on, a link in clear is not what was asked for.
  Words words{"nomppe-stateful", "nobsdcomp", "nodeflate"};
  const bool weak = flag(ppp, "CCPMPPE40Enabled", true);
  const bool strong = flag(ppp, "CCPMPPE128Enabled", true);
  words.emplace_back(weak && strong ? "require-mppe" : strong ? "require-mppe-128" : "require-mppe-40");
  return words;
}

Words idle(const Value &ppp, const PPPSurroundings &) {
  const std::int64_t seconds = ppp["DisconnectOnIdleTimer"].integerValue();
  const bool limited = flag(ppp, "DisconnectOnIdle", false) && seconds > 0 && seconds <= 1000000;
  return {"idle", limited ? std::to_string(seconds) : "0"};
}

Words surroundingsOf(const Value &, const PPPSurroundings &surroundings) {
  // The distribution's scripts would change routes and name servers behind our back.
  return {"logfile",        surroundings.logPath,  "ip-up-script",  surroundings.noScript,
          "ip-down-script", surroundings.noScript, "vpnctl-socket", surroundings.socketPath};
}

const std::vector<Row> &table() {
  static const std::vector<Row> kTable{
      // `show-password` would write it into the log; `ktune` would change the kernel's settings for everybody.
      Always{{"nodetach", "nopersist", "maxfail", "1", "maxconnect", "0", "hide-password", "noktune"}},
      Computed{user},
      // `noauth`: the server need not authenticate itself. `require-*` would demand just that.
      Always{{"noauth"}},
      Computed{authentication},
      Always{{"noipdefault", "ipcp-accept-local", "ipcp-accept-remote", "noipv6"}},
      // Routes are ours to set and to take back.
      Always{{"nodefaultroute", "noreplacedefaultroute", "noproxyarp"}},
      Switch{"IPCPUsePeerDNS", true, {"vpnctl-peer-dns"}, {}},
      Switch{"LCPCompressionPField", false, {}, {"nopcomp"}},
      Switch{"LCPCompressionACField", false, {}, {"noaccomp"}},
      Switch{"IPCPCompressionVJ", false, {}, {"novj"}},
      Computed{compression},
      Number{"LCPMRU", "mru", 1500, 1500, 128, 16384},
      // L2TP's: with all headers, a NAT between and the longest proof of what we offer, the 1492 bytes that PPPoE
      // carries.
      Number{"LCPMTU", "mtu", 1448, 1400, 128, 16384},
      Gate{"LCPEchoEnabled", true, {"LCPEchoInterval", "lcp-echo-interval", 20, 20, 1, 3600}},
      Gate{"LCPEchoEnabled", true, {"LCPEchoFailure", "lcp-echo-failure", 15, 15, 1, 1000}},
      // The first packet may come before the server's end listens; pppd's three seconds are long to wait for the next.
      Always{{"lcp-restart", "1", "lcp-max-configure", "10", "ipcp-restart", "1"}},
      Computed{idle},
      Switch{"VerboseLogging", false, {"debug"}, {}},
      Computed{surroundingsOf},
  };
  return kTable;
}

void append(Words &words, const Words &more) { words.insert(words.end(), more.begin(), more.end()); }

std::string valueOf(const Number &row, const Value &ppp, const PPPSurroundings &surroundings) {
  const Value *value = ppp.find(row.key);
  if (value != nullptr) {
    const std::int64_t number = value->integerValue();
    if (number >= row.lowest && number <= row.highest) return std::to_string(number);
  }
  return std::to_string(surroundings.tunnelType == "L2TP" ? row.l2tp : row.pptp);
}

}  // namespace

bool wantsMPPE(const Value &ppp, const std::string &tunnelType) {
  // Over IPSec the packets are encrypted already.
  return tunnelType == "PPTP" && flag(ppp, "CCPEnabled", false) &&
         (flag(ppp, "CCPMPPE40Enabled", true) || flag(ppp, "CCPMPPE128Enabled", true));
}

std::vector<std::string> pppOptions(const Value &ppp, const PPPSurroundings &surroundings) {
  // The plugin goes first: only then its own options mean something, and those of terminals no longer do.
  Words words{"plugin", surroundings.pluginPath};
  struct Visitor {
    const Value &ppp;
    const PPPSurroundings &surroundings;
    Words &words;
    void operator()(const Always &row) const { append(words, row.words); }
    void operator()(const Number &row) const { append(words, {row.option, valueOf(row, ppp, surroundings)}); }
    void operator()(const Switch &row) const { append(words, flag(ppp, row.key, row.unset) ? row.on : row.off); }
    void operator()(const Gate &row) const {
      const bool open = flag(ppp, row.key, row.unset);
      append(words, {row.number.option, open ? valueOf(row.number, ppp, surroundings) : "0"});
    }
    void operator()(const Computed &row) const { append(words, row.words(ppp, surroundings)); }
  };
  for (const Row &row : table()) std::visit(Visitor{ppp, surroundings, words}, row);
  return words;
}

}  // namespace helper
