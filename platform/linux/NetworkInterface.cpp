// Interface layers: made one on the other for a new service, and places in the preferences once they are a service's.

#include "platform/SCErrorState.h"
#include "platform/linux/Preferences.h"

namespace platform {

using vpnctl::Value;

const SCNetworkInterfaceRef kSCNetworkInterfaceIPv4 =
    std::make_shared<SCNetworkInterface>(SCNetworkInterface{kSCEntNetIPv4, {}, {}});

namespace {

bool fits(const std::string &lower, const std::string &upper) {
  if (upper == kSCNetworkInterfaceTypePPTP || upper == kSCNetworkInterfaceTypeL2TP) return lower == kSCEntNetIPv4;
  return upper == kSCNetworkInterfaceTypePPP &&
         (lower == kSCNetworkInterfaceTypePPTP || lower == kSCNetworkInterfaceTypeL2TP);
}

// False, with SCError() set, unless INTERFACE is that of a service which its preferences still hold.
bool isOfService(const SCNetworkInterfaceRef &interface) {
  if (!interface) {
    setSCErrorForNullArgument();
    return false;
  }
  if (!interface->service) {
    setSCError(kSCStatusInvalidArgument);
    return false;
  }
  if (!interface->service->preferences->load()) return false;
  if (interface->service->exists()) return true;
  setSCError(kSCStatusNoKey);
  return false;
}

// Replaces the entity; an empty dictionary removes it.
bool setEntity(const SCNetworkInterfaceRef &interface, const std::string &entity, const Value &configuration) {
  if (!configuration.isNull() && !configuration.isDictionary()) {
    setSCError(kSCStatusInvalidArgument);
    return false;
  }
  const auto &service = interface->service;
  service->preferences->set(service->path(entity), configuration.dictionary().empty() ? Value() : configuration);
  return true;
}

}  // namespace

SCNetworkInterfaceRef SCNetworkInterfaceCreateWithInterface(const SCNetworkInterfaceRef &interface,
                                                            const std::string &type) {
  setSCError(kSCStatusOK);
  if (!interface || !fits(interface->type, type)) {
    setSCError(kSCStatusInvalidArgument);
    return {};
  }
  return std::make_shared<SCNetworkInterface>(SCNetworkInterface{type, interface, {}});
}

Value SCNetworkInterfaceGetConfiguration(const SCNetworkInterfaceRef &interface) {
  if (!isOfService(interface)) return {};
  return interface->service->preferences->get(interface->service->path(interface->type));
}

bool SCNetworkInterfaceSetConfiguration(const SCNetworkInterfaceRef &interface, const Value &configuration) {
  return isOfService(interface) && setEntity(interface, interface->type, configuration);
}

bool SCNetworkInterfaceSetExtendedConfiguration(const SCNetworkInterfaceRef &interface, const std::string &extendedType,
                                                const Value &configuration) {
  if (!isOfService(interface)) return false;
  if (extendedType != kSCEntNetIPSec || interface->type != kSCNetworkInterfaceTypePPP ||
      interface->lowerType() != kSCNetworkInterfaceTypeL2TP) {
    setSCError(kSCStatusInvalidArgument);
    return false;
  }
  return setEntity(interface, extendedType, configuration);
}

}  // namespace platform
