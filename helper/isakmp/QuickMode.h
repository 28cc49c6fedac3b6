// What both sides of quick mode have in common (RFC 2409, section 5.5; RFC 3947, section 5): one pair of ESP
// associations in transport mode for one UDP flow.
//
// Thread rule: as any object that keeps state.

#pragma once

#include <memory>

#include "helper/isakmp/PhaseOneExchange.h"

namespace helper::isakmp {

class QuickMode {
 public:
  // PLAN and RANDOM must outlive it. FLOWLOCALPORT: which of the plan's.
  QuickMode(const Plan &plan, std::shared_ptr<Association> association, Randomness &random, PairID pair,
            std::uint16_t flowLocalPort);

  PairID pair() const { return pair_; }
  const std::shared_ptr<Association> &association() const { return association_; }
  std::uint32_t messageID() const { return messageID_; }
  std::uint16_t flowLocalPort() const { return flowLocalPort_; }
  std::uint32_t inboundSPI() const { return ownSPI_; }
  std::uint32_t outboundSPI() const { return choice_.spi; }
  const ESPProposal &proposal() const { return choice_.proposal; }
  std::chrono::seconds lifetime() const { return agreedLifetime(plan_.espLifetime, choice_.lifetime); }
  // Once both sides have agreed.
  InstallState state(Direction direction) const;
  // What only the keys were made of: whoever reads our memory later cannot make them again.
  void forgetSecrets();

 protected:
  vpnctl::Result<Opened> open(const Header &header, View datagram) const;
  Bytes sealed(const PayloadWriter &payloads);
  // The hash's payload, which comes first, and then what it is about.
  Bytes hashed(const vpnctl::Secret &hash, const PayloadWriter &rest);
  static bool isGenuine(const PayloadChain &chain, const vpnctl::Secret &hash);

  Bytes makeNonce();
  void addKeyExchange(PayloadWriter &writer, std::optional<Group> group);
  // PEER: its half of the key, if it sent one.
  vpnctl::Status takeKeyExchange(std::optional<View> peer);
  // Which packets, and, in UDP, our addresses as we know them. The initiator's side comes first.
  void addFlow(PayloadWriter &writer, const Identification &first, const Identification &second) const;
  void addOriginalAddresses(PayloadWriter &writer, const IPv4Bytes &first, const IPv4Bytes &second) const;
  Identification ownFlow() const;
  Identification peerFlow() const;
  // Whether GIVEN is WANTED's flow. Behind a NAT the other side may see another address.
  static bool isFlow(const Identification &given, const Identification &wanted, bool behindNAT);
  static vpnctl::Status checkNonce(View nonce, View own);
  void takeLifetime(const PayloadChain &chain);

  const Plan &plan_;
  std::shared_ptr<Association> association_;
  Randomness &random_;
  PairID pair_;
  std::uint16_t flowLocalPort_;
  std::uint32_t messageID_ = 0;
  std::uint32_t ownSPI_ = 0;
  Bytes iv_;
  Bytes nonceI_, nonceR_;
  std::optional<KeyExchange> half_;
  vpnctl::Secret shared_;  // empty without perfect forward secrecy
  ESPChoice choice_;
};

// Of all payloads in quick mode.
inline constexpr std::initializer_list<PayloadType> kBesideQuickMode = {
    PayloadType::keyExchange, PayloadType::natOriginalAddress, PayloadType::natOriginalAddressDraft,
    PayloadType::notification, PayloadType::vendorID};

}  // namespace helper::isakmp
