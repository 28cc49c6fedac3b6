// What a PPTP server says: whether it listens, what it says of itself, whether it takes a call, and whether the call's
// packets get through. No user is named and nothing is authenticated; it ends as a client ends that has changed its
// mind.
//
// Usual sequence: ask(). Thread rule: any thread; it blocks, at the longest for all its deadlines together.

#pragma once

#include <netinet/in.h>

#include <chrono>
#include <optional>
#include <string>

#include "companions/probe/ICMPReport.h"
#include "helper/pptp/PPTPMessages.h"

namespace companions {

struct PPTPFinding {
  enum class Contact {
    connected,
    refused,      // the server itself: nobody listens there
    nothing,      // no answer at all
    unreachable,  // somebody on the way says so, or this machine; ICMP, REASON
    failed        // this machine could not try; REASON
  };
  enum class Packets { notAsked, arrived, none, notAllowed };  // the last: listening for them needs root

  Contact contact = Contact::failed;
  std::optional<ICMPReport> icmp;
  std::string reason;  // a sentence part
  // What it said; texts of its own have nothing in them but printable ASCII.
  std::optional<helper::pptp::StartReply> start;
  std::optional<helper::pptp::OutgoingCallReply> call;
  // Why there is no START, or no CALL where one was asked for: "closed the connection", "says nothing", or what is
  // wrong with what it said.
  std::string fault;
  Packets packets = Packets::notAsked;
  bool saidGoodbye = false;  // it answered the end

  bool started() const { return start && start->result == helper::pptp::kResultOK; }
  bool tookCall() const { return call && call->result == helper::pptp::kResultOK; }
};

class PPTPProbe {
 public:
  static constexpr std::uint16_t kPort = 1723;

  struct Options {
    bool withCall = false;
    std::chrono::milliseconds connecting{5000};
    std::chrono::milliseconds answering{5000};  // each answer
    std::chrono::milliseconds listening{4000};  // for the call's first packet, which pppd repeats after 3 s
    std::chrono::milliseconds goodbye{1000};
  };

  static PPTPFinding ask(const sockaddr_in &server, const Options &options);
};

}  // namespace companions
