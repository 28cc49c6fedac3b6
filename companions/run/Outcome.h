// What vpnctl's lines on standard error say, and in the end: how the connection ended. The one place that knows
// vpnctl's fixed lines, pppd's causes, and the sentences that the link engine writes to the PPP log.
//
// Usual sequence: hear() each line, without its newline; requested() when somebody asks for the end; ended() when
// vpnctl has; then kind().
//
// Thread rule: as a plain value.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace companions {

class Outcome {
 public:
  // In the order of their exit statuses, see statusOf().
  enum class Kind {
    byRequest,
    unknown,         // what happened cannot be told apart
    configuration,   // the file, or what it names, cannot be used
    authorization,   // no right to change the system's network
    notReached,      // no server answered
    ipsecRefused,    // it answered, but IPSec was not agreed upon
    callRefused,     // it answered, but took no call
    accountRefused,  // user name or password
    notNegotiated,   // PPP was not agreed upon
    lost             // it was up, and ended without being asked to
  };

  // What one line says.
  struct News {
    enum class Type {
      phase,     // `text` is vpnctl's line, `phase` its short name
      error,     // vpnctl's own word of what went wrong
      address,   // pppd has named the interface or an address: see interface(), address(), peer()
      sentence,  // the link engine's, without time and label
      line       // anything else
    };
    Type type = Type::line;
    std::string_view phase = {};  // "connected"; lives for ever
    std::string text = {};
  };

  // SERVER: as the configuration has it. Lines of the PPP log that bear another server's label are another
  // connection's.
  explicit Outcome(const std::string &server = {});

  News hear(std::string_view line);
  // The end was asked for: however it comes, it is by request.
  void requested() { requested_ = true; }
  // vpnctl has ended, with CODE as its exit status (EXITED) or as the signal that ended it.
  void ended(bool exited, int code);

  // Meaningful once ended() was called.
  Kind kind() const;
  // pppd's number for why the connection ended; none where vpnctl said none.
  std::optional<int> cause() const { return cause_; }
  // Whether the connection stands, and whether it ever did.
  bool isConnected() const { return connected_; }
  bool wasConnected() const { return wasConnected_; }
  // It ended because the address that it used is gone: another network may be there at once.
  bool networkChanged() const { return networkChanged_; }
  // The link engine's sentence about the end, or its latest; empty when there was none.
  const std::string &sentence() const { return meaning_ ? meaningful_ : sentence_; }
  // What pppd has named so far; empty: not yet.
  const std::string &interface() const { return interface_; }
  const std::string &address() const { return address_; }
  const std::string &peer() const { return peer_; }
  bool hasAddresses() const { return !interface_.empty() && !address_.empty() && !peer_.empty(); }

 private:
  std::optional<News> ownLine(std::string_view line);
  News logLine(std::string_view line);
  bool fact(std::string_view line);
  void understand(std::string_view sentence);

  std::string label_;  // empty: not known
  bool requested_ = false;
  bool refused_ = false;  // by vpnctl itself, before it tried: early_ says why
  Kind early_ = Kind::unknown;
  bool connected_ = false;
  bool wasConnected_ = false;
  bool networkChanged_ = false;
  bool exited_ = true;
  int code_ = 0;
  std::optional<int> cause_;
  std::optional<Kind> meaning_;  // of meaningful_
  std::string meaningful_;
  std::string sentence_;
  std::string interface_;
  std::string address_;
  std::string peer_;
};

// The exit status that stands for KIND.
int statusOf(Outcome::Kind kind);
// One word for programs: "account-refused".
std::string_view nameOf(Outcome::Kind kind);
// For people, a whole sentence.
std::string_view sentenceOf(Outcome::Kind kind);
// Whether another attempt may come right by itself.
bool mayComeRight(Outcome::Kind kind);

}  // namespace companions
