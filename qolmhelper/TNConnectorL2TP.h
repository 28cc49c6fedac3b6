// The connector of the protocol "l2tp".
//
// Thread rule: disconnect() and connection() may come from any thread, everything else from the one that calls
// connect(). Only that thread makes connections, see OnDemandConnection.

#pragma once

#include <cstdint>

#include "qolmhelper/OnDemandConnection.h"
#include "qolmhelper/TNConnectorPPP.h"

namespace TN {

// PPP over L2TP, protected by IPSec with the shared secret, which the keychain holds like the password.
class TNConnectorL2TP : public TNConnectorPPP {
 public:
  using TNConnectorPPP::TNConnectorPPP;

  // The connection; made on the first call. Empty when that failed, and then the next call tries again.
  platform::SCNetworkConnectionRef connection() override;
  // Prints the protocol's banner, then the whole attempt.
  void connect() override;

  // Replaces the service, stores the secrets and makes the connection. 0, or SCError() when it gave up early.
  std::int32_t createConnection();
  void storePasswordForServiceUID(const Text &serviceID);

 private:
  OnDemandConnection connection_;
};

}  // namespace TN
