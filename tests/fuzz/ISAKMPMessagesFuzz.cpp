// Messages of IKE version 1 from a stranger: whatever is accepted must mean the same when it is written again, and what
// is accepted of a chain of payloads must be its very bytes. The input is a message, and once more each kind of body.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "helper/isakmp/Header.h"
#include "helper/isakmp/Identification.h"
#include "helper/isakmp/KeyExchange.h"
#include "helper/isakmp/Notification.h"
#include "helper/isakmp/Payloads.h"
#include "helper/isakmp/SecurityAssociation.h"
#include "helper/isakmp/Transforms.h"
#include "helper/isakmp/VendorIDs.h"

using namespace helper::isakmp;

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

// What DECODE takes comes back.
template <class Decode>
void expectSame(View body, const Decode &decode) {
  const auto value = decode(body);
  if (!value) {
    require(!value.error().message.empty());
    return;
  }
  const auto again = decode(encode(*value));
  require(again && *again == *value);
}

void checkAssociation(View body) {
  expectSame(body, decodeSecurityAssociation);
  const auto association = decodeSecurityAssociation(body);
  if (!association) return;
  // Whatever is chosen is ours, and is what we would say ourselves.
  const auto ike = defaultIKEProposals();
  const auto esp = defaultESPProposals();
  if (const auto choice = checkChoice(*association, ike))
    require(std::find(ike.begin(), ike.end(), choice->proposal) != ike.end());
  if (const auto choice = checkChoice(*association, esp, 2))
    require(choice->spi >= kLeastSPI && std::find(esp.begin(), esp.end(), choice->proposal) != esp.end());
  if (const auto agreement = choose(*association, ike)) {
    const auto checked = checkChoice(agreement->answer, ike);
    require(checked && checked->proposal == agreement->choice.proposal);
  }
  if (const auto agreement = choose(*association, esp, 2, 0x1000)) {
    const auto checked = checkChoice(agreement->answer, {agreement->choice.proposal}, 2);
    require(checked && checked->spi == 0x1000);
  }
}

// A server's half of a key.
void checkHalf(View body) {
  static const KeyExchange curve(Group::ecp256, vpnctl::Secret("a private value"));
  static const KeyExchange number(Group::modp1024, vpnctl::Secret("a private value"));
  const auto point = curve.sharedSecret(body);
  require(point ? point->size() == 32 : !point.error().message.empty());
  const auto power = number.sharedSecret(body);
  require(power ? power->size() == 128 : !power.error().message.empty());
}

void checkBody(PayloadType type, View body) {
  if (type == PayloadType::securityAssociation) checkAssociation(body);
  if (type == PayloadType::keyExchange) checkHalf(body);
  if (type == PayloadType::identification) expectSame(body, decodeIdentification);
  if (type == PayloadType::notification) expectSame(body, decodeNotification);
  if (type == PayloadType::deletion) expectSame(body, decodeDeletion);
  if (type == PayloadType::vendorID) PeerExtensions().add(body);
}

void checkChain(PayloadType first, View bytes, PayloadChain::Padding padding) {
  const auto chain = PayloadChain::decode(first, bytes, padding);
  if (!chain) return;
  PayloadWriter writer;
  for (const Payload &payload : chain->payloads()) {
    checkBody(payload.type, payload.body);
    writer.add(payload.type, payload.body);
  }
  require(writer.first() == first && sameBytes(writer.bytes(), chain->bytes()));
  require(chain->bytes().size() <= bytes.size() && chain->rest().size() < chain->bytes().size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const View bytes(data, size);
  for (const PayloadType type : {PayloadType::securityAssociation, PayloadType::identification,
                                 PayloadType::notification, PayloadType::deletion, PayloadType::keyExchange})
    checkBody(type, bytes);
  const auto header = decodeHeader(bytes);
  if (!header) return 0;
  require(sameBytes(encodeHeader(*header, size), bytes.first(kHeaderSize)));
  for (const auto padding : {PayloadChain::Padding::none, PayloadChain::Padding::allowed})
    checkChain(header->first, bytes.subspan(kHeaderSize), padding);
  return 0;
}
