#include "helper/isakmp/QuickModes.h"

#include <algorithm>

namespace helper::isakmp {

namespace {

// Of the server's at once: each costs an SPI and a state.
constexpr std::ptrdiff_t kMostOfServer = 4;
// For our last message to arrive, and the server to tell its kernel.
constexpr std::chrono::milliseconds kServersTurn{500};

Bytes bytesOf(std::uint32_t spi) {
  Bytes bytes;
  append32(bytes, spi);
  return bytes;
}

}  // namespace

QuickModes::Place QuickModes::find(PairID pair) {
  return std::find_if(
      exchanges_.begin(), exchanges_.end(), [&](const auto &exchange) { return exchange->quickMode().pair() == pair; });
}

bool QuickModes::isUnderWay() const {
  return std::any_of(
      exchanges_.begin(), exchanges_.end(),
      [](const auto &exchange) { return exchange->ours && exchange->step != Step::done; });
}

void QuickModes::chooseFlow(const Association &association) {
  if (flowLocalPort_) return;
  const Plan &plan = session_.plan;
  flowLocalPort_ =
      association.terms().natAtUs ? plan.otherFlowLocalPort.value_or(plan.flowLocalPort) : plan.flowLocalPort;
}

bool QuickModes::changeFlow() {
  const Plan &plan = session_.plan;
  if (hasChangedFlow_ || !plan.otherFlowLocalPort) return false;
  hasChangedFlow_ = true;
  flowLocalPort_ = flowLocalPort_ == plan.flowLocalPort ? *plan.otherFlowLocalPort : plan.flowLocalPort;
  return true;
}

void QuickModes::begin(const std::shared_ptr<Association> &association) {
  if (isUnderWay()) return;
  lastAssociation_ = association;
  chooseFlow(*association);
  auto exchange = std::make_unique<Exchange>();
  exchange->ours =
      std::make_unique<QuickModeInitiator>(session_.plan, association, session_.random, ++lastPair_, *flowLocalPort_);
  exchange->replaced = pairs_.ids();
  exchange->stepEnds = session_.now + session_.plan.timing.answerMemory;
  exchanges_.push_back(std::move(exchange));
  session_.tell(NeedSPI{lastPair_});
}

void QuickModes::allocated(PairID pair, std::uint32_t spi) {
  const Place place = find(pair);
  if (place == exchanges_.end() || (*place)->step != Step::spi) return;
  Exchange &exchange = **place;
  if (exchange.theirs) {
    exchange.reply = exchange.theirs->answer(spi);
    return installInbound(exchange);
  }
  exchange.step = Step::sent;
  exchange.stepEnds.reset();
  Bytes message = exchange.ours->firstMessage(spi);
  session_.send(message);
  exchange.retransmission.start(session_.now, session_.plan.timing, std::move(message));
}

void QuickModes::receive(const std::shared_ptr<Association> &association, const Header &header, View datagram,
                         vpnctl::RateLimit &limit) {
  const auto place = std::find_if(exchanges_.begin(), exchanges_.end(), [&](const auto &exchange) {
    return exchange->quickMode().association() == association && exchange->quickMode().messageID() == header.messageID;
  });
  if (place == exchanges_.end()) {
    if (!limit.hasRoom(session_.now)) return session_.drop("too much at once");
    return receiveOffer(association, header, datagram, limit);
  }
  Exchange &exchange = **place;
  if (const Bytes *answer = exchange.lastAnswer.to(datagram)) return session_.send(*answer);
  if (sameBytes(exchange.received, datagram)) return session_.drop("the same message again");
  if (exchange.step != Step::sent) return session_.drop("a message out of turn");
  if (exchange.ours)
    receiveAnswer(exchange, header, datagram);
  else
    receiveLast(exchange, header, datagram);
}

void QuickModes::receiveOffer(const std::shared_ptr<Association> &association, const Header &header, View datagram,
                              vpnctl::RateLimit &limit) {
  // Before there is a pair the server has nothing to replace.
  if (!session_.up) return session_.drop("an exchange of the server's before there is anything");
  const auto ofServer = std::count_if(exchanges_.begin(), exchanges_.end(), [](const auto &exchange) {
    return exchange->theirs && exchange->step != Step::done;
  });
  if (ofServer == kMostOfServer) return session_.drop("too many exchanges of the server's");
  auto exchange = std::make_unique<Exchange>();
  exchange->theirs =
      std::make_unique<QuickModeResponder>(session_.plan, association, session_.random, lastPair_ + 1, *flowLocalPort_);
  const Reaction reaction = exchange->theirs->receiveOffer(header, datagram);
  // What is refused has been signed; what is only dropped has not.
  if (reaction.dropped.empty() || reaction.fatal) limit.count(session_.now);
  if (!reaction.dropped.empty()) {
    session_.drop(reaction.dropped);
    if (!reaction.fatal || !association->takeMessageID(header.messageID)) return;
    return session_.send(
        association->tell(session_.random, Notification{kProtocolESP, reaction.suspicion->notification, {}, {}}));
  }
  if (!association->takeMessageID(header.messageID)) return session_.drop("a message id for the second time");
  lastAssociation_ = association;
  exchange->received = copyOf(datagram);
  exchange->replaced = pairs_.ids();
  exchange->stepEnds = session_.now + session_.plan.timing.answerMemory;
  exchanges_.push_back(std::move(exchange));
  session_.tell(NeedSPI{++lastPair_});
}

void QuickModes::receiveAnswer(Exchange &exchange, const Header &header, View datagram) {
  const Reaction reaction = exchange.ours->receive(header, datagram);
  if (!reaction.dropped.empty()) {
    session_.drop(reaction.dropped);
    if (reaction.fatal) fail(find(exchange.quickMode().pair()), *reaction.suspicion);
    return;
  }
  session_.measured(exchange.retransmission.roundTrip(session_.now));
  exchange.retransmission.stop();
  exchange.received = copyOf(datagram);
  exchange.reply = exchange.ours->lastMessage();
  installInbound(exchange);
}

void QuickModes::receiveLast(Exchange &exchange, const Header &header, View datagram) {
  const Reaction reaction = exchange.theirs->receiveLast(header, datagram);
  if (!reaction.dropped.empty()) return session_.drop(reaction.dropped);
  exchange.retransmission.stop();
  exchange.received = copyOf(datagram);
  installOutbound(exchange);
}

void QuickModes::installInbound(Exchange &exchange) {
  exchange.step = Step::inbound;
  exchange.stepEnds = session_.now + session_.plan.timing.answerMemory;
  session_.tell(exchange.quickMode().state(Direction::inbound));
}

void QuickModes::installOutbound(Exchange &exchange) {
  exchange.step = Step::outbound;
  exchange.stepEnds = session_.now + session_.plan.timing.answerMemory;
  session_.tell(exchange.quickMode().state(Direction::outbound));
}

void QuickModes::installed(PairID pair, Direction direction) {
  const Place place = find(pair);
  if (place == exchanges_.end()) return;
  Exchange &exchange = **place;
  if (direction == Direction::outbound) {
    if (exchange.step == Step::outbound) stand(exchange);
    return;
  }
  if (exchange.step != Step::inbound) return;
  session_.send(exchange.reply);
  exchange.lastAnswer.keep(exchange.received, exchange.reply);
  if (exchange.theirs) {
    exchange.step = Step::sent;
    exchange.stepEnds.reset();
    return exchange.retransmission.start(session_.now, session_.plan.timing, exchange.reply);
  }
  const bool asksForIt = exchange.ours->serverWantsUsToWait();
  // What is sent under keys that the server does not know yet is lost; the old ones still serve.
  if (!asksForIt && (pairs_.empty() || pairsInDoubt_)) return installOutbound(exchange);
  exchange.step = Step::waiting;
  exchange.stepEnds = session_.now + (asksForIt ? session_.plan.timing.connectedWait : kServersTurn);
}

void QuickModes::connected(const std::shared_ptr<Association> &association) {
  for (const auto &exchange : exchanges_)
    if (exchange->step == Step::waiting && exchange->quickMode().association() == association)
      installOutbound(*exchange);
}

void QuickModes::stand(Exchange &exchange) {
  QuickMode &quickMode = exchange.quickMode();
  quickMode.forgetSecrets();
  exchange.step = Step::done;
  exchange.stepEnds = session_.now + session_.plan.timing.answerMemory;
  pairsInDoubt_ = false;
  pairs_.add(Pair{quickMode.pair(), quickMode.inboundSPI(), quickMode.outboundSPI(),
                  session_.now + timeToRekey(quickMode.lifetime(), session_.random), std::nullopt,
                  session_.now + quickMode.lifetime()},
             exchange.replaced, session_.now + session_.plan.timing.overlap);
  handlers_.up(quickMode);
}

void QuickModes::drop(Place place) {
  const QuickMode &quickMode = (*place)->quickMode();
  if (quickMode.inboundSPI() != 0)
    session_.tell(RemoveStates{quickMode.pair(), quickMode.inboundSPI(),
                               (*place)->step == Step::outbound ? quickMode.outboundSPI() : 0});
  exchanges_.erase(place);
}

void QuickModes::fail(Place place, Suspicion suspicion) {
  const bool ours = static_cast<bool>((*place)->ours);
  drop(place);
  if (ours) handlers_.failed(Failure{Stage::association, std::move(suspicion), false});
}

void QuickModes::notInstalled(PairID pair) {
  const Place place = find(pair);
  if (place == exchanges_.end() || (*place)->step == Step::done) return;
  const auto association = (*place)->quickMode().association();
  const std::uint32_t spi = (*place)->quickMode().inboundSPI();
  // Once the server has our last message, it uses what we do not have.
  if ((*place)->step == Step::outbound)
    session_.send(association->tell(session_.random, Deletion{kProtocolESP, {bytesOf(spi)}}));
  fail(place, {Reason::notInstalled, 0, "the kernel does not take the keys", true});
}

void QuickModes::refused(const std::shared_ptr<Association> &association, const Notification &notification) {
  const auto isMeant = [&](const std::unique_ptr<Exchange> &exchange) {
    if (exchange->step == Step::done || exchange->quickMode().association() != association) return false;
    if (exchange->step == Step::spi) return false;
    return exchange->ours &&
           (notification.spi.size() != 4 || read32(notification.spi) == exchange->quickMode().inboundSPI() ||
            read32(notification.spi) == exchange->quickMode().outboundSPI());
  };
  const auto isOurs = [&](const std::unique_ptr<Exchange> &exchange) {
    return exchange->step == Step::sent && exchange->ours && exchange->quickMode().association() == association;
  };
  Place place = std::find_if(exchanges_.begin(), exchanges_.end(), isMeant);
  // Some name an SPI of their own, that we have not heard of yet.
  if (place == exchanges_.end()) place = std::find_if(exchanges_.begin(), exchanges_.end(), isOurs);
  if (place == exchanges_.end()) return session_.drop("it says " + notificationName(notification.type));
  fail(place, suspicionOf(notification, Stage::association));
}

void QuickModes::deleted(std::uint32_t spi) {
  if (spi < kLeastSPI) return session_.drop("the end of something that cannot be");
  if (const auto pair = pairs_.find(spi)) return removePair(*pair, false, true);
  const auto place = std::find_if(exchanges_.begin(), exchanges_.end(), [&](const auto &exchange) {
    const QuickMode &quickMode = exchange->quickMode();
    return exchange->step != Step::done && (quickMode.inboundSPI() == spi || quickMode.outboundSPI() == spi);
  });
  if (place == exchanges_.end()) return session_.drop("the end of something that is not there");
  fail(place, {Reason::otherwise, 0, "the server deleted what it had agreed to", true});
}

void QuickModes::associationGone(const std::shared_ptr<Association> &association) {
  if (lastAssociation_ == association) lastAssociation_.reset();
  for (std::size_t i = exchanges_.size(); i-- > 0;) {
    const Place place = exchanges_.begin() + static_cast<std::ptrdiff_t>(i);
    if ((*place)->quickMode().association() != association) continue;
    if ((*place)->step == Step::done)
      exchanges_.erase(place);
    else
      drop(place);
  }
}

void QuickModes::removePair(PairID id, bool tell, bool byServer) {
  const auto pair = pairs_.remove(id);
  if (!pair) return;
  if (tell && lastAssociation_)
    session_.send(lastAssociation_->tell(session_.random, Deletion{kProtocolESP, {bytesOf(pair->inboundSPI)}}));
  session_.tell(RemoveStates{pair->id, pair->inboundSPI, pair->outboundSPI});
  // The old keys serve no longer; and who deletes them knows the new ones.
  if (byServer)
    for (const auto &exchange : exchanges_)
      if (exchange->step == Step::waiting) installOutbound(*exchange);
  if (pairs_.empty()) return handlers_.allGone(byServer);
  // What is left will be gone, too, and nobody has been going to replace it.
  if (pairs_.newestRetires() && !isUnderWay()) handlers_.rekey();
}

void QuickModes::tryAgainLater() { pairs_.setRekeyAt(session_.now + session_.plan.timing.rekeyRetry); }

std::optional<Deletion> QuickModes::end() {
  while (!exchanges_.empty())
    if (exchanges_.back()->step == Step::done)
      exchanges_.pop_back();
    else
      drop(exchanges_.end() - 1);
  Deletion deletion{kProtocolESP, {}};
  for (const Pair &pair : pairs_.all()) {
    deletion.spis.push_back(bytesOf(pair.inboundSPI));
    session_.tell(RemoveStates{pair.id, pair.inboundSPI, pair.outboundSPI});
  }
  pairs_ = PairTable();
  if (deletion.spis.empty()) return std::nullopt;
  return deletion;
}

std::optional<Instant> QuickModes::due() const {
  std::optional<Instant> next = earlier(pairs_.rekeyAt(), pairs_.nextEnd());
  for (const auto &exchange : exchanges_)
    next = earlier(next, earlier(exchange->retransmission.due(), exchange->stepEnds));
  return next;
}

void QuickModes::fire() {
  fireExchanges();
  if (const auto when = pairs_.rekeyAt(); when && *when <= session_.now) {
    tryAgainLater();
    handlers_.rekey();
  }
  while (const auto pair = pairs_.ended(session_.now)) removePair(*pair, true, false);
}

void QuickModes::fireExchanges() {
  std::vector<PairID> waiting;
  for (const auto &exchange : exchanges_) {
    const auto when = earlier(exchange->retransmission.due(), exchange->stepEnds);
    if (when && *when <= session_.now) waiting.push_back(exchange->quickMode().pair());
  }
  for (const PairID pair : waiting)
    if (const Place place = find(pair); place != exchanges_.end()) fireOne(place);
}

void QuickModes::fireOne(Place place) {
  Exchange &exchange = **place;
  if (exchange.step == Step::waiting) return installOutbound(exchange);
  if (exchange.step == Step::done) {
    exchanges_.erase(place);
    return;
  }
  if (exchange.stepEnds && *exchange.stepEnds <= session_.now)
    return fail(place, {Reason::notInstalled, 0, "the kernel does not answer", true});
  const Bytes *message = exchange.retransmission.again(session_.now);
  if (message == nullptr) return fail(place, Suspicion{});
  session_.send(*message);
}

}  // namespace helper::isakmp
