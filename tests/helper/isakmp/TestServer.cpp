#include "tests/helper/isakmp/TestServer.h"

#include <algorithm>
#include <array>

namespace helper::isakmp {

using vpnctl::Secret;
using enum PayloadType;

namespace {

PayloadWriter written(const PayloadList &list) {
  PayloadWriter writer;
  for (const auto &[type, body] : list) writer.add(type, body);
  return writer;
}

void setLifetime(SecurityAssociation &association, std::uint16_t duration,
                 std::optional<std::chrono::seconds> lifetime) {
  if (!lifetime) return;
  for (Attribute &attribute : association.proposals[0].transforms[0].attributes)
    if (attribute.type == duration) attribute.value = static_cast<std::uint64_t>(lifetime->count());
}

}  // namespace

std::vector<Bytes> TestServerOptions::extensions(NATTraversal version, bool deadPeerDetection) {
  std::vector<Bytes> ids;
  for (const View id : vendorIDsFor({version, deadPeerDetection})) ids.push_back(copyOf(id));
  if (!deadPeerDetection) ids.pop_back();
  return ids;
}

TestServer::TestServer(TestServerOptions options) : options_(std::move(options)) {}

Send TestServer::toClient(View message) const {
  Bytes datagram;
  if (port_ == ServerPort::natTraversal) append32(datagram, 0);
  append(datagram, message);
  return {port_, datagram};
}

void TestServer::adopt(std::shared_ptr<Association> association) {
  terms_ = association->terms();
  associations_.push_back(std::move(association));
}

std::shared_ptr<Association> TestServer::find(const Cookies &cookies) const {
  for (const auto &each : associations_)
    if (each->terms().cookies == cookies) return each;
  return nullptr;
}

Header TestServer::header(ExchangeType exchange, std::uint32_t messageID) const {
  return {terms_.cookies, none, exchange, 0, messageID};
}

Bytes TestServer::sealed(Header header, const PayloadWriter &payloads, Bytes &iv) const {
  return sealedMessage(header, payloads, terms_.proposal.cipher, terms_.keys.encryption, iv);
}

std::vector<Send> TestServer::receive(ServerPort port, View datagram) {
  if (port == ServerPort::natTraversal) {
    if (datagram.size() < 4 || read32(datagram) != 0) return {};
    datagram = datagram.subspan(4);
  }
  const auto header = decodeHeader(datagram);
  if (!header) return {};
  port_ = port;
  std::optional<Bytes> answer;
  if (header->exchange == ExchangeType::main) answer = mainMode(*header, datagram);
  if (header->exchange == ExchangeType::aggressive) answer = aggressiveMode(*header, datagram);
  if (header->exchange == ExchangeType::quick) answer = quickMode(*header, datagram);
  if (header->exchange == ExchangeType::informational) answer = informational(*header, datagram);
  if (!answer) return {};
  return {toClient(*answer)};
}

std::optional<Bytes> TestServer::mainMode(const Header &header, View message) {
  if (sameBytes(message, lastMessage_)) return lastAnswer_;
  if (header.cookies.responder == Cookie{}) step_ = 0;
  if (step_ == 2) {
    auto answer = proof(header, message);
    if (answer) step_ = 3;
    if (answer) lastMessage_ = copyOf(message);
    if (answer) lastAnswer_ = *answer;
    return answer;
  }
  if (step_ > 2) return std::nullopt;
  const auto chain = openPlain(header, message);
  if (!chain) return std::nullopt;
  auto answer = step_ == 0 ? choose(header, *chain) : half(*chain);
  if (!answer) return std::nullopt;
  ++step_;
  lastMessage_ = copyOf(message);
  lastAnswer_ = *answer;
  return answer;
}

PayloadList TestServer::choicePayloads(const PayloadChain &chain) {
  offer_ = copyOf(*chain.find(securityAssociation));
  SecurityAssociation offer = *decodeSecurityAssociation(offer_);
  SecurityAssociation answer = offer;
  answer.proposals[0].transforms.resize(1);
  if (!options_.acceptsAnything) {
    const auto agreement = isakmp::choose(offer, {options_.ike});
    if (!agreement) return {};
    answer = agreement->answer;
  }
  terms_.proposal = options_.ike;
  setLifetime(answer, phase1::kLifeDuration, options_.ikeLifetime);
  PeerExtensions both;
  for (const View id : chain.all(vendorID)) both.add(id);
  PayloadList list{{securityAssociation, encode(answer)}};
  PeerExtensions named;
  for (const Bytes &id : options_.vendorIDs) {
    named.add(id);
    list.emplace_back(vendorID, id);
  }
  natTraversal_ = named.natTraversal;
  return list;
}

Bytes TestServer::refusal() const {
  PayloadWriter writer;
  writer.add(notification, encode(Notification{kProtocolISAKMP, notify::kNoProposalChosen, {}, {}}));
  return plainMessage(header(ExchangeType::informational), writer);
}

std::optional<Bytes> TestServer::choose(const Header &header, const PayloadChain &chain) {
  terms_ = {};
  terms_.cookies.initiator = header.cookies.initiator;
  random_.fill(terms_.cookies.responder);
  PayloadList list = choicePayloads(chain);
  if (list.empty()) return refusal();
  options_.edit(Message::choice, list);
  return plainMessage(this->header(ExchangeType::main), written(list));
}

void TestServer::takeHalf(const PayloadChain &chain) {
  half_ = std::make_unique<KeyExchange>(terms_.proposal.group, random_);
  publicI_ = copyOf(*chain.find(keyExchange));
  nonceI_ = copyOf(*chain.find(nonce));
  publicR_ = half_->publicValue();
  nonceR_.resize(20);
  random_.fill(nonceR_);
  const auto shared = half_->sharedSecret(publicI_);
  terms_.keys = derivePhaseOneKeys({terms_.proposal.hash, terms_.proposal.cipher, terms_.cookies, nonceI_, nonceR_},
                                   options_.secret, *shared);
  iv_ = firstIV(terms_.proposal.hash, terms_.proposal.cipher, publicI_, publicR_);
}

PayloadList TestServer::halfPayloads() {
  PayloadList list{{keyExchange, publicR_}, {nonce, nonceR_}};
  if (natTraversal_ == NATTraversal::none) return list;
  const PayloadType type = natDetectionPayload(natTraversal_);
  const HashAlgorithm hash = terms_.proposal.hash;
  list.emplace_back(type, natDetectionHash(hash, terms_.cookies, options_.client, options_.clientPort));
  list.emplace_back(type, natDetectionHash(hash, terms_.cookies, options_.own, static_cast<std::uint16_t>(port_)));
  return list;
}

// What the client says of itself is compared with what the server sees.
void TestServer::noteNATDetection(const PayloadChain &chain) {
  if (natTraversal_ == NATTraversal::none) return;
  const std::vector<View> hashes = chain.all(natDetectionPayload(natTraversal_));
  if (hashes.size() < 2) return;
  const HashAlgorithm hash = terms_.proposal.hash;
  const auto port = static_cast<std::uint16_t>(port_);
  terms_.natAtUs = !sameBytes(hashes[0], natDetectionHash(hash, terms_.cookies, options_.own, port));
  terms_.natAtServer =
      !sameBytes(hashes[1], natDetectionHash(hash, terms_.cookies, options_.client, options_.clientPort));
}

Bytes TestServer::half(const PayloadChain &chain) {
  takeHalf(chain);
  noteNATDetection(chain);
  PayloadList list = halfPayloads();
  options_.edit(Message::half, list);
  return plainMessage(header(ExchangeType::main), written(list));
}

std::optional<Bytes> TestServer::proof(const Header &header, View message) {
  const auto opened = openSealed(header, message, terms_.proposal.cipher, terms_.keys.encryption, iv_);
  if (!opened) return std::nullopt;
  const PayloadChain &chain = opened->chain;
  if (!chain.find(identification) || !chain.find(hash)) return std::nullopt;
  const HashAlgorithm algorithm = terms_.proposal.hash;
  const Cookies &cookies = terms_.cookies;
  const Secret expected =
      prf(algorithm, terms_.keys.skeyID,
          {publicI_, publicR_, cookies.initiator, cookies.responder, offer_, *chain.find(identification)});
  if (!sameBytes(expected.bytes(), *chain.find(hash))) return std::nullopt;
  iv_ = opened->lastBlock;
  clientIdentity_ = *decodeIdentification(*chain.find(identification));
  proofPayloads_.clear();
  for (const Payload &payload : chain.payloads()) proofPayloads_.push_back(payload.type);

  PayloadList list{{identification, encode(options_.identity)}};
  options_.edit(Message::proof, list);
  const Bytes id = list.empty() ? Bytes{} : list.front().second;
  Secret ours =
      prf(algorithm, terms_.keys.skeyID, {publicR_, publicI_, cookies.responder, cookies.initiator, offer_, id});
  if (options_.wrongHash) ours.mutableBytes()[0] ^= 1;
  list.insert(list.begin() + (list.empty() ? 0 : 1), {hash, copyOf(ours.bytes())});
  Bytes answer = sealed(this->header(ExchangeType::main), written(list), iv_);
  stand();
  return answer;
}

void TestServer::stand() {
  terms_.lastBlock = iv_;
  terms_.extensions.natTraversal = natTraversal_;
  terms_.encapsulated = port_ == ServerPort::natTraversal && natTraversal_ != NATTraversal::none &&
                        (terms_.natAtUs || terms_.natAtServer);
  terms_.lifetime = std::chrono::hours(1);
  associations_.push_back(std::make_shared<Association>(terms_, Instant(0), random_));
}

std::optional<Bytes> TestServer::aggressiveMode(const Header &header, View message) {
  if (header.cookies.responder == Cookie{}) {
    const auto chain = openPlain(header, message);
    if (!chain || !chain->find(identification)) return std::nullopt;
    if (sameBytes(message, lastMessage_)) return lastAnswer_;
    terms_ = {};
    terms_.cookies.initiator = header.cookies.initiator;
    random_.fill(terms_.cookies.responder);
    PayloadList list = choicePayloads(*chain);
    if (list.empty()) return refusal();
    takeHalf(*chain);
    clientIdentity_ = *decodeIdentification(*chain->find(identification));
    const Bytes id = encode(options_.identity);
    Secret ours = prf(terms_.proposal.hash, terms_.keys.skeyID,
                      {publicR_, publicI_, terms_.cookies.responder, terms_.cookies.initiator, offer_, id});
    if (options_.wrongHash) ours.mutableBytes()[0] ^= 1;
    for (auto &payload : halfPayloads()) list.push_back(std::move(payload));
    list.emplace_back(identification, id);
    list.emplace_back(hash, copyOf(ours.bytes()));
    options_.edit(Message::choice, list);
    lastMessage_ = copyOf(message);
    lastAnswer_ = plainMessage(this->header(ExchangeType::aggressive), written(list));
    return lastAnswer_;
  }
  const auto opened = openSealed(header, message, terms_.proposal.cipher, terms_.keys.encryption, iv_);
  if (!opened || !opened->chain.find(hash)) return std::nullopt;
  const Secret expected =
      prf(terms_.proposal.hash, terms_.keys.skeyID,
          {publicI_, publicR_, terms_.cookies.initiator, terms_.cookies.responder, offer_, encode(clientIdentity_)});
  if (!sameBytes(expected.bytes(), *opened->chain.find(hash))) return std::nullopt;
  noteNATDetection(opened->chain);
  iv_ = opened->lastBlock;
  stand();
  return std::nullopt;
}

std::optional<Bytes> TestServer::quickMode(const Header &header, View message) {
  const auto association = find(header.cookies);
  if (!association) return std::nullopt;
  Quick &quick = quick_[header.messageID];
  if (!quick.lastMessage.empty() && sameBytes(message, quick.lastMessage)) return quick.lastAnswer;
  const bool first = quick.messageID == 0;
  if (first) quick.iv = association->ivFor(header.messageID);
  const auto opened = openSealed(header, message, association->cipher(), association->keys().encryption, quick.iv);
  if (!opened) return std::nullopt;
  quick.messageID = header.messageID;
  if (const auto reason = first ? refusalOfQuickMode(opened->chain) : std::nullopt) {
    quick.lastMessage = copyOf(message);
    quick.lastAnswer = association->tell(random_, Notification{kProtocolESP, *reason, {}, {}});
    return quick.lastAnswer;
  }
  const std::optional<PayloadWriter> answer = first ? quickAnswer(*association, quick, opened->chain) : std::nullopt;
  if (!first) quickLast(*association, quick, opened->chain);
  if (!answer) return std::nullopt;
  // Of what was received: the answer is encrypted behind it.
  quick.iv = opened->lastBlock;
  PayloadWriter payloads;
  Secret ours = hash2(association->hash(), association->keys(), header.messageID, quick.nonceI, answer->bytes());
  if (options_.wrongHash) ours.mutableBytes()[0] ^= 1;
  payloads.add(hash, ours.bytes());
  payloads.add(*answer);
  Header answerHeader = association->header(ExchangeType::quick, header.messageID);
  if (options_.commit) answerHeader.flags = kFlagCommit;
  quick.lastMessage = copyOf(message);
  quick.lastAnswer =
      sealedMessage(answerHeader, payloads, association->cipher(), association->keys().encryption, quick.iv);
  return quick.lastAnswer;
}

std::optional<std::uint16_t> TestServer::refusalOfQuickMode(const PayloadChain &chain) const {
  const auto client = decodeIdentification(*chain.find(identification));
  if (!options_.protectedPorts.empty() && std::ranges::count(options_.protectedPorts, client->port) == 0)
    return notify::kInvalidID;
  return options_.refusesESP ? std::optional(notify::kNoProposalChosen) : std::nullopt;
}

// The payloads after the hash.
std::optional<PayloadWriter> TestServer::quickAnswer(const Association &association, Quick &quick,
                                                     const PayloadChain &chain) {
  const Secret expected = hash1(association.hash(), association.keys(), quick.messageID, chain.rest());
  if (!sameBytes(expected.bytes(), chain.payloads().front().body)) return std::nullopt;
  const SecurityAssociation offer = *decodeSecurityAssociation(*chain.find(securityAssociation));
  Pair pair;
  for (const Payload &payload : chain.payloads()) pair.payloads.push_back(payload.type);
  for (const View id : chain.all(identification)) pair.flow.push_back(*decodeIdentification(id));
  for (const Attribute &attribute : offer.proposals[0].transforms[0].attributes)
    if (attribute.type == phase2::kMode) pair.mode = static_cast<std::uint16_t>(attribute.value);
  std::array<std::uint8_t, 4> spi{0xcc, 0, 0, static_cast<std::uint8_t>(pairs_.size() + 1)};
  pair.inbound = read32(spi);
  const auto agreement = isakmp::choose(offer, {options_.esp}, pair.mode, pair.inbound);
  if (!agreement) return std::nullopt;
  SecurityAssociation answer = agreement->answer;
  setLifetime(answer, phase2::kLifeDuration, options_.espLifetime);
  pair.outbound = agreement->choice.spi;
  quick.nonceI = copyOf(*chain.find(nonce));
  quick.nonceR.resize(16);
  random_.fill(quick.nonceR);
  PayloadList list{{securityAssociation, encode(answer)}, {nonce, quick.nonceR}};
  Secret shared;
  if (const auto value = chain.find(keyExchange)) {
    KeyExchange own(*options_.esp.group, random_);
    shared = *own.sharedSecret(*value);
    list.emplace_back(keyExchange, own.publicValue());
  }
  for (const View id : chain.all(identification)) list.emplace_back(identification, copyOf(id));
  const std::size_t size = keySize(options_.esp.cipher) + hashSize(options_.esp.integrity);
  const auto keys = [&](std::uint32_t of) {
    return copyOf(
        keyMaterial(association.hash(), association.keys(), shared, of, quick.nonceI, quick.nonceR, size).bytes());
  };
  pair.inboundKeys = keys(pair.inbound);
  pair.outboundKeys = keys(pair.outbound);
  quick.pair = pairs_.size();
  pairs_.push_back(pair);
  options_.edit(Message::quickAnswer, list);
  return written(list);
}

void TestServer::quickLast(const Association &association, Quick &quick, const PayloadChain &chain) {
  const Secret expected = hash3(association.hash(), association.keys(), quick.messageID, quick.nonceI, quick.nonceR);
  if (chain.payloads().size() == 1 && sameBytes(expected.bytes(), chain.payloads().front().body))
    pairs_[quick.pair].confirmed = true;
}

std::optional<Bytes> TestServer::informational(const Header &header, View message) {
  const auto association = find(header.cookies);
  if (!association) return std::nullopt;
  const auto opened = openSealed(header, message, association->cipher(), association->keys().encryption,
                                 association->ivFor(header.messageID));
  if (!opened) return std::nullopt;
  const PayloadChain &chain = opened->chain;
  const Secret expected = hash1(association->hash(), association->keys(), header.messageID, chain.rest());
  if (!sameBytes(expected.bytes(), chain.payloads().front().body)) return std::nullopt;
  if (const auto body = chain.find(deletion)) deletions_.push_back(*decodeDeletion(*body));
  const auto body = chain.find(notification);
  if (!body) return std::nullopt;
  notifications_.push_back(*decodeNotification(*body));
  Notification answer = notifications_.back();
  if (!options_.answersQuestions || answer.type != notify::kAreYouThere) return std::nullopt;
  answer.type = notify::kHereIAm;
  return association->tell(random_, answer);
}

}  // namespace helper::isakmp
