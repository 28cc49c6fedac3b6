#include "platform/SystemConfiguration.h"

#include <mutex>
#include <utility>

#include "foundation/ConsoleLog.h"
#include "platform/SCErrorState.h"
#include "platform/macos/Authorization.h"
#include "platform/macos/CFObject.h"
#include "platform/macos/PropertyLists.h"
#include "platform/macos/RunLoop.h"

namespace platform {

using macos::CFObject;
using vpnctl::Value;

struct SCPreferences {
  CFObject<::SCPreferencesRef> object;
};
struct SCNetworkService {
  SCPreferencesRef preferences;
  CFObject<::SCNetworkServiceRef> object;
};
struct SCNetworkInterface {
  SCNetworkServiceRef service;  // whose it is; none of a layer that is in no service yet
  CFObject<::SCNetworkInterfaceRef> object;

  // The bottom layer is the system's own object, and none before the system's first use of it: it is never retained.
  ::SCNetworkInterfaceRef reference() const { return object ? object.get() : ::kSCNetworkInterfaceIPv4; }
};
struct SCNetworkProtocol {
  SCNetworkServiceRef service;
  CFObject<::SCNetworkProtocolRef> object;
};
struct SCNetworkSet {
  SCPreferencesRef preferences;
  CFObject<::SCNetworkSetRef> object;
};

const SCNetworkInterfaceRef kSCNetworkInterfaceIPv4 = std::make_shared<SCNetworkInterface>();

namespace {

// The system's error of this thread when it was last looked at. It is hardly ever cleared there: only one that differs
// is news.
thread_local int knownError = 0;

// Of a call of the system's that has just failed.
std::int32_t systemsError() { return knownError = ::SCError(); }

// How our calls fail.
bool fail(std::int32_t error) {
  setSCError(error);
  return false;
}
std::nullptr_t nothing(std::int32_t error) {
  setSCError(error);
  return nullptr;
}

bool succeeds(Boolean result) { return result != 0 || fail(systemsError()); }

template <class... Objects>
bool areThere(const std::shared_ptr<Objects> &...objects) {
  const bool all = (... && (objects != nullptr));
  if (!all) setSCErrorForNullArgument();
  return all;
}

// The object of a call that gave a count with it, together with what it belongs to; empty when the call failed.
template <class Object, class Owner, class Reference>
std::shared_ptr<Object> make(Owner owner, Reference reference) {
  auto object = CFObject<Reference>::owned(reference);
  if (!object) return nothing(systemsError());
  return std::make_shared<Object>(Object{std::move(owner), std::move(object)});
}

}  // namespace

// ---- Errors

std::string SCErrorString(std::int32_t status) {
  const char *const text = ::SCErrorString(status);
  return text != nullptr ? text : "Unknown error: " + std::to_string(status);
}

// ---- Preferences

SCPreferencesRef SCPreferencesCreateWithAuthorization(const std::string &name,
                                                      const std::optional<std::string> &prefsID,
                                                      const AuthorizationRef &authorization) {
  setSCError(kSCStatusOK);
  if (!authorization) return nothing(kSCStatusNoPrefsSession);
  const auto caller = macos::stringOf(name);
  const auto file = prefsID ? macos::stringOf(*prefsID) : CFObject<CFStringRef>();
  if (!caller || (prefsID && !file)) return nothing(kSCStatusInvalidArgument);
  auto object = CFObject<::SCPreferencesRef>::owned(
      ::SCPreferencesCreateWithAuthorization(nullptr, caller.get(), file.get(), authorization->reference));
  if (!object) return nothing(systemsError());
  return std::make_shared<SCPreferences>(SCPreferences{std::move(object)});
}

bool SCPreferencesCommitChanges(const SCPreferencesRef &preferences) {
  return areThere(preferences) && succeeds(::SCPreferencesCommitChanges(preferences->object.get()));
}

bool SCPreferencesApplyChanges(const SCPreferencesRef &preferences) {
  return areThere(preferences) && succeeds(::SCPreferencesApplyChanges(preferences->object.get()));
}

void SCPreferencesSynchronize(const SCPreferencesRef &preferences) {
  if (areThere(preferences)) ::SCPreferencesSynchronize(preferences->object.get());
}

// ---- Services

std::optional<std::vector<SCNetworkServiceRef>> SCNetworkServiceCopyAll(const SCPreferencesRef &preferences) {
  if (!areThere(preferences)) return std::nullopt;
  const auto all = CFObject<CFArrayRef>::owned(::SCNetworkServiceCopyAll(preferences->object.get()));
  if (!all) {
    setSCError(systemsError());
    return std::nullopt;
  }
  std::vector<SCNetworkServiceRef> services;
  for (CFIndex i = 0; i < ::CFArrayGetCount(all.get()); ++i) {
    const auto service = static_cast<::SCNetworkServiceRef>(::CFArrayGetValueAtIndex(all.get(), i));
    services.push_back(std::make_shared<SCNetworkService>(
        SCNetworkService{preferences, CFObject<::SCNetworkServiceRef>::retained(service)}));
  }
  return services;
}

SCNetworkServiceRef SCNetworkServiceCreate(const SCPreferencesRef &preferences,
                                           const SCNetworkInterfaceRef &interface) {
  setSCError(kSCStatusOK);
  if (!areThere(preferences, interface)) return {};
  return make<SCNetworkService>(preferences,
                                ::SCNetworkServiceCreate(preferences->object.get(), interface->reference()));
}

bool SCNetworkServiceRemove(const SCNetworkServiceRef &service) {
  return areThere(service) && succeeds(::SCNetworkServiceRemove(service->object.get()));
}

std::optional<std::string> SCNetworkServiceGetName(const SCNetworkServiceRef &service) {
  if (!areThere(service)) return std::nullopt;
  return macos::textOf(::SCNetworkServiceGetName(service->object.get()));
}

bool SCNetworkServiceSetName(const SCNetworkServiceRef &service, const std::string &name) {
  if (!areThere(service)) return false;
  // No name would take the one there is away.
  const auto text = macos::stringOf(name);
  if (!text) return fail(kSCStatusInvalidArgument);
  return succeeds(::SCNetworkServiceSetName(service->object.get(), text.get()));
}

bool SCNetworkServiceEstablishDefaultConfiguration(const SCNetworkServiceRef &service) {
  return areThere(service) && succeeds(::SCNetworkServiceEstablishDefaultConfiguration(service->object.get()));
}

std::optional<std::string> SCNetworkServiceGetServiceID(const SCNetworkServiceRef &service) {
  if (!areThere(service)) return std::nullopt;
  return macos::textOf(::SCNetworkServiceGetServiceID(service->object.get()));
}

SCNetworkInterfaceRef SCNetworkServiceGetInterface(const SCNetworkServiceRef &service) {
  if (!areThere(service)) return {};
  auto object = CFObject<::SCNetworkInterfaceRef>::retained(::SCNetworkServiceGetInterface(service->object.get()));
  return make<SCNetworkInterface>(service, object.release());
}

SCNetworkProtocolRef SCNetworkServiceCopyProtocol(const SCNetworkServiceRef &service, const std::string &type) {
  if (!areThere(service)) return {};
  const auto name = macos::stringOf(type);
  if (!name) return nothing(kSCStatusInvalidArgument);
  return make<SCNetworkProtocol>(service, ::SCNetworkServiceCopyProtocol(service->object.get(), name.get()));
}

Value SCNetworkProtocolGetConfiguration(const SCNetworkProtocolRef &protocol) {
  if (!areThere(protocol)) return {};
  return macos::valueOf(::SCNetworkProtocolGetConfiguration(protocol->object.get()));
}

bool SCNetworkProtocolSetConfiguration(const SCNetworkProtocolRef &protocol, const Value &configuration) {
  if (!areThere(protocol)) return false;
  const auto dictionary = macos::dictionaryOf(configuration);
  if (!dictionary) return fail(kSCStatusInvalidArgument);
  return succeeds(::SCNetworkProtocolSetConfiguration(protocol->object.get(), dictionary.get()));
}

// ---- Interfaces and sets

SCNetworkInterfaceRef SCNetworkInterfaceCreateWithInterface(const SCNetworkInterfaceRef &interface,
                                                            const std::string &type) {
  setSCError(kSCStatusOK);
  // The system makes such an interface still, and leaves out its services whenever it lists them.
  if (type == kSCNetworkInterfaceTypePPTP) {
    vpnctl::NSLog("This macOS has no PPTP: Apple took it out of the system. Use \"l2tp\", if the server has it.");
    return nothing(kSCStatusConnectionIgnore);
  }
  if (!areThere(interface)) return {};
  const auto name = macos::stringOf(type);
  if (!name) return nothing(kSCStatusInvalidArgument);
  return make<SCNetworkInterface>(SCNetworkServiceRef(),
                                  ::SCNetworkInterfaceCreateWithInterface(interface->reference(), name.get()));
}

Value SCNetworkInterfaceGetConfiguration(const SCNetworkInterfaceRef &interface) {
  if (!areThere(interface)) return {};
  return macos::valueOf(::SCNetworkInterfaceGetConfiguration(interface->reference()));
}

bool SCNetworkInterfaceSetConfiguration(const SCNetworkInterfaceRef &interface, const Value &configuration) {
  if (!areThere(interface)) return false;
  const auto dictionary = macos::dictionaryOf(configuration);
  if (!dictionary) return fail(kSCStatusInvalidArgument);
  return succeeds(::SCNetworkInterfaceSetConfiguration(interface->reference(), dictionary.get()));
}

bool SCNetworkInterfaceSetExtendedConfiguration(const SCNetworkInterfaceRef &interface, const std::string &extendedType,
                                                const Value &configuration) {
  if (!areThere(interface)) return false;
  const auto name = macos::stringOf(extendedType);
  const auto dictionary = macos::dictionaryOf(configuration);
  if (!name || !dictionary) return fail(kSCStatusInvalidArgument);
  return succeeds(::SCNetworkInterfaceSetExtendedConfiguration(interface->reference(), name.get(), dictionary.get()));
}

SCNetworkSetRef SCNetworkSetCopyCurrent(const SCPreferencesRef &preferences) {
  if (!areThere(preferences)) return {};
  return make<SCNetworkSet>(preferences, ::SCNetworkSetCopyCurrent(preferences->object.get()));
}

bool SCNetworkSetAddService(const SCNetworkSetRef &set, const SCNetworkServiceRef &service) {
  return areThere(set, service) && succeeds(::SCNetworkSetAddService(set->object.get(), service->object.get()));
}

// ---- Connections

struct SCNetworkConnection : std::enable_shared_from_this<SCNetworkConnection> {
  SCNetworkConnection(SCNetworkConnectionCallBack function, const SCNetworkConnectionContext &about)
      : callback_(function), context_(about) {
    if (context_.retain != nullptr) context_.retain(context_.info);
  }
  SCNetworkConnection(const SCNetworkConnection &) = delete;
  SCNetworkConnection &operator=(const SCNetworkConnection &) = delete;
  ~SCNetworkConnection() {
    if (runLoop_) ::SCNetworkConnectionUnscheduleFromRunLoop(reference(), runLoop_->object.get(), mode_.get());
    if (context_.release != nullptr) context_.release(context_.info);
  }

  bool create(CFStringRef serviceID);
  bool schedule(const CFRunLoopRef &runLoop, const std::string &mode);
  bool start(CFDictionaryRef userOptions, bool linger);
  bool stop(bool force);  // any thread
  ::SCNetworkConnectionRef reference() const { return object_.get(); }

 private:
  static void changed(::SCNetworkConnectionRef reference, ::SCNetworkConnectionStatus status, void *info);

  const SCNetworkConnectionCallBack callback_;
  const SCNetworkConnectionContext context_;
  CFObject<::SCNetworkConnectionRef> object_;
  CFRunLoopRef runLoop_;
  CFObject<CFStringRef> mode_;

  std::mutex mutex_;  // guards the two below; never held while the system is called
  bool started_ = false;
  bool stopRequested_ = false;  // before the start
};

bool SCNetworkConnection::create(CFStringRef serviceID) {
  // Not retained: whoever dies first, the destructor takes the connection off its run loop.
  ::SCNetworkConnectionContext context = {0, this, nullptr, nullptr, nullptr};
  object_ = CFObject<::SCNetworkConnectionRef>::owned(
      ::SCNetworkConnectionCreateWithServiceID(nullptr, serviceID, changed, &context));
  return object_ || fail(systemsError());
}

bool SCNetworkConnection::schedule(const CFRunLoopRef &runLoop, const std::string &mode) {
  if (runLoop_) return runLoop_ == runLoop || fail(kSCStatusInvalidArgument);
  auto name = macos::stringOf(mode);
  if (!succeeds(::SCNetworkConnectionScheduleWithRunLoop(reference(), runLoop->object.get(), name.get()))) return false;
  runLoop_ = runLoop;
  mode_ = std::move(name);
  return true;
}

// The system forgets a stop that comes before the start.
bool SCNetworkConnection::start(CFDictionaryRef userOptions, bool linger) {
  if (!succeeds(::SCNetworkConnectionStart(reference(), userOptions, linger))) return false;
  bool stopNow = false;
  {
    const std::lock_guard lock(mutex_);
    started_ = true;
    stopNow = std::exchange(stopRequested_, false);
  }
  if (stopNow) ::SCNetworkConnectionStop(reference(), true);
  knownError = ::SCError();  // of a stop that failed, too: it is no change's
  return true;
}

bool SCNetworkConnection::stop(bool force) {
  {
    const std::lock_guard lock(mutex_);
    if (!started_) stopRequested_ = true;
  }
  // All the same: the service may be up, started by somebody else.
  ::SCNetworkConnectionStop(reference(), force);
  knownError = ::SCError();
  return true;
}

void SCNetworkConnection::changed(::SCNetworkConnectionRef, ::SCNetworkConnectionStatus status, void *info) {
  const auto self = static_cast<SCNetworkConnection *>(info)->weak_from_this().lock();
  if (!self || self->callback_ == nullptr) return;
  const int error = ::SCError();
  setSCError(error != knownError ? error : 0);
  self->callback_(self, status, self->context_.info);
  knownError = ::SCError();
}

SCNetworkConnectionRef SCNetworkConnectionCreateWithServiceID(const std::optional<std::string> &serviceID,
                                                              SCNetworkConnectionCallBack callback,
                                                              const SCNetworkConnectionContext &context) {
  if (!serviceID) {
    setSCErrorForNullArgument();
    return {};
  }
  setSCError(kSCStatusOK);
  const auto identifier = macos::stringOf(*serviceID);
  auto connection = std::make_shared<SCNetworkConnection>(callback, context);
  if (!identifier) setSCError(kSCStatusInvalidArgument);
  return identifier && connection->create(identifier.get()) ? connection : nullptr;
}

SCNetworkConnectionStatus SCNetworkConnectionGetStatus(const SCNetworkConnectionRef &connection) {
  if (!areThere(connection)) return kSCNetworkConnectionInvalid;
  return ::SCNetworkConnectionGetStatus(connection->reference());
}

Value SCNetworkConnectionCopyExtendedStatus(const SCNetworkConnectionRef &connection) {
  if (!areThere(connection)) return {};
  const auto status =
      CFObject<CFDictionaryRef>::owned(::SCNetworkConnectionCopyExtendedStatus(connection->reference()));
  if (!status) setSCError(systemsError());
  return macos::valueOf(status.get());
}

bool SCNetworkConnectionScheduleWithRunLoop(const SCNetworkConnectionRef &connection, const CFRunLoopRef &runLoop,
                                            const std::string &mode) {
  setSCError(kSCStatusOK);
  if (!areThere(connection, runLoop)) return false;
  if (mode != kCFRunLoopDefaultMode) return fail(kSCStatusInvalidArgument);
  return connection->schedule(runLoop, mode);
}

bool SCNetworkConnectionStart(const SCNetworkConnectionRef &connection, const Value &userOptions, bool linger) {
  setSCError(kSCStatusOK);
  if (!areThere(connection)) return false;
  const auto options = macos::dictionaryOf(userOptions);
  if (!options && !userOptions.isNull()) return fail(kSCStatusInvalidArgument);
  return connection->start(options.get(), linger);
}

bool SCNetworkConnectionStop(const SCNetworkConnectionRef &connection, bool forceDisconnect) {
  return areThere(connection) && connection->stop(forceDisconnect);
}

}  // namespace platform
