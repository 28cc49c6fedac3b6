#include "helper/network/ResolvedClient.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace helper {

using vpnctl::Error;
using vpnctl::Status;

namespace {

constexpr char kName[] = "org.freedesktop.resolve1";

// One call in the making. A failure sticks, so that only the end needs to be looked at.
class Call {
 public:
  Call(sd_bus *bus, const char *method) {
    result_ = sd_bus_message_new_method_call(bus, linux::Out(message_), kName, "/org/freedesktop/resolve1",
                                             "org.freedesktop.resolve1.Manager", method);
    // Whoever has stopped the daemon did not ask for it to be started again.
    if (result_ >= 0) result_ = sd_bus_message_set_auto_start(message_.get(), 0);
  }
  Call(const Call &) = delete;
  Call &operator=(const Call &) = delete;

  template <class... Arguments>
  void append(const char *types, Arguments... arguments) {
    if (result_ >= 0) result_ = sd_bus_message_append(message_.get(), types, arguments...);
  }
  void open(char kind, const char *contents) {
    if (result_ >= 0) result_ = sd_bus_message_open_container(message_.get(), kind, contents);
  }
  void close() {
    if (result_ >= 0) result_ = sd_bus_message_close_container(message_.get());
  }
  void bytes(const void *data, std::size_t size) {
    if (result_ >= 0) result_ = sd_bus_message_append_array(message_.get(), 'y', data, size);
  }
  int result() const { return result_; }
  sd_bus_message *message() const { return message_.get(); }

 private:
  linux::BusMessage message_;
  int result_ = 0;
};

Error reason(const std::string &text) { return {"systemd-resolved", 0, text}; }

Error refusal(const sd_bus_error &error) {
  const auto is = [&error](const char *name) { return sd_bus_error_has_name(&error, name) > 0; };
  if (is(SD_BUS_ERROR_SERVICE_UNKNOWN) || is(SD_BUS_ERROR_NAME_HAS_NO_OWNER))
    return reason("systemd-resolved does not run");
  // The bus itself says so of whoever dies before the answer.
  if (is(SD_BUS_ERROR_NO_REPLY) || is(SD_BUS_ERROR_DISCONNECTED)) return reason("systemd-resolved does not answer");
  return reason(std::string("systemd-resolved refuses (") +
                (error.message != nullptr && *error.message != '\0' ? error.message : error.name) + ")");
}

}  // namespace

ResolvedClient::ResolvedClient(sd_event *event, std::string bus, std::chrono::milliseconds deadline)
    : event_(event), address_(std::move(bus)), deadlineAfter_(deadline) {}

int ResolvedClient::connect() {
  int result = sd_bus_new(linux::Out(bus_));
  if (result >= 0) result = sd_bus_set_address(bus_.get(), address_.c_str());
  if (result >= 0) result = sd_bus_set_bus_client(bus_.get(), 1);
  if (result >= 0) result = sd_bus_start(bus_.get());
  if (result >= 0) result = sd_bus_attach_event(bus_.get(), event_, SD_EVENT_PRIORITY_NORMAL);
  return result;
}

int ResolvedClient::send(sd_bus_message *message) {
  const int result = sd_bus_call_async(bus_.get(), nullptr, message, answered, this, 0);
  if (result >= 0) ++unanswered_;
  return result;
}

void ResolvedClient::tell(int index, const std::vector<in_addr> &servers, const std::vector<std::string> &domains,
                          bool primary, Handler handler) {
  handler_ = std::move(handler);
  if (connect() < 0) {
    next_ = linux::EventSource::soon(event_,
                                     [this] { finish(reason("systemd-resolved cannot be reached without D-Bus")); });
    return;
  }
  int result = 0;
  {
    Call call(bus_.get(), "SetLinkDNS");
    call.append("i", index);
    call.open('a', "(iay)");
    for (const in_addr server : servers) {
      call.open('r', "iay");
      call.append("i", AF_INET);
      call.bytes(&server, sizeof server);
      call.close();
    }
    call.close();
    result = call.result() < 0 ? call.result() : send(call.message());
  }
  if (result >= 0) {
    Call call(bus_.get(), "SetLinkDefaultRoute");
    call.append("ib", index, primary ? 1 : 0);
    result = call.result() < 0 ? call.result() : send(call.message());
  }
  if (result >= 0 && (primary || !domains.empty())) {
    Call call(bus_.get(), "SetLinkDomains");
    call.append("i", index);
    call.open('a', "(sb)");
    for (const std::string &domain : domains) call.append("(sb)", domain.c_str(), 1);
    // The root domain, routing only: every name is asked for here.
    if (primary) call.append("(sb)", ".", 1);
    call.close();
    result = call.result() < 0 ? call.result() : send(call.message());
  }
  if (result < 0) {
    next_ = linux::EventSource::soon(event_, [this, result] {
      finish(reason(vpnctl::errnoError(-result, "systemd-resolved cannot be told").message));
    });
    return;
  }
  // One for everything, from the greeting of the bus on, which the calls' own do not cover.
  next_ =
      linux::EventSource::timer(event_, deadlineAfter_, [this] { finish(reason("systemd-resolved does not answer")); });
}

int ResolvedClient::answered(sd_bus_message *answer, void *context, sd_bus_error *) {
  auto *client = static_cast<ResolvedClient *>(context);
  linux::endLoopOnException(client->event_, [&] {
    if (const sd_bus_error *error = sd_bus_message_get_error(answer); error != nullptr)
      client->finish(refusal(*error));
    else if (--client->unanswered_ == 0)
      client->finish(Status());
  });
  return 0;
}

void ResolvedClient::finish(const Status &status) {
  next_.reset();
  const Handler handler = std::exchange(handler_, nullptr);
  if (handler) handler(status);
}

}  // namespace helper
