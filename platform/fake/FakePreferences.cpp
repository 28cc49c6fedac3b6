#include <algorithm>
#include <utility>

#include "platform/SCErrorState.h"
#include "platform/SystemConfiguration.h"
#include "platform/fake/FakePlatform.h"
#include "platform/fake/FakeText.h"

namespace platform {

using fake::FakePlatform;
using vpnctl::Value;

// A session's own view: what it changes is stored by a commit only.
struct SCPreferences {
  std::vector<std::shared_ptr<fake::Service>> services;
};

struct SCNetworkService {
  SCPreferencesRef preferences;
  std::shared_ptr<fake::Service> service;
};

// An interface of a service, or one that is not in use yet.
struct SCNetworkInterface {
  std::vector<std::string> layers;
  std::shared_ptr<fake::Service> service;
};

struct SCNetworkProtocol {
  std::shared_ptr<fake::Service> service;
  std::string type;
};

struct SCNetworkSet {
  SCPreferencesRef preferences;
};

const SCNetworkInterfaceRef kSCNetworkInterfaceIPv4 =
    std::make_shared<SCNetworkInterface>(SCNetworkInterface{{"IPv4"}, nullptr});

namespace {

std::string name(const SCPreferencesRef &preferences) { return fake::reference(preferences, "preferences"); }
std::string name(const SCNetworkServiceRef &service) {
  return service ? "service " + fake::quoted(service->service->name) : "null";
}
std::string name(const SCNetworkInterfaceRef &interface) {
  if (!interface) return "null";
  std::string text = "interface ";
  for (const std::string &layer : interface->layers) text += layer + (&layer == &interface->layers.back() ? "" : "/");
  return text;
}
std::string name(const SCNetworkProtocolRef &protocol) { return protocol ? "protocol " + protocol->type : "null"; }
std::string name(const SCNetworkSetRef &set) { return fake::reference(set, "set"); }

// How a call on OBJECT ends: recorded, failed as scripted, failed for want of the object, or true, and then it is to do
// its work.
template <class Object>
bool begin(const char *call, const Object &object, const std::string &arguments = "") {
  const auto failure = FakePlatform::instance().enter(call, name(object) + (arguments.empty() ? "" : ", " + arguments));
  if (failure) {
    setSCError(*failure);
    return false;
  }
  if (!object) setSCErrorForNullArgument();
  return object != nullptr;
}

bool isOver(const std::vector<std::string> &layers, const std::string &lower) {
  return layers.size() > 1 && layers[0] == kSCNetworkInterfaceTypePPP && layers[1] == lower;
}

Value defaultConfiguration(const std::vector<std::string> &layers) {
  Value configuration = Value::Dictionary{
      {"ACSPEnabled", 1},     {"DialOnDemand", 0},     {"DisconnectOnIdle", 0},         {"LCPEchoEnabled", 1},
      {"LCPEchoFailure", 15}, {"LCPEchoInterval", 20}, {"Logfile", "/var/log/ppp.log"}, {"VerboseLogging", 0}};
  if (isOver(layers, kSCNetworkInterfaceTypePPTP)) configuration.set("CCPEnabled", 1);
  return configuration;
}

}  // namespace

SCPreferencesRef SCPreferencesCreateWithAuthorization(const std::string &caller,
                                                      const std::optional<std::string> &prefsID,
                                                      const AuthorizationRef &authorization) {
  FakePlatform &platform = FakePlatform::instance();
  const auto failure = platform.enter("SCPreferencesCreateWithAuthorization",
                                      fake::quoted(std::string_view(caller)) + ", " + fake::quoted(prefsID) + ", " +
                                          fake::reference(authorization, "authorization"));
  setSCError(failure.value_or(0));
  if (failure) return nullptr;
  auto preferences = std::make_shared<SCPreferences>();
  for (const fake::Service &service : platform.services)
    preferences->services.push_back(std::make_shared<fake::Service>(service));
  return preferences;
}

bool SCPreferencesCommitChanges(const SCPreferencesRef &preferences) {
  if (!begin("SCPreferencesCommitChanges", preferences)) return false;
  std::vector<fake::Service> &stored = FakePlatform::instance().services;
  stored.clear();
  for (const auto &service : preferences->services) stored.push_back(*service);
  return true;
}

bool SCPreferencesApplyChanges(const SCPreferencesRef &preferences) {
  return begin("SCPreferencesApplyChanges", preferences);
}

void SCPreferencesSynchronize(const SCPreferencesRef &preferences) { begin("SCPreferencesSynchronize", preferences); }

std::optional<std::vector<SCNetworkServiceRef>> SCNetworkServiceCopyAll(const SCPreferencesRef &preferences) {
  if (!begin("SCNetworkServiceCopyAll", preferences)) return std::nullopt;
  std::vector<SCNetworkServiceRef> all;
  for (const auto &service : preferences->services)
    all.push_back(std::make_shared<SCNetworkService>(SCNetworkService{preferences, service}));
  return all;
}

SCNetworkServiceRef SCNetworkServiceCreate(const SCPreferencesRef &preferences,
                                           const SCNetworkInterfaceRef &interface) {
  setSCError(0);
  if (!begin("SCNetworkServiceCreate", preferences, name(interface))) return nullptr;
  auto service = std::make_shared<fake::Service>();
  service->serviceID = FakePlatform::instance().nextServiceID();
  service->layers = interface->layers;
  service->configuration = defaultConfiguration(service->layers);
  preferences->services.push_back(service);
  return std::make_shared<SCNetworkService>(SCNetworkService{preferences, service});
}

bool SCNetworkServiceRemove(const SCNetworkServiceRef &service) {
  if (!begin("SCNetworkServiceRemove", service)) return false;
  std::erase(service->preferences->services, service->service);
  return true;
}

std::optional<std::string> SCNetworkServiceGetName(const SCNetworkServiceRef &service) {
  if (!begin("SCNetworkServiceGetName", service)) return std::nullopt;
  return service->service->name;
}

bool SCNetworkServiceSetName(const SCNetworkServiceRef &service, const std::string &newName) {
  if (!begin("SCNetworkServiceSetName", service, fake::quoted(std::string_view(newName)))) return false;
  service->service->name = newName;
  return true;
}

bool SCNetworkServiceEstablishDefaultConfiguration(const SCNetworkServiceRef &service) {
  if (!begin("SCNetworkServiceEstablishDefaultConfiguration", service)) return false;
  service->service->protocols = {{"DNS", Value::Dictionary{}},
                                 {"IPv4", Value::Dictionary{{"ConfigMethod", "PPP"}}},
                                 {"IPv6", Value::Dictionary{{"ConfigMethod", "Automatic"}}},
                                 {"Proxies", Value::Dictionary{{"FTPPassive", 1}}}};
  return true;
}

std::optional<std::string> SCNetworkServiceGetServiceID(const SCNetworkServiceRef &service) {
  if (!begin("SCNetworkServiceGetServiceID", service)) return std::nullopt;
  return service->service->serviceID;
}

SCNetworkInterfaceRef SCNetworkServiceGetInterface(const SCNetworkServiceRef &service) {
  if (!begin("SCNetworkServiceGetInterface", service)) return nullptr;
  return std::make_shared<SCNetworkInterface>(SCNetworkInterface{service->service->layers, service->service});
}

SCNetworkProtocolRef SCNetworkServiceCopyProtocol(const SCNetworkServiceRef &service, const std::string &type) {
  if (!begin("SCNetworkServiceCopyProtocol", service, type)) return nullptr;
  if (!service->service->protocols.contains(type)) {
    setSCError(kSCStatusNoKey);
    return nullptr;
  }
  return std::make_shared<SCNetworkProtocol>(SCNetworkProtocol{service->service, type});
}

Value SCNetworkProtocolGetConfiguration(const SCNetworkProtocolRef &protocol) {
  if (!begin("SCNetworkProtocolGetConfiguration", protocol)) return {};
  return protocol->service->protocols[protocol->type];
}

bool SCNetworkProtocolSetConfiguration(const SCNetworkProtocolRef &protocol, const Value &configuration) {
  if (!begin("SCNetworkProtocolSetConfiguration", protocol, fake::oneLine(configuration))) return false;
  protocol->service->protocols[protocol->type] = configuration;
  return true;
}

SCNetworkInterfaceRef SCNetworkInterfaceCreateWithInterface(const SCNetworkInterfaceRef &interface,
                                                            const std::string &type) {
  setSCError(0);
  // One name per layer, so that a script can let the first succeed and the second fail.
  FakePlatform &platform = FakePlatform::instance();
  const auto layerFailure = platform.enter("SCNetworkInterfaceCreateWithInterface", name(interface) + ", " + type);
  if (layerFailure) {
    setSCError(*layerFailure);
    return nullptr;
  }
  const std::string &below = interface ? interface->layers.front() : type;
  const bool fits = type == kSCNetworkInterfaceTypePPP ? below == "PPTP" || below == "L2TP" : below == "IPv4";
  if (!fits) {
    setSCError(kSCStatusInvalidArgument);
    return nullptr;
  }
  auto layers = interface->layers;
  layers.insert(layers.begin(), type);
  return std::make_shared<SCNetworkInterface>(SCNetworkInterface{layers, nullptr});
}

Value SCNetworkInterfaceGetConfiguration(const SCNetworkInterfaceRef &interface) {
  if (!begin("SCNetworkInterfaceGetConfiguration", interface)) return {};
  return interface->service ? interface->service->configuration : Value();
}

bool SCNetworkInterfaceSetConfiguration(const SCNetworkInterfaceRef &interface, const Value &configuration) {
  if (!begin("SCNetworkInterfaceSetConfiguration", interface, fake::oneLine(configuration))) return false;
  if (interface->service) interface->service->configuration = configuration;
  return true;
}

bool SCNetworkInterfaceSetExtendedConfiguration(const SCNetworkInterfaceRef &interface, const std::string &extendedType,
                                                const Value &configuration) {
  if (!begin("SCNetworkInterfaceSetExtendedConfiguration", interface,
             extendedType + ", " + fake::oneLine(configuration)))
    return false;
  if (extendedType != kSCEntNetIPSec || !isOver(interface->layers, kSCNetworkInterfaceTypeL2TP)) {
    setSCError(kSCStatusInvalidArgument);
    return false;
  }
  if (interface->service) interface->service->extendedConfigurations[extendedType] = configuration;
  return true;
}

SCNetworkSetRef SCNetworkSetCopyCurrent(const SCPreferencesRef &preferences) {
  if (!begin("SCNetworkSetCopyCurrent", preferences)) return nullptr;
  if (!FakePlatform::instance().hasCurrentSet) {
    setSCError(kSCStatusNoKey);
    return nullptr;
  }
  return std::make_shared<SCNetworkSet>(SCNetworkSet{preferences});
}

bool SCNetworkSetAddService(const SCNetworkSetRef &set, const SCNetworkServiceRef &service) {
  if (!begin("SCNetworkSetAddService", set, name(service))) return false;
  service->service->inCurrentSet = true;
  return true;
}

}  // namespace platform
