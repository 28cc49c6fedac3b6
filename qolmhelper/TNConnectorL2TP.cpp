#include "qolmhelper/TNConnectorL2TP.h"

#include <cstdio>

#include "TNUtils/TNKeyChain.h"
#include "foundation/Text.h"
#include "qolmhelper/PPPServiceCreation.h"

namespace TN {
namespace {

// A dictionary of its own: nothing of what the interface may have had stays.
void configureIPSec(const platform::SCNetworkInterfaceRef &interface, const TNConnectorPPP::Text &serviceID) {
  // Under this name TNKeyChain stores the shared secret; the two must stay the same.
  const std::string secretName = vpnctl::element(serviceID) + ".SS";
  const vpnctl::Value configuration = vpnctl::Value::Dictionary{
      {platform::kSCPropNetIPSecAuthenticationMethod, platform::kSCValNetIPSecAuthenticationMethodSharedSecret},
      {platform::kSCPropNetIPSecSharedSecret, secretName},
      {platform::kSCPropNetIPSecSharedSecretEncryption, platform::kSCValNetIPSecSharedSecretEncryptionKeychain},
  };
  platform::SCNetworkInterfaceSetExtendedConfiguration(interface, platform::kSCEntNetIPSec, configuration);
}

constexpr PPPServiceProtocol kL2TP{.interfaceType = platform::kSCNetworkInterfaceTypeL2TP,
                                   .noInterface = "Error creating L2TP interface!\n",
                                   .needsPreferences = true,
                                   .configureInterface = configureIPSec};

}  // namespace

platform::SCNetworkConnectionRef TNConnectorL2TP::connection() {
  return connection_.get([this] { createConnection(); });
}

void TNConnectorL2TP::connect() {
  connection_.makeOnThisThread();
  std::fputs("Starting l2tp connection...\n", stderr);
  TNConnectorPPP::connect();
}

std::int32_t TNConnectorL2TP::createConnection() {
  std::int32_t error = platform::kSCStatusOK;
  const std::optional<PPPService> service = createPPPService(*this, kL2TP, &error);
  if (!service) return error;
  storePasswordForServiceUID(service->serviceID);  // whether or not it was saved
  connection_.set(createPPPConnection(*service, this));
  return platform::kSCStatusOK;
}

void TNConnectorL2TP::storePasswordForServiceUID(const Text &serviceID) {
  TNKeyChain::storePasswordsForService(serviceID, sharedSecret(), username(), password());
}

}  // namespace TN
