#include "helper/isakmp/MainMode.h"

namespace helper::isakmp {

using enum PayloadType;

MainMode::MainMode(const Setting &setting) : PhaseOneExchange(setting, Side::initiator) {}

Bytes MainMode::firstMessage() {
  association_ = encode(offerOf(setting_.plan.ike, setting_.plan.ikeLifetime));
  PayloadWriter writer;
  writer.add(securityAssociation, association_);
  addVendorIDs(writer, ownVendorIDs());
  return plainMessage(header(ExchangeType::main), writer);
}

Reaction MainMode::receive(const Header &header, View datagram) {
  if (header.exchange != ExchangeType::main) return Reaction::drop("a message of another exchange");
  if (header.cookies.responder == Cookie{}) return Reaction::drop("no responder cookie");
  if (stage_ != Stage::firstAnswer && header.cookies.responder != cookies_.responder)
    return Reaction::drop("another responder cookie");
  if (sameBytes(datagram, lastReceived_)) {
    // A server that cannot read our proof, because its secret is another, goes on sending what came before it.
    if (stage_ == Stage::authentication)
      return Reaction::suspect({Reason::wrongSecret, 0, "the same message again", false});
    return Reaction::drop("the same message again");
  }
  Reaction reaction;
  switch (stage_) {
    case Stage::firstAnswer:
      reaction = receiveChoice(header, datagram);
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
  if (reaction.dropped.empty()) lastReceived_ = copyOf(datagram);
  return reaction;
}

Reaction MainMode::receiveChoice(const Header &header, View datagram) {
  const auto chain = openPlain(header, datagram);
  if (!chain) return Reaction::drop(chain.error().message);
  if (const auto status = chain->expect({securityAssociation}, {vendorID, notification}); !status)
    return Reaction::drop(status.error().message);
  const auto answer = decodeSecurityAssociation(*chain->find(securityAssociation));
  if (!answer) return Reaction::drop(answer.error().message);
  const auto choice = checkChoice(*answer, setting_.plan.ike);
  if (!choice) return Reaction::suspect({Reason::badAnswer, 0, choice.error().message, true});
  choice_ = *choice;
  cookies_.responder = header.cookies.responder;
  takeVendorIDs(*chain);
  makeHalf(choice_.proposal.group);
  PayloadWriter writer;
  addHalf(writer);
  addNATDetection(writer);
  stage_ = Stage::keyExchange;
  return {.reply = plainMessage(this->header(ExchangeType::main), writer)};
}

Reaction MainMode::receiveHalf(const Header &header, View datagram) {
  const auto chain = openPlain(header, datagram);
  if (!chain) return Reaction::drop(chain.error().message);
  if (const auto status = chain->expect({keyExchange, nonce}, kBesideHalf); !status)
    return Reaction::drop(status.error().message);
  if (const auto status = takeHalf(*chain->find(keyExchange), *chain->find(nonce)); !status)
    return Reaction::suspect({Reason::badAnswer, 0, status.error().message, true});
  takeVendorIDs(*chain);
  if (const auto status = takeNATDetection(*chain); !status)
    return Reaction::suspect({Reason::badAnswer, 0, status.error().message, true});
  stage_ = Stage::authentication;
  return {.reply = proofMessage()};
}

Bytes MainMode::proofMessage() {
  const Bytes id = encode(setting_.plan.identity);
  PayloadWriter writer;
  writer.add(identification, id);
  writer.add(PayloadType::hash, proof(Side::initiator, id).bytes());
  // Behind a NAT others may have our address.
  if (setting_.initialContact && !natAtUs_) {
    Bytes spi = copyOf(cookies_.initiator);
    append(spi, cookies_.responder);
    writer.add(notification, encode(Notification{kProtocolISAKMP, notify::kInitialContact, spi, {}}));
  }
  return sealedMessage(header(ExchangeType::main), writer, cipher(), keys_.encryption, iv_);
}

Reaction MainMode::receiveProof(const Header &header, View datagram) {
  if ((header.flags & kFlagEncrypted) == 0) return Reaction::drop("in clear where nothing may be");
  const auto opened = openSealed(header, datagram, cipher(), keys_.encryption, iv_);
  if (!opened) return Reaction::suspect({Reason::wrongSecret, 0, opened.error().message, false});
  const PayloadChain &chain = opened->chain;
  if (chain.find(signature) || chain.find(certificate))
    return Reaction::suspect({Reason::certificate, 0, "it proves itself with a certificate", true});
  if (const auto status = chain.expect({identification, PayloadType::hash}, {vendorID, notification}); !status)
    return Reaction::suspect({Reason::wrongSecret, 0, status.error().message, false});
  if (chain.all(identification).size() != 1) return Reaction::drop("two identifications");
  Reaction reaction = checkPeer(*chain.find(identification), *chain.find(PayloadType::hash));
  if (!reaction.dropped.empty()) return reaction;
  takeVendorIDs(chain);
  takeLifetime(chain);
  iv_ = opened->lastBlock;
  stage_ = Stage::association;
  reaction.done = true;
  return reaction;
}

}  // namespace helper::isakmp
