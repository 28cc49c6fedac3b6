#include "qolmhelper/PPPServiceCreation.h"

#include <cstdio>
#include <vector>

#include "foundation/Text.h"

namespace TN {
namespace {

using vpnctl::element;
using vpnctl::Value;
using Text = TNConnectorPPP::Text;

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

// Whom to call, as whom, and under which name the keychain has the password.
void configurePPP(const platform::SCNetworkInterfaceRef &interface, const TNConnectorPPP &connector,
                  const Text &serviceID) {
  Value configuration = platform::SCNetworkInterfaceGetConfiguration(interface);
  configuration.set(platform::kSCPropNetPPPAuthName, element(connector.username()));
  configuration.set(platform::kSCPropNetPPPAuthPasswordEncryption,
                    platform::kSCValNetPPPAuthPasswordEncryptionKeychain);
  configuration.set(platform::kSCPropNetPPPAuthPassword, element(serviceID));
  configuration.set(platform::kSCPropNetPPPCommRemoteAddress, element(connector.server()));
  configuration.set("AlertEnable", 0);
  platform::SCNetworkInterfaceSetConfiguration(interface, configuration);
}

}  // namespace

std::optional<PPPService> createPPPService(const TNConnectorPPP &connector, const PPPServiceProtocol &protocol,
                                           std::int32_t *error) {
  const auto giveUp = [error](const char *message) {
    *error = platform::SCError();
    std::fputs(message, stderr);
    return std::nullopt;
  };
  const platform::SCPreferencesRef preferences =
      platform::SCPreferencesCreateWithAuthorization(kServiceName, std::nullopt, connector.auth());
  if (!preferences && protocol.needsPreferences) return giveUp("");
  const auto services = platform::SCNetworkServiceCopyAll(preferences);
  if (!services) return giveUp("No network services\n");
  removeFirstServiceOfOurName(*services);

  const platform::SCNetworkInterfaceRef lower =
      platform::SCNetworkInterfaceCreateWithInterface(platform::kSCNetworkInterfaceIPv4, protocol.interfaceType);
  if (!lower) return giveUp(protocol.noInterface);
  const platform::SCNetworkInterfaceRef ppp =
      platform::SCNetworkInterfaceCreateWithInterface(lower, platform::kSCNetworkInterfaceTypePPP);
  if (!ppp) return giveUp("Error creating PPP interface!\n");

  const platform::SCNetworkServiceRef service = platform::SCNetworkServiceCreate(preferences, ppp);
  platform::SCNetworkServiceSetName(service, kServiceName);
  platform::SCNetworkServiceEstablishDefaultConfiguration(service);
  PPPService created{.serviceID = platform::SCNetworkServiceGetServiceID(service), .savedID = std::nullopt};
  const platform::SCNetworkInterfaceRef interface = platform::SCNetworkServiceGetInterface(service);

  if (protocol.configureInterface != nullptr) protocol.configureInterface(interface, created.serviceID);
  configureIPv4(service);
  configurePPP(interface, connector, created.serviceID);
  created.savedID = save(preferences, service);
  return created;
}

platform::SCNetworkConnectionRef createPPPConnection(const PPPService &service, TNConnectorPPP *connector) {
  platform::SCNetworkConnectionContext context;
  context.info = connector;  // what the callback expects
  return platform::SCNetworkConnectionCreateWithServiceID(service.savedID, PPPNetworkConnectionCallBack, context);
}

}  // namespace TN
