#include "helper/isakmp/QuickModeInitiator.h"

namespace helper::isakmp {

using enum PayloadType;

Bytes QuickModeInitiator::firstMessage(std::uint32_t spi) {
  ownSPI_ = spi;
  messageID_ = association_->chooseMessageID(random_);
  iv_ = association_->ivFor(messageID_);
  nonceI_ = makeNonce();
  PayloadWriter rest;
  rest.add(securityAssociation, encode(offerOf(plan_.esp, association_->mode(), spi, plan_.espLifetime)));
  rest.add(nonce, nonceI_);
  addKeyExchange(rest, plan_.esp.front().group);
  addFlow(rest, ownFlow(), peerFlow());
  addOriginalAddresses(rest, plan_.local, plan_.remote);
  return hashed(hash1(association_->hash(), association_->keys(), messageID_, rest.bytes()), rest);
}

Reaction QuickModeInitiator::receive(const Header &header, View datagram) {
  const auto opened = open(header, datagram);
  if (!opened) return Reaction::drop(opened.error().message);
  const PayloadChain &chain = opened->chain;
  if (!isGenuine(chain, hash2(association_->hash(), association_->keys(), messageID_, nonceI_, chain.rest())))
    return Reaction::drop("a wrong hash");
  // From here on it is the server that speaks, and nothing better will come.
  if (const auto status = check(chain); !status) return Reaction::fail(Reason::badAnswer, status.error().message);
  iv_ = opened->lastBlock;
  wait_ = (header.flags & kFlagCommit) != 0;
  return {.done = true};
}

vpnctl::Status QuickModeInitiator::check(const PayloadChain &chain) {
  if (auto status = chain.expect({PayloadType::hash, securityAssociation, nonce, identification}, kBesideQuickMode);
      !status)
    return status;
  const auto answer = decodeSecurityAssociation(*chain.find(securityAssociation));
  if (!answer) return answer.error();
  const auto choice = checkChoice(*answer, plan_.esp, association_->mode());
  if (!choice) return choice.error();
  const View peerNonce = *chain.find(nonce);
  if (auto status = checkNonce(peerNonce, nonceI_); !status) return status;
  const std::vector<View> ids = chain.all(identification);
  if (ids.size() != 2) return malformed("not exactly two identifications");
  const auto ours = decodeIdentification(ids[0]);
  const auto theirs = decodeIdentification(ids[1]);
  if (!ours) return ours.error();
  if (!theirs) return theirs.error();
  const Association::Terms &terms = association_->terms();
  if (!isFlow(*ours, ownFlow(), terms.natAtUs || plan_.forceEncapsulation) ||
      !isFlow(*theirs, peerFlow(), terms.natAtServer))
    return malformed("other packets than we asked for");
  if (auto status = takeKeyExchange(chain.find(keyExchange)); !status) return status;
  choice_ = *choice;
  nonceR_ = copyOf(peerNonce);
  takeLifetime(chain);
  return {};
}

Bytes QuickModeInitiator::lastMessage() {
  PayloadWriter payloads;
  payloads.add(PayloadType::hash,
               hash3(association_->hash(), association_->keys(), messageID_, nonceI_, nonceR_).bytes());
  return sealed(payloads);
}

}  // namespace helper::isakmp
