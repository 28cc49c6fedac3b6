// The IPSec association of one UDP socket, negotiated by the system's IKE daemon: IKE version 1, main mode, a shared
// secret on both sides, ESP in transport mode.
//
// Sequence, handlers and thread rule: IPSecAssociation's. What goes wrong before `up` is told with the stage and the
// remedy; small things the user should know (an algorithm the daemon lacks) go to the PPP log.

#pragma once

#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "helper/common/EngineSettings.h"
#include "helper/common/PPPLog.h"
#include "helper/common/SecretSource.h"
#include "helper/ike/IKEDaemon.h"
#include "helper/ike/IKEProposals.h"
#include "helper/ike/IPSecAssociation.h"
#include "helper/ike/XfrmTable.h"
#include "helper/journal/IPSecJournal.h"
#include "linux/EventSource.h"

namespace helper {

// All of them outlive the association.
struct IKEContext {
  sd_event *event;
  SecretSource &secrets;
  const SecretUse &secretUse;
  PPPLog &log;
  IPSecJournal &journal;
  const EngineSettings::IKE &settings;
};

class IKEAssociation : public IPSecAssociation {
 public:
  // The machine around it.
  struct Parts {
    std::function<std::unique_ptr<IKEDaemon>(IKEDaemon::Handlers)> daemon;
    std::function<foundation::Result<std::unique_ptr<XfrmTable>>()> table;
    std::function<foundation::Status(int socket, std::uint32_t reqid)> guard;
  };

  // SECRETNAME: the keychain's item.
  IKEAssociation(const IKEContext &context, std::string secretName, Parts parts, Handlers handlers);
  IKEAssociation(const IKEAssociation &) = delete;
  IKEAssociation &operator=(const IKEAssociation &) = delete;
  ~IKEAssociation() override;

  void start(int socket) override;
  void stop() override;

 private:
  foundation::Status prepare(int socket);
  void daemonIsReady();
  void negotiate();
  void negotiated();
  void refused(const IKERefusal &refusal);
  std::string sentenceFor(const IKERefusal &refusal) const;
  void fail(DeviceCause cause, std::string sentence);
  void forget(const foundation::Status &takenBack);

  IKEContext context_;
  std::string secretName_;
  Parts parts_;
  Handlers handlers_;
  std::string server_;  // its address, for sentences
  UDPFlow flow_;
  IKEPlan plan_;
  std::chrono::steady_clock::time_point until_{};
  bool started_ = false;
  bool stopping_ = false;
  std::optional<IKERefusal> firstRefusal_;  // a second try is under way, or over
  std::optional<LoadedConnection> noted_;
  std::optional<foundation::Secret> secret_;  // while it may be needed for a second try
  std::unique_ptr<XfrmTable> table_;
  std::unique_ptr<IKEDaemon> daemon_;
  linux::EventSource nextTurn_;
};

// SECRET_NAME: the keychain's item. Not started.
std::unique_ptr<IPSecAssociation> makeIKEAssociation(const IKEContext &context, const std::string &secretName,
                                                     IPSecAssociation::Handlers handlers);

// Takes back what a helper had given to an IKE daemon, and what the kernel got from it. Blocks, for as long as the
// daemon takes for its answers, a second each at most. The error is a sentence part.
foundation::Status takeBack(const LoadedConnection &entry);

}  // namespace helper
