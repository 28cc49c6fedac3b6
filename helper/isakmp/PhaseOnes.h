// The associations of phase 1: makes the first, replaces each before it ends, takes part when the server replaces it.
//
// Usual sequence: begin(); then established or failed. Once one stands, begin() makes another.
//
// Thread rule: as any object that keeps state.

#pragma once

#include <functional>

#include "foundation/RateLimit.h"
#include "helper/isakmp/MainModeResponder.h"
#include "helper/isakmp/Session.h"

namespace helper::isakmp {

class PhaseOnes {
 public:
  struct Handlers {
    std::function<void(const std::shared_ptr<Association> &)> established;
    std::function<void(const Failure &)> failed;
    std::function<void(const std::shared_ptr<Association> &)> gone;  // its time is over, or the server said so
  };

  // SESSION must outlive it.
  PhaseOnes(Session &session, Handlers handlers) : session_(session), handlers_(std::move(handlers)) {}

  // Nothing where it is under way.
  void begin();
  bool isUnderWay() const { return attempt_.has_value(); }
  // A message of main or aggressive mode.
  void receive(const Header &header, View datagram, vpnctl::RateLimit &limit);
  // Whether this is an exchange of the server's that has found a NAT: it goes on from port 4500.
  bool mayMoveToEncapsulation(const Cookies &cookies) const;
  // An informational message that belongs to no association that stands.
  void notified(const Header &header, View datagram);

  // The one to use; null: none.
  std::shared_ptr<Association> newest() const { return associations_.empty() ? nullptr : associations_.back(); }
  const std::vector<std::shared_ptr<Association>> &all() const { return associations_; }
  // Null: none of these cookies.
  std::shared_ptr<Association> find(const Cookies &cookies) const;
  void remove(const std::shared_ptr<Association> &association);

  std::optional<Instant> due() const;
  void fire();

 private:
  struct Attempt {
    std::unique_ptr<PhaseOneExchange> exchange;
    Retransmission retransmission;
    std::optional<Suspicion> suspicion;
    std::optional<Instant> graceEnds;
  };

  PhaseOneExchange::Setting setting() const;
  void react(const Reaction &reaction, View datagram);
  void suspect(const Suspicion &suspicion);
  void fail(Suspicion suspicion);
  void add(std::shared_ptr<Association> association);
  void receiveFromServer(const Header &header, View datagram, vpnctl::RateLimit &limit);
  void expire();

  Session &session_;
  Handlers handlers_;
  std::optional<Attempt> attempt_;
  std::unique_ptr<MainModeResponder> serversAttempt_;
  std::optional<Instant> serversAttemptEnds_;
  std::optional<Instant> rekeyAt_;  // the newest
  std::vector<std::shared_ptr<Association>> associations_;
};

}  // namespace helper::isakmp
