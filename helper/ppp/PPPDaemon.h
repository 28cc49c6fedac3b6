// Our pppd: a direct child with our plugin in it. Puts the process and the plugin's socket together into one thing that
// starts, speaks and ends.
//
// Usual sequence: start; then PPPSession's. Thread rule: the thread of the event loop. Nothing blocks but closeNow,
// waitForEnd and the destructor.

#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "helper/ppp/LineReader.h"
#include "helper/ppp/PPPSession.h"
#include "helper/ppp/PluginChannel.h"
#include "linux/ChildProcess.h"

namespace helper {

class PPPDaemon : public PPPSession {
 public:
  static constexpr char kProgram[] = "/usr/sbin/pppd";

  // LOG gets each line that pppd writes.
  PPPDaemon(sd_event *event, Handlers handlers, std::function<void(std::string_view line)> log,
            std::string program = kProgram);
  PPPDaemon(const PPPDaemon &) = delete;
  PPPDaemon &operator=(const PPPDaemon &) = delete;
  ~PPPDaemon() override;

  // Listens at SOCKET_PATH for the plugin, and starts pppd with OPTIONS.
  vpnctl::Status start(const std::vector<std::string> &options, const std::string &socketPath);
  bool running() const override { return process_ && process_->running(); }
  pid_t pid() const { return process_ ? process_->pid() : -1; }

  void giveChannel(TunnelChannel channel) override;
  void terminate(std::chrono::milliseconds grace) override;
  void hangUp(std::chrono::milliseconds grace) override;
  void closeNow(std::chrono::milliseconds deadline) override;
  // Waits for the end without telling anybody, killing after DEADLINE.
  void waitForEnd(std::chrono::milliseconds deadline);

 private:
  void said(const PluginMessage &message);
  void handChannelOver();
  void processEnded(const linux::ChildProcess::End &end);

  sd_event *event_;
  Handlers handlers_;
  std::function<void(std::string_view)> log_;
  std::string program_;
  PluginChannel plugin_;
  std::optional<LineReader> output_;
  std::optional<linux::ChildProcess> process_;
  TunnelChannel channel_;
  bool channelWanted_ = false;
  PPPEnd end_;
  std::optional<int> status_;  // why the plugin says that it ended, which pppd's own status may not
};

}  // namespace helper
