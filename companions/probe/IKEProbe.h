// Whether an IKE server answers main mode's first message, on port 500 and on port 4500, and what it takes of what may
// be proposed. Nothing secret is needed or said.
//
// A server keeps for a while what it has answered with a choice, and some count that by the client's address and then
// hear nothing more of him (strongSwan at the fifth, for half a minute): so there are few questions, they go slowly,
// and they end after a few choices.
//
// Usual sequence: ask() for each port, then taken() on one that answered. Thread rule: one thread; both block, at the
// longest until their deadline. Lack of randomness is std::system_error.

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "companions/probe/IKEQuestion.h"
#include "companions/probe/IKESocket.h"
#include "companions/probe/Pace.h"

namespace companions {

struct IKEFinding {
  enum class Kind {
    nothing,      // came back
    unreachable,  // ICMP says so
    accepted,
    refused,
    strange,  // something came back, but not what may come
    failed    // this machine could not send; REASON
  };
  Kind kind = Kind::nothing;
  std::optional<ICMPReport> icmp;
  IKEAnswer answer;    // of an accepted, refused or strange one
  std::string reason;  // a sentence part

  bool answered() const { return kind == Kind::accepted || kind == Kind::refused || kind == Kind::strange; }
};

struct ProposalFinding {
  enum class Kind { notAsked, taken, refused, strange, noAnswer };
  helper::isakmp::IKEProposal proposal;
  Kind kind = Kind::notAsked;
  std::string detail = {};  // the notification's name, or what was strange
};

struct ProposalFindings {
  std::vector<ProposalFinding> proposals;  // in the order in which they were given
  std::optional<ICMPReport> icmp;          // the last one
  std::string reason;                      // why this machine could not send

  // Whether the server has answered any: then one without an answer is one that it does not like, and otherwise it may
  // be dead.
  bool serverAnswers() const;
};

class IKEProbe {
 public:
  struct Limits {
    std::chrono::milliseconds patience{1500};  // with one transmission
    std::chrono::milliseconds deadline{15000};
    int tries = 2;
    std::size_t inFlight = 3;
    std::size_t mostProposals = 12;
    std::size_t mostKept = 4;  // what the server keeps of all questions together
  };

  // PACE is for all that asks this server, and outlives the probe.
  IKEProbe(Pace &pace, const Limits &limits) : pace_(pace), limits_(limits) {}

  // All of PROPOSALS in one message.
  IKEFinding ask(const IKEEnd &end, const std::vector<helper::isakmp::IKEProposal> &proposals);
  // Each of PROPOSALS in a message of its own, the first first. What goes beyond the limits is not asked, and what the
  // server keeps of ask() counts.
  ProposalFindings taken(const IKEEnd &end, const std::vector<helper::isakmp::IKEProposal> &proposals);

 private:
  Pace &pace_;
  Limits limits_;
  std::size_t kept_ = 0;
};

}  // namespace companions
