#include "companions/probe/ServerAddress.h"

#include <systemd/sd-event.h>

#include <memory>
#include <utility>

namespace companions {

namespace {

struct Unref {
  void operator()(sd_event *event) const { sd_event_unref(event); }
};

std::string cannotAsk(int error) {
  return vpnctl::errnoError(-error, "The server's name could not be looked up").message;
}

}  // namespace

ServerAddress ServerAddress::find(const std::string &text, helper::NameResolution::Resolver resolver,
                                  std::chrono::milliseconds deadline) {
  // A loop for this question alone.
  sd_event *made = nullptr;
  if (const int error = sd_event_new(&made); error < 0) return {{}, cannotAsk(error)};
  const std::unique_ptr<sd_event, Unref> event(made);
  ServerAddress found;
  const auto take = [&](const vpnctl::Result<helper::NameResolution::Addresses> &answer) {
    if (answer)
      found.addresses = *answer;
    else
      found.reason = answer.error().message;
    sd_event_exit(event.get(), 0);
  };
  const helper::NameResolution resolution(event.get(), text, take, std::move(resolver), deadline);
  if (const int error = sd_event_loop(event.get()); error < 0) return {{}, cannotAsk(error)};
  return found;
}

}  // namespace companions
