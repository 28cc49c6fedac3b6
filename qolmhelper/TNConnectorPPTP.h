// The connector of the protocol "pptp": makes the network service "Corvanelle" anew at every run, PPP over PPTP, its
// password in the system keychain.
//
// Thread rule: disconnect() and connection() may come from any thread, everything else from the thread that made the
// connector. Only that thread makes connections: another one that asks while there is none waits until it has tried,
// so that a stop asked for too early takes effect as soon as there is something to stop.

#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "qolmhelper/TNConnectorPPP.h"

namespace TN {

class TNConnectorPPTP : public TNConnectorPPP {
 public:
  using TNConnectorPPP::TNConnectorPPP;

  // The connection; made on the first call. Empty when that failed, and then the next call tries again.
  platform::SCNetworkConnectionRef connection() override;
  void connect() override;

  // Replaces the service, stores the secrets and makes the connection. 0, or SCError() when it gave up early.
  std::int32_t createConnection();
  void storePasswordForServiceUID(const Text &serviceID);

 private:
  void setOwnConnection(platform::SCNetworkConnectionRef connection);

  const std::thread::id owner_ = std::this_thread::get_id();
  std::mutex mutex_;  // guards the two below; never held while the platform is asked
  bool tried_ = false;
  platform::SCNetworkConnectionRef connection_;
  std::condition_variable changed_;
};

}  // namespace TN
