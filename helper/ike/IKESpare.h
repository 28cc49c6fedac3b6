// A vpnctl-ike that is started before anybody knows the server, so that it has its libraries by the time it is needed.
//
// Usual sequence: construct as early as possible, take() for each attempt. Only the first one gets the process that
// waits; if it has died meanwhile, or never started, take() starts another, and tells why where that fails, too.
// Destroying one whose process was never taken ends that process.
//
// Thread rule: the thread of the event loop. It blocks as IKEProcess does.

#pragma once

#include <systemd/sd-event.h>

#include <memory>
#include <string>

#include "helper/ike/IKEProcess.h"

namespace helper {

class IKESpare {
 public:
  // EVENT outlives it. PROGRAM is vpnctl-ike.
  IKESpare(sd_event *event, std::string program);
  IKESpare(const IKESpare &) = delete;
  IKESpare &operator=(const IKESpare &) = delete;

  vpnctl::Result<std::unique_ptr<IKESpeaker>> take(IKESpeaker::Handlers handlers);

 private:
  sd_event *event_;
  std::string program_;
  std::unique_ptr<IKEProcess> waiting_;
};

}  // namespace helper
