#include "platform/linux/HelperConnection.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <system_error>
#include <utility>

#include "foundation/PropertyList.h"
#include "wire/HelperInterface.h"

namespace platform {

using foundation::errnoError;
using foundation::FileDescriptor;
using foundation::Result;
using foundation::Secret;

namespace {

constexpr std::chrono::microseconds kCallDeadline = std::chrono::seconds(10);
constexpr std::chrono::microseconds kReadyDeadline = std::chrono::seconds(20);

std::uint64_t count(std::chrono::microseconds duration) { return static_cast<std::uint64_t>(duration.count()); }

// Never destroyed: another thread may end the process while this one still asks.
struct Current {
  std::mutex mutex;
  std::weak_ptr<HelperConnection> connection;
};
Current &currentConnection() {
  static auto &current = *new Current;
  return current;
}

int appendBytes(sd_bus_message *message, std::string_view bytes) {
  return sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size());
}

int appendAttributes(sd_bus_message *message, const std::vector<KeychainAttribute> &attributes) {
  int result = sd_bus_message_open_container(message, 'a', "(uay)");
  for (const auto &attribute : attributes) {
    if (result >= 0) result = sd_bus_message_open_container(message, 'r', "uay");
    if (result >= 0) result = sd_bus_message_append_basic(message, 'u', &attribute.tag);
    if (result >= 0) result = appendBytes(message, attribute.bytes);
    if (result >= 0) result = sd_bus_message_close_container(message);
  }
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendTexts(sd_bus_message *message, const std::vector<std::string> &texts) {
  int result = sd_bus_message_open_container(message, 'a', "s");
  for (const auto &text : texts)
    if (result >= 0) result = sd_bus_message_append_basic(message, 's', text.c_str());
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int readBytes(sd_bus_message *message, std::string *bytes) {
  const void *start = nullptr;
  std::size_t size = 0;
  const int result = sd_bus_message_read_array(message, 'y', &start, &size);
  if (result >= 0 && size > 0) bytes->assign(static_cast<const char *>(start), size);
  return result;
}

int readText(sd_bus_message *message, std::string *text) {
  const char *start = nullptr;
  const int result = sd_bus_message_read_basic(message, 's', &start);
  if (result > 0) *text = start;
  return result;
}

int readTexts(sd_bus_message *message, std::vector<std::string> *texts) {
  int result = sd_bus_message_enter_container(message, 'a', "s");
  std::string text;
  while (result >= 0 && (result = readText(message, &text)) > 0) texts->push_back(text);
  return result < 0 ? result : sd_bus_message_exit_container(message);
}

int readSnapshot(sd_bus_message *message, LinkSnapshot *snapshot) {
  int result = sd_bus_message_read(message, "ii", &snapshot->status, &snapshot->error);
  std::string bytes;
  if (result >= 0) result = readBytes(message, &bytes);
  if (result < 0 || bytes.empty()) return result;
  auto value = foundation::propertyListFromData(bytes, "extended status");
  if (value && value->isDictionary()) snapshot->extendedStatus = std::move(*value);
  return result;
}

}  // namespace

Result<std::shared_ptr<HelperConnection>> HelperConnection::connect(LaunchedHelper helper) {
  std::shared_ptr<HelperConnection> connection(new HelperConnection(std::move(helper.process)));
  const int result = connection->start(std::move(helper.socket));
  if (result < 0) return errnoError(-result, "talk to the helper");
  return connection;
}

int HelperConnection::start(FileDescriptor socket) {
  int result = sd_bus_new(linux::Out(bus_));
  if (result < 0) return result;
  const int descriptor = socket.release();  // the bus closes it from here on
  result = sd_bus_set_fd(bus_.get(), descriptor, descriptor);
  if (result >= 0) {
    result = sd_bus_match_signal(
        bus_.get(), nullptr, nullptr, wire::kObjectPath, wire::kInterface, wire::kLinkStatusChanged,
        [](sd_bus_message *signal, void *connection, sd_bus_error *) {
          static_cast<HelperConnection *>(connection)->changed(signal);
          return 0;
        },
        this);
  }
  if (result >= 0) {
    result = sd_bus_match_signal(
        bus_.get(), nullptr, nullptr, "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local", "Disconnected",
        [](sd_bus_message *, void *connection, sd_bus_error *) {
          static_cast<HelperConnection *>(connection)->lost();
          return 0;
        },
        this);
  }
  return result < 0 ? result : sd_bus_start(bus_.get());
}

HelperConnection::~HelperConnection() {
  bus_.reset();
  // It takes the link down and ends by itself, which may take longer than we live.
  if (process_ && !process_->waitFor(std::chrono::milliseconds(0))) process_->leaveRunning();
}

std::shared_ptr<HelperConnection> HelperConnection::current() {
  auto &current = currentConnection();
  const std::lock_guard guard(current.mutex);
  return current.connection.lock();
}

void HelperConnection::makeCurrent() {
  auto &current = currentConnection();
  const std::lock_guard guard(current.mutex);
  current.connection = weak_from_this();
}

bool HelperConnection::isOpen() const { return sd_bus_is_open(bus_.get()) > 0; }

// ---- Calls

HelperConnection::Message HelperConnection::newCall(const char *member) {
  Message message;
  // Fails without memory, or when the connection has ended; a null message makes every step after it fail.
  sd_bus_message_new_method_call(bus_.get(), linux::Out(message), nullptr, wire::kObjectPath, wire::kInterface, member);
  return message;
}

HelperConnection::Message HelperConnection::call(const Message &message) {
  Message reply;
  sd_bus_call(bus_.get(), message.get(), count(kCallDeadline), nullptr, linux::Out(reply));
  return reply;
}

bool HelperConnection::ping() {
  Message message;
  sd_bus_message_new_method_call(bus_.get(), linux::Out(message), nullptr, wire::kObjectPath,
                                 "org.freedesktop.DBus.Peer", "Ping");
  return message && sd_bus_call(bus_.get(), message.get(), count(kReadyDeadline), nullptr, nullptr) >= 0;
}

std::optional<HelperConnection::Preferences> HelperConnection::readPreferences() {
  const auto message = newCall(wire::kReadPreferences);
  if (!message) return {};
  const auto reply = call(message);
  Preferences answer;
  if (!reply || sd_bus_message_read(reply.get(), "i", &answer.error) < 0 ||
      readBytes(reply.get(), &answer.propertyList) < 0 || readBytes(reply.get(), &answer.signature) < 0)
    return {};
  return answer;
}

std::optional<HelperConnection::Committed> HelperConnection::commitPreferences(std::string_view propertyList,
                                                                               std::string_view signature) {
  const auto message = newCall(wire::kCommitPreferences);
  if (!message || appendBytes(message.get(), propertyList) < 0 || appendBytes(message.get(), signature) < 0) return {};
  const auto reply = call(message);
  Committed answer;
  if (!reply || sd_bus_message_read(reply.get(), "i", &answer.error) < 0 ||
      readBytes(reply.get(), &answer.signature) < 0)
    return {};
  return answer;
}

std::optional<std::int32_t> HelperConnection::applyPreferences() {
  const auto message = newCall(wire::kApplyPreferences);
  if (!message) return {};
  const auto reply = call(message);
  std::int32_t answer = 0;
  if (!reply || sd_bus_message_read(reply.get(), "i", &answer) < 0) return {};
  return answer;
}

std::optional<HelperConnection::NewItem> HelperConnection::addKeychainItem(
    const std::vector<KeychainAttribute> &attributes, const Secret &secret, const std::string &accessDescription,
    const std::vector<std::string> &trustedPaths) {
  const auto message = newCall(wire::kAddKeychainItem);
  if (!message || sd_bus_message_sensitive(message.get()) < 0 || appendAttributes(message.get(), attributes) < 0 ||
      appendBytes(message.get(), secret.text()) < 0 ||
      sd_bus_message_append(message.get(), "s", accessDescription.c_str()) < 0 ||
      appendTexts(message.get(), trustedPaths) < 0)
    return {};
  const auto reply = call(message);
  NewItem answer;
  if (!reply || sd_bus_message_read(reply.get(), "i", &answer.status) < 0 || readText(reply.get(), &answer.item) < 0)
    return {};
  return answer;
}

std::optional<HelperConnection::FoundItems> HelperConnection::findKeychainItems(
    const std::vector<KeychainAttribute> &attributes) {
  const auto message = newCall(wire::kFindKeychainItems);
  if (!message || appendAttributes(message.get(), attributes) < 0) return {};
  const auto reply = call(message);
  FoundItems answer;
  if (!reply || sd_bus_message_read(reply.get(), "i", &answer.status) < 0 || readTexts(reply.get(), &answer.items) < 0)
    return {};
  return answer;
}

std::optional<std::int32_t> HelperConnection::deleteKeychainItem(const std::string &item) {
  const auto message = newCall(wire::kDeleteKeychainItem);
  if (!message || sd_bus_message_append(message.get(), "s", item.c_str()) < 0) return {};
  const auto reply = call(message);
  std::int32_t answer = 0;
  if (!reply || sd_bus_message_read(reply.get(), "i", &answer) < 0) return {};
  return answer;
}

std::optional<std::int32_t> HelperConnection::startLink(const std::string &serviceID, std::string_view userOptions,
                                                        bool linger) {
  const auto message = newCall(wire::kStartLink);
  if (!message || sd_bus_message_append(message.get(), "s", serviceID.c_str()) < 0 ||
      appendBytes(message.get(), userOptions) < 0 || sd_bus_message_append(message.get(), "b", linger) < 0)
    return {};
  const auto reply = call(message);
  std::int32_t answer = 0;
  if (!reply || sd_bus_message_read(reply.get(), "i", &answer) < 0) return {};
  return answer;
}

void HelperConnection::stopLink(const std::string &serviceID, bool force) {
  const auto message = newCall(wire::kStopLink);
  if (!message || sd_bus_message_append(message.get(), "sb", serviceID.c_str(), force) < 0) return;
  // What comes of it is told by signals; a connection that has ended tells that of itself.
  if (sd_bus_message_set_expect_reply(message.get(), 0) >= 0) sd_bus_send(bus_.get(), message.get(), nullptr);
}

std::optional<LinkSnapshot> HelperConnection::linkStatus(const std::string &serviceID) {
  const auto message = newCall(wire::kLinkStatus);
  if (!message || sd_bus_message_append(message.get(), "s", serviceID.c_str()) < 0) return {};
  const auto reply = call(message);
  LinkSnapshot snapshot;
  if (!reply || readSnapshot(reply.get(), &snapshot) < 0) return {};
  return snapshot;
}

// ---- Signals

bool HelperConnection::attach(sd_event *event) {
  if (sd_bus_get_event(bus_.get()) != nullptr) return sd_bus_get_event(bus_.get()) == event;
  if (sd_bus_attach_event(bus_.get(), event, SD_EVENT_PRIORITY_NORMAL) < 0) return false;
  // A helper that ends while the tool lives on must not stay behind as a zombie.
  try {
    if (process_)
      process_->watch(
          event, [](const linux::ChildProcess::End &) {});
  } catch (const std::system_error &) {
    return false;
  }
  return true;
}

void HelperConnection::addObserver(LinkObserver *observer) { observers_.push_back(observer); }

void HelperConnection::removeObserver(LinkObserver *observer) { std::erase(observers_, observer); }

// A copy: an observer that is told may add and remove others.
std::vector<LinkObserver *> HelperConnection::observersOf(const std::string *serviceID) const {
  std::vector<LinkObserver *> observers;
  std::copy_if(observers_.begin(), observers_.end(), std::back_inserter(observers), [&](const LinkObserver *observer) {
    return serviceID == nullptr || observer->serviceID() == *serviceID;
  });
  return observers;
}

void HelperConnection::changed(sd_bus_message *signal) {
  std::string serviceID;
  LinkSnapshot snapshot;
  if (readText(signal, &serviceID) < 0 || readSnapshot(signal, &snapshot) < 0) return;
  const auto keepAlive = shared_from_this();
  for (LinkObserver *observer : observersOf(&serviceID))
    if (std::find(observers_.begin(), observers_.end(), observer) != observers_.end()) observer->linkChanged(snapshot);
}

void HelperConnection::lost() {
  const auto keepAlive = shared_from_this();
  for (LinkObserver *observer : observersOf(nullptr))
    if (std::find(observers_.begin(), observers_.end(), observer) != observers_.end()) observer->helperIsGone();
}

}  // namespace platform
