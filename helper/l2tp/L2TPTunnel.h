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
  };

  // LOG outlives the tunnel.
  L2TPTunnel(sd_event *event, const sockaddr_in &server, const EngineSettings::L2TP &settings, PPPLog &log, Parts parts,
             Handlers handlers);

  void start() override;
  void stop() override;

 private:
  void failSoon(DeviceCause cause, std::string sentence);
  void protectedNow();
  void unprotected(const std::string &sentence);
  foundation::Status callIsAnswered(const L2TPCall &call);
  void endAssociation();
  void finish();

  sd_event *event_;
  sockaddr_in server_;
  EngineSettings::SourcePort sourcePort_;
  PPPLog &log_;
  AssociationFactory makeAssociation_;
  Handlers handlers_;
  bool established_ = false;
  bool stopping_ = false;
  linux::EventSource nextTurn_;
  // What comes later uses what stands before, and ends before it.
  std::optional<L2TPSocket> socket_;
  std::unique_ptr<L2TPDataPath> dataPath_;
  foundation::FileDescriptor channel_;
  std::unique_ptr<IPSecAssociation> association_;
  L2TPControlConnection control_;
};

}  // namespace helper
