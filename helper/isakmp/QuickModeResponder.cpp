#include "helper/isakmp/QuickModeResponder.h"

namespace helper::isakmp {

using enum PayloadType;

namespace {

// Nobody's, for finding out whether there is a common proposal at all.
constexpr std::uint32_t kAnySPI = kLeastSPI;

Reaction refuse(std::uint16_t notification, std::string detail) {
  Reaction reaction = Reaction::fail(Reason::otherwise, std::move(detail));
  reaction.suspicion->notification = notification;
  return reaction;
}

}  // namespace

Reaction QuickModeResponder::receiveOffer(const Header &header, View datagram) {
  messageID_ = header.messageID;
  iv_ = association_->ivFor(messageID_);
  const auto opened = open(header, datagram);
  if (!opened) return Reaction::drop(opened.error().message);
  const PayloadChain &chain = opened->chain;
  if (!isGenuine(chain, hash1(association_->hash(), association_->keys(), messageID_, chain.rest())))
    return Reaction::drop("a wrong hash");
  iv_ = opened->lastBlock;
  if (const auto status =
          chain.expect({PayloadType::hash, securityAssociation, nonce, identification}, kBesideQuickMode);
      !status)
    return refuse(notify::kPayloadMalformed, status.error().message);
  const auto offer = decodeSecurityAssociation(*chain.find(securityAssociation));
  if (!offer) return refuse(notify::kPayloadMalformed, offer.error().message);
  if (const auto status = checkNonce(*chain.find(nonce), {}); !status)
    return refuse(notify::kPayloadMalformed, status.error().message);
  if (const auto status = takeFlow(chain); !status) return refuse(notify::kInvalidID, status.error().message);
  const auto agreement = choose(*offer, plan_.esp, association_->mode(), kAnySPI);
  if (!agreement) return refuse(notify::kNoProposalChosen, "no proposal that we have, too");
  offer_ = *offer;
  choice_ = agreement->choice;
  nonceI_ = copyOf(*chain.find(nonce));
  if (choice_.proposal.group) half_.emplace(*choice_.proposal.group, random_);
  if (const auto status = takeKeyExchange(chain.find(keyExchange)); !status)
    return refuse(notify::kInvalidKey, status.error().message);
  return {};
}

vpnctl::Status QuickModeResponder::takeFlow(const PayloadChain &chain) {
  const std::vector<View> ids = chain.all(identification);
  if (ids.size() != 2) return malformed("not exactly two identifications");
  const auto theirs = decodeIdentification(ids[0]);
  const auto ours = decodeIdentification(ids[1]);
  if (!theirs) return theirs.error();
  if (!ours) return ours.error();
  const Association::Terms &terms = association_->terms();
  if (!isFlow(*theirs, peerFlow(), terms.natAtServer) ||
      !isFlow(*ours, ownFlow(), terms.natAtUs || plan_.forceEncapsulation))
    return malformed("other packets than ours");
  flowOfPeer_ = *theirs;
  flowOfUs_ = *ours;
  return {};
}

Bytes QuickModeResponder::answer(std::uint32_t spi) {
  ownSPI_ = spi;
  nonceR_ = makeNonce();
  const auto agreement = choose(offer_, plan_.esp, association_->mode(), spi);
  PayloadWriter rest;
  rest.add(securityAssociation, encode(agreement->answer));
  rest.add(nonce, nonceR_);
  if (half_) rest.add(keyExchange, half_->publicValue());
  addFlow(rest, flowOfPeer_, flowOfUs_);
  addOriginalAddresses(rest, plan_.remote, plan_.local);
  return hashed(hash2(association_->hash(), association_->keys(), messageID_, nonceI_, rest.bytes()), rest);
}

Reaction QuickModeResponder::receiveLast(const Header &header, View datagram) {
  const auto opened = open(header, datagram);
  if (!opened) return Reaction::drop(opened.error().message);
  if (!isGenuine(opened->chain, hash3(association_->hash(), association_->keys(), messageID_, nonceI_, nonceR_)))
    return Reaction::drop("a wrong hash");
  iv_ = opened->lastBlock;
  return {.done = true};
}

}  // namespace helper::isakmp
