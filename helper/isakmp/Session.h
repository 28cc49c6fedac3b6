// What the parts of an Initiator share: what is wanted, how late it is, what is to be done.
//
// Thread rule: as any object that keeps state.

#pragma once

#include "helper/isakmp/Association.h"
#include "helper/isakmp/PhaseOneExchange.h"

namespace helper::isakmp {

// How a negotiation ended that did not succeed.
struct Failure {
  Stage stage = Stage::firstAnswer;
  Suspicion suspicion;
  bool certificateRequested = false;
};

// What the server's NOTIFICATION means when it comes in STAGE.
Suspicion suspicionOf(const Notification &notification, Stage stage);

class Session {
 public:
  Session(Plan wanted, vpnctl::Secret secret, Randomness &source)
      : plan(std::move(wanted)),
        presharedKey(std::move(secret)),
        random(source),
        port(plan.startOn4500 ? ServerPort::natTraversal : ServerPort::ike) {}

  const Plan plan;
  const vpnctl::Secret presharedKey;
  Randomness &random;
  Instant now{};
  ServerPort port;
  bool up = false;  // it stood at least once
  bool ended = false;
  std::optional<Identification> server;  // as it proved to be
  std::optional<std::chrono::milliseconds> roundTrip;

  void tell(Output output) { outputs_.push_back(std::move(output)); }
  void drop(std::string why) { tell(Dropped{std::move(why)}); }
  // A message of IKE.
  void send(View message);
  // Everything goes to port 4500 from now on.
  void encapsulate();
  void measured(std::optional<std::chrono::milliseconds> time);
  // All since the last time.
  Outputs take() { return std::exchange(outputs_, {}); }

 private:
  Outputs outputs_;
};

// The earlier of two, where none is never.
std::optional<Instant> earlier(std::optional<Instant> a, std::optional<Instant> b);

}  // namespace helper::isakmp
