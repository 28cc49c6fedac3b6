// A program of the user's that runs when the connection is up, or is over: without a shell, in a session of its own,
// what it says on standard error going where ours goes, with a deadline.
//
// Usual sequence: start(); its handler is called once. Destroying one that runs kills it. Thread rule: the thread of
// the event loop. Nothing blocks.

#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "linux/ChildProcess.h"
#include "linux/EventSource.h"

namespace companions {

class Hook {
 public:
  // Gets an error, a sentence part, unless the program ended with status 0 in time. It may destroy the hook.
  using Handler = std::function<void(const vpnctl::Status &)>;

  static vpnctl::Result<std::unique_ptr<Hook>> start(sd_event *event, const std::string &program,
                                                     const std::vector<std::string> &environment,
                                                     std::chrono::milliseconds deadline, Handler handler);
  Hook(const Hook &) = delete;
  Hook &operator=(const Hook &) = delete;

  // SIGTERM, and SIGKILL if that does not help.
  void stop();
  void kill() { child_.signal(SIGKILL); }

 private:
  Hook(sd_event *event, linux::ChildProcess child, std::string program, std::chrono::milliseconds deadline,
       Handler handler);

  std::string program_;
  bool late_ = false;
  linux::EventSource deadline_;
  linux::ChildProcess child_;
};

// The absolute path of PROGRAM, if that can be run. A name without a slash is one in the working directory: nothing is
// looked for in PATH.
vpnctl::Result<std::string> runnableProgram(const std::string &program);

}  // namespace companions
