#include "helper/isakmp/MainModeResponder.h"

namespace helper::isakmp {

using enum PayloadType;

MainModeResponder::MainModeResponder(const Setting &setting, const Header &header)
    : PhaseOneExchange(setting, Side::responder) {
  cookies_.initiator = header.cookies.initiator;
}

Reaction MainModeResponder::receive(const Header &header, View datagram) {
  if (header.exchange != ExchangeType::main) return Reaction::drop("a message of another exchange");
  if (const Bytes *answer = answer_.to(datagram)) return {.reply = *answer};
  if (stage_ != Stage::firstAnswer && header.cookies.responder != cookies_.responder)
    return Reaction::drop("another responder cookie");
  Reaction reaction;
  switch (stage_) {
    case Stage::firstAnswer:
      reaction = receiveOffer(header, datagram);
      break;
    case Stage::keyExchange:
      reaction = receiveHalf(header, datagram);
      break;
    case Stage::authentication:
      reaction = receiveProof(header, datagram);
      break;
    case Stage::association:
    case Stage::established:
      return Reaction::drop("a message of an exchange that is over");
  }
  if (reaction.reply) answer_.keep(datagram, *reaction.reply);
  return reaction;
}

Reaction MainModeResponder::receiveOffer(const Header &header, View datagram) {
  const auto chain = openPlain(header, datagram);
  if (!chain) return Reaction::drop(chain.error().message);
  if (const auto status = chain->expect({securityAssociation}, {vendorID, notification}); !status)
    return Reaction::drop(status.error().message);
  association_ = copyOf(*chain->find(securityAssociation));
  const auto offer = decodeSecurityAssociation(association_);
  if (!offer) return Reaction::drop(offer.error().message);
  const auto agreement = choose(*offer, setting_.plan.ike);
  if (!agreement) return Reaction::drop("no proposal that we have, too");
  choice_ = agreement->choice;
  takeVendorIDs(*chain);
  PayloadWriter writer;
  writer.add(securityAssociation, encode(agreement->answer));
  addVendorIDs(writer, vendorIDsFor(extensions_));
  stage_ = Stage::keyExchange;
  return {.reply = plainMessage(this->header(ExchangeType::main), writer)};
}

Reaction MainModeResponder::receiveHalf(const Header &header, View datagram) {
  const auto chain = openPlain(header, datagram);
  if (!chain) return Reaction::drop(chain.error().message);
  if (const auto status = chain->expect({keyExchange, nonce}, kBesideHalf); !status)
    return Reaction::drop(status.error().message);
  makeHalf(choice_.proposal.group);
  if (const auto status = takeHalf(*chain->find(keyExchange), *chain->find(nonce)); !status)
    return Reaction::drop(status.error().message);
  takeVendorIDs(*chain);
  if (const auto status = takeNATDetection(*chain); !status) return Reaction::drop(status.error().message);
  PayloadWriter writer;
  addHalf(writer);
  addNATDetection(writer);
  stage_ = Stage::authentication;
  return {.reply = plainMessage(this->header(ExchangeType::main), writer)};
}

Reaction MainModeResponder::receiveProof(const Header &header, View datagram) {
  const auto opened = openSealed(header, datagram, cipher(), keys_.encryption, iv_);
  if (!opened) return Reaction::drop(opened.error().message);
  const PayloadChain &chain = opened->chain;
  if (const auto status = chain.expect({identification, PayloadType::hash}, {vendorID, notification}); !status)
    return Reaction::drop(status.error().message);
  if (chain.all(identification).size() != 1) return Reaction::drop("two identifications");
  Reaction reaction = checkPeer(*chain.find(identification), *chain.find(PayloadType::hash));
  if (!reaction.dropped.empty()) return reaction;
  iv_ = opened->lastBlock;
  const Bytes id = encode(setting_.plan.identity);
  PayloadWriter writer;
  writer.add(identification, id);
  writer.add(PayloadType::hash, proof(Side::responder, id).bytes());
  reaction.reply = sealedMessage(this->header(ExchangeType::main), writer, cipher(), keys_.encryption, iv_);
  reaction.done = true;
  stage_ = Stage::association;
  return reaction;
}

}  // namespace helper::isakmp
