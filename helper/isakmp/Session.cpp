#include "helper/isakmp/Session.h"

#include <algorithm>
#include <utility>

namespace helper::isakmp {

Suspicion suspicionOf(const Notification &notification, Stage stage) {
  Suspicion suspicion{Reason::otherwise, notification.type, "it says " + notificationName(notification.type), true};
  switch (notification.type) {
    case notify::kNoProposalChosen:
      suspicion.reason = Reason::noProposal;
      break;
    case notify::kInvalidID:
      suspicion.reason = stage == Stage::association ? Reason::flow : Reason::identity;
      break;
    case notify::kInvalidHash:
    case notify::kAuthenticationFailed:
      suspicion.reason = Reason::wrongSecret;
      break;
    case notify::kPayloadMalformed:
      // What is decrypted with the wrong key looks malformed.
      if (stage == Stage::authentication) suspicion.reason = Reason::wrongSecret;
      break;
    case notify::kInvalidKey:
      suspicion.reason = Reason::keyExchange;
      break;
    case notify::kInvalidCookie:
    case notify::kInvalidMessageID:
      suspicion.reason = Reason::forgotten;
      break;
    default:
      break;
  }
  return suspicion;
}

void Session::send(View message) {
  Bytes datagram;
  // What does not begin with zeros is taken for ESP there.
  if (port == ServerPort::natTraversal) append32(datagram, 0);
  append(datagram, message);
  tell(Send{port, std::move(datagram)});
}

void Session::encapsulate() {
  if (port == ServerPort::natTraversal) return;
  port = ServerPort::natTraversal;
  tell(Encapsulate{});
}

void Session::measured(std::optional<std::chrono::milliseconds> time) {
  if (time) roundTrip = roundTrip ? std::min(*roundTrip, *time) : *time;
}

std::optional<Instant> earlier(std::optional<Instant> a, std::optional<Instant> b) {
  if (!a || !b) return a ? a : b;
  return std::min(*a, *b);
}

}  // namespace helper::isakmp
