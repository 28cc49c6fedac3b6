#include "qolmhelper/TNConnectorPPPService.h"

#include <cstdio>
#include <utility>
#include <vector>

#include "TNUtils/TNKeyChain.h"
#include "foundation/Text.h"

namespace TN {
namespace {

using foundation::element;
using foundation::Value;

constexpr const char *kServiceName = "Corvanelle";

// The first service of our name, as an earlier run left it. Further ones stay: they are somebody else's.
void removeFirstServiceOfOurName(const std::vector<platform::SCNetworkServiceRef> &services) {
  for (const platform::SCNetworkServiceRef &service : services) {
    if (platform::SCNetworkServiceGetName(service) == kServiceName) {
      platform::SCNetworkServiceRemove(service);
      return;
    }
  }
}

// Everything into the tunnel, on top of the defaults.
void configureIPv4(const platform::SCNetworkServiceRef &service) {
  const platform::SCNetworkProtocolRef protocol =
      platform::SCNetworkServiceCopyProtocol(service, platform::kSCEntNetIPv4);
  Value configuration = platform::SCNetworkProtocolGetConfiguration(protocol);
  configuration.set(platform::kSCPropNetOverridePrimary, 1);
  platform::SCNetworkProtocolSetConfiguration(protocol, configuration);
}

// Puts the service into the current set and saves everything. The identifier to connect to; none when nothing was
// saved.
std::optional<std::string> save(const platform::SCPreferencesRef &preferences,
                                const platform::SCNetworkServiceRef &service) {
  const platform::SCNetworkSetRef set = platform::SCNetworkSetCopyCurrent(preferences);
  if (!set || !platform::SCNetworkSetAddService(set, service) || !platform::SCPreferencesCommitChanges(preferences) ||
      !platform::SCPreferencesApplyChanges(preferences))
    return std::nullopt;
  platform::SCPreferencesSynchronize(preferences);
  return platform::SCNetworkServiceGetServiceID(service);
}

std::int32_t fail(const char *message) {
  const std::int32_t error = platform::SCError();
  std::fputs(message, stderr);
  return error;
}

}  // namespace

// Whom to call, as whom, and under which name the keychain has the password.
void TNConnectorPPPService::configurePPP(const platform::SCNetworkInterfaceRef &interface,
                                         const Text &serviceID) const {
  Value configuration = platform::SCNetworkInterfaceGetConfiguration(interface);
  configuration.set(platform::kSCPropNetPPPAuthName, element(username()));
  configuration.set(platform::kSCPropNetPPPAuthPasswordEncryption,
                    platform::kSCValNetPPPAuthPasswordEncryptionKeychain);
  configuration.set(platform::kSCPropNetPPPAuthPassword, element(serviceID));
  configuration.set(platform::kSCPropNetPPPCommRemoteAddress, element(server()));
  configuration.set("AlertEnable", 0);
  platform::SCNetworkInterfaceSetConfiguration(interface, configuration);
}

void TNConnectorPPPService::configureInterface(const platform::SCNetworkInterfaceRef &, const Text &) const {}

std::int32_t TNConnectorPPPService::createConnection() {
  const platform::SCPreferencesRef preferences =
      platform::SCPreferencesCreateWithAuthorization(kServiceName, std::nullopt, auth());
  if (!preferences && protocol().needsPreferences) return platform::SCError();
  const auto services = platform::SCNetworkServiceCopyAll(preferences);
  if (!services) return fail("No network services\n");
  removeFirstServiceOfOurName(*services);

  const platform::SCNetworkInterfaceRef lower =
      platform::SCNetworkInterfaceCreateWithInterface(platform::kSCNetworkInterfaceIPv4, protocol().interfaceType);
  if (!lower) return fail(protocol().noInterface);
  const platform::SCNetworkInterfaceRef ppp =
      platform::SCNetworkInterfaceCreateWithInterface(lower, platform::kSCNetworkInterfaceTypePPP);
  if (!ppp) return fail("Error creating PPP interface!\n");

  const platform::SCNetworkServiceRef service = platform::SCNetworkServiceCreate(preferences, ppp);
  platform::SCNetworkServiceSetName(service, kServiceName);
  platform::SCNetworkServiceEstablishDefaultConfiguration(service);
  const std::optional<std::string> serviceID = platform::SCNetworkServiceGetServiceID(service);
  const platform::SCNetworkInterfaceRef interface = platform::SCNetworkServiceGetInterface(service);

  configureInterface(interface, serviceID);
  configureIPv4(service);
  configurePPP(interface, serviceID);

  const std::optional<std::string> savedID = save(preferences, service);
  storePasswordForServiceUID(serviceID);  // whether or not it was saved

  platform::SCNetworkConnectionContext context;
  context.info = static_cast<TNConnectorPPP *>(this);  // what the callback expects
  setOwnConnection(platform::SCNetworkConnectionCreateWithServiceID(savedID, PPPNetworkConnectionCallBack, context));
  return platform::kSCStatusOK;
}

platform::SCNetworkConnectionRef TNConnectorPPPService::connection() {
  std::unique_lock lock(mutex_);
  if (connection_) return connection_;
  if (std::this_thread::get_id() != owner_) {
    changed_.wait(lock, [this] { return tried_; });
    return connection_;
  }
  lock.unlock();
  createConnection();
  lock.lock();
  tried_ = true;
  changed_.notify_all();
  return connection_;
}

void TNConnectorPPPService::setOwnConnection(platform::SCNetworkConnectionRef connection) {
  const std::lock_guard lock(mutex_);
  connection_.swap(connection);  // the old one goes outside the lock
}

void TNConnectorPPPService::connect() {
  std::fputs(protocol().banner, stderr);
  TNConnectorPPP::connect();
}

void TNConnectorPPPService::storePasswordForServiceUID(const Text &serviceID) {
  TNKeyChain::storePasswordsForService(serviceID, sharedSecret(), username(), password());
}

}  // namespace TN
