// One child process: spawned with an argument list and an explicit environment, never through a shell; followed by a
// pidfd, so that a signal can never hit another process.
//
// Usual sequence: spawn, watch(handler); terminate(deadline) asks for the end. Destroying one whose process still runs
// kills it and waits for its end. Or, for whoever has to write its number down first: prepare, watch, release.
//
// Thread rule: the thread of the event loop. Nothing but the destructor, release and waitFor blocks.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "linux/EventSource.h"
#include "linux/Process.h"

namespace linux {

class ChildProcess {
 public:
  // How it ended.
  struct End {
    bool exited = true;  // false: a signal
    int code = 0;        // exit status, or the signal's number
  };
  struct Streams {
    int input = -1;
    int error = -1;
    bool ownSession = true;  // otherwise it stays in ours, with its terminal
    int output = -1;
    // Of a prepared one:
    std::vector<int> ignoredSignals = {};  // in place of their default action
    int signalWithoutUs = 0;               // what it gets when the thread that made it ends first
  };
  using Handler = std::function<void(const End &)>;

  // ARGUMENTS[0] is the program's absolute path. The child has the default action for every signal, none blocked, a
  // session of its own if STREAMS says nothing else, no descriptor but the three standard ones, and /dev/null for those
  // that STREAMS does not name.
  static vpnctl::Result<ChildProcess> spawn(const std::vector<std::string> &arguments,
                                            const std::vector<std::string> &environment, const Streams &streams);
  // As spawn(), but the program does not run before release(): until then the process only waits, and ends when we do.
  static vpnctl::Result<ChildProcess> prepare(const std::vector<std::string> &arguments,
                                              const std::vector<std::string> &environment, const Streams &streams);
  // Blocks until the program runs, and is what /proc says that the process runs, which after spawn() it may not be yet.
  // An error when it cannot be run; the process has ended then.
  vpnctl::Status release();
  ChildProcess(ChildProcess &&) = default;
  ChildProcess &operator=(ChildProcess &&) = delete;
  ~ChildProcess();

  pid_t pid() const { return pid_; }
  bool running() const { return running_; }
  // How it ended; meaningless while it runs.
  const End &end() const { return end_; }
  // Tells HANDLER, once, from the loop; it may destroy this object. After this the object must not move.
  void watch(sd_event *event, Handler handler);
  void signal(int number);
  // SIGTERM, and SIGKILL when the process still runs after GRACE. Needs watch().
  void terminate(std::chrono::milliseconds grace);
  // SIGKILL when the process still runs after GRACE; at once when the loop has finished and no time comes any more.
  // Needs watch().
  void killAfter(std::chrono::milliseconds grace);
  // Lets go of it: it runs on without us. Nothing is told any more.
  void leaveRunning();
  // Waits for the end. False when it still runs after DEADLINE.
  bool waitFor(std::chrono::milliseconds deadline);

 private:
  ChildProcess(pid_t pid, Process process) : pid_(pid), process_(std::move(process)) {}
  static vpnctl::Result<ChildProcess> follow(pid_t pid, const std::string &program);
  bool reap();

  pid_t pid_;
  Process process_;
  vpnctl::FileDescriptor gate_;  // of a prepared one, until its release
  std::string program_;
  bool running_ = true;
  End end_;
  sd_event *event_ = nullptr;
  Handler handler_;
  EventSource watch_;
  EventSource kill_;
};

}  // namespace linux
