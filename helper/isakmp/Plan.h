// What is wanted of an Initiator: a plain value.

#pragma once

#include <chrono>
#include <optional>

#include "helper/isakmp/Identification.h"
#include "helper/isakmp/Proposals.h"

namespace helper::isakmp {

// The machine has no clock: its caller says how late it is, counted from wherever, never backwards.
using Instant = std::chrono::milliseconds;

struct Timing {
  std::chrono::milliseconds firstRetry{1000};  // doubles each time
  int tries = 5;                               // transmissions in all
  // After a refusal that nobody has signed, for an answer that is better: whoever reads along could have sent it.
  std::chrono::milliseconds refusalGrace{2000};
  std::chrono::milliseconds connectedWait{2000};  // for the server's word that it is ready, where it asks us to wait
  std::chrono::milliseconds keepAlive{20000};
  std::chrono::milliseconds overlap{30000};       // how long an association is received on that a newer one replaced
  std::chrono::milliseconds answerMemory{60000};  // for a peer that did not hear our last message
  std::chrono::milliseconds rekeyRetry{30000};
  std::chrono::milliseconds deadPeerRetry{5000};
  int deadPeerTries = 4;
};

struct Plan {
  // The socket that speaks IKE, and the server.
  IPv4Bytes local{};
  std::uint16_t localPort = 0;
  IPv4Bytes remote{};
  // The packets to be protected: UDP between these ports of the two.
  std::uint16_t flowLocalPort = 0;
  std::uint16_t flowRemotePort = 1701;
  // Another port of ours that will do. It comes first behind a NAT, where others may have the usual one towards the
  // server already, and otherwise once the server has refused flowLocalPort.
  std::optional<std::uint16_t> otherFlowLocalPort;

  Identification identity;                     // ours
  std::optional<Identification> peerIdentity;  // none: any, but the same as long as it lasts
  std::vector<IKEProposal> ike = defaultIKEProposals();
  std::vector<ESPProposal> esp = defaultESPProposals();
  // The server identifies itself before we do, and whoever asks gets what an attack on the secret needs. Offers only
  // what has the first proposal's group.
  bool aggressive = false;
  bool startOn4500 = false;         // nothing goes to port 500
  bool forceEncapsulation = false;  // ESP in UDP also where nothing seems to be in the way
  bool initialContact = true;       // the server may forget what else it has of us
  std::chrono::seconds ikeLifetime{3600};
  std::chrono::seconds espLifetime{3600};
  std::chrono::seconds deadPeerDelay{30};  // of silence; 0: the server is never asked
  Timing timing;
};

}  // namespace helper::isakmp
