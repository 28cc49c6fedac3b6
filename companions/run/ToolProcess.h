// One run of vpnctl: its lines on standard error, one by one, and its end. What it says on standard output, which holds
// the secrets, nobody gets: it goes to /dev/null.
//
// Usual sequence: start(); stop() asks for the end of the connection. Destroying one that runs kills vpnctl, upon which
// its helper takes the connection down. Thread rule: the thread of the event loop. start() waits until vpnctl runs.

#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "linux/ChildProcess.h"
#include "linux/EventSource.h"

namespace companions {

class ToolProcess {
 public:
  struct Handlers {
    // LINE with its newline, which only the last one may lack.
    std::function<void(std::string_view line)> line;
    // After the last line. It may not destroy this object.
    std::function<void(const linux::ChildProcess::End &)> ended;
  };

  // PROGRAM reads CONFIGURATION; INPUT becomes its standard input, -1: /dev/null.
  static vpnctl::Result<std::unique_ptr<ToolProcess>> start(sd_event *event, const std::string &program,
                                                            const std::string &configuration,
                                                            const std::vector<std::string> &environment, int input,
                                                            Handlers handlers);
  ToolProcess(const ToolProcess &) = delete;
  ToolProcess &operator=(const ToolProcess &) = delete;

  // SIGUSR1, and SIGKILL when vpnctl still runs after GRACE.
  void stop(std::chrono::milliseconds grace);
  void kill() { child_.signal(SIGKILL); }
  // While PAUSED no line is read: vpnctl waits when its pipe is full.
  void pause(bool paused);

 private:
  ToolProcess(sd_event *event, linux::ChildProcess child, vpnctl::FileDescriptor lines, Handlers handlers);
  // Once; false when there is nothing to read at the moment.
  bool readOnce();
  void tellLines(bool all);

  sd_event *event_;
  vpnctl::FileDescriptor lines_;
  Handlers handlers_;
  std::string unread_;  // the beginning of a line
  linux::EventSource readable_;
  linux::ChildProcess child_;
};

}  // namespace companions
