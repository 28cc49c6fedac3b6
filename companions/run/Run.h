// The life of vpnctl-run: runs vpnctl, runs the user's programs when the connection is up and over, connects again if
// that is wanted, and ends when asked to.
//
// Usual sequence: a Run, then begin(); `finished` is called once, with the exit status, all having been told.
// Thread rule: the thread of the event loop. Nothing blocks but the start of a program.

#pragma once

#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "companions/common/ToolConfiguration.h"
#include "companions/run/Hook.h"
#include "companions/run/Outcome.h"
#include "companions/run/ReconnectPolicy.h"
#include "companions/run/Reporter.h"
#include "companions/run/RunOptions.h"
#include "companions/run/ToolProcess.h"
#include "linux/EventSource.h"

namespace companions {

// The exit status when the program of --up failed.
inline constexpr int kUpFailedStatus = 10;

class Run {
 public:
  using Finished = std::function<void(int status)>;

  // TOOL: vpnctl's absolute path. ENVIRONMENT: what the programs that it starts are given.
  Run(sd_event *event, RunOptions options, ToolConfiguration configuration, std::string tool,
      std::vector<std::string> environment, Reporter::Form form, std::function<double()> chance, Finished finished);
  Run(const Run &) = delete;
  Run &operator=(const Run &) = delete;

  void begin();
  // Somebody asks for the end; the second time at once.
  void interrupt();

 private:
  void connect();
  void heard(std::string_view line);
  void comesUp();
  void isUp();
  void upEnded(const vpnctl::Status &status);
  void toolEnded(const linux::ChildProcess::End &end);
  void goDown();
  void isDown();
  void finish(int status, const std::string &sentence);
  std::vector<std::string> facts(bool isOver) const;

  sd_event *event_;
  RunOptions options_;
  ToolConfiguration configuration_;
  std::string toolPath_;
  std::vector<std::string> environment_;
  ReconnectPolicy policy_;
  Finished finished_;
  Reporter reporter_;

  Outcome outcome_;
  bool isAsked_ = false;  // to end
  bool cameUp_ = false;   // this connection, so that --down is to follow
  bool upRuns_ = false;   // the program of --up, or its end is still to be looked at
  std::optional<std::string> upFailure_;
  linux::EventSource pause_;
  linux::EventSource addresses_;
  linux::EventSource next_;
  std::unique_ptr<Hook> hook_;
  std::unique_ptr<ToolProcess> tool_;
  std::unique_ptr<ToolProcess> formerTool_;  // until the loop's next turn: it is calling us
};

}  // namespace companions
