// The set in use: which services take part, and in which order.

#include <algorithm>

#include "platform/SCErrorState.h"
#include "platform/linux/Preferences.h"

namespace platform {

using vpnctl::Value;

namespace {

bool isVPN(const SCPreferences &preferences, const std::string &service) {
  const Value &type = preferences.get({kNetworkServicesKey, service, kInterfaceKey, kSubTypeKey});
  return type == Value(kSCNetworkInterfaceTypePPTP) || type == Value(kSCNetworkInterfaceTypeL2TP);
}

}  // namespace

SCNetworkSetRef SCNetworkSetCopyCurrent(const SCPreferencesRef &preferences) {
  if (!preferences) {
    setSCErrorForNullArgument();
    return {};
  }
  if (!preferences->load()) return {};
  const std::string prefix = std::string("/") + kSetsKey + "/";
  const Value &current = preferences->get({kCurrentSetKey});
  if (current.string().starts_with(prefix)) {
    auto set = std::make_shared<SCNetworkSet>(SCNetworkSet{preferences, current.string().substr(prefix.size())});
    if (preferences->get(set->path()).isDictionary()) return set;
  }
  setSCError(kSCStatusNoKey);
  return {};
}

bool SCNetworkSetAddService(const SCNetworkSetRef &set, const SCNetworkServiceRef &service) {
  if (!set || !service) {
    setSCErrorForNullArgument();
    return false;
  }
  auto &preferences = *set->preferences;
  if (service->preferences != set->preferences) {
    setSCError(kSCStatusInvalidArgument);
    return false;
  }
  if (!preferences.load()) return false;
  if (!service->exists() || !preferences.get(set->path()).isDictionary()) {
    setSCError(kSCStatusNoKey);
    return false;
  }
  Path link = set->linksPath();
  link.push_back(service->identifier);
  if (!preferences.get(link).isNull()) {
    setSCError(kSCStatusKeyExists);
    return false;
  }
  preferences.set(link,
                  Value::Dictionary{{kLinkKey, std::string("/") + kNetworkServicesKey + "/" + service->identifier}});

  // VPN services come last: they take the default traffic by asking for it, not by their place.
  Value::Array order = preferences.get(set->orderPath()).array();
  auto place = order.end();
  if (!isVPN(preferences, service->identifier)) {
    place = std::find_if(
        order.begin(), order.end(), [&](const Value &entry) { return isVPN(preferences, entry.string()); });
  }
  order.insert(place, service->identifier);
  preferences.set(set->orderPath(), std::move(order));
  return true;
}

}  // namespace platform
