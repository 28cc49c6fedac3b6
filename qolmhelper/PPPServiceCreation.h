// What the protocols' connectors share: the network service "Corvanelle" made anew at every run, PPP over the
// protocol's own layer.
//
// Usual sequence, in a connector's createConnection(): createPPPService; its secrets into the keychain under serviceID;
// createPPPConnection. Thread rule: the thread that makes the connection.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "qolmhelper/TNConnectorPPP.h"

namespace TN {

// In which ways a protocol differs. The texts go to standard error as they stand.
struct PPPServiceProtocol {
  const std::string &interfaceType;  // of the layer below PPP
  const char *noInterface;           // said when that layer cannot be made
  bool needsPreferences;             // gives up without a word when they cannot be opened; otherwise it goes on
  // What the service's interface needs before everything that all protocols configure; null: nothing.
  void (*configureInterface)(const platform::SCNetworkInterfaceRef &interface, const TNConnectorPPP::Text &serviceID);
};

struct PPPService {
  std::optional<std::string> serviceID;  // of the new service, saved or not
  std::optional<std::string> savedID;    // the one to connect to; none when nothing was saved
};

// Replaces the first service of our name by a new one for CONNECTOR's server and account, and saves it. None when it
// gave up before anything was made; ERROR is then SCError().
std::optional<PPPService> createPPPService(const TNConnectorPPP &connector, const PPPServiceProtocol &protocol,
                                           std::int32_t *error);

// The connection to SERVICE, which tells CONNECTOR of its changes and must not outlive it. Empty when the service was
// not saved, or on failure.
platform::SCNetworkConnectionRef createPPPConnection(const PPPService &service, TNConnectorPPP *connector);

}  // namespace TN
