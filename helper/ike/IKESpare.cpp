#include "helper/ike/IKESpare.h"

#include <utility>

namespace helper {

using vpnctl::Result;
using vpnctl::Status;

IKESpare::IKESpare(sd_event *event, std::string program) : event_(event), program_(std::move(program)) {
  // It has nothing to say before its first order.
  auto started = IKEProcess::start(event_, program_,
                                   {.report = [this](const IKEReport &) { waiting_.reset(); },
                                    .ended = [this](const Status &) { waiting_.reset(); }});
  if (started) waiting_ = std::move(*started);
}

Result<std::unique_ptr<IKESpeaker>> IKESpare::take(IKESpeaker::Handlers handlers) {
  if (waiting_) {
    waiting_->setHandlers(std::move(handlers));
    return std::unique_ptr<IKESpeaker>(std::move(waiting_));
  }
  auto started = IKEProcess::start(event_, program_, std::move(handlers));
  if (!started) return started.error();
  return std::unique_ptr<IKESpeaker>(std::move(*started));
}

}  // namespace helper
