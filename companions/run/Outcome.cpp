#include "companions/run/Outcome.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <csignal>
#include <utility>

namespace companions {

using Kind = Outcome::Kind;

namespace {

struct KindRow {
  Kind kind;
  int status;
  std::string_view name;
  std::string_view sentence;
  bool mayComeRight;
};
constexpr std::array<KindRow, 10> kKinds{{
    {Kind::byRequest, 0, "by-request", "The connection was ended by request.", false},
    {Kind::unknown, 1, "unknown", "The connection ended; what happened cannot be told apart.", true},
    {Kind::configuration, 2, "configuration", "The configuration cannot be used.", false},
    {Kind::authorization, 3, "authorization", "There is no right to change the system's network.", false},
    {Kind::notReached, 4, "not-reached", "The server was not reached.", true},
    {Kind::ipsecRefused, 5, "ipsec-refused", "IPSec was not agreed upon with the server.", true},
    {Kind::callRefused, 6, "call-refused", "The server did not take the call.", true},
    {Kind::accountRefused, 7, "account-refused", "The server refused the account.", false},
    {Kind::notNegotiated, 8, "not-negotiated", "PPP was not agreed upon with the server.", true},
    {Kind::lost, 9, "lost", "The connection was lost.", true},
}};

const KindRow &rowOf(Kind kind) { return *std::ranges::find(kKinds, kind, &KindRow::kind); }

// vpnctl's lines for its phases, and what programs call them.
constexpr std::string_view kConnected = "connected";
constexpr std::string_view kDisconnected = "disconnected";
constexpr std::array<std::pair<std::string_view, std::string_view>, 14> kPhases{{
    {"PPP Network connection disconnected", kDisconnected},
    {"Initializing PPP network connection", "initializing"},
    {"Connecting PPP link", "connecting"},
    {"PPP Dial on traffic", "dial-on-traffic"},
    {"Negotiating PPP link", "negotiating-link"},
    {"PPP Authenticating", "authenticating"},
    {"PPP Waiting for call back", "waiting-for-call-back"},
    {"PPP negotiating network", "negotiating-network"},
    {"PPP Connected", kConnected},
    {"Terminating PPP connection", "terminating"},
    {"Disconnecting PPP link", "disconnecting"},
    {"PPP Holding link off", "holding-off"},
    {"PPP connection suspended", "suspended"},
    {"PPP waiting for redial", "waiting-for-redial"},
}};

// What vpnctl says before it tries to connect. Without a newline, so that more of it may follow on the same line.
constexpr std::array<std::pair<std::string_view, Kind>, 3> kRefusals{{
    {"error parse config: ", Kind::configuration},
    {"Invalid config! Missing ", Kind::configuration},
    {"Cannot get authorization!", Kind::authorization},
}};

// Sentences of the link engine. START, then one word (an address, a name) if NAMED, then REST. Anchored so that a
// server's own words, which some sentences quote, are never taken for ours.
struct SentenceRow {
  std::string_view start;
  bool named;
  std::string_view rest;
  Kind kind;
};
constexpr std::string_view kIKE = "The server ";
constexpr std::string_view kL2TP = "The L2TP server ";
constexpr std::string_view kPPTP = "The PPTP server ";
constexpr std::string_view kName = "The name of the server, ";
constexpr std::string_view kNetworkChanged = "The network has changed: ";
constexpr std::array kSentences{
    // The server's name or address.
    SentenceRow{"The configuration names no server", false, "", Kind::configuration},
    SentenceRow{"No server can have the address ", false, "", Kind::configuration},
    SentenceRow{"The server address ", false, "", Kind::configuration},
    SentenceRow{kName, true, "could not be looked up", Kind::notReached},
    SentenceRow{kName, true, "stands for an address that no server can have", Kind::notReached},
    SentenceRow{kNetworkChanged, false, "", Kind::notReached},
    // IKE.
    SentenceRow{kIKE, true, "does not answer on UDP port 500 (IKE)", Kind::notReached},
    SentenceRow{kIKE, true, "no longer answers to IKE", Kind::notReached},
    SentenceRow{kIKE, true, "stopped answering during IKE's key exchange", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "stopped answering when the shared secret was to be proved", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "accepts the shared secret but ", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "refuses how IKE is to be protected", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "cannot use this machine's half of IKE's key", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "said no when the shared secret was to be proved", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "does not know this client as ", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "knows the shared secret, but is not who it should be", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "wants a certificate", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "has forgotten the negotiation ", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "gave up ", Kind::ipsecRefused},
    SentenceRow{kIKE, true, "answered what it may not ", Kind::ipsecRefused},
    SentenceRow{"The server has ended the IPSec association", false, "", Kind::ipsecRefused},
    SentenceRow{"The IPSec association with ", true, "could not be kept", Kind::ipsecRefused},
    // L2TP's control connection.
    SentenceRow{kL2TP, true, "does not answer on UDP port ", Kind::notReached},
    SentenceRow{kL2TP, true, "does not answer the call request", Kind::notReached},
    SentenceRow{kL2TP, true, "no longer answers", Kind::notReached},
    SentenceRow{kL2TP, true, "refuses UDP port ", Kind::notReached},
    SentenceRow{kL2TP, true, "cannot be called: ", Kind::notReached},
    SentenceRow{kL2TP, true, "refuses the tunnel: ", Kind::callRefused},
    SentenceRow{kL2TP, true, "refuses the call: ", Kind::callRefused},
    SentenceRow{kL2TP, true, "has ended the ", Kind::callRefused},
    SentenceRow{kL2TP, true, "asks for L2TP's own tunnel authentication", Kind::callRefused},
    SentenceRow{kL2TP, true, "speaks version ", Kind::callRefused},
    SentenceRow{kL2TP, true, "does not speak L2TP", Kind::callRefused},
    SentenceRow{kL2TP, true, "sent a message of the unknown type ", Kind::callRefused},
    // PPTP's.
    SentenceRow{kPPTP, true, "does not answer on TCP port ", Kind::notReached},
    SentenceRow{kPPTP, true, "accepts TCP connections but does not answer", Kind::notReached},
    SentenceRow{kPPTP, true, "does not answer the call request", Kind::notReached},
    SentenceRow{kPPTP, true, "no longer answers", Kind::notReached},
    SentenceRow{kPPTP, true, "refuses TCP port ", Kind::notReached},
    SentenceRow{kPPTP, true, "cannot be reached ", Kind::notReached},
    SentenceRow{kPPTP, true, "asks, but does not read the answers", Kind::callRefused},
    SentenceRow{kPPTP, true, "refuses the control connection: ", Kind::callRefused},
    SentenceRow{kPPTP, true, "refuses the call: ", Kind::callRefused},
    SentenceRow{kPPTP, true, "closed the control connection ", Kind::callRefused},
    SentenceRow{kPPTP, true, "has closed the control connection", Kind::callRefused},
    SentenceRow{kPPTP, true, "is gone: the control connection broke", Kind::callRefused},
    SentenceRow{kPPTP, true, "has ended the ", Kind::callRefused},
    SentenceRow{kPPTP, true, "does not speak PPTP", Kind::callRefused},
};

// pppd's causes before the connection stood. After, all but "by request" and "not authenticated" are a loss.
constexpr int kUserRequest = 5;
constexpr int kConnectFailed = 8;
constexpr int kNotAuthenticated = 19;
constexpr std::array<std::pair<int, Kind>, 4> kNegotiationCauses{{
    {0, Kind::notNegotiated},   // the server said goodbye in the middle of it
    {10, Kind::notNegotiated},  // not agreed upon
    {15, Kind::notNegotiated},  // it stopped answering
    {16, Kind::notNegotiated},  // hung up
}};

bool takeStart(std::string_view &text, std::string_view start) {
  if (!text.starts_with(start)) return false;
  text.remove_prefix(start.size());
  return true;
}

bool matches(const SentenceRow &row, std::string_view sentence) {
  if (!takeStart(sentence, row.start)) return false;
  if (!row.named) return true;
  const std::size_t blank = sentence.find(' ');
  return blank != std::string_view::npos && blank > 0 && sentence.substr(blank + 1).starts_with(row.rest);
}

// "Mon Nov 23 14:16:18 2026 : ", which the link engine's sentences begin with and pppd's lines do not.
bool takeTime(std::string_view &line) {
  constexpr std::string_view kForm = "Aaa Aaa 00 00:00:00 0000 : ";
  if (line.size() < kForm.size()) return false;
  for (std::size_t i = 0; i < kForm.size(); ++i) {
    const char c = line[i];
    const bool isDigit = c >= '0' && c <= '9';
    const bool isLetter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    const bool fits = kForm[i] == '0'                      ? isDigit || (i == 8 && c == ' ')
                      : kForm[i] == 'A' || kForm[i] == 'a' ? isLetter
                                                           : c == kForm[i];
    if (!fits) return false;
  }
  line.remove_prefix(kForm.size());
  return true;
}

std::optional<int> number(std::string_view text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

// The log has printable characters alone.
Outcome::Outcome(const std::string &server) : label_(server.empty() ? "" : "[" + server + "] ") {
  std::replace_if(
      label_.begin(), label_.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
}

Outcome::News Outcome::hear(std::string_view line) {
  if (auto own = ownLine(line)) return std::move(*own);
  return logLine(line);
}

std::optional<Outcome::News> Outcome::ownLine(std::string_view line) {
  for (const auto &[start, kind] : kRefusals)
    if (line.starts_with(start)) {
      refused_ = true;
      early_ = kind;
      return News{News::Type::error, {}, std::string(line)};
    }
  for (const auto &[text, phase] : kPhases)
    if (line == text) {
      connected_ = phase == kConnected || (connected_ && phase != kDisconnected);
      wasConnected_ = wasConnected_ || connected_;
      return News{News::Type::phase, phase, std::string(line)};
    }
  if (!line.starts_with("Error: ")) return std::nullopt;
  constexpr std::string_view kCause = ", cause: ";
  if (const std::size_t at = line.rfind(kCause); at != std::string_view::npos)
    if (const auto cause = number(line.substr(at + kCause.size()))) cause_ = cause;
  return News{News::Type::error, {}, std::string(line)};
}

Outcome::News Outcome::logLine(std::string_view line) {
  const std::string_view whole = line;
  const bool isSentence = takeTime(line);
  // The label is there while there are several connections.
  if (!label_.empty() && line.starts_with("[") && line.find("] ") != std::string_view::npos && !takeStart(line, label_))
    return News{News::Type::line, {}, std::string(whole)};
  if (isSentence) {
    understand(line);
    return News{News::Type::sentence, {}, std::string(line)};
  }
  if (fact(line)) return News{News::Type::address, {}, std::string(line)};
  return News{News::Type::line, {}, std::string(whole)};
}

bool Outcome::fact(std::string_view line) {
  for (const auto &[start, place] : {std::pair<std::string_view, std::string *>{"Using interface ", &interface_},
                                     {"local  IP address ", &address_},
                                     {"remote IP address ", &peer_}}) {
    std::string_view rest = line;
    if (!takeStart(rest, start)) continue;
    *place = rest;
    return true;
  }
  return false;
}

void Outcome::understand(std::string_view sentence) {
  sentence_ = sentence;
  if (sentence.starts_with(kNetworkChanged)) networkChanged_ = true;
  for (const SentenceRow &row : kSentences)
    if (matches(row, sentence)) {
      meaning_ = row.kind;
      meaningful_ = sentence;
      return;
    }
}

void Outcome::ended(bool exited, int code) {
  exited_ = exited;
  code_ = code;
  connected_ = false;
}

Kind Outcome::kind() const {
  if (requested_) return Kind::byRequest;
  // Before its authorization vpnctl has no handler for that signal.
  if (!exited_ && code_ == SIGUSR1) return Kind::byRequest;
  if (refused_) return early_;
  if (cause_ == kUserRequest) return Kind::byRequest;
  if (cause_ == kNotAuthenticated) return Kind::accountRefused;
  if (wasConnected_) return Kind::lost;
  if (cause_ == kConnectFailed) return meaning_.value_or(Kind::unknown);
  for (const auto &[cause, kind] : kNegotiationCauses)
    if (cause_ == cause) return kind;
  return Kind::unknown;
}

int statusOf(Kind kind) { return rowOf(kind).status; }
std::string_view nameOf(Kind kind) { return rowOf(kind).name; }
std::string_view sentenceOf(Kind kind) { return rowOf(kind).sentence; }
bool mayComeRight(Kind kind) { return rowOf(kind).mayComeRight; }

}  // namespace companions
