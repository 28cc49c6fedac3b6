// An authority that says in the loop's next turn what it was told to say, or nothing.
//
// Thread rule: Authority's; what stands in it is set before the loop runs.

#pragma once

#include <systemd/sd-event.h>

#include <atomic>
#include <optional>
#include <string>
#include <utility>

#include "helper/authorization/Authority.h"
#include "linux/EventSource.h"

namespace helper::testing {

class ScriptedAuthority : public Authority {
 public:
  // Without a VERDICT nobody ever answers.
  explicit ScriptedAuthority(sd_event *event, std::optional<Verdict> verdict = Verdict::granted)
      : event_(event), verdict_(verdict) {}

  void ask(const Peer &peer, bool mayInteract, Handler handler) override {
    ++questions;
    askedOf = peer.pid();
    interactive = mayInteract;
    if (verdict_)
      soon_ = linux::EventSource::soon(event_, [this, handler = std::move(handler)] {
        handler({*verdict_, "What the authority says."});
      });
  }

  std::atomic<int> questions{0};
  std::atomic<pid_t> askedOf{0};
  std::atomic<bool> interactive{false};

 private:
  sd_event *event_;
  std::optional<Verdict> verdict_;
  linux::EventSource soon_;
};

}  // namespace helper::testing
