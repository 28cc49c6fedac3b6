// What the protocols' connectors share: the network service "Corvanelle" made anew at every run, PPP over the
// protocol's own layer, its secrets in the system keychain, and the connection to it.
//
// A deriving class says in which ways its protocol differs; each step stands here once.
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

class TNConnectorPPPService : public TNConnectorPPP {
 public:
  using TNConnectorPPP::TNConnectorPPP;

  // The connection; made on the first call. Empty when that failed, and then the next call tries again.
  platform::SCNetworkConnectionRef connection() override;
  // Prints the protocol's banner, then the whole attempt.
  void connect() override;

  // Replaces the service, stores the secrets and makes the connection. 0, or SCError() when it gave up early.
  std::int32_t createConnection();
  void storePasswordForServiceUID(const Text &serviceID);

 protected:
  // The texts go to standard error as they stand.
  struct Protocol {
    const char *banner;
    const std::string &interfaceType;  // of the layer below PPP
    const char *noInterface;           // said when that layer cannot be made
    bool needsPreferences;             // gives up without a word when they cannot be opened; otherwise it goes on
  };

  virtual const Protocol &protocol() const = 0;
  // What the service's INTERFACE needs before everything that all protocols configure.
  virtual void configureInterface(const platform::SCNetworkInterfaceRef &interface, const Text &serviceID) const;

 private:
  void configurePPP(const platform::SCNetworkInterfaceRef &interface, const Text &serviceID) const;
  void setOwnConnection(platform::SCNetworkConnectionRef connection);

  const std::thread::id owner_ = std::this_thread::get_id();
  std::mutex mutex_;  // guards the two below; never held while the platform is asked
  bool tried_ = false;
  platform::SCNetworkConnectionRef connection_;
  std::condition_variable changed_;
};

}  // namespace TN
