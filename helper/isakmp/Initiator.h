// IKE version 1 as its initiator: brings up one pair of ESP associations in transport mode for one UDP flow, with a
// pre-shared key, and keeps it up (RFC 2407 to 2409, 3706, 3947). It knows nothing of sockets, clocks, files or the
// kernel: each call says what happened and when, and returns what is to be done, in that order.
//
// Usual sequence: start(); received() for each datagram, due() when nextDue() has come, allocated(), installed() or
// notInstalled() when that is done. Established or Refused comes once; after Established perhaps Lost, once. stop() at
// any time ends with Stopped. After Refused, Lost or Stopped nothing else comes.
//
// An Initiator is used once: cookies are for one attempt. Who wants another way, port 4500 from the beginning or a
// shorter list of proposals, makes another one.
//
// Thread rule: as any object that keeps state. It neither blocks nor calls back. What cannot be for lack of memory is
// std::bad_alloc or std::runtime_error.

#pragma once

#include "foundation/RateLimit.h"
#include "helper/isakmp/DeadPeerDetection.h"
#include "helper/isakmp/Outputs.h"
#include "helper/isakmp/PhaseOnes.h"
#include "helper/isakmp/QuickModes.h"

namespace helper::isakmp {

class Initiator {
 public:
  // PLAN has at least one proposal of each kind. RANDOM must outlive it.
  Initiator(Plan plan, vpnctl::Secret presharedKey, Randomness &random);
  Initiator(const Initiator &) = delete;
  Initiator &operator=(const Initiator &) = delete;

  Outputs start(Instant now);
  // A datagram of the server's, from its PORT, as it came.
  Outputs received(Instant now, ServerPort port, View datagram);
  Outputs due(Instant now);
  // SPI: at least 256, of nobody else on this machine towards this address.
  Outputs allocated(Instant now, PairID pair, std::uint32_t spi);
  Outputs installed(Instant now, PairID pair, Direction direction);
  // Also for an SPI that cannot be had.
  Outputs notInstalled(Instant now, PairID pair);
  Outputs stop(Instant now);

  // When due() is to be called next; none: not before something else happens. May lie in the past.
  std::optional<Instant> nextDue() const;

 private:
  void dispatch(ServerPort port, View datagram);
  void phaseTwo(const Header &header, View message);
  void informational(const std::shared_ptr<Association> &association, const Header &header, View message);
  void handle(const std::shared_ptr<Association> &association, const Notification &notification);
  void handle(const std::shared_ptr<Association> &association, const Deletion &deletion);
  void fireOnce();
  void askServer();

  void phaseOneStands(const std::shared_ptr<Association> &association);
  void phaseOneFailed(const Failure &failure);
  void phaseOneGone(const std::shared_ptr<Association> &association);
  void pairStands(const QuickMode &quickMode);
  void pairFailed(const Failure &failure);
  void allPairsGone(bool byServer);
  void replacePair();

  void refuse(const Failure &failure);
  void lose(bool byServer, Reason reason, std::string detail);
  void end(Output last);

  Session session_;
  PhaseOnes phaseOnes_;
  QuickModes quickModes_;
  DeadPeerDetection deadPeer_;
  // Forgeries use up the first only, so that the server is still heard among them.
  vpnctl::RateLimit unsignedLimit_;
  vpnctl::RateLimit signedLimit_;
  std::optional<Instant> keepAlive_;
  bool started_ = false;
  bool wantsPair_ = true;      // as soon as phase 1 stands
  bool serverLeaves_ = false;  // it has deleted something that was ours
  std::optional<Failure> refusedFlow_;
};

}  // namespace helper::isakmp
