#include "helper/isakmp/PhaseOnes.h"

#include <algorithm>

#include "helper/isakmp/AggressiveMode.h"
#include "helper/isakmp/MainMode.h"

namespace helper::isakmp {

namespace {

constexpr std::size_t kMostAssociations = 4;
constexpr std::chrono::seconds kServersPatience{30};

}  // namespace

PhaseOneExchange::Setting PhaseOnes::setting() const {
  return {session_.plan,
          session_.presharedKey,
          session_.random,
          session_.port,
          session_.server ? &*session_.server : nullptr,
          session_.plan.initialContact && !session_.up};
}

void PhaseOnes::begin() {
  if (attempt_) return;
  attempt_.emplace();
  Bytes message;
  if (session_.plan.aggressive) {
    auto exchange = std::make_unique<AggressiveMode>(setting());
    message = exchange->firstMessage();
    attempt_->exchange = std::move(exchange);
  } else {
    auto exchange = std::make_unique<MainMode>(setting());
    message = exchange->firstMessage();
    attempt_->exchange = std::move(exchange);
  }
  session_.send(message);
  attempt_->retransmission.start(session_.now, session_.plan.timing, std::move(message));
}

std::shared_ptr<Association> PhaseOnes::find(const Cookies &cookies) const {
  for (const auto &association : associations_)
    if (association->terms().cookies == cookies) return association;
  return nullptr;
}

void PhaseOnes::remove(const std::shared_ptr<Association> &association) {
  const bool wasNewest = association == newest();
  if (std::erase(associations_, association) == 0) return;
  if (wasNewest) rekeyAt_ = associations_.empty() ? std::nullopt : std::optional(newest()->rekeyAt());
  handlers_.gone(association);
}

void PhaseOnes::receive(const Header &header, View datagram, vpnctl::RateLimit &limit) {
  if (header.messageID != 0) return session_.drop("a message id in phase 1");
  if (const auto association = find(header.cookies)) {
    if (const Bytes *answer = association->lastAnswer.to(datagram)) return session_.send(*answer);
    return session_.drop("a message of an exchange that is over");
  }
  if (!attempt_ || header.cookies.initiator != attempt_->exchange->cookies().initiator)
    return receiveFromServer(header, datagram, limit);
  react(attempt_->exchange->receive(header, datagram), datagram);
}

void PhaseOnes::react(const Reaction &reaction, View datagram) {
  if (!reaction.dropped.empty()) session_.drop(reaction.dropped);
  if (reaction.fatal) return fail(*reaction.suspicion);
  if (reaction.suspicion) return suspect(*reaction.suspicion);
  if (!reaction.dropped.empty()) return;
  session_.measured(attempt_->retransmission.roundTrip(session_.now));
  attempt_->suspicion.reset();
  attempt_->graceEnds.reset();
  attempt_->retransmission.stop();
  if (attempt_->exchange->encapsulated()) session_.encapsulate();
  if (reaction.reply) session_.send(*reaction.reply);
  if (!session_.up) session_.tell(StageReached{attempt_->exchange->stage()});
  if (!reaction.done) return attempt_->retransmission.start(session_.now, session_.plan.timing, *reaction.reply);
  auto association = attempt_->exchange->association(session_.now);
  if (reaction.reply) association->lastAnswer.keep(datagram, *reaction.reply);
  attempt_.reset();
  add(std::move(association));
}

void PhaseOnes::suspect(const Suspicion &suspicion) {
  if (!attempt_->suspicion || suspicion.refused) attempt_->suspicion = suspicion;
  if (suspicion.refused && !attempt_->graceEnds) attempt_->graceEnds = session_.now + session_.plan.timing.refusalGrace;
}

void PhaseOnes::fail(Suspicion suspicion) {
  const Failure failure{attempt_->exchange->stage(), std::move(suspicion), attempt_->exchange->certificateRequested()};
  attempt_.reset();
  if (!associations_.empty()) rekeyAt_ = session_.now + session_.plan.timing.rekeyRetry;
  handlers_.failed(failure);
}

void PhaseOnes::add(std::shared_ptr<Association> association) {
  if (associations_.size() == kMostAssociations) {
    const auto oldest = associations_.front();
    remove(oldest);
  }
  session_.server = association->terms().peer;
  rekeyAt_ = association->rekeyAt();
  associations_.push_back(association);
  handlers_.established(association);
}

bool PhaseOnes::mayMoveToEncapsulation(const Cookies &cookies) const {
  return serversAttempt_ && serversAttempt_->cookies() == cookies && serversAttempt_->encapsulated();
}

void PhaseOnes::receiveFromServer(const Header &header, View datagram, vpnctl::RateLimit &limit) {
  if (!session_.up) return session_.drop("an exchange of the server's before there is anything");
  const bool first = header.cookies.responder == Cookie{};
  if (first && (!serversAttempt_ || serversAttempt_->cookies().initiator != header.cookies.initiator)) {
    // Whoever gets no further than the first message may not even have the address that it says.
    if (serversAttempt_ && serversAttempt_->stage() == Stage::authentication)
      return session_.drop("a second exchange of the server's");
    if (!limit.allows(session_.now)) return session_.drop("too much at once");
    serversAttempt_ = std::make_unique<MainModeResponder>(setting(), header);
    serversAttemptEnds_ = session_.now + kServersPatience;
  }
  if (!serversAttempt_ || serversAttempt_->cookies().initiator != header.cookies.initiator)
    return session_.drop("cookies of no exchange");
  const Reaction reaction = serversAttempt_->receive(header, datagram);
  if (!reaction.dropped.empty()) {
    session_.drop(reaction.dropped);
    if (reaction.fatal || serversAttempt_->stage() == Stage::firstAnswer) serversAttempt_.reset();
    if (!serversAttempt_) serversAttemptEnds_.reset();
    return;
  }
  // Before that anybody can pretend that there is a NAT.
  if (reaction.done && serversAttempt_->encapsulated()) session_.encapsulate();
  if (reaction.reply) session_.send(*reaction.reply);
  if (!reaction.done) return;
  auto association = serversAttempt_->association(session_.now);
  association->lastAnswer.keep(datagram, *reaction.reply);
  serversAttempt_.reset();
  serversAttemptEnds_.reset();
  add(std::move(association));
}

void PhaseOnes::notified(const Header &header, View datagram) {
  if (!attempt_ || header.cookies.initiator != attempt_->exchange->cookies().initiator)
    return session_.drop("cookies of no exchange");
  const Cookie &known = attempt_->exchange->cookies().responder;
  if (known != Cookie{} && header.cookies.responder != known && header.cookies.responder != Cookie{})
    return session_.drop("another responder cookie");
  const Stage stage = attempt_->exchange->stage();
  if ((header.flags & kFlagEncrypted) != 0) {
    if (!attempt_->exchange->hasKeys()) return session_.drop("encrypted where nothing can be");
    return suspect({Reason::wrongSecret, 0, "it says something that cannot be read", true});
  }
  const auto chain = openPlain(header, datagram);
  if (!chain) return session_.drop(chain.error().message);
  const auto body = chain->find(PayloadType::notification);
  if (!body) return session_.drop("nothing that may be said in clear");
  const auto notification = decodeNotification(*body);
  if (!notification) return session_.drop(notification.error().message);
  if (!notification->isError()) return session_.drop("nothing that may be said in clear");
  suspect(suspicionOf(*notification, stage));
}

std::optional<Instant> PhaseOnes::due() const {
  std::optional<Instant> next = earlier(rekeyAt_, serversAttemptEnds_);
  if (attempt_) next = earlier(next, earlier(attempt_->retransmission.due(), attempt_->graceEnds));
  for (const auto &association : associations_) next = earlier(next, association->expires());
  return next;
}

void PhaseOnes::fire() {
  const Instant now = session_.now;
  const auto isDue = [&](const std::optional<Instant> &when) { return when && *when <= now; };
  if (isDue(serversAttemptEnds_)) {
    serversAttempt_.reset();
    serversAttemptEnds_.reset();
  }
  if (attempt_ && isDue(attempt_->graceEnds)) return fail(*attempt_->suspicion);
  if (attempt_ && isDue(attempt_->retransmission.due())) {
    const Bytes *message = attempt_->retransmission.again(now);
    if (message == nullptr) return fail(attempt_->suspicion.value_or(Suspicion{}));
    session_.send(*message);
  }
  if (isDue(rekeyAt_)) {
    rekeyAt_.reset();
    begin();
  }
  expire();
}

void PhaseOnes::expire() {
  const auto old = associations_;
  for (const auto &association : old)
    if (association->expires() <= session_.now) remove(association);
}

}  // namespace helper::isakmp
