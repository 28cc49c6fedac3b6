// The IKE daemon charon, over its control socket. Two connections: one for what is loaded and negotiated, which keeps
// one waiting for as long as a negotiation takes, the other for events, questions and the end.
//
// Sequence, handlers and thread rule: IKEDaemon's.

#pragma once

#include <optional>
#include <string>

#include "helper/ike/CharonAlgorithms.h"
#include "helper/ike/CharonProcess.h"
#include "helper/ike/IKEDaemon.h"
#include "helper/ike/ViciConnection.h"

namespace helper {

class Charon : public IKEDaemon {
 public:
  struct Deadlines {
    std::chrono::milliseconds open{15000};  // until it lets us in
    std::chrono::milliseconds retry{20};
    std::chrono::milliseconds request{10000};  // to everything but a negotiation; a starting daemon takes its time
    std::chrono::milliseconds look{1000};      // how often we look how far a negotiation is
    // How long a server may be silent in one stage. charon says everything again after 4 and after 11 seconds.
    std::chrono::milliseconds firstAnswer{8000};
    std::chrono::milliseconds stage{7000};
    std::chrono::milliseconds terminate{3000};
    std::chrono::milliseconds destruction{500};
  };
  struct Settings {
    std::chrono::seconds lifetime{3600};  // of IKE's association
    std::chrono::seconds espLifetime{3600};
    std::chrono::seconds deadPeerDelay{30};  // 0: never
  };

  Charon(sd_event *event, IPSecJournal &journal, const CharonProcess::Places &places, const Settings &settings,
         const Deadlines &deadlines, Handlers handlers);
  Charon(const Charon &) = delete;
  Charon &operator=(const Charon &) = delete;
  ~Charon() override;

  void open() override;
  std::string description() const override { return description_; }
  bool knows(const std::string &algorithm) const override;
  foundation::Result<Peer> peer() const override;
  std::string controlSocket() const override { return controlSocket_; }
  void negotiate(const IKEPlan &plan, const foundation::Secret &secret) override;
  void close() override;
  foundation::Status closeNow() override;

  // Takes out of the charon at CONTROLSOCKET what was loaded under NAME, in the order that it wants: associations,
  // connection, secret. Waits for each answer, within DEADLINE. One that is not there has nothing of ours.
  static foundation::Status takeBack(const std::string &controlSocket, const std::string &name,
                                     std::chrono::milliseconds deadline);

 private:
  enum class State { idle, opening, ready, negotiating, established, refused, closing, closed };
  using Outcome = foundation::Result<vici::Section>;

  void connect(const std::string &controlSocket);
  void ask();
  void load();
  vici::Section connection(const char *version) const;
  void connectionRefused(const std::string &reason);
  void initiate();
  void initiated(const Outcome &outcome);
  void look();
  void classify();
  void heard(const std::string &name, const vici::Section &event);
  void observe(const vici::Section &association);
  void reach(IKEStage stage);
  void refuse(bool silent);
  void isChildThere();
  bool busy() const { return (loading_ || initiating_) && load_->socket() >= 0; }
  void done();
  void unload();
  void finish();
  void closed();
  void daemonEnded(const std::string &reason);
  void lose(std::string sentence);
  void unusable(std::string sentence);

  sd_event *event_;
  Settings settings_;
  Deadlines deadlines_;
  Handlers handlers_;
  State state_ = State::idle;
  CharonProcess process_;
  std::string controlSocket_;
  std::string description_ = "charon";
  CharonAlgorithms algorithms_;
  IKEPlan plan_;
  std::optional<foundation::Secret> secret_;  // until it is on its way
  bool loaded_ = false;                       // the daemon holds something of ours
  bool loading_ = false;                      // the first connection is busy with it, or has it still to say
  bool initiating_ = false;                   // the same
  bool begun_ = false;                        // in this attempt
  bool unloading_ = false;
  bool finished_ = false;
  int attempt_ = 0;  // answers to an earlier one are of no interest
  std::chrono::steady_clock::time_point until_{};
  IKEStage stage_ = IKEStage::begin;
  bool childSeen_ = false;
  bool looking_ = false;    // for the child, after something has ended
  bool lookAgain_ = false;  // something more has ended meanwhile
  std::optional<ViciConnection> load_;
  std::optional<ViciConnection> watch_;
  linux::EventSource poll_;
  linux::EventSource silence_;
  linux::EventSource retry_;
};

}  // namespace helper
