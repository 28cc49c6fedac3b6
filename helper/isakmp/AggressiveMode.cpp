#include "helper/isakmp/AggressiveMode.h"

#include <algorithm>
#include <iterator>

namespace helper::isakmp {

using enum PayloadType;

AggressiveMode::AggressiveMode(const Setting &setting) : PhaseOneExchange(setting, Side::initiator) {
  // Our half of the key goes out before the server has chosen.
  std::copy_if(setting.plan.ike.begin(), setting.plan.ike.end(), std::back_inserter(offered_),
               [&](const IKEProposal &proposal) { return proposal.group == setting.plan.ike.front().group; });
}

Bytes AggressiveMode::firstMessage() {
  association_ = encode(offerOf(offered_, setting_.plan.ikeLifetime));
  makeHalf(offered_.front().group);
  PayloadWriter writer;
  writer.add(securityAssociation, association_);
  addHalf(writer);
  writer.add(identification, encode(setting_.plan.identity));
  addVendorIDs(writer, ownVendorIDs());
  return plainMessage(header(ExchangeType::aggressive), writer);
}

Reaction AggressiveMode::receive(const Header &header, View datagram) {
  if (header.exchange != ExchangeType::aggressive) return Reaction::drop("a message of another exchange");
  if (done_) return Reaction::drop("a message of an exchange that is over");
  if (header.cookies.responder == Cookie{}) return Reaction::drop("no responder cookie");
  const auto chain = openPlain(header, datagram);
  if (!chain) return Reaction::drop(chain.error().message);
  if (const auto status =
          chain->expect({securityAssociation, keyExchange, nonce, identification, PayloadType::hash}, kBesideHalf);
      !status)
    return Reaction::drop(status.error().message);
  const auto answer = decodeSecurityAssociation(*chain->find(securityAssociation));
  if (!answer) return Reaction::drop(answer.error().message);
  const auto choice = checkChoice(*answer, offered_);
  if (!choice) return Reaction::suspect({Reason::badAnswer, 0, choice.error().message, true});
  choice_ = *choice;
  cookies_.responder = header.cookies.responder;
  if (const auto status = takeHalf(*chain->find(keyExchange), *chain->find(nonce)); !status)
    return Reaction::suspect({Reason::badAnswer, 0, status.error().message, true});
  Reaction reaction = checkPeer(*chain->find(identification), *chain->find(PayloadType::hash));
  if (!reaction.dropped.empty()) {
    // Our secret or its: nothing else can follow that we would believe more.
    if (reaction.suspicion) reaction.suspicion->refused = true;
    return reaction;
  }
  takeVendorIDs(*chain);
  if (const auto status = takeNATDetection(*chain); !status)
    return Reaction::suspect({Reason::badAnswer, 0, status.error().message, true});
  done_ = true;
  return {.reply = proofMessage(), .done = true};
}

Bytes AggressiveMode::proofMessage() {
  PayloadWriter writer;
  writer.add(PayloadType::hash, proof(Side::initiator, encode(setting_.plan.identity)).bytes());
  addNATDetection(writer);
  if (setting_.initialContact && !natAtUs_) {
    Bytes spi = copyOf(cookies_.initiator);
    append(spi, cookies_.responder);
    writer.add(notification, encode(Notification{kProtocolISAKMP, notify::kInitialContact, spi, {}}));
  }
  return sealedMessage(header(ExchangeType::aggressive), writer, cipher(), keys_.encryption, iv_);
}

}  // namespace helper::isakmp
