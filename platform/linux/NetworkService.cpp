// Services and their protocols.

#include <utility>

#include "foundation/UUID.h"
#include "platform/SCErrorState.h"
#include "platform/linux/DefaultConfiguration.h"
#include "platform/linux/Preferences.h"

namespace platform {

using vpnctl::Value;

namespace {

// False, with SCError() set, unless SERVICE is one that its preferences still hold.
bool isUsable(const SCNetworkServiceRef &service) {
  if (!service) {
    setSCErrorForNullArgument();
    return false;
  }
  if (!service->preferences->load()) return false;
  if (service->exists()) return true;
  setSCError(kSCStatusNoKey);
  return false;
}

bool isConfiguration(const Value &configuration) {
  if (configuration.isNull() || configuration.isDictionary()) return true;
  setSCError(kSCStatusInvalidArgument);
  return false;
}

}  // namespace

std::optional<std::vector<SCNetworkServiceRef>> SCNetworkServiceCopyAll(const SCPreferencesRef &preferences) {
  if (!preferences) {
    setSCErrorForNullArgument();
    return {};
  }
  if (!preferences->load()) return {};
  std::vector<SCNetworkServiceRef> services;
  for (const auto &[identifier, service] : preferences->get({kNetworkServicesKey}).dictionary()) {
    if (!service[kInterfaceKey].isDictionary()) continue;  // not a service that anything could be done with
    services.push_back(std::make_shared<SCNetworkService>(SCNetworkService{preferences, identifier}));
  }
  return services;
}

SCNetworkServiceRef SCNetworkServiceCreate(const SCPreferencesRef &preferences,
                                           const SCNetworkInterfaceRef &interface) {
  setSCError(kSCStatusOK);
  if (!preferences || !interface || interface->service || interface->type != kSCNetworkInterfaceTypePPP) {
    setSCError(kSCStatusInvalidArgument);
    return {};
  }
  if (!preferences->load()) return {};
  auto service = std::make_shared<SCNetworkService>(SCNetworkService{preferences, vpnctl::newUUID()});
  const std::string tunnelType = interface->lowerType();
  preferences->set(service->path(kInterfaceKey),
                   Value::Dictionary{{kTypeKey, interface->type}, {kSubTypeKey, tunnelType}});
  preferences->set(service->path(kSCEntNetPPP), defaultPPP(tunnelType));
  return service;
}

bool SCNetworkServiceRemove(const SCNetworkServiceRef &service) {
  if (!isUsable(service)) return false;
  auto &preferences = *service->preferences;
  const std::string link = std::string("/") + kNetworkServicesKey + "/" + service->identifier;
  const Value sets = preferences.get({kSetsKey});
  for (const auto &[identifier, set] : sets.dictionary()) {
    const SCNetworkSet place{service->preferences, identifier};
    const Value links = preferences.get(place.linksPath());
    for (const auto &[name, entry] : links.dictionary()) {
      if (entry[kLinkKey] != Value(link)) continue;
      Path path = place.linksPath();
      path.push_back(name);
      preferences.set(path, {});
    }
    const Value order = preferences.get(place.orderPath());
    if (!order.isArray()) continue;
    Value::Array kept;
    for (const Value &entry : order.array())
      if (entry != Value(service->identifier)) kept.push_back(entry);
    if (kept.size() != order.array().size()) preferences.set(place.orderPath(), std::move(kept));
  }
  preferences.set(service->path(), {});
  return true;
}

std::optional<std::string> SCNetworkServiceGetName(const SCNetworkServiceRef &service) {
  if (!isUsable(service)) return {};
  const Value &name = service->preferences->get(service->path(kUserDefinedNameKey));
  if (!name.isString()) return {};
  return name.string();
}

bool SCNetworkServiceSetName(const SCNetworkServiceRef &service, const std::string &name) {
  if (!isUsable(service)) return false;
  auto &preferences = *service->preferences;
  for (const auto &[set, contents] : preferences.get({kSetsKey}).dictionary()) {
    const Value &links = contents[kNetworkKey][kServiceKey];
    if (links.find(service->identifier) == nullptr) continue;
    for (const auto &[sibling, link] : links.dictionary()) {
      if (sibling == service->identifier) continue;
      if (preferences.get({kNetworkServicesKey, sibling, kUserDefinedNameKey}) != Value(name)) continue;
      setSCError(kSCStatusKeyExists);
      return false;
    }
  }
  preferences.set(service->path(kUserDefinedNameKey), name);
  return true;
}

bool SCNetworkServiceEstablishDefaultConfiguration(const SCNetworkServiceRef &service) {
  if (!isUsable(service)) return false;
  auto &preferences = *service->preferences;
  const Value interface = preferences.get(service->path(kInterfaceKey));
  if (!preferences.get(service->path(kSCEntNetPPP)).isDictionary())
    preferences.set(service->path(kSCEntNetPPP), defaultPPP(interface[kSubTypeKey].string()));
  const Value protocols = defaultProtocols();
  for (const auto &[type, configuration] : protocols.dictionary()) preferences.set(service->path(type), configuration);
  return true;
}

std::optional<std::string> SCNetworkServiceGetServiceID(const SCNetworkServiceRef &service) {
  if (service) return service->identifier;
  setSCErrorForNullArgument();
  return {};
}

SCNetworkInterfaceRef SCNetworkServiceGetInterface(const SCNetworkServiceRef &service) {
  if (!isUsable(service)) return {};
  const Value &interface = service->preferences->get(service->path(kInterfaceKey));
  SCNetworkInterfaceRef lower;
  if (interface[kSubTypeKey].isString()) {
    lower = std::make_shared<SCNetworkInterface>(
        SCNetworkInterface{interface[kSubTypeKey].string(), kSCNetworkInterfaceIPv4, {}});
  }
  return std::make_shared<SCNetworkInterface>(
      SCNetworkInterface{interface[kTypeKey].string(), std::move(lower), service});
}

SCNetworkProtocolRef SCNetworkServiceCopyProtocol(const SCNetworkServiceRef &service, const std::string &type) {
  if (!isUsable(service)) return {};
  if (!service->preferences->get(service->path(type)).isDictionary()) {
    setSCError(kSCStatusNoKey);
    return {};
  }
  return std::make_shared<SCNetworkProtocol>(SCNetworkProtocol{service, type});
}

Value SCNetworkProtocolGetConfiguration(const SCNetworkProtocolRef &protocol) {
  if (!protocol) {
    setSCErrorForNullArgument();
    return {};
  }
  if (!isUsable(protocol->service)) return {};
  return protocol->service->preferences->get(protocol->service->path(protocol->type));
}

bool SCNetworkProtocolSetConfiguration(const SCNetworkProtocolRef &protocol, const Value &configuration) {
  if (!protocol) {
    setSCErrorForNullArgument();
    return false;
  }
  if (!isConfiguration(configuration) || !isUsable(protocol->service)) return false;
  protocol->service->preferences->set(protocol->service->path(protocol->type), configuration);
  return true;
}

}  // namespace platform
