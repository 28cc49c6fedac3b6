#include "platform/linux/HelperConnection.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <mutex>
#include <system_error>
#include <utility>

#include "wire/HelperInterface.h"
#include "wire/StatusCodes.h"

namespace platform {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Secret;

namespace {

constexpr std::uint64_t kReadyDeadline = 20'000'000;  // microseconds

// Never destroyed: another thread may end the process while this one still asks.
struct Current {
  std::mutex mutex;
  std::weak_ptr<HelperConnection> connection;
};
Current &currentConnection() {
  static auto &current = *new Current;
  return current;
}

LinkSnapshot snapshotOf(const wire::LinkStatusReply &state) {
  auto extendedStatus = wire::dictionaryFrom(state.extendedStatus);
  return {state.status, state.error, extendedStatus ? std::move(*extendedStatus) : vpnctl::Value()};
}

}  // namespace

Result<std::shared_ptr<HelperConnection>> HelperConnection::connect(LaunchedHelper helper) {
  std::shared_ptr<HelperConnection> connection(new HelperConnection(std::move(helper.path), std::move(helper.process)));
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

template <class Call>
HelperConnection::Message HelperConnection::newCall(const char *member, const Call &contents) {
  Message message;
  // Fails without memory, or when the connection has ended.
  int result = sd_bus_message_new_method_call(bus_.get(), linux::Out(message), nullptr, wire::kObjectPath,
                                              wire::kInterface, member);
  if (result >= 0) result = wire::append(message.get(), contents);
  return result < 0 ? Message() : std::move(message);
}

template <class Reply, class Call>
std::optional<Reply> HelperConnection::call(const char *member, const Call &contents, std::uint64_t deadline) {
  const auto message = newCall(member, contents);
  Message answer;
  Reply reply;
  if (!message || sd_bus_call(bus_.get(), message.get(), deadline, nullptr, linux::Out(answer)) < 0) return {};
  if (wire::read(answer.get(), &reply) < 0) return {};
  return reply;
}

template <class Call>
std::optional<std::int32_t> HelperConnection::callForCode(const char *member, const Call &contents) {
  const auto reply = call<wire::Code>(member, contents);
  return reply ? std::optional(reply->code) : std::nullopt;
}

bool HelperConnection::ping() {
  Message message;
  sd_bus_message_new_method_call(bus_.get(), linux::Out(message), nullptr, wire::kObjectPath,
                                 "org.freedesktop.DBus.Peer", "Ping");
  return message && sd_bus_call(bus_.get(), message.get(), kReadyDeadline, nullptr, nullptr) >= 0;
}

std::optional<std::int32_t> HelperConnection::authorize(bool mayInteract, bool willAskAgain) {
  const std::int32_t flags = (mayInteract ? wire::kInteractionAllowed : 0) | (willAskAgain ? wire::kWillAskAgain : 0);
  const auto reply = call<wire::Code>(wire::kAuthorize, wire::Authorize{flags}, UINT64_MAX);
  return reply ? std::optional(reply->code) : std::nullopt;
}

void HelperConnection::tellOfReadableSecrets(const std::string &path) {
  call<wire::Code>(wire::kTellOfReadableSecrets, wire::TellOfReadableSecrets{path});
}

std::optional<wire::ReadPreferencesReply> HelperConnection::readPreferences() {
  return call<wire::ReadPreferencesReply>(wire::kReadPreferences, wire::Nothing());
}

std::optional<wire::CommitPreferencesReply> HelperConnection::commitPreferences(std::string_view propertyList,
                                                                                std::string_view signature) {
  return call<wire::CommitPreferencesReply>(wire::kCommitPreferences, wire::CommitPreferences{propertyList, signature});
}

std::optional<std::int32_t> HelperConnection::applyPreferences() {
  return callForCode(wire::kApplyPreferences, wire::Nothing());
}

std::optional<wire::AddKeychainItemReply> HelperConnection::addKeychainItem(
    const wire::Attributes &attributes, const Secret &secret, const std::string &accessDescription,
    const std::vector<std::string> &trustedPaths) {
  return call<wire::AddKeychainItemReply>(
      wire::kAddKeychainItem, wire::AddKeychainItem{attributes, secret.text(), accessDescription, trustedPaths});
}

std::optional<wire::FindKeychainItemsReply> HelperConnection::findKeychainItems(const wire::Attributes &attributes) {
  return call<wire::FindKeychainItemsReply>(wire::kFindKeychainItems, wire::FindKeychainItems{attributes});
}

std::optional<std::int32_t> HelperConnection::deleteKeychainItem(const std::string &item) {
  return callForCode(wire::kDeleteKeychainItem, wire::DeleteKeychainItem{item});
}

std::optional<std::int32_t> HelperConnection::startLink(const std::string &serviceID, std::string_view userOptions,
                                                        bool linger) {
  return callForCode(wire::kStartLink, wire::StartLink{serviceID, userOptions, linger});
}

void HelperConnection::stopLink(const std::string &serviceID, bool force) {
  const auto message = newCall(wire::kStopLink, wire::StopLink{serviceID, force});
  // What comes of it is told by signals; a connection that has ended tells that of itself.
  if (message && sd_bus_message_set_expect_reply(message.get(), 0) >= 0)
    sd_bus_send(bus_.get(), message.get(), nullptr);
}

std::optional<LinkSnapshot> HelperConnection::linkStatus(const std::string &serviceID) {
  const auto reply = call<wire::LinkStatusReply>(wire::kLinkStatus, wire::LinkStatus{serviceID});
  return reply ? std::optional(snapshotOf(*reply)) : std::nullopt;
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
  wire::LinkStatusChanged change;
  if (wire::read(signal, &change) < 0) return;
  const LinkSnapshot snapshot = snapshotOf(change.state);
  const auto keepAlive = shared_from_this();
  for (LinkObserver *observer : observersOf(&change.serviceID))
    if (std::find(observers_.begin(), observers_.end(), observer) != observers_.end()) observer->linkChanged(snapshot);
}

void HelperConnection::lost() {
  const auto keepAlive = shared_from_this();
  haveItRepaired();
  for (LinkObserver *observer : observersOf(nullptr))
    if (std::find(observers_.begin(), observers_.end(), observer) != observers_.end()) observer->helperIsGone();
}

// What the helper did to the machine outlives it, refused traffic for one. The next one begins with taking that back,
// and ends when it finds nobody to talk to.
void HelperConnection::haveItRepaired() {
  if (!process_) return static_cast<void>(callHelper(path_));
  if (auto next = launchHelper(path_); next && next->process) next->process->leaveRunning();
}

}  // namespace platform
