#include <SystemConfiguration/SystemConfiguration.h>

#include <atomic>
#include <map>

#include "tests/platform/macos/frameworks/Authorizations.h"
#include "tests/platform/macos/frameworks/Behind.h"
#include "tests/platform/macos/frameworks/Frameworks.h"
#include "tests/platform/macos/frameworks/Objects.h"
#include "tests/platform/macos/frameworks/PropertyLists.h"
#include "tests/platform/macos/frameworks/RunLoops.h"

namespace frameworks {
namespace {

using behind::fake::FakePlatform;

struct Preferences : Object {
  explicit Preferences(behind::SCPreferencesRef theirs) : it(std::move(theirs)) {}
  std::string kind() const override { return "SCPreferences"; }
  const behind::SCPreferencesRef it;
};

struct Service : Object {
  explicit Service(behind::SCNetworkServiceRef theirs) : it(std::move(theirs)) {}
  std::string kind() const override { return "SCNetworkService"; }
  const behind::SCNetworkServiceRef it;
  Kept name, identifier, interface;
};

struct Interface : Object {
  explicit Interface(behind::SCNetworkInterfaceRef theirs) : it(std::move(theirs)) {}
  std::string kind() const override { return "SCNetworkInterface"; }
  const behind::SCNetworkInterfaceRef it;
  Kept configuration;
};

struct Protocol : Object {
  explicit Protocol(behind::SCNetworkProtocolRef theirs) : it(std::move(theirs)) {}
  std::string kind() const override { return "SCNetworkProtocol"; }
  const behind::SCNetworkProtocolRef it;
  Kept configuration;
};

struct Set : Object {
  explicit Set(behind::SCNetworkSetRef theirs) : it(std::move(theirs)) {}
  std::string kind() const override { return "SCNetworkSet"; }
  const behind::SCNetworkSetRef it;
};

struct Connection : Object {
  ~Connection() override {
    if (scheduled) misuse("a connection that goes while a run loop may still call back");
  }
  std::string kind() const override { return "SCNetworkConnection"; }

  behind::SCNetworkConnectionRef it;
  SCNetworkConnectionCallBack callback = nullptr;
  SCNetworkConnectionContext context = {};
  bool scheduled = false;
  std::atomic<bool> started = false;
};

// The bottom layer is an object from the framework's first use on, not before.
class BottomLayer : public Interface {
 public:
  BottomLayer() : Interface(behind::kSCNetworkInterfaceIPv4) {}
};
alignas(BottomLayer) unsigned char bottomLayer[sizeof(BottomLayer)];

void use() {
  static auto *const made = new (bottomLayer) BottomLayer();
  addStatic(*made);
}

// What stands behind a reference; nothing behind a null one.
template <class Kind>
auto behindOf(const void *reference) -> std::remove_const_t<decltype(Kind::it)> {
  use();
  return reference != nullptr ? as<Kind>(reference).it : nullptr;
}

template <class Reference, class Kind, class Theirs>
Reference wrap(Theirs theirs) {
  return theirs ? make<Reference, Kind>(std::move(theirs)) : nullptr;
}

// The system's error is set by what fails and cleared by nothing; what stands behind clears it where our API says so.
template <class Call>
auto keepingTheError(const Call &call) {
  const std::int32_t before = behind::SCError();
  auto result = call();
  if (result) behind::setSCError(before);
  return result;
}

std::atomic<std::int32_t> stopError = 0;

const void *newText(const std::optional<std::string> &text) { return text ? newString(*text) : nullptr; }

void tell(behind::SCNetworkConnectionRef, behind::SCNetworkConnectionStatus status, void *info) {
  Connection &connection = as<Connection>(info);
  connection.callback(static_cast<SCNetworkConnectionRef>(info), static_cast<SCNetworkConnectionStatus>(status),
                      connection.context.info);
}

}  // namespace

void setSystemsError(std::int32_t error) { behind::setSCError(error); }

void failStops(std::int32_t error) { stopError = error; }

}  // namespace frameworks

using namespace frameworks;

const SCNetworkInterfaceRef kSCNetworkInterfaceIPv4 = reinterpret_cast<SCNetworkInterfaceRef>(bottomLayer);

extern "C" {

int SCError() { return behind::SCError(); }

const char *SCErrorString(int status) {
  if (status == kStatusWithoutText) return nullptr;
  static auto *const texts = new std::map<int, std::string>();
  return texts->try_emplace(status, behind::SCErrorString(status)).first->second.c_str();
}

SCPreferencesRef SCPreferencesCreateWithAuthorization(CFAllocatorRef, CFStringRef name, CFStringRef prefsID,
                                                      AuthorizationRef authorization) {
  use();
  const auto file = prefsID != nullptr ? std::optional(textIn(prefsID)) : std::nullopt;
  return wrap<SCPreferencesRef, Preferences>(keepingTheError([&] {
    return behind::SCPreferencesCreateWithAuthorization(textIn(name), file, authorizationAt(authorization));
  }));
}

Boolean SCPreferencesCommitChanges(SCPreferencesRef preferences) {
  return behind::SCPreferencesCommitChanges(behindOf<Preferences>(preferences));
}
Boolean SCPreferencesApplyChanges(SCPreferencesRef preferences) {
  return behind::SCPreferencesApplyChanges(behindOf<Preferences>(preferences));
}
void SCPreferencesSynchronize(SCPreferencesRef preferences) {
  behind::SCPreferencesSynchronize(behindOf<Preferences>(preferences));
}

CFArrayRef SCNetworkServiceCopyAll(SCPreferencesRef preferences) {
  const auto all = behind::SCNetworkServiceCopyAll(behindOf<Preferences>(preferences));
  if (!all) return nullptr;
  const CFMutableArrayRef array = ::CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
  for (const behind::SCNetworkServiceRef &service : *all) {
    const auto element = make<SCNetworkServiceRef, Service>(service);
    ::CFArrayAppendValue(array, element);
    ::CFRelease(element);
  }
  return array;
}

SCNetworkServiceRef SCNetworkServiceCreate(SCPreferencesRef preferences, SCNetworkInterfaceRef interface) {
  return wrap<SCNetworkServiceRef, Service>(keepingTheError([&] {
    return behind::SCNetworkServiceCreate(behindOf<Preferences>(preferences), behindOf<Interface>(interface));
  }));
}
Boolean SCNetworkServiceRemove(SCNetworkServiceRef service) {
  return behind::SCNetworkServiceRemove(behindOf<Service>(service));
}
CFStringRef SCNetworkServiceGetName(SCNetworkServiceRef service) {
  const auto name = behind::SCNetworkServiceGetName(behindOf<Service>(service));
  return static_cast<CFStringRef>(as<Service>(service).name.keep(newText(name)));
}
Boolean SCNetworkServiceSetName(SCNetworkServiceRef service, CFStringRef name) {
  if (name == nullptr) misuse("no name takes the one there is away");
  return behind::SCNetworkServiceSetName(behindOf<Service>(service), textIn(name));
}
Boolean SCNetworkServiceEstablishDefaultConfiguration(SCNetworkServiceRef service) {
  return behind::SCNetworkServiceEstablishDefaultConfiguration(behindOf<Service>(service));
}
CFStringRef SCNetworkServiceGetServiceID(SCNetworkServiceRef service) {
  const auto identifier = behind::SCNetworkServiceGetServiceID(behindOf<Service>(service));
  return static_cast<CFStringRef>(as<Service>(service).identifier.keep(newText(identifier)));
}
SCNetworkInterfaceRef SCNetworkServiceGetInterface(SCNetworkServiceRef service) {
  return static_cast<SCNetworkInterfaceRef>(as<Service>(service).interface.keep(
      wrap<SCNetworkInterfaceRef, Interface>(behind::SCNetworkServiceGetInterface(behindOf<Service>(service)))));
}
SCNetworkProtocolRef SCNetworkServiceCopyProtocol(SCNetworkServiceRef service, CFStringRef type) {
  return wrap<SCNetworkProtocolRef, Protocol>(
      behind::SCNetworkServiceCopyProtocol(behindOf<Service>(service), textIn(type)));
}

CFDictionaryRef SCNetworkProtocolGetConfiguration(SCNetworkProtocolRef protocol) {
  const auto configuration = behind::SCNetworkProtocolGetConfiguration(behindOf<Protocol>(protocol));
  return static_cast<CFDictionaryRef>(as<Protocol>(protocol).configuration.keep(newPropertyList(configuration)));
}
Boolean SCNetworkProtocolSetConfiguration(SCNetworkProtocolRef protocol, CFDictionaryRef configuration) {
  return behind::SCNetworkProtocolSetConfiguration(behindOf<Protocol>(protocol), valueIn(configuration));
}

SCNetworkInterfaceRef SCNetworkInterfaceCreateWithInterface(SCNetworkInterfaceRef interface, CFStringRef type) {
  return wrap<SCNetworkInterfaceRef, Interface>(keepingTheError(
      [&] { return behind::SCNetworkInterfaceCreateWithInterface(behindOf<Interface>(interface), textIn(type)); }));
}
CFDictionaryRef SCNetworkInterfaceGetConfiguration(SCNetworkInterfaceRef interface) {
  const auto configuration = behind::SCNetworkInterfaceGetConfiguration(behindOf<Interface>(interface));
  return static_cast<CFDictionaryRef>(as<Interface>(interface).configuration.keep(newPropertyList(configuration)));
}
Boolean SCNetworkInterfaceSetConfiguration(SCNetworkInterfaceRef interface, CFDictionaryRef configuration) {
  return behind::SCNetworkInterfaceSetConfiguration(behindOf<Interface>(interface), valueIn(configuration));
}
Boolean SCNetworkInterfaceSetExtendedConfiguration(SCNetworkInterfaceRef interface, CFStringRef extendedType,
                                                   CFDictionaryRef configuration) {
  return behind::SCNetworkInterfaceSetExtendedConfiguration(behindOf<Interface>(interface), textIn(extendedType),
                                                            valueIn(configuration));
}

SCNetworkSetRef SCNetworkSetCopyCurrent(SCPreferencesRef preferences) {
  return wrap<SCNetworkSetRef, Set>(behind::SCNetworkSetCopyCurrent(behindOf<Preferences>(preferences)));
}
Boolean SCNetworkSetAddService(SCNetworkSetRef set, SCNetworkServiceRef service) {
  return behind::SCNetworkSetAddService(behindOf<Set>(set), behindOf<Service>(service));
}

SCNetworkConnectionRef SCNetworkConnectionCreateWithServiceID(CFAllocatorRef, CFStringRef serviceID,
                                                              SCNetworkConnectionCallBack callback,
                                                              SCNetworkConnectionContext *context) {
  use();
  auto connection = std::make_unique<Connection>();
  connection->callback = callback;
  connection->context = *context;
  behind::SCNetworkConnectionContext theirs;
  theirs.version = context->version;
  if (context->info != nullptr) theirs.info = static_cast<Object *>(connection.get());
  theirs.retain = context->retain;
  theirs.release = context->release;
  connection->it = keepingTheError([&] {
    return behind::SCNetworkConnectionCreateWithServiceID(textIn(serviceID), callback != nullptr ? tell : nullptr,
                                                          theirs);
  });
  if (!connection->it) return nullptr;
  return static_cast<SCNetworkConnectionRef>(add(std::move(connection)));
}
SCNetworkConnectionStatus SCNetworkConnectionGetStatus(SCNetworkConnectionRef connection) {
  return static_cast<SCNetworkConnectionStatus>(behind::SCNetworkConnectionGetStatus(behindOf<Connection>(connection)));
}
CFDictionaryRef SCNetworkConnectionCopyExtendedStatus(SCNetworkConnectionRef connection) {
  return static_cast<CFDictionaryRef>(
      newPropertyList(behind::SCNetworkConnectionCopyExtendedStatus(behindOf<Connection>(connection))));
}
Boolean SCNetworkConnectionScheduleWithRunLoop(SCNetworkConnectionRef connection, CFRunLoopRef runLoop,
                                               CFStringRef mode) {
  const bool done = keepingTheError([&] {
    return behind::SCNetworkConnectionScheduleWithRunLoop(behindOf<Connection>(connection), runLoopAt(runLoop).loop,
                                                          textIn(mode));
  });
  if (done) as<Connection>(connection).scheduled = true;
  return done;
}
Boolean SCNetworkConnectionUnscheduleFromRunLoop(SCNetworkConnectionRef connection, CFRunLoopRef runLoop,
                                                 CFStringRef mode) {
  if (!as<Connection>(connection).scheduled || textIn(mode) != behind::kCFRunLoopDefaultMode)
    misuse("a connection is taken off a run loop where it is not");
  runLoopAt(runLoop);
  as<Connection>(connection).scheduled = false;
  return true;
}
Boolean SCNetworkConnectionStart(SCNetworkConnectionRef connection, CFDictionaryRef userOptions, Boolean linger) {
  const bool done = keepingTheError([&] {
    return behind::SCNetworkConnectionStart(behindOf<Connection>(connection), valueIn(userOptions), linger != 0);
  });
  as<Connection>(connection).started = done;
  return done;
}
// A stop that comes before the start has been made is forgotten.
Boolean SCNetworkConnectionStop(SCNetworkConnectionRef connection, Boolean forceDisconnect) {
  if (stopError != 0) {
    behind::setSCError(stopError);
    return false;
  }
  if (as<Connection>(connection).started)
    return behind::SCNetworkConnectionStop(behindOf<Connection>(connection), forceDisconnect != 0);
  FakePlatform::instance().enter("SCNetworkConnectionStop",
                                 std::string("connection, ") + (forceDisconnect != 0 ? "true" : "false"));
  return true;
}

}  // extern "C"
