// The connector of the protocol "l2tp".
//
// Thread rule: TNConnectorPPPService's.

#pragma once

#include "qolmhelper/TNConnectorPPPService.h"

namespace TN {

// PPP over L2TP, protected by IPSec with the shared secret, which the keychain holds like the password.
class TNConnectorL2TP : public TNConnectorPPPService {
 public:
  using TNConnectorPPPService::TNConnectorPPPService;

 protected:
  const Protocol &protocol() const override;
  void configureInterface(const platform::SCNetworkInterfaceRef &interface, const Text &serviceID) const override;
};

}  // namespace TN
