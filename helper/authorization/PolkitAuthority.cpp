#include "helper/authorization/PolkitAuthority.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>

#include "linux/Process.h"

namespace helper {

using vpnctl::errnoError;
using vpnctl::Result;
using vpnctl::Status;

namespace {

constexpr char kService[] = "org.freedesktop.PolicyKit1";
constexpr char kObject[] = "/org/freedesktop/PolicyKit1/Authority";
constexpr char kInterface[] = "org.freedesktop.PolicyKit1.Authority";
constexpr std::uint32_t kAllowUserInteraction = 1;
constexpr char kCancellation[] = "vpnctl";  // a question's name, of this connection's own
constexpr char kRemedy[] = "as root it works without";

// What polkit answers: (bba{ss}).
struct Outcome {
  bool authorized = false;
  bool challenge = false;  // it would be granted to who proves to be an administrator
  std::map<std::string, std::string> details;

  bool says(const std::string &detail) const { return details.contains(detail) && !details.at(detail).empty(); }
};

int readDetails(sd_bus_message *reply, Outcome &outcome) {
  int result = sd_bus_message_enter_container(reply, 'a', "{ss}");
  const char *key = nullptr;
  const char *value = nullptr;
  while (result >= 0 && (result = sd_bus_message_read(reply, "{ss}", &key, &value)) > 0) outcome.details[key] = value;
  return result < 0 ? result : sd_bus_message_exit_container(reply);
}

Result<Outcome> outcomeIn(sd_bus_message *reply) {
  Outcome outcome;
  int authorized = 0;
  int challenge = 0;
  int result = sd_bus_message_enter_container(reply, 'r', "bba{ss}");
  if (result >= 0) result = sd_bus_message_read(reply, "bb", &authorized, &challenge);
  if (result >= 0) result = readDetails(reply, outcome);
  if (result < 0) return errnoError(-result, "read polkit's answer");
  outcome.authorized = authorized != 0;
  outcome.challenge = challenge != 0;
  return outcome;
}

// Nobody has the name, or whoever should could not be started.
bool isAbsent(std::string_view error) {
  return error == SD_BUS_ERROR_SERVICE_UNKNOWN || error == SD_BUS_ERROR_NAME_HAS_NO_OWNER ||
         error.starts_with("org.freedesktop.DBus.Error.Spawn") || error.starts_with("org.freedesktop.systemd1.");
}

}  // namespace

Result<linux::Bus> PolkitAuthority::openSystemBus() {
  linux::Bus bus;
  if (const int result = sd_bus_open_system(linux::Out(bus)); result < 0)
    return errnoError(-result, "reach the system bus");
  return bus;
}

void PolkitAuthority::ask(const Peer &peer, bool mayInteract, Handler handler) {
  handler_ = std::move(handler);
  user_ = "User " + std::to_string(peer.uid());
  mayInteract_ = mayInteract;
  if (const Status sent = send(peer, mayInteract); !sent) {
    bus_.reset();
    soon_ = linux::EventSource::soon(event_, [this, why = sent.error().message] {
      tell({Verdict::unavailable,
            user_ + " cannot be authorized: " + why + "; without dbus and polkit only root may have a connection."});
    });
  }
}

Status PolkitAuthority::send(const Peer &peer, bool mayInteract) {
  const auto startTime = linux::startTimeOf(peer.pid());
  if (!startTime) return errnoError(ESRCH, "find the program that asks");
  auto bus = openBus_();
  if (!bus) return bus.error();
  bus_ = std::move(*bus);
  linux::BusMessage call;
  int result = sd_bus_attach_event(bus_.get(), event_, SD_EVENT_PRIORITY_NORMAL);
  if (result >= 0)
    result = sd_bus_message_new_method_call(bus_.get(), linux::Out(call), kService, kObject, kInterface,
                                            "CheckAuthorization");
  if (result >= 0)
    result = sd_bus_message_append(call.get(), "(sa{sv})sa{ss}us", "unix-process", 3, "pid", "u",
                                   static_cast<std::uint32_t>(peer.pid()), "start-time", "t", *startTime, "uid", "i",
                                   static_cast<std::int32_t>(peer.uid()), kAction, 0,
                                   mayInteract ? kAllowUserInteraction : 0, kCancellation);
  // A person may take as long as it takes.
  if (result >= 0)
    result = sd_bus_call_async(
        bus_.get(), linux::Out(question_), call.get(),
        [](sd_bus_message *reply, void *authority, sd_bus_error *) {
          return static_cast<PolkitAuthority *>(authority)->answered(reply);
        },
        this, UINT64_MAX);
  if (result < 0) return errnoError(-result, "ask polkit");
  return {};
}

int PolkitAuthority::answered(sd_bus_message *reply) {
  linux::endLoopOnException(event_, [this, reply] {
    if (const sd_bus_error *error = sd_bus_message_get_error(reply)) {
      const bool absent = isAbsent(error->name);
      return tell({Verdict::unavailable,
                   user_ + " cannot be authorized: " +
                       (absent ? std::string("polkit does not run (is the package polkitd installed?)")
                               : "polkit cannot tell: " + std::string(error->message ? error->message : error->name)) +
                       "; " + kRemedy + "."});
    }
    const auto outcome = outcomeIn(reply);
    if (!outcome)
      return tell({Verdict::unavailable, user_ + " cannot be authorized: " + outcome.error().message + "."});
    if (outcome->authorized) return tell({Verdict::granted, user_ + " may change the network, polkit says."});
    if (outcome->says("polkit.dismissed"))
      return tell({Verdict::dismissed, user_ + " was asked for an administrator's password, and gave none."});
    if (outcome->challenge && !mayInteract_)
      return tell(
          {Verdict::interactionWanted, user_ + " may change the network only with an administrator's password."});
    if (outcome->challenge)
      return tell(
          {Verdict::nobodyToAsk,
           user_ + " may change the network only with an administrator's password, and nobody could be asked for it: "
                   "there is no polkit agent; start vpnctl in a terminal or a desktop session, or as root."});
    tell({Verdict::denied, user_ +
                               " may not change the network: no administrator's password was given, or a rule of "
                               "polkit's forbids it (action " +
                               std::string(kAction) + ")."});
  });
  return 0;
}

void PolkitAuthority::tell(Answer answer) {
  question_.reset();
  const auto handler = std::exchange(handler_, nullptr);
  handler(answer);
}

// The bus would notice that we are gone, but who knows when.
void PolkitAuthority::withdraw() {
  if (!question_) return;
  question_.reset();
  if (sd_bus_call_method_async(bus_.get(), nullptr, kService, kObject, kInterface, "CancelCheckAuthorization", nullptr,
                               nullptr, "s", kCancellation) >= 0)
    sd_bus_flush(bus_.get());
}

}  // namespace helper
