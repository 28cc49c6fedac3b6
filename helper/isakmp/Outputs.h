// What an Initiator wants done, and what it tells, in the order in which it is to be done.

#pragma once

#include <utility>
#include <variant>

#include "foundation/Secret.h"
#include "helper/isakmp/Plan.h"

namespace helper::isakmp {

enum class ServerPort : std::uint16_t { ike = 500, natTraversal = 4500 };

// One pair of ESP associations, as long as the Initiator lives.
using PairID = std::uint32_t;
enum class Direction { inbound, outbound };

// How far a negotiation has come: what it waits for.
enum class Stage {
  firstAnswer,     // that anything acceptable comes back
  keyExchange,     // the server's half of the key
  authentication,  // its proof that it knows the secret
  association,     // how packets are to be protected, and which
  established
};

enum class Reason {
  silence,         // nothing came, or nothing more
  noProposal,      // none of what was offered
  keyExchange,     // the server could not use our half of the key
  wrongSecret,     // probably: nobody says so under a key that both have
  identity,        // the server does not know us by the name that we gave
  serverIdentity,  // the server is not who it should be
  certificate,     // it wants one
  flow,            // it does not protect these packets
  forgotten,       // it knows nothing of what we speak of
  otherwise,       // it said something else
  badAnswer,       // it did what it may not
  notInstalled     // this machine's kernel did not take the keys
};

struct Send {
  ServerPort port = ServerPort::ike;
  Bytes datagram;  // as it goes out, with the four zero bytes before it where port 4500 wants them
};
struct StageReached {
  Stage stage = Stage::firstAnswer;
};
// The socket is to take ESP out of UDP from now on.
struct Encapsulate {};
// Answered by Initiator::allocated().
struct NeedSPI {
  PairID pair = 0;
};
// One half of a pair; answered by Initiator::installed() or notInstalled(). The inbound half comes first, and the
// server hears of it only once it is installed.
struct InstallState {
  PairID pair = 0;
  Direction direction = Direction::inbound;
  std::uint32_t spi = 0;
  ESPProposal algorithms;
  vpnctl::Secret cipherKey;
  vpnctl::Secret integrityKey;
  bool encapsulated = false;         // in UDP, between the socket's port and 4500
  std::chrono::seconds lifetime{0};  // when the kernel may forget it, if nobody else did
};
// Both halves, whichever of them were installed.
struct RemoveStates {
  PairID pair = 0;
  std::uint32_t inboundSPI = 0;
  std::uint32_t outboundSPI = 0;  // 0: there was none
};
// The first pair stands. ROUNDTRIP: the shortest that was measured.
struct Established {
  IKEProposal ike;
  ESPProposal esp;
  bool encapsulated = false;
  std::uint16_t flowLocalPort = 0;  // which of the plan's
  std::chrono::milliseconds roundTrip{0};
};
// A later pair stands, and everything is to be sent by it: the outbound half installed last.
struct Replaced {
  PairID pair = 0;
};
// It does not come up. The last output but for farewells.
struct Refused {
  Stage stage = Stage::firstAnswer;
  Reason reason = Reason::silence;
  std::uint16_t notification = 0;     // what the server said, 0 for nothing
  std::string detail;                 // a sentence part, for the log
  bool certificateRequested = false;  // on the way
};
// It was up, and is gone. BYSERVER: it took its leave.
struct Lost {
  bool byServer = false;
  Reason reason = Reason::silence;
  std::string detail;
};
// After stop(), the last.
struct Stopped {};
// A datagram that counted for nothing, and why.
struct Dropped {
  std::string why;
};

using Output = std::variant<Send, StageReached, Encapsulate, NeedSPI, InstallState, RemoveStates, Established, Replaced,
                            Refused, Lost, Stopped, Dropped>;
using Outputs = std::vector<Output>;

}  // namespace helper::isakmp
