#include "helper/HelperService.h"

#include <cerrno>
#include <chrono>
#include <utility>

#include "foundation/PropertyList.h"
#include "foundation/UUID.h"
#include "helper/WireArguments.h"
#include "linux/EventSource.h"
#include "wire/HelperInterface.h"
#include "wire/StatusCodes.h"

namespace helper {

using foundation::errnoError;
using foundation::FileDescriptor;
using foundation::Secret;
using foundation::Status;
using foundation::Value;

namespace {

constexpr std::size_t kMaximumIdentifier = 128;    // bytes
constexpr std::size_t kMaximumDescription = 4096;  // bytes

// The D-Bus error of a call that is not what it should be. RESULT is a negative errno.
int malformed(sd_bus_message *message, int result) {
  return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_INVALID_ARGS, "The arguments cannot be used: %s",
                                    errnoError(-result, sd_bus_message_get_member(message)).message.c_str());
}

int appendBytes(sd_bus_message *message, std::string_view bytes) {
  return sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size());
}

// The answer "i...": BUILD appends what stands behind the code.
template <class Build>
int answer(sd_bus_message *call, std::int32_t code, Build build) {
  sd_bus_message *reply = nullptr;
  int result = sd_bus_message_new_method_return(call, &reply);
  if (result >= 0) result = sd_bus_message_append_basic(reply, 'i', &code);
  if (result >= 0) result = build(reply);
  if (result >= 0) result = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return result;
}

int answer(sd_bus_message *call, std::int32_t code) {
  return answer(
      call, code, [](sd_bus_message *) { return 0; });
}

// No bytes for a null Value. A Value that cannot be written is a null one to the reader.
std::string propertyListBytes(const Value &value) {
  if (value.isNull()) return {};
  auto bytes = foundation::xmlPropertyList(value);
  return bytes ? std::move(*bytes) : std::string();
}

int appendState(sd_bus_message *message, const LinkStatus &state) {
  const int result = sd_bus_message_append(message, "ii", state.status, state.error);
  if (result < 0) return result;
  return appendBytes(message, propertyListBytes(state.extendedStatus));
}

}  // namespace

template <int (HelperService::*method)(sd_bus_message *)>
int HelperService::handle(sd_bus_message *message, void *service, sd_bus_error *) {
  auto &self = *static_cast<HelperService *>(service);
  int result = -ENOTRECOVERABLE;  // what the caller gets when it ends in an exception
  linux::endLoopOnException(self.event_, [&] { result = (self.*method)(message); });
  return result;
}

// Whoever holds the other end of the socket has been given the right to everything here.
const sd_bus_vtable HelperService::kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD(wire::kReadPreferences, "", "iayay", handle<&HelperService::readPreferences>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(wire::kCommitPreferences, "ayay", "iay", handle<&HelperService::commitPreferences>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(wire::kApplyPreferences, "", "i", handle<&HelperService::applyPreferences>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(wire::kAddKeychainItem, "a(uay)aysas", "is", handle<&HelperService::addKeychainItem>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(wire::kFindKeychainItems, "a(uay)", "ias", handle<&HelperService::findKeychainItems>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(wire::kDeleteKeychainItem, "s", "i", handle<&HelperService::deleteKeychainItem>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(wire::kStartLink, "sayb", "i", handle<&HelperService::startLink>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(wire::kStopLink, "sb", "i", handle<&HelperService::stopLink>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(wire::kLinkStatus, "s", "iiay", handle<&HelperService::linkStatus>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL(wire::kLinkStatusChanged, "siiay", 0),
    SD_BUS_VTABLE_END};

HelperService::HelperService(sd_event *event, PreferencesStore &preferences, Keychain &keychain, LinkFactory links,
                             PPPLog &log, std::chrono::milliseconds endDeadline)
    : event_(event),
      preferences_(preferences),
      keychain_(keychain),
      links_(std::move(links)),
      log_(log),
      endDeadline_(endDeadline) {}

HelperService::~HelperService() {
  link_.reset();
  sd_event_source_disable_unref(deadline_);
  sd_event_source_disable_unref(exit_);
  sd_bus_close_unref(bus_);
}

Status HelperService::serve(FileDescriptor socket) {
  sd_id128_t identifier = {};
  int result = sd_id128_randomize(&identifier);
  if (result >= 0) result = sd_bus_new(&bus_);
  if (result >= 0) result = sd_bus_set_description(bus_, "tool");
  if (result >= 0) {
    const int descriptor = socket.release();  // the bus closes it from here on
    result = sd_bus_set_fd(bus_, descriptor, descriptor);
  }
  if (result >= 0) result = sd_bus_set_server(bus_, 1, identifier);
  if (result >= 0) result = sd_bus_negotiate_fds(bus_, 0);  // nothing here takes any
  if (result >= 0)
    result = sd_bus_add_object_vtable(bus_, nullptr, wire::kObjectPath, wire::kInterface, kMethods, this);
  if (result >= 0) {
    result = sd_bus_match_signal(bus_, nullptr, nullptr, "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                                 "Disconnected", handle<&HelperService::peerIsGone>, this);
  }
  if (result >= 0) result = sd_bus_add_filter(bus_, nullptr, handle<&HelperService::refuseDeafPeer>, this);
  if (result >= 0) result = sd_bus_start(bus_);
  // A bus that is attached flushes when the loop exits, and waits for a peer that does not read for as long as it
  // takes. So it goes first: what the socket could hold is there already.
  if (result >= 0) {
    result = sd_event_add_exit(
        event_, &exit_,
        [](sd_event_source *, void *service) {
          return sd_bus_detach_event(static_cast<HelperService *>(service)->bus_);
        },
        this);
  }
  if (result >= 0) result = sd_event_source_set_priority(exit_, SD_EVENT_PRIORITY_IMPORTANT);
  if (result >= 0) result = sd_bus_attach_event(bus_, event_, SD_EVENT_PRIORITY_NORMAL);
  if (result < 0) return errnoError(-result, "serve the tool");
  return {};
}

// ---- Preferences

int HelperService::readPreferences(sd_bus_message *message) {
  const auto contents = preferences_.read();
  return answer(message, contents ? kSCStatusOK : contents.error().code, [&](sd_bus_message *reply) {
    const int result = appendBytes(reply, contents ? contents->propertyList : std::string());
    return result < 0 ? result : appendBytes(reply, contents ? contents->signature : std::string());
  });
}

int HelperService::commitPreferences(sd_bus_message *message) {
  std::string_view propertyList;
  std::string_view signature;
  int result = readBytes(message, &propertyList);
  if (result >= 0) result = readBytes(message, &signature);
  if (result < 0) return malformed(message, result);
  const auto written = preferences_.commit(propertyList, signature);
  return answer(message, written ? kSCStatusOK : written.error().code,
                [&](sd_bus_message *reply) { return appendBytes(reply, written ? *written : std::string()); });
}

// Nothing waits for a notification: a start reads the preferences as they are then.
int HelperService::applyPreferences(sd_bus_message *message) { return answer(message, kSCStatusOK); }

// ---- Keychain

int HelperService::addKeychainItem(sd_bus_message *message) {
  int result = sd_bus_message_sensitive(message);  // wiped when it goes
  KeychainItem::Attributes attributes;
  std::string_view secret;
  KeychainItem::Access access;
  if (result >= 0) result = readAttributes(message, &attributes);
  if (result >= 0) result = readBytes(message, &secret);
  if (result >= 0) result = readText(message, kMaximumDescription, &access.description);
  if (result >= 0) result = readTexts(message, Keychain::kMaximumPaths, &access.trustedPaths);
  if (result < 0) return malformed(message, result);
  const auto item = keychain_.add(attributes, Secret(secret), access);
  return answer(message, item ? errSecSuccess : item.error().code,
                [&](sd_bus_message *reply) { return sd_bus_message_append(reply, "s", item ? item->c_str() : ""); });
}

int HelperService::findKeychainItems(sd_bus_message *message) {
  KeychainItem::Attributes attributes;
  const int result = readAttributes(message, &attributes);
  if (result < 0) return malformed(message, result);
  const auto items = keychain_.find(attributes);
  return answer(message, items ? errSecSuccess : items.error().code, [&](sd_bus_message *reply) {
    int appended = sd_bus_message_open_container(reply, 'a', "s");
    for (std::size_t i = 0; items && i < items->size() && appended >= 0; ++i)
      appended = sd_bus_message_append(reply, "s", (*items)[i].c_str());
    return appended < 0 ? appended : sd_bus_message_close_container(reply);
  });
}

int HelperService::deleteKeychainItem(sd_bus_message *message) {
  std::string item;
  const int result = readText(message, kMaximumIdentifier, &item);
  if (result < 0) return malformed(message, result);
  if (!foundation::isUUID(item)) return malformed(message, -EINVAL);
  const auto status = keychain_.remove(item);
  return answer(message, status ? errSecSuccess : status.error().code);
}

// ---- Link

int HelperService::startLink(sd_bus_message *message) {
  std::string serviceID;
  Value userOptions;
  int linger = 0;
  int result = readText(message, kMaximumIdentifier, &serviceID);
  if (result >= 0) result = readOptionalDictionary(message, &userOptions);
  if (result >= 0) result = sd_bus_message_read_basic(message, 'b', &linger);
  if (result < 0) return malformed(message, result);
  return answer(message, start(serviceID, userOptions, linger != 0));
}

std::int32_t HelperService::start(const std::string &serviceID, const Value &userOptions, bool linger) {
  if (ending_ || isLinkUp()) return kSCStatusFailed;
  const auto preferences = preferences_.readValueWith(serviceID);
  if (!preferences) return preferences.error().code;
  auto link = links_(*preferences, serviceID, userOptions, [this](const LinkStatus &status) { linkChanged(status); });
  if (!link) {
    log_.write("The connection cannot be started: " + link.error().message);
    return kSCStatusConnectionNoService;
  }
  link_ = std::move(*link);
  serviceID_ = serviceID;
  linger_ = linger;
  link_->start();
  return kSCStatusOK;
}

int HelperService::stopLink(sd_bus_message *message) {
  std::string serviceID;
  int force = 0;
  int result = readText(message, kMaximumIdentifier, &serviceID);
  if (result >= 0) result = sd_bus_message_read_basic(message, 'b', &force);
  if (result < 0) return malformed(message, result);
  if (isLinkUp() && serviceID == serviceID_) link_->stop();
  return answer(message, kSCStatusOK);
}

int HelperService::linkStatus(sd_bus_message *message) {
  std::string serviceID;
  const int result = readText(message, kMaximumIdentifier, &serviceID);
  if (result < 0) return malformed(message, result);
  const LinkStatus state = link_ && serviceID == serviceID_ ? link_->status() : LinkStatus();
  return answer(message, state.status, [&](sd_bus_message *reply) {
    const int appended = sd_bus_message_append_basic(reply, 'i', &state.error);
    return appended < 0 ? appended : appendBytes(reply, propertyListBytes(state.extendedStatus));
  });
}

void HelperService::linkChanged(const LinkStatus &status) {
  sd_bus_message *signal = nullptr;
  int result = sd_bus_message_new_signal(bus_, &signal, wire::kObjectPath, wire::kInterface, wire::kLinkStatusChanged);
  if (result >= 0) result = sd_bus_message_append_basic(signal, 's', serviceID_.c_str());
  if (result >= 0) result = appendState(signal, status);
  if (result >= 0) sd_bus_send(bus_, signal, nullptr);
  sd_bus_message_unref(signal);
  // A signal that cannot be sent has nobody to hear it; the link ends all the same. Disconnected is a link's last word.
  if (ending_ && status.status == 0) exit();
}

// ---- The end

int HelperService::peerIsGone(sd_bus_message *) {
  if (linger_ && isLinkUp())
    ending_ = true;  // stays for the link, and goes when it does
  else
    end();
  return 0;
}

// Sees every message before its method does.
int HelperService::refuseDeafPeer(sd_bus_message *) {
  std::uint64_t unread = 0;
  if (sd_bus_get_n_queued_write(bus_, &unread) < 0 || unread <= kMaximumUnread) return 0;
  log_.write("The program that asked for the connection does not read the answers; the connection ends.");
  sd_bus_close(bus_);
  end();
  return 1;
}

void HelperService::end() {
  ending_ = true;
  if (!isLinkUp()) return exit();
  if (deadline_ != nullptr) return;
  const int result = sd_event_add_time_relative(
      event_, &deadline_, CLOCK_MONOTONIC, static_cast<std::uint64_t>(std::chrono::microseconds(endDeadline_).count()),
      0,
      [](sd_event_source *, std::uint64_t, void *service) {
        static_cast<HelperService *>(service)->exit();
        return 0;
      },
      this);
  if (result < 0) return exit();
  link_->stop();
}

void HelperService::exit() { sd_event_exit(event_, 0); }

}  // namespace helper
