// L2TP's control connection as a client with one incoming call (RFC 2661): start, call, hellos, disconnect, stop, over
// a connected UDP socket. A server calls itself LNS and us LAC; "incoming" is the call as the server sees it.
//
// Usual sequence: construct, start(); answered asks for a way for the call's packets, then established or failed, once;
// after established perhaps lost. stop() ends with stopped; while it runs nothing else is told.
//
// Thread rule: the thread of the event loop. No handler is called from within start() or stop(). Nothing blocks.

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "foundation/Result.h"
#include "helper/common/TunnelFailure.h"
#include "helper/l2tp/L2TPMessages.h"
#include "helper/l2tp/L2TPTransport.h"
#include "linux/EventSource.h"

namespace helper {

// The ids of a call and its tunnel, as each side chose them. None is 0.
struct L2TPCall {
  std::uint16_t tunnelID = 0;
  std::uint16_t peerTunnelID = 0;
  std::uint16_t sessionID = 0;
  std::uint16_t peerSessionID = 0;
};

class L2TPControlConnection {
 public:
  struct Deadlines {
    std::chrono::milliseconds call{10000};   // for the call to stand
    std::chrono::milliseconds hello{60000};  // of silence before we ask (RFC 2661 section 5.5)
    std::chrono::milliseconds check{20000};  // for the answer when we are asked to ask
    std::chrono::milliseconds stop{400};
    // Before the first message is sent again. The server may have its side of the IPSec association a moment later than
    // we have ours, and until then it hears nothing; but a slow one that hears it twice makes two tunnels of it.
    std::chrono::milliseconds firstRetry{300};
    L2TPTransport::Timing transport;
  };

  struct Handlers {
    // The server has answered the call: makes a way for its packets, before the server hears that the call is up and
    // sends the first of them. An error ends the attempt.
    std::function<vpnctl::Status(const L2TPCall &call)> answered;
    std::function<void()> established;
    std::function<void(const TunnelFailure &)> failed;
    std::function<void(const TunnelLoss &)> lost;
    std::function<void()> stopped;
  };

  L2TPControlConnection(sd_event *event, const Deadlines &deadlines, Handlers handlers);
  L2TPControlConnection(const L2TPControlConnection &) = delete;
  L2TPControlConnection &operator=(const L2TPControlConnection &) = delete;
  // Ends a tunnel that is up with what one datagram can say.
  ~L2TPControlConnection();

  // SOCKET is a UDP socket connected to the server; it stays the caller's and must outlive this.
  void start(int socket);
  // False while the server has said nothing.
  bool isAnswered() const { return state_ != State::idle && (state_ != State::starting || transport_.drained()); }
  // Of a call that is up: asks the server at once, and does not wait long for the answer.
  void check();
  void stop();
  // From now on nothing is sent and nothing but stopped is told.
  void fallSilent();

 private:
  enum class State { idle, starting, calling, established, stopping, down };
  // What there is to say at the end, and to whom.
  enum class Farewell { nobody, unanswered, acknowledged };

  void readDatagrams();
  void transmit(std::span<const std::uint8_t> datagram);
  void received(std::uint16_t session, std::span<const std::uint8_t> body);
  void handle(const l2tp::SCCRP &reply);
  void handle(const l2tp::StopCCN &notification);
  void handle(const l2tp::ICRP &reply);
  void handle(const l2tp::CDN &notify);
  void handle(const l2tp::OtherMessage &message);
  template <class Unexpected>
  void handle(const Unexpected &) {}  // acknowledged, and of no meaning to a client

  void awaitSilence();
  void unanswered();
  void refusedPort();
  // Ends with this REASON told to the server, as a failure or a loss.
  void protocolError(std::uint16_t result, std::uint16_t error, const std::string &sentence);
  // Failed or lost, whichever it is at this moment.
  void end(DeviceCause cause, std::string sentence, bool byServer = false);
  void sayGoodbye(bool reliably);
  void finishSoon();
  void finishStopping();

  sd_event *event_;
  Deadlines deadlines_;
  Handlers handlers_;
  State state_ = State::idle;
  Farewell farewell_ = Farewell::nobody;
  bool toldStopped_ = false;
  int socket_ = -1;
  std::string name_;  // the server's address as text
  std::uint16_t port_ = 0;
  int sendError_ = 0;  // why the last datagram did not even leave this machine
  L2TPCall call_;
  l2tp::ResultCode reason_;  // of the end, for the server
  L2TPTransport transport_;
  linux::EventSource io_;
  linux::EventSource deadline_;
  linux::EventSource nextTurn_;
};

}  // namespace helper
