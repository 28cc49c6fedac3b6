#include "helper/isakmp/Initiator.h"

#include <utility>

namespace helper::isakmp {

namespace {

// What the server may begin: some at once, and so many per second.
constexpr int kBurst = 40;
constexpr int kPerSecond = 20;
// What can become due at one moment, and what becomes due thereby.
constexpr int kMostAtOnce = 64;
constexpr std::uint8_t kKeepAlive[] = {0xff};

}  // namespace

Initiator::Initiator(Plan plan, vpnctl::Secret presharedKey, Randomness &random)
    : session_(std::move(plan), std::move(presharedKey), random),
      phaseOnes_(session_, {.established = [this](const auto &association) { phaseOneStands(association); },
                            .failed = [this](const Failure &failure) { phaseOneFailed(failure); },
                            .gone = [this](const auto &association) { phaseOneGone(association); }}),
      quickModes_(session_, {.up = [this](const QuickMode &quickMode) { pairStands(quickMode); },
                             .failed = [this](const Failure &failure) { pairFailed(failure); },
                             .allGone = [this](bool byServer) { allPairsGone(byServer); },
                             .rekey = [this] { replacePair(); }}),
      deadPeer_(session_.plan.deadPeerDelay, session_.plan.timing),
      unsignedLimit_(kBurst, kPerSecond),
      signedLimit_(kBurst, kPerSecond) {}

Outputs Initiator::start(Instant now) {
  if (started_ || session_.ended) return {};
  session_.now = now;
  started_ = true;
  if (session_.plan.startOn4500) session_.tell(Encapsulate{});
  phaseOnes_.begin();
  return session_.take();
}

Outputs Initiator::received(Instant now, ServerPort port, View datagram) {
  if (!started_ || session_.ended) return {};
  session_.now = now;
  dispatch(port, datagram);
  return session_.take();
}

void Initiator::dispatch(ServerPort port, View datagram) {
  if (port == ServerPort::natTraversal) {
    if (datagram.size() == 1) return;  // keeps a NAT awake
    if (datagram.size() < 4 || read32(datagram) != 0) return session_.drop("a packet of ESP");
    datagram = datagram.subspan(4);
  }
  const auto header = decodeHeader(datagram);
  if (!header) return session_.drop(header.error().message);
  const bool moves = port == ServerPort::natTraversal && phaseOnes_.mayMoveToEncapsulation(header->cookies);
  if (port != session_.port && !moves) return session_.drop("from the other port");
  switch (header->exchange) {
    case ExchangeType::main:
    case ExchangeType::aggressive:
      return phaseOnes_.receive(*header, datagram, unsignedLimit_);
    case ExchangeType::informational:
    case ExchangeType::quick:
      return phaseTwo(*header, datagram);
  }
}

void Initiator::phaseTwo(const Header &header, View message) {
  const auto association = phaseOnes_.find(header.cookies);
  if (!association) {
    if (header.exchange == ExchangeType::informational) return phaseOnes_.notified(header, message);
    return session_.drop("cookies of no exchange");
  }
  if (header.messageID == 0) return session_.drop("no message id");
  if (header.exchange == ExchangeType::quick) return quickModes_.receive(association, header, message, signedLimit_);
  if (!signedLimit_.hasRoom(session_.now)) return session_.drop("too much at once");
  informational(association, header, message);
}

void Initiator::informational(const std::shared_ptr<Association> &association, const Header &header, View message) {
  const auto opened = openSealed(header, message, association->cipher(), association->keys().encryption,
                                 association->ivFor(header.messageID));
  if (!opened) return session_.drop(opened.error().message);
  const PayloadChain &chain = opened->chain;
  const Payload &first = chain.payloads().front();
  const auto expected = hash1(association->hash(), association->keys(), header.messageID, chain.rest());
  if (first.type != PayloadType::hash || !equalInConstantTime(first.body, expected.bytes()))
    return session_.drop("a wrong hash");
  signedLimit_.count(session_.now);
  if (!association->takeMessageID(header.messageID)) return session_.drop("a message id for the second time");
  deadPeer_.heard(session_.now);
  for (const Payload &payload : chain.payloads()) {
    // The one before may have been the end.
    if (session_.ended || phaseOnes_.find(header.cookies) != association) return;
    if (payload.type == PayloadType::notification) {
      if (const auto notification = decodeNotification(payload.body)) handle(association, *notification);
    } else if (payload.type == PayloadType::deletion) {
      if (const auto deletion = decodeDeletion(payload.body)) handle(association, *deletion);
    }
  }
}

void Initiator::handle(const std::shared_ptr<Association> &association, const Notification &notification) {
  switch (notification.type) {
    case notify::kAreYouThere:
      return session_.send(association->tell(
          session_.random,
          Notification{kProtocolISAKMP, notify::kHereIAm, association->cookieBytes(), notification.data}));
    case notify::kConnected:
      return quickModes_.connected(association);
    default:
      // Whatever else it says, an answer to our question included, shows that it lives.
      if (notification.isError()) quickModes_.refused(association, notification);
  }
}

void Initiator::handle(const std::shared_ptr<Association> &association, const Deletion &deletion) {
  if (deletion.protocol == kProtocolESP) {
    for (const Bytes &spi : deletion.spis)
      if (spi.size() == 4 && !session_.ended) quickModes_.deleted(read32(spi));
    return;
  }
  if (deletion.protocol != kProtocolISAKMP) return;
  for (const Bytes &spi : deletion.spis) {
    if (spi != association->cookieBytes()) continue;
    serverLeaves_ = association == phaseOnes_.newest();
    return phaseOnes_.remove(association);
  }
}

Outputs Initiator::due(Instant now) {
  if (!started_ || session_.ended) return {};
  session_.now = now;
  for (int i = 0; i < kMostAtOnce && !session_.ended; ++i) {
    const auto next = nextDue();
    if (!next || *next > now) break;
    fireOnce();
  }
  return session_.take();
}

void Initiator::fireOnce() {
  phaseOnes_.fire();
  if (!session_.ended) quickModes_.fire();
  if (session_.ended) return;
  if (keepAlive_ && *keepAlive_ <= session_.now) {
    keepAlive_ = session_.now + session_.plan.timing.keepAlive;
    session_.tell(Send{ServerPort::natTraversal, copyOf(kKeepAlive)});
  }
  if (const auto when = deadPeer_.due(); when && *when <= session_.now) askServer();
}

void Initiator::askServer() {
  const auto association = phaseOnes_.newest();
  if (!association || !association->terms().extensions.deadPeerDetection) return deadPeer_.stop();
  const auto number = deadPeer_.ask(session_.now);
  if (!number) return lose(false, Reason::silence, "the server does not answer any more");
  Bytes data;
  append32(data, *number);
  session_.send(association->tell(
      session_.random, Notification{kProtocolISAKMP, notify::kAreYouThere, association->cookieBytes(), data}));
}

Outputs Initiator::allocated(Instant now, PairID pair, std::uint32_t spi) {
  if (session_.ended) return {};
  session_.now = now;
  quickModes_.allocated(pair, spi);
  return session_.take();
}

Outputs Initiator::installed(Instant now, PairID pair, Direction direction) {
  if (session_.ended) return {};
  session_.now = now;
  quickModes_.installed(pair, direction);
  return session_.take();
}

Outputs Initiator::notInstalled(Instant now, PairID pair) {
  if (session_.ended) return {};
  session_.now = now;
  quickModes_.notInstalled(pair);
  return session_.take();
}

Outputs Initiator::stop(Instant now) {
  if (session_.ended) return {};
  session_.now = now;
  end(Stopped{});
  return session_.take();
}

std::optional<Instant> Initiator::nextDue() const {
  if (!started_ || session_.ended) return std::nullopt;
  return earlier(earlier(phaseOnes_.due(), quickModes_.due()), earlier(keepAlive_, deadPeer_.due()));
}

void Initiator::phaseOneStands(const std::shared_ptr<Association> &association) {
  const Association::Terms &terms = association->terms();
  std::array<std::uint8_t, 4> first{};
  session_.random.fill(first);
  deadPeer_.stop();
  // The upper half is left, so that it does not begin anew while the association lasts.
  if (terms.extensions.deadPeerDetection) deadPeer_.start(session_.now, read32(first) & 0x7fffffff);
  const bool behindNAT = terms.natAtUs || (terms.encapsulated && session_.plan.forceEncapsulation);
  keepAlive_ = behindNAT ? std::optional(session_.now + session_.plan.timing.keepAlive) : std::nullopt;
  if (!wantsPair_) return;
  wantsPair_ = false;
  quickModes_.begin(association);
}

void Initiator::phaseOneFailed(const Failure &failure) {
  if (!session_.up) return refuse(failure);
  // The one before still holds; it is tried again.
  if (const auto association = phaseOnes_.newest()) {
    if (!std::exchange(wantsPair_, false)) return;
    return quickModes_.begin(association);
  }
  lose(serverLeaves_, failure.suspicion.reason, failure.suspicion.detail);
}

void Initiator::phaseOneGone(const std::shared_ptr<Association> &association) {
  const bool wasNegotiating = quickModes_.isUnderWay();
  quickModes_.associationGone(association);
  if (phaseOnes_.newest()) {
    if (wasNegotiating && !quickModes_.isUnderWay()) replacePair();
    return;
  }
  deadPeer_.stop();
  if (!session_.up)
    return refuse({Stage::association, {Reason::otherwise, 0, "the server ended the association", true}, false});
  if (!quickModes_.hasPair()) return lose(serverLeaves_, Reason::otherwise, "the association is over");
  // What it does with packets now nobody knows.
  quickModes_.doubtPairs();
  wantsPair_ = true;
  phaseOnes_.begin();
}

void Initiator::pairStands(const QuickMode &quickMode) {
  serverLeaves_ = false;
  if (session_.up) return session_.tell(Replaced{quickMode.pair()});
  session_.up = true;
  const Association::Terms &terms = quickMode.association()->terms();
  session_.tell(Established{terms.proposal, quickMode.proposal(), terms.encapsulated, quickMode.flowLocalPort(),
                            session_.roundTrip.value_or(std::chrono::milliseconds(0))});
}

void Initiator::pairFailed(const Failure &failure) {
  if (!session_.up) {
    const bool saysNo = failure.suspicion.notification != 0;
    if (!saysNo || !phaseOnes_.newest() || !quickModes_.changeFlow()) return refuse(failure);
    refusedFlow_ = failure;
    return quickModes_.begin(phaseOnes_.newest());
  }
  if (quickModes_.hasPair()) return quickModes_.tryAgainLater();
  lose(serverLeaves_, failure.suspicion.reason, failure.suspicion.detail);
}

void Initiator::allPairsGone(bool byServer) {
  if (byServer) serverLeaves_ = true;
  if (quickModes_.isUnderWay()) return;
  if (phaseOnes_.newest()) return replacePair();
  if (!phaseOnes_.isUnderWay()) return lose(byServer, Reason::otherwise, "the association is over");
  wantsPair_ = true;
}

void Initiator::replacePair() {
  const auto association = phaseOnes_.newest();
  // What is agreed on under an association that is being replaced may end with it.
  if (association && !phaseOnes_.isUnderWay()) return quickModes_.begin(association);
  wantsPair_ = true;
  phaseOnes_.begin();
}

void Initiator::refuse(const Failure &failure) {
  // Servers say no to one flow, and then nothing to the other, or end the association. Some refuse what was proposed
  // for the one, and do not know the other.
  const bool isMute = failure.suspicion.notification == 0 && failure.suspicion.reason != Reason::notInstalled;
  const bool meantTheProposal =
      refusedFlow_ && refusedFlow_->suspicion.reason == Reason::noProposal && failure.suspicion.reason == Reason::flow;
  const Failure &told = refusedFlow_ && (isMute || meantTheProposal) ? *refusedFlow_ : failure;
  const Suspicion &suspicion = told.suspicion;
  end(Refused{told.stage, suspicion.reason, suspicion.notification, suspicion.detail, told.certificateRequested});
}

void Initiator::lose(bool byServer, Reason reason, std::string detail) {
  // Also while the first pair is still to come.
  if (!session_.up) return refuse({Stage::association, {reason, 0, std::move(detail), true}, false});
  end(Lost{byServer, reason, std::move(detail)});
}

void Initiator::end(Output last) {
  if (session_.ended) return;
  const auto association = phaseOnes_.newest();
  if (const auto deletion = quickModes_.end(); deletion && association)
    session_.send(association->tell(session_.random, *deletion));
  for (const auto &each : phaseOnes_.all()) session_.send(each->tell(session_.random, each->farewell()));
  session_.ended = true;
  session_.tell(std::move(last));
}

}  // namespace helper::isakmp
