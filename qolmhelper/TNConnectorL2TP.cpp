#include "qolmhelper/TNConnectorL2TP.h"

#include "foundation/Text.h"

namespace TN {

using foundation::Value;

const TNConnectorPPPService::Protocol &TNConnectorL2TP::protocol() const {
  static const Protocol kL2TP{.banner = "Starting l2tp connection...\n",
                              .interfaceType = platform::kSCNetworkInterfaceTypeL2TP,
                              .noInterface = "Error creating L2TP interface!\n",
                              .needsPreferences = true};
  return kL2TP;
}

// A dictionary of its own: nothing of what the interface may have had stays.
void TNConnectorL2TP::configureInterface(const platform::SCNetworkInterfaceRef &interface,
                                         const Text &serviceID) const {
  // Under this name TNKeyChain stores the shared secret; the two must stay the same.
  const std::string secretName = foundation::element(serviceID) + ".SS";
  const Value configuration = Value::Dictionary{
      {platform::kSCPropNetIPSecAuthenticationMethod, platform::kSCValNetIPSecAuthenticationMethodSharedSecret},
      {platform::kSCPropNetIPSecSharedSecret, secretName},
      {platform::kSCPropNetIPSecSharedSecretEncryption, platform::kSCValNetIPSecSharedSecretEncryptionKeychain},
  };
  platform::SCNetworkInterfaceSetExtendedConfiguration(interface, platform::kSCEntNetIPSec, configuration);
}

}  // namespace TN
