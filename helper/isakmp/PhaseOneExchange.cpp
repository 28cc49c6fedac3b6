#include "helper/isakmp/PhaseOneExchange.h"

namespace helper::isakmp {

using vpnctl::Secret;

namespace {

constexpr std::size_t kNonceSize = 32;
constexpr std::size_t kShortestNonce = 8;
constexpr std::size_t kLongestNonce = 256;

}  // namespace

PhaseOneExchange::PhaseOneExchange(const Setting &setting, Side side) : setting_(setting), side_(side) {
  Cookie &own = side == Side::initiator ? cookies_.initiator : cookies_.responder;
  do setting_.random.fill(own);
  while (own == Cookie{});
}

bool PhaseOneExchange::encapsulated() const {
  if (extensions_.natTraversal == NATTraversal::none || !natIsKnown_) return false;
  return natAtUs_ || natAtServer_ || setting_.plan.forceEncapsulation;
}

void PhaseOneExchange::makeHalf(Group group) {
  half_.emplace(group, setting_.random);
  const bool first = side_ == Side::initiator;
  (first ? publicI_ : publicR_) = half_->publicValue();
  Bytes &nonce = first ? nonceI_ : nonceR_;
  nonce.resize(kNonceSize);
  setting_.random.fill(nonce);
}

vpnctl::Status PhaseOneExchange::takeHalf(View publicValue, View nonce) {
  const bool first = side_ == Side::initiator;
  if (nonce.size() < kShortestNonce || nonce.size() > kLongestNonce) return malformed("a nonce of the wrong size");
  if (sameBytes(nonce, first ? nonceI_ : nonceR_)) return malformed("our own nonce");
  const auto shared = half_->sharedSecret(publicValue);
  if (!shared) return shared.error();
  (first ? publicR_ : publicI_) = copyOf(publicValue);
  (first ? nonceR_ : nonceI_) = copyOf(nonce);
  keys_ = derivePhaseOneKeys({hash(), cipher(), cookies_, nonceI_, nonceR_}, setting_.presharedKey, *shared);
  iv_ = firstIV(hash(), cipher(), publicI_, publicR_);
  return {};
}

void PhaseOneExchange::takeVendorIDs(const PayloadChain &chain) {
  const NATTraversal agreed = extensions_.natTraversal;
  for (const View id : chain.all(PayloadType::vendorID)) extensions_.add(id);
  // Later messages may name more, but how NAT traversal is spoken has been settled.
  if (stage() != Stage::firstAnswer) extensions_.natTraversal = agreed;
  if (chain.find(PayloadType::certificateRequest)) certificateRequested_ = true;
}

void PhaseOneExchange::addVendorIDs(PayloadWriter &writer, const std::vector<View> &ids) const {
  for (const View id : ids) writer.add(PayloadType::vendorID, id);
}

void PhaseOneExchange::addHalf(PayloadWriter &writer) const {
  writer.add(PayloadType::keyExchange, half_->publicValue());
  writer.add(PayloadType::nonce, side_ == Side::initiator ? nonceI_ : nonceR_);
}

// First the receiver's address, then the sender's. Where encapsulation is forced ours is one that cannot be: so the
// server sees a NAT before us.
void PhaseOneExchange::addNATDetection(PayloadWriter &writer) const {
  if (extensions_.natTraversal == NATTraversal::none) return;
  const PayloadType type = natDetectionPayload(extensions_.natTraversal);
  const Plan &plan = setting_.plan;
  writer.add(type, natDetectionHash(hash(), cookies_, plan.remote, static_cast<std::uint16_t>(setting_.port)));
  Bytes own = natDetectionHash(hash(), cookies_, plan.local, plan.localPort);
  if (plan.forceEncapsulation) setting_.random.fill(own);
  writer.add(type, own);
}

vpnctl::Status PhaseOneExchange::takeNATDetection(const PayloadChain &chain) {
  if (extensions_.natTraversal == NATTraversal::none) return {};
  const std::vector<View> hashes = chain.all(natDetectionPayload(extensions_.natTraversal));
  // It names the extension and does not use it.
  if (hashes.empty()) return {};
  if (hashes.size() < 2) return malformed("only one address to detect a NAT by");
  const Plan &plan = setting_.plan;
  const Bytes ours = natDetectionHash(hash(), cookies_, plan.local, plan.localPort);
  const Bytes theirs = natDetectionHash(hash(), cookies_, plan.remote, static_cast<std::uint16_t>(setting_.port));
  natAtUs_ = !sameBytes(hashes.front(), ours);
  natAtServer_ = true;
  for (std::size_t i = 1; i < hashes.size(); ++i)
    if (sameBytes(hashes[i], theirs)) natAtServer_ = false;
  natIsKnown_ = true;
  return {};
}

Secret PhaseOneExchange::proof(Side side, View id) const {
  if (side == Side::initiator)
    return authenticationHash(hash(), keys_,
                              {cookies_.initiator, cookies_.responder, publicI_, publicR_, association_, id});
  return authenticationHash(hash(), keys_,
                            {cookies_.responder, cookies_.initiator, publicR_, publicI_, association_, id});
}

Reaction PhaseOneExchange::checkPeer(View id, View given) {
  const Side other = side_ == Side::initiator ? Side::responder : Side::initiator;
  if (!equalInConstantTime(proof(other, id).bytes(), given))
    return Reaction::suspect({Reason::wrongSecret, 0, "a proof of another secret", false});
  const auto identification = decodeIdentification(id);
  if (!identification) return Reaction::fail(Reason::badAnswer, identification.error().message);
  if (identification->protocol != 0 && identification->protocol != kProtocolUDP)
    return Reaction::fail(Reason::serverIdentity, "an identity with a strange protocol");
  if (identification->port != 0 && identification->port != 500 && identification->port != 4500)
    return Reaction::fail(Reason::serverIdentity, "an identity with a strange port");
  const Identification *wanted = setting_.peer;
  if (wanted == nullptr && setting_.plan.peerIdentity) wanted = &*setting_.plan.peerIdentity;
  if (wanted != nullptr && !wanted->sameName(*identification))
    return Reaction::fail(Reason::serverIdentity, "it calls itself \"" + identification->text() + "\"");
  peer_ = *identification;
  return {};
}

void PhaseOneExchange::takeLifetime(const PayloadChain &chain) {
  for (const View body : chain.all(PayloadType::notification)) {
    const auto notification = decodeNotification(body);
    if (!notification || notification->type != notify::kResponderLifetime) continue;
    const auto attributes = decodeAttributes(notification->data);
    if (!attributes) continue;
    if (const auto lifetime = lifetimeIn(*attributes, kProtocolISAKMP)) choice_.lifetime = lifetime;
  }
}

std::shared_ptr<Association> PhaseOneExchange::association(Instant now) {
  return std::make_shared<Association>(
      Association::Terms{cookies_, choice_.proposal, keys_, iv_, extensions_, natAtUs_, natAtServer_, encapsulated(),
                         agreedLifetime(setting_.plan.ikeLifetime, choice_.lifetime), peer_},
      now, setting_.random);
}

}  // namespace helper::isakmp
