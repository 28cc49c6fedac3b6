#include "helper/l2tp/L2TPTransport.h"

#include <algorithm>

namespace helper {

namespace {

// Sequence numbers go round: what lies in the half behind is old, what lies in the half ahead is new.
std::uint16_t distance(std::uint16_t from, std::uint16_t to) { return static_cast<std::uint16_t>(to - from); }
constexpr std::uint16_t kHalf = 0x8000;

}  // namespace

L2TPTransport::L2TPTransport(sd_event *event, const Timing &timing, Handlers handlers)
    : event_(event), timing_(timing), handlers_(std::move(handlers)) {}

void L2TPTransport::setPeer(std::uint16_t tunnelID, std::uint16_t window) {
  peerTunnel_ = tunnelID;
  peerWindow_ = std::max(window, std::uint16_t{1});
}

void L2TPTransport::setFirstRetry(std::chrono::milliseconds interval) {
  timing_.firstRetry = interval;
  if (!retry_) return;
  tries_ = 1;
  armRetry();
}

void L2TPTransport::send(std::uint16_t session, const l2tp::Message &message) {
  outgoing_.push_back(Message{session, l2tp::encodeBody(message)});
  fillWindow();
}

void L2TPTransport::sendOnce(std::uint16_t session, const l2tp::Message &message) {
  retry_.reset();
  outgoing_.resize(inFlight_);  // what waits would only leave a gap before it
  outgoing_.push_back(Message{session, l2tp::encodeBody(message)});
  transmit(outgoing_.back(), static_cast<std::uint16_t>(firstNs_ + inFlight_));
  ++inFlight_;
}

void L2TPTransport::fillWindow() {
  while (inFlight_ < outgoing_.size() && inFlight_ < peerWindow_) {
    transmit(outgoing_[inFlight_], static_cast<std::uint16_t>(firstNs_ + inFlight_));
    ++inFlight_;
    if (!retry_) {
      tries_ = 1;
      armRetry();
    }
  }
}

void L2TPTransport::transmit(const Message &message, std::uint16_t ns) {
  oweAcknowledgement_ = false;
  handlers_.transmit(l2tp::encode(l2tp::Header{peerTunnel_, message.session, ns, nr_}, message.body));
}

void L2TPTransport::armRetry() {
  std::chrono::milliseconds interval = timing_.firstRetry;
  for (int i = 1; i < tries_ && interval < timing_.longestRetry; ++i) interval *= 2;
  retry_ = linux::EventSource::timer(event_, std::min(interval, timing_.longestRetry), [this] { retry(); });
}

void L2TPTransport::retry() {
  if (tries_ == timing_.tries) {
    retry_.reset();
    outgoing_.clear();
    // Perhaps only the acknowledgements were lost: a goodbye under the same number would be taken for a repetition.
    firstNs_ = static_cast<std::uint16_t>(firstNs_ + inFlight_);
    inFlight_ = 0;
    return handlers_.gaveUp();
  }
  ++tries_;
  armRetry();
  for (std::size_t i = 0; i < inFlight_; ++i) transmit(outgoing_[i], static_cast<std::uint16_t>(firstNs_ + i));
}

void L2TPTransport::acknowledged(std::uint16_t nr) {
  const std::uint16_t count = distance(firstNs_, nr);
  if (count == 0 || count > inFlight_) return;  // nothing new, or of something that was never sent
  outgoing_.erase(outgoing_.begin(), outgoing_.begin() + count);
  inFlight_ -= count;
  firstNs_ = nr;
  retry_.reset();
  if (inFlight_ > 0) {
    tries_ = 1;
    armRetry();
  }
  fillWindow();
  if (outgoing_.empty()) handlers_.drained();
}

void L2TPTransport::receive(const l2tp::Packet &packet) {
  const l2tp::Header &header = packet.header;
  acknowledged(header.nr);
  if (packet.body.empty()) return;
  const std::uint16_t ahead = distance(nr_, header.ns);
  if (ahead >= kHalf) {
    oweAcknowledgement_ = true;  // it comes again because our acknowledgement did not arrive
  } else if (ahead > 0) {
    if (ahead < kWindow)
      early_.try_emplace(header.ns, Message{header.sessionID, {packet.body.begin(), packet.body.end()}});
    return;
  } else {
    deliver(header.sessionID, packet.body);
    for (auto next = early_.extract(nr_); next; next = early_.extract(nr_))
      deliver(next.mapped().session, next.mapped().body);
  }
  if (oweAcknowledgement_) transmit(Message{}, static_cast<std::uint16_t>(firstNs_ + inFlight_));
}

void L2TPTransport::deliver(std::uint16_t session, std::span<const std::uint8_t> body) {
  ++nr_;
  oweAcknowledgement_ = true;
  handlers_.received(session, body);
}

}  // namespace helper
