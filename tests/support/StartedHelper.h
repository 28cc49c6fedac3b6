// A helper as a process, with its tool's end of the wire: the real client against the real program.
//
// Thread rule: one thread for each.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "linux/Process.h"
#include "platform/linux/HelperConnection.h"

namespace helper::testing {

class StartedHelper {
 public:
  // How it ended: by itself with a status, or by a signal.
  struct End {
    bool exited = false;
    int code = 0;
    long peak = 0;  // of its memory, in KiB
    bool isInOrder() const { return exited && code == 0; }
  };
  enum class Talk { client, none };

  // PROGRAM is started, and has answered when this returns, if it ever will. Without a client, it is left to the caller
  // to talk.
  explicit StartedHelper(const std::string &program, Talk talk = Talk::client);
  StartedHelper(const StartedHelper &) = delete;
  StartedHelper &operator=(const StartedHelper &) = delete;
  ~StartedHelper();

  // False when it has ended instead of answering.
  bool isReady() const { return ready_; }
  platform::HelperConnection &connection() { return *connection_; }
  pid_t pid() const { return pid_; }
  vpnctl::FileDescriptor takeSocket() { return std::move(socket_); }
  // KEY of its /proc/PID/status, in KiB ("VmRSS", "VmHWM").
  long memory(const std::string &key) const;

  // Closes the socket, as a tool that ends does.
  void leave();
  // Waits for its end; none when it has not come after PATIENCE.
  std::optional<End> wait(std::chrono::milliseconds patience = std::chrono::seconds(30));

 private:
  linux::Process process_;
  vpnctl::FileDescriptor socket_;  // without a client
  pid_t pid_ = -1;
  bool ready_ = false;
  std::shared_ptr<platform::HelperConnection> connection_;
};

}  // namespace helper::testing
