// Our pppd: a direct child with our plugin in it. Puts the process and the plugin's socket together into one thing that
// starts, speaks and ends.
//
// Usual sequence: start; needsChannel, answered by giveChannel when the tunnel is there; phases, needsPassword, ipUp;
// ended, once, last. Thread rule: the thread of the event loop. Nothing blocks but endNow,
// waitForEnd and the destructor.

#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "helper/ppp/PluginChannel.h"
#include "linux/ChildProcess.h"

namespace helper {

// How pppd ended, with what is needed to say why.
struct PPPEnd {
  bool exited = true;     // false: by a signal
  int code = 0;           // exit status, or the signal's number
  bool reported = false;  // the plugin was heard at all
  bool carried = false;   // the tunnel's channel had been handed over
  bool hungUp = false;    // it was told that the line is gone
  std::uint32_t packetsReceived = 0;
  int furthestPhase = 0;  // of pppd, before it began to end
};

class PPPDaemon {
 public:
  static constexpr char kProgram[] = "/usr/sbin/pppd";

  struct Handlers {
    std::function<void(int phase)> phase;
    // PEER asks for the password: answer at once.
    std::function<std::optional<foundation::Secret>(const Peer &peer)> password;
    std::function<void(const PluginIPUp &)> ipUp;
    std::function<void(const PPPEnd &)> ended;
  };

  PPPDaemon(sd_event *event, Handlers handlers, std::string program = kProgram);
  PPPDaemon(const PPPDaemon &) = delete;
  PPPDaemon &operator=(const PPPDaemon &) = delete;
  ~PPPDaemon();

  // Listens at SOCKET_PATH for the plugin, and starts pppd with OPTIONS. Complaints about its options go to LOG_PATH.
  foundation::Status start(const std::vector<std::string> &options, const std::string &socketPath,
                           const std::string &logPath);
  bool running() const { return process_ && process_->running(); }
  pid_t pid() const { return process_ ? process_->pid() : -1; }

  // The tunnel's socket; waits here when pppd has not asked yet.
  void giveChannel(foundation::FileDescriptor channel);
  // Orderly: pppd says goodbye to the server. After GRACE it is killed; at once on a loop that has finished.
  void terminate(std::chrono::milliseconds grace);
  // The line is gone: pppd ends as after a hang-up. After GRACE it is killed; at once on a loop that has finished.
  void hangUp(std::chrono::milliseconds grace);
  // Ends pppd without the loop, which may have finished, and without telling anybody: as after a hang-up when it has
  // its channel. Blocks up to DEADLINE, then kills.
  void endNow(std::chrono::milliseconds deadline);
  // Waits for the end without telling anybody, killing after DEADLINE.
  void waitForEnd(std::chrono::milliseconds deadline);

 private:
  void said(const PluginMessage &message);
  void handChannelOver();
  void processEnded(const linux::ChildProcess::End &end);

  sd_event *event_;
  Handlers handlers_;
  std::string program_;
  PluginChannel plugin_;
  std::optional<linux::ChildProcess> process_;
  foundation::FileDescriptor channel_;
  bool channelWanted_ = false;
  PPPEnd end_;
  std::optional<int> status_;  // why the plugin says that it ended, which pppd's own status may not
};

}  // namespace helper
