// The IPSec association of one UDP socket: IKE version 1 with a shared secret on both sides, ESP in transport mode.
// vpnctl-ike speaks with the server; this one decides which way it tries, checks what it says, and tells the kernel.
//
// Sequence, handlers and thread rule: IPSecAssociation's. What goes wrong before `up` is told with the stage and the
// remedy; small things the user should know (a proposal that cannot be used) go to the PPP log.

#pragma once

#include <systemd/sd-event.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "helper/common/EngineSettings.h"
#include "helper/common/PPPLog.h"
#include "helper/common/SecretSource.h"
#include "helper/ike/ESPPairs.h"
#include "helper/ike/IKEProcess.h"
#include "helper/ike/IKEProposals.h"
#include "helper/ike/IKESocket.h"
#include "helper/ike/IKESpare.h"
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
    std::function<vpnctl::Result<std::unique_ptr<IKESpeaker>>(IKESpeaker::Handlers)> speaker;
    std::function<vpnctl::Result<IKESocket>(in_addr local, std::uint16_t port)> socket;
    std::function<vpnctl::Result<std::unique_ptr<ESPStates>>(std::uint32_t reqid)> states;
    std::function<vpnctl::Result<std::unique_ptr<ESPStateWatch>>(ESPStateWatch::Handler)> watch;
    std::function<vpnctl::Result<std::unique_ptr<XfrmTable>>()> table;
    std::function<vpnctl::Status(int socket, std::uint32_t reqid)> guard;
    // How long a server may say nothing at all before another way to it is tried, and vpnctl-ike its own end.
    std::chrono::milliseconds silence{7000};
    std::chrono::milliseconds farewell{1500};
  };

  // SECRETNAME: the keychain's item.
  IKEAssociation(const IKEContext &context, std::string secretName, Parts parts, Handlers handlers);
  IKEAssociation(const IKEAssociation &) = delete;
  IKEAssociation &operator=(const IKEAssociation &) = delete;
  ~IKEAssociation() override;

  void start(int socket, int other) override;
  void stop() override;

 private:
  // How the server is reached: on port 500, as everybody does; on port 4500 from the first message, with ESP in UDP,
  // where only that gets through; from port 500, for servers that hear nothing else.
  enum class Way { usual, encapsulated, wellKnownPort };

  vpnctl::Status prepare(int socket, int other);
  vpnctl::Result<std::uint16_t> guard(int socket);
  void attempt();
  vpnctl::Status openPairs(const IKESocket &socket);
  bool startChild();
  bool readSecret();
  bool orderStart();
  isakmp::Plan plan() const;

  void reported(const IKEReport &report);
  void handle(const isakmp::StageReached &reached);
  void handle(const isakmp::NeedSPI &need);
  void handle(const isakmp::InstallState &state);
  void handle(const isakmp::RemoveStates &states);
  void handle(const isakmp::Established &established);
  void handle(const isakmp::Replaced &replaced);
  void handle(const isakmp::Refused &refused);
  void handle(const isakmp::Lost &lost);
  void handle(const isakmp::Stopped &stopped);
  void answer(const vpnctl::Result<IKEOrder> &order);
  void forbid(const std::string &what);

  void statesRemoved(const ESPStateWatch::News &news);
  void giveUp(isakmp::Stage stage);
  void awaitEnd();
  void childEnded(const vpnctl::Status &how);
  void attemptFailed(const isakmp::Refused &refusal);
  bool findAnotherWay(const isakmp::Refused &refusal);
  void fail(DeviceCause cause, std::string sentence);
  void fail(const isakmp::Refused &refusal);
  void closeChild();
  void forget();

  IKEContext context_;
  std::string secretName_;
  Parts parts_;
  Handlers handlers_;
  std::string server_;  // its address, for sentences
  in_addr local_{};
  in_addr remote_{};
  std::map<std::uint16_t, int> flowSockets_;  // by their ports
  std::uint16_t flowLocalPort_ = 0;
  std::optional<std::uint16_t> otherFlowLocalPort_;
  std::uint16_t flowRemotePort_ = 0;
  std::uint32_t reqid_ = 0;
  Way way_ = Way::usual;
  bool few_ = false;  // proposals
  IKEProposals proposals_;
  std::chrono::steady_clock::time_point until_{};
  bool started_ = false;
  bool stopping_ = false;
  bool up_ = false;
  isakmp::Stage stage_ = isakmp::Stage::firstAnswer;
  std::optional<isakmp::Refused> refusal_;  // of this attempt
  std::optional<isakmp::Refused> furthest_;
  std::optional<std::string> lost_;  // a sentence; about to be told
  bool noted_ = false;
  std::optional<StartedProcess> notedProcess_;
  std::optional<vpnctl::Secret> secret_;  // while it may be needed for another try
  std::unique_ptr<XfrmTable> table_;
  IKESocket socket_;  // the kernel takes ESP out of UDP on it as long as it is open here
  std::unique_ptr<ESPPairs> pairs_;
  std::unique_ptr<ESPStateWatch> watch_;
  std::unique_ptr<IKESpeaker> child_;
  linux::EventSource nextTurn_;
  linux::EventSource patience_;
  linux::EventSource deadline_;
};

// SECRET_NAME: the keychain's item. Not started.
std::unique_ptr<IPSecAssociation> makeIKEAssociation(const IKEContext &context, std::shared_ptr<IKESpare> spare,
                                                     const std::string &secretName,
                                                     IPSecAssociation::Handlers handlers);

}  // namespace helper
