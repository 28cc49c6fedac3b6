#include "helper/isakmp/Association.h"

#include <algorithm>
#include <array>

#include "helper/isakmp/RekeyTime.h"

namespace helper::isakmp {

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr seconds kLeastLifetime{120};
// More than a day of the server asking every ten seconds whether we live.
constexpr std::size_t kMessageIDs = 10000;

}  // namespace

milliseconds timeToRekey(seconds lifetime, Randomness &random) {
  std::array<std::uint8_t, 2> bytes{};
  random.fill(bytes);
  return replacementTime(lifetime, rekeyJitter(lifetime) * read16(bytes) / 0xffff);
}

seconds agreedLifetime(seconds ours, std::optional<seconds> theirs) {
  if (!theirs) return ours;
  return std::min(ours, std::max(*theirs, kLeastLifetime));
}

Association::Association(Terms terms, Instant now, Randomness &random)
    : terms_(std::move(terms)), rekeyAt_(now + timeToRekey(terms_.lifetime, random)), expires_(now + terms_.lifetime) {}

std::uint16_t Association::mode() const {
  return terms_.encapsulated ? udpTransportMode(terms_.extensions.natTraversal) : phase2::kTransport;
}

bool Association::isKnown(std::uint32_t id) const {
  return std::find(messageIDs_.begin(), messageIDs_.end(), id) != messageIDs_.end();
}

bool Association::takeMessageID(std::uint32_t id) {
  if (id == 0 || isKnown(id)) return false;
  if (messageIDs_.size() == kMessageIDs) messageIDs_.pop_front();
  messageIDs_.push_back(id);
  return true;
}

std::uint32_t Association::chooseMessageID(Randomness &random) {
  for (;;) {
    std::array<std::uint8_t, 4> bytes{};
    random.fill(bytes);
    if (takeMessageID(read32(bytes))) return read32(bytes);
  }
}

Bytes Association::ivFor(std::uint32_t messageID) const {
  return exchangeIV(hash(), cipher(), terms_.lastBlock, messageID);
}

Header Association::header(ExchangeType exchange, std::uint32_t messageID) const {
  return {terms_.cookies, PayloadType::none, exchange, 0, messageID};
}

Bytes Association::informational(Randomness &random, PayloadType type, View body) {
  const std::uint32_t id = chooseMessageID(random);
  PayloadWriter rest;
  rest.add(type, body);
  PayloadWriter payloads;
  payloads.add(PayloadType::hash, hash1(hash(), keys(), id, rest.bytes()).bytes());
  payloads.add(type, body);
  Bytes iv = ivFor(id);
  return sealedMessage(header(ExchangeType::informational, id), payloads, cipher(), keys().encryption, iv);
}

Bytes Association::tell(Randomness &random, const Notification &notification) {
  return informational(random, PayloadType::notification, encode(notification));
}

Bytes Association::tell(Randomness &random, const Deletion &deletion) {
  return informational(random, PayloadType::deletion, encode(deletion));
}

Bytes Association::cookieBytes() const {
  Bytes bytes = copyOf(terms_.cookies.initiator);
  append(bytes, terms_.cookies.responder);
  return bytes;
}

Deletion Association::farewell() const { return {kProtocolISAKMP, {cookieBytes()}}; }

}  // namespace helper::isakmp
