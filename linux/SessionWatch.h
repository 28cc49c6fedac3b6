// Hears when the login session that a process belongs to ends; for a process of a user's own service manager, when the
// last session of that user does. logind knows; without it nothing is heard.
//
// Thread rule: the thread of the event loop. Nothing blocks.

#pragma once

#include <sys/types.h>
#include <systemd/sd-login.h>

#include <functional>
#include <memory>

#include "foundation/FileDescriptor.h"
#include "linux/EventSource.h"
#include "linux/SystemdOwners.h"

namespace linux {

class SessionWatch {
 public:
  using Handler = std::function<void()>;
  // Whether the session is over.
  using Source = std::function<bool()>;

  // HANDLER is called once; it may destroy the watch. Never, when PROCESS belongs to no session, or to one that is over
  // already: its processes were left behind on purpose.
  SessionWatch(sd_event *event, pid_t process, Handler handler);
  // For tests: looks at SOURCE whenever CHANGES is readable.
  SessionWatch(sd_event *event, Handler handler, Source source, vpnctl::FileDescriptor changes);
  SessionWatch(const SessionWatch &) = delete;
  SessionWatch &operator=(const SessionWatch &) = delete;

 private:
  void watch(sd_event *event);
  void look();

  Handler handler_;
  Source isOver_;
  vpnctl::FileDescriptor changes_;
  EventSource io_;
};

}  // namespace linux
