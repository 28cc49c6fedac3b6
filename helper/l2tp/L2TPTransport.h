// L2TP's reliable delivery of control messages (RFC 2661, section 5.8): sequence numbers, a window, acknowledgements,
// retransmission with a growing interval. It neither opens sockets nor looks into messages.
//
// Usual sequence: send() what is to arrive, hand what arrives to receive(). gaveUp comes once, last.
//
// Thread rule: the thread of the event loop. Nothing blocks.

#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <span>
#include <vector>

#include "helper/l2tp/L2TPMessages.h"
#include "linux/EventSource.h"

namespace helper {

class L2TPTransport {
 public:
  static constexpr std::uint16_t kWindow = 4;  // how many messages we take ahead of an acknowledgement

  struct Timing {
    std::chrono::milliseconds firstRetry{1000};
    std::chrono::milliseconds longestRetry{4000};
    int tries = 9;  // transmissions in all
  };

  struct Handlers {
    std::function<void(std::span<const std::uint8_t> datagram)> transmit;
    // A message for SESSION (ours, or 0), each one once and in order. It may be answered at once: the answer
    // acknowledges it.
    std::function<void(std::uint16_t session, std::span<const std::uint8_t> body)> received;
    // The peer has acknowledged everything that was sent.
    std::function<void()> drained;
    std::function<void()> gaveUp;
  };

  L2TPTransport(sd_event *event, const Timing &timing, Handlers handlers);

  // The PEER's tunnel id, and how many messages it takes ahead of its acknowledgement.
  void setPeer(std::uint16_t tunnelID, std::uint16_t window);
  // From now on, also for what is on its way.
  void setFirstRetry(std::chrono::milliseconds interval);
  // To the peer's SESSION, or 0. Waits here while the window is full.
  void send(std::uint16_t session, const l2tp::Message &message);
  // Once and at once, and from then on nothing again, whatever becomes of it. Makes no use of the loop, which may have
  // finished.
  void sendOnce(std::uint16_t session, const l2tp::Message &message);
  void receive(const l2tp::Packet &packet);
  bool drained() const { return outgoing_.empty(); }

 private:
  struct Message {
    std::uint16_t session = 0;
    std::vector<std::uint8_t> body;
  };

  void acknowledged(std::uint16_t nr);
  void deliver(std::uint16_t session, std::span<const std::uint8_t> body);
  void fillWindow();
  void transmit(const Message &message, std::uint16_t ns);
  void armRetry();
  void retry();

  sd_event *event_;
  Timing timing_;
  Handlers handlers_;
  std::uint16_t peerTunnel_ = 0;
  std::uint16_t peerWindow_ = l2tp::kDefaultWindow;
  std::uint16_t firstNs_ = 0;               // of outgoing_.front()
  std::uint16_t nr_ = 0;                    // the next that we expect
  std::size_t inFlight_ = 0;                // of outgoing_, from the front
  std::deque<Message> outgoing_;            // not yet acknowledged
  std::map<std::uint16_t, Message> early_;  // arrived before one that is missing, by their Ns
  bool oweAcknowledgement_ = false;
  int tries_ = 0;  // of what is in flight
  linux::EventSource retry_;
};

}  // namespace helper
