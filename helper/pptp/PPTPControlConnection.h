// PPTP's control connection as a client with one outgoing call (RFC 2637): TCP, start, call, link info, echoes, clear,
// stop.
//
// Usual sequence: construct, start(); connected asks for our call id, then established or failed, once; after
// established perhaps lost. stop() ends with stopped; while it runs nothing else is told.
//
// Thread rule: the thread of the event loop. No handler is called from within start() or stop(). Nothing blocks.

#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "helper/common/Tunnel.h"
#include "helper/pptp/PPTPMessages.h"
#include "linux/EventSource.h"

namespace helper {

class PPTPControlConnection {
 public:
  // A server that hangs must not hold the user longer than a person waits.
  struct Deadlines {
    // CALL shared out for a call that is to stand by then; after ECHO of silence the server is asked whether it still
    // lives, and has as long again for its answer.
    static Deadlines within(std::chrono::milliseconds call, std::chrono::milliseconds echo) {
      Deadlines deadlines;
      deadlines.echoInterval = echo;
      deadlines.echoReply = echo;
      deadlines.call = call;
      deadlines.connect = call * 6 / 10;
      deadlines.reply = call * 4 / 10;
      return deadlines;
    }
    std::chrono::milliseconds call{10000};  // in all, which no other deadline exceeds
    std::chrono::milliseconds connect{6000};
    std::chrono::milliseconds reply{4000};          // to each request
    std::chrono::milliseconds echoInterval{60000};  // RFC 2637 section 3.1.4
    std::chrono::milliseconds echoReply{60000};
    std::chrono::milliseconds check{20000};  // to an echo that is asked for
    std::chrono::milliseconds stop{400};
  };

  struct Handlers {
    // The TCP connection is there, from this LOCAL address: gives our call id. An error ends the attempt.
    std::function<vpnctl::Result<std::uint16_t>(in_addr local)> connected;
    // The call is up; the server's call id.
    std::function<void(std::uint16_t peerCallID)> established;
    std::function<void(const Tunnel::Failure &)> failed;
    std::function<void(const Tunnel::Loss &)> lost;
    std::function<void()> stopped;
  };

  PPTPControlConnection(sd_event *event, const sockaddr_in &server, const Deadlines &deadlines, Handlers handlers);
  PPTPControlConnection(const PPTPControlConnection &) = delete;
  PPTPControlConnection &operator=(const PPTPControlConnection &) = delete;
  // Ends a call that is up with what one write can say.
  ~PPTPControlConnection();

  void start();
  // Of a call that is up: asks the server at once, and does not wait long for the answer.
  void check();
  void stop();

 private:
  enum class State { idle, connecting, starting, calling, established, stopping, down };

  void ready(std::uint32_t events);
  void finishConnecting();
  void readMessages();
  void handle(const pptp::Message &message);
  void handle(const pptp::StartReply &reply);
  void handle(const pptp::OutgoingCallReply &reply);
  void handle(const pptp::EchoRequest &request);
  void handle(const pptp::EchoReply &reply);
  void handle(const pptp::StopRequest &request);
  void handle(const pptp::StopReply &reply);
  void handle(const pptp::CallDisconnectNotify &notify);
  template <class Unexpected>
  void handle(const Unexpected &) {}  // of no meaning to a client

  void send(const pptp::Message &message);
  void flush();
  void wait(std::chrono::milliseconds deadline, std::string sentence);
  // What is left of a DEADLINE while the call is being made.
  std::chrono::milliseconds inTime(std::chrono::milliseconds deadline) const;
  void scheduleEcho();
  // Failed or lost, whichever it is at this moment.
  void end(Tunnel::DeviceCause cause, std::string sentence, bool byServer = false);
  void endOfStream(int error);
  void close();
  void finishStopping();

  sd_event *event_;
  sockaddr_in server_;
  std::string name_;  // the server's address as text
  Deadlines deadlines_;
  Handlers handlers_;
  State state_ = State::idle;
  bool callPlaced_ = false;
  bool toldStopped_ = false;
  std::uint16_t callID_ = 0;
  std::chrono::steady_clock::time_point callBy_{};
  std::uint32_t echoIdentifier_ = 0;
  vpnctl::FileDescriptor socket_;
  pptp::MessageReader reader_;
  std::vector<std::uint8_t> unsent_;
  linux::EventSource io_;
  linux::EventSource deadline_;
  linux::EventSource nextTurn_;
};

}  // namespace helper
