#include "helper/isakmp/QuickMode.h"

namespace helper::isakmp {

using vpnctl::Secret;

namespace {

constexpr std::size_t kNonceSize = 32;
constexpr std::size_t kShortestNonce = 8;
constexpr std::size_t kLongestNonce = 256;

}  // namespace

QuickMode::QuickMode(const Plan &plan, std::shared_ptr<Association> association, Randomness &random, PairID pair,
                     std::uint16_t flowLocalPort)
    : plan_(plan), association_(std::move(association)), random_(random), pair_(pair), flowLocalPort_(flowLocalPort) {}

InstallState QuickMode::state(Direction direction) const {
  const ESPProposal &proposal = choice_.proposal;
  const std::uint32_t spi = direction == Direction::inbound ? ownSPI_ : choice_.spi;
  const std::size_t cipherSize = keySize(proposal.cipher);
  const Secret material = keyMaterial(association_->hash(), association_->keys(), shared_, spi, nonceI_, nonceR_,
                                      cipherSize + hashSize(proposal.integrity));
  return {pair_,
          direction,
          spi,
          proposal,
          Secret(material.bytes().first(cipherSize)),
          Secret(material.bytes().subspan(cipherSize)),
          association_->terms().encapsulated,
          lifetime()};
}

void QuickMode::forgetSecrets() {
  half_.reset();
  shared_ = {};
}

vpnctl::Result<Opened> QuickMode::open(const Header &header, View datagram) const {
  return openSealed(header, datagram, association_->cipher(), association_->keys().encryption, iv_);
}

Bytes QuickMode::sealed(const PayloadWriter &payloads) {
  return sealedMessage(association_->header(ExchangeType::quick, messageID_), payloads, association_->cipher(),
                       association_->keys().encryption, iv_);
}

Bytes QuickMode::hashed(const Secret &hash, const PayloadWriter &rest) {
  PayloadWriter payloads;
  payloads.add(PayloadType::hash, hash.bytes());
  payloads.add(rest);
  return sealed(payloads);
}

bool QuickMode::isGenuine(const PayloadChain &chain, const Secret &hash) {
  const Payload &first = chain.payloads().front();
  return first.type == PayloadType::hash && equalInConstantTime(first.body, hash.bytes());
}

Bytes QuickMode::makeNonce() {
  Bytes nonce(kNonceSize);
  random_.fill(nonce);
  return nonce;
}

vpnctl::Status QuickMode::checkNonce(View nonce, View own) {
  if (nonce.size() < kShortestNonce || nonce.size() > kLongestNonce) return malformed("a nonce of the wrong size");
  if (sameBytes(nonce, own)) return malformed("our own nonce");
  return {};
}

void QuickMode::addKeyExchange(PayloadWriter &writer, std::optional<Group> group) {
  if (!group) return;
  half_.emplace(*group, random_);
  writer.add(PayloadType::keyExchange, half_->publicValue());
}

vpnctl::Status QuickMode::takeKeyExchange(std::optional<View> peer) {
  if (static_cast<bool>(peer) != static_cast<bool>(half_))
    return malformed(half_ ? "without its half of the key" : "a half of a key that nobody asked for");
  if (!peer) return {};
  auto shared = half_->sharedSecret(*peer);
  if (!shared) return shared.error();
  shared_ = std::move(*shared);
  return {};
}

Identification QuickMode::ownFlow() const { return Identification::of(plan_.local, kProtocolUDP, flowLocalPort_); }

Identification QuickMode::peerFlow() const {
  return Identification::of(plan_.remote, kProtocolUDP, plan_.flowRemotePort);
}

void QuickMode::addFlow(PayloadWriter &writer, const Identification &first, const Identification &second) const {
  writer.add(PayloadType::identification, encode(first));
  writer.add(PayloadType::identification, encode(second));
}

void QuickMode::addOriginalAddresses(PayloadWriter &writer, const IPv4Bytes &first, const IPv4Bytes &second) const {
  if (!association_->terms().encapsulated) return;
  const PayloadType type = natOriginalAddressPayload(association_->terms().extensions.natTraversal);
  writer.add(type, encode(Identification::of(first)));
  writer.add(type, encode(Identification::of(second)));
}

bool QuickMode::isFlow(const Identification &given, const Identification &wanted, bool behindNAT) {
  if (given.protocol != wanted.protocol || given.port != wanted.port || !given.address()) return false;
  return behindNAT || given.data == wanted.data;
}

void QuickMode::takeLifetime(const PayloadChain &chain) {
  for (const View body : chain.all(PayloadType::notification)) {
    const auto notification = decodeNotification(body);
    if (!notification || notification->type != notify::kResponderLifetime) continue;
    const auto attributes = decodeAttributes(notification->data);
    if (!attributes) continue;
    if (const auto lifetime = lifetimeIn(*attributes, kProtocolESP)) choice_.lifetime = lifetime;
  }
}

}  // namespace helper::isakmp
