// What the exchanges of phase 1 have in common, whoever begins and in however many messages: values of both sides,
// keys, proofs, and whether addresses are changed on the way.
//
// Usual sequence: an exchange is made, receive() gets each message with its cookies until a reaction says done; then
// association().
//
// Thread rule: as any object that keeps state.

#pragma once

#include <memory>

#include "helper/isakmp/Association.h"
#include "helper/isakmp/KeyExchange.h"
#include "helper/isakmp/Transforms.h"

namespace helper::isakmp {

// Why it probably does not come up.
struct Suspicion {
  Reason reason = Reason::silence;
  std::uint16_t notification = 0;
  std::string detail;
  // The server said no: what else comes has to come soon. Otherwise it is only what silence will be taken for.
  bool refused = false;
};

// What an exchange wants done after a message.
struct Reaction {
  std::optional<Bytes> reply = {};
  bool done = false;
  bool fatal = false;  // SUSPICION is certain
  std::optional<Suspicion> suspicion = {};
  std::string dropped = {};  // why the message counted for nothing

  static Reaction drop(std::string why) { return {{}, false, false, {}, std::move(why)}; }
  static Reaction suspect(Suspicion suspicion) {
    Reaction reaction = drop(suspicion.detail);
    reaction.suspicion = std::move(suspicion);
    return reaction;
  }
  static Reaction fail(Reason reason, std::string detail) {
    Reaction reaction = suspect({reason, 0, std::move(detail), true});
    reaction.fatal = true;
    return reaction;
  }
};

class PhaseOneExchange {
 public:
  // All but the port must outlive the exchange.
  struct Setting {
    const Plan &plan;
    const vpnctl::Secret &presharedKey;
    Randomness &random;
    ServerPort port;
    const Identification *peer;  // who the server was before; null: nobody yet
    bool initialContact;
  };

  virtual ~PhaseOneExchange() = default;
  // HEADER is DATAGRAM's, of this exchange's kind, with message id 0 and our initiator cookie.
  virtual Reaction receive(const Header &header, View datagram) = 0;
  virtual Stage stage() const = 0;

  const Cookies &cookies() const { return cookies_; }
  // Known once the peer's addresses are: ESP goes in UDP, and all that follows to port 4500.
  bool encapsulated() const;
  bool certificateRequested() const { return certificateRequested_; }
  // Whether the peer may have been able to derive our keys: what it then says in a way that we cannot read tells of
  // another secret.
  bool hasKeys() const { return !keys_.skeyID.empty(); }
  // After done.
  std::shared_ptr<Association> association(Instant now);

 protected:
  enum class Side { initiator, responder };

  PhaseOneExchange(const Setting &setting, Side side);

  Header header(ExchangeType exchange) const { return {cookies_, PayloadType::none, exchange, 0, 0}; }
  HashAlgorithm hash() const { return choice_.proposal.hash; }
  CipherAlgorithm cipher() const { return choice_.proposal.cipher; }

  // Our half of the key, and a nonce.
  void makeHalf(Group group);
  // Nothing is taken over when the peer's half is refused.
  vpnctl::Status takeHalf(View publicValue, View nonce);
  void takeVendorIDs(const PayloadChain &chain);
  void addVendorIDs(PayloadWriter &writer, const std::vector<View> &ids) const;
  void addHalf(PayloadWriter &writer) const;
  void addNATDetection(PayloadWriter &writer) const;
  vpnctl::Status takeNATDetection(const PayloadChain &chain);
  // Of SIDE, whose identification's body is ID.
  vpnctl::Secret proof(Side side, View id) const;
  // Wrong hashes only are a matter of the secret; the rest is one of who the peer is.
  Reaction checkPeer(View id, View proof);
  void takeLifetime(const PayloadChain &chain);

  Setting setting_;
  Side side_;
  Cookies cookies_;
  Bytes association_;  // the body that the initiator sent
  IKEChoice choice_;
  std::optional<KeyExchange> half_;
  Bytes nonceI_, nonceR_, publicI_, publicR_;
  PhaseOneKeys keys_;
  Bytes iv_;  // of the next encrypted message
  PeerExtensions extensions_;
  bool natAtUs_ = false;
  bool natAtServer_ = false;
  bool natIsKnown_ = false;
  bool certificateRequested_ = false;
  Identification peer_;
  Bytes lastReceived_;  // for repetitions
};

// What is common of all payloads in clear before the keys.
inline constexpr std::initializer_list<PayloadType> kBesideHalf = {
    PayloadType::vendorID, PayloadType::notification, PayloadType::natDetection, PayloadType::natDetectionDraft,
    PayloadType::certificateRequest};

}  // namespace helper::isakmp
