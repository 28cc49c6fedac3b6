// An L2TP tunnel to one server, under IPSec: the association of its UDP socket, then the control connection, then the
// way of the call's packets. It goes the same road back, and never without IPSec.

#pragma once

#include <netinet/in.h>

#include <functional>
#include <memory>
#include <optional>

#include "helper/common/EngineSettings.h"
#include "helper/common/PPPLog.h"
#include "helper/common/Tunnel.h"
#include "helper/ike/IPSecAssociation.h"
#include "helper/l2tp/L2TPControlConnection.h"
#include "helper/l2tp/L2TPDataPath.h"
#include "helper/l2tp/L2TPSocket.h"
#include "linux/EventSource.h"

namespace helper {

class L2TPTunnel : public Tunnel {
 public:
  using AssociationFactory = std::function<std::unique_ptr<IPSecAssociation>(IPSecAssociation::Handlers)>;

  struct Parts {
    // None when there is no shared secret for IPSec: the tunnel fails then.
    AssociationFactory makeAssociation;
    std::unique_ptr<L2TPDataPath> dataPath;
    // The port of clients that can have it, and how long a server may be silent towards it: some keep the ended tunnel
    // of an earlier client there, and throw away what comes from it.
    std::uint16_t port = L2TPSocket::kPort;
    std::chrono::milliseconds patience{3000};
  };

  // LOG outlives the tunnel.
  L2TPTunnel(sd_event *event, const sockaddr_in &server, const EngineSettings::L2TP &settings, PPPLog &log, Parts parts,
             Handlers handlers);

  void start() override;
  void check() override;
  void stop() override;

 private:
  void failSoon(DeviceCause cause, std::string sentence);
  void callFrom(EngineSettings::SourcePort port);
  void openOtherSocket();
  void protectedNow(int socket);
  void changePort();
  void unprotected(const std::string &sentence);
  vpnctl::Status callIsAnswered(const L2TPCall &call);
  void endAssociation();
  void associationEnded();
  void finish();

  sd_event *event_;
  sockaddr_in server_;
  EngineSettings::L2TP settings_;
  PPPLog &log_;
  AssociationFactory makeAssociation_;
  Handlers handlers_;
  std::uint16_t port_;
  std::chrono::milliseconds patience_;
  bool changingPort_ = false;
  bool hasChangedPort_ = false;
  bool established_ = false;
  bool stopping_ = false;
  linux::EventSource nextTurn_;
  linux::EventSource impatience_;
  // What comes later uses what stands before, and ends before it.
  std::optional<L2TPSocket> socket_;
  std::optional<L2TPSocket> otherSocket_;  // of another port; until it is known which of the two the server takes
  std::unique_ptr<L2TPDataPath> dataPath_;
  TunnelChannel channel_;
  std::unique_ptr<IPSecAssociation> formerAssociation_;  // has stopped
  std::unique_ptr<IPSecAssociation> association_;
  std::optional<L2TPControlConnection> control_;
};

}  // namespace helper
