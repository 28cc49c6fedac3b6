#include "qolmhelper/TNConnectorPPTP.h"

namespace TN {

const TNConnectorPPPService::Protocol &TNConnectorPPTP::protocol() const {
  static const Protocol kPPTP{.banner = "Starting pptp connection...\n",
                              .interfaceType = platform::kSCNetworkInterfaceTypePPTP,
                              .noInterface = "Error creating PPTP interface!\n",
                              .needsPreferences = false};
  return kPPTP;
}

}  // namespace TN
