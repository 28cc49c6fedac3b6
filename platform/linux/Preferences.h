// What stands behind the references of SystemConfiguration.h on Linux: one session holds the preferences as a property
// list in memory, and services, interfaces, protocols and sets are places in it.

#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Value.h"
#include "platform/SystemConfiguration.h"
#include "platform/linux/HelperConnection.h"

namespace platform {

inline constexpr char kNetworkServicesKey[] = "NetworkServices";
inline constexpr char kSetsKey[] = "Sets";
inline constexpr char kCurrentSetKey[] = "CurrentSet";
inline constexpr char kUserDefinedNameKey[] = "UserDefinedName";
inline constexpr char kInterfaceKey[] = "Interface";
inline constexpr char kTypeKey[] = "Type";
inline constexpr char kSubTypeKey[] = "SubType";
inline constexpr char kNetworkKey[] = "Network";
inline constexpr char kServiceKey[] = "Service";
inline constexpr char kGlobalKey[] = "Global";
inline constexpr char kServiceOrderKey[] = "ServiceOrder";
inline constexpr char kLinkKey[] = "__LINK__";

using Path = std::vector<std::string>;

struct SCPreferences {
  explicit SCPreferences(std::shared_ptr<HelperConnection> connection) : helper(std::move(connection)) {}

  // Reads on first use; false, with SCError() set, when that fails.
  bool load();
  // Writes what was changed, if anything was; false with SCError().
  bool commit();
  void forget();

  // The value at PATH; a null one when there is none. Only after load().
  const vpnctl::Value &get(const Path &path) const;
  // Sets the value at PATH, making dictionaries on the way; a null one removes it.
  void set(const Path &path, vpnctl::Value value);

  const std::shared_ptr<HelperConnection> helper;

 private:
  vpnctl::Value root_;  // null until it is read
  std::string signature_;
  bool changed_ = false;
};

struct SCNetworkService {
  SCPreferencesRef preferences;
  std::string identifier;

  Path path() const { return {kNetworkServicesKey, identifier}; }
  Path path(const std::string &entity) const { return {kNetworkServicesKey, identifier, entity}; }
  // True while the preferences hold it.
  bool exists() const { return preferences->get(path()).isDictionary(); }
};

struct SCNetworkInterface {
  std::string type;
  SCNetworkInterfaceRef lower;  // empty at the bottom
  SCNetworkServiceRef service;  // whose interface it is; empty for one that serves to make a service of

  std::string lowerType() const { return lower ? lower->type : std::string(); }
};

struct SCNetworkProtocol {
  SCNetworkServiceRef service;
  std::string type;
};

struct SCNetworkSet {
  SCPreferencesRef preferences;
  std::string identifier;

  Path path() const { return {kSetsKey, identifier}; }
  Path linksPath() const { return {kSetsKey, identifier, kNetworkKey, kServiceKey}; }
  Path orderPath() const { return {kSetsKey, identifier, kNetworkKey, kGlobalKey, kSCEntNetIPv4, kServiceOrderKey}; }
};

}  // namespace platform
