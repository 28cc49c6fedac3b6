// One PPP connection attempt: credentials, the run loop, and what is told on standard error meanwhile. The protocols'
// connectors derive from it and make the connection.
//
// A deriving class overrides connection() so that it makes the connection on the first call, with
// PPPNetworkConnectionCallBack as its callback and the connector (as a TNConnectorPPP pointer) as its info, and answers
// an empty reference with SCError() set when that fails; its connect() prints a banner and calls the one here. Thread
// rule as TNConnector's.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "foundation/Secret.h"
#include "qolmhelper/TNConnector.h"
#include "qolmhelper/TNFileTailer.h"

namespace TN {

class TNConnectorPPP : public TNConnector, public std::enable_shared_from_this<TNConnectorPPP> {
 public:
  using Text = std::optional<std::string>;
  using SecretText = std::optional<vpnctl::Secret>;

  TNConnectorPPP(Text server, Text username, SecretText password, SecretText sharedSecret);

  const Text &server() const { return server_; }
  void setServer(Text server);
  const Text &username() const { return username_; }
  void setUsername(Text username);
  const SecretText &password() const { return password_; }
  void setPassword(SecretText password);
  // The IPSec shared secret.
  const SecretText &sharedSecret() const { return sharedSecret_; }
  void setSharedSecret(SecretText sharedSecret);
  // Follows the PPP log during connect(); empty when there is no log.
  const std::shared_ptr<TNFileTailer> &logTailer() const { return logTailer_; }
  void setLogTailer(std::shared_ptr<TNFileTailer> logTailer);

  // Always empty here.
  platform::SCNetworkConnectionRef connection() override;

  // The whole attempt; returns when it is over.
  void connect() override;
  void disconnect() override;

  // A status change: tells it on standard error, and ends the run loop of this thread when the connection is down.
  void connectionStatusChanged(std::int32_t status, std::int32_t minorStatus);
  void connectionStatusChanged(std::int32_t status, std::int32_t minorStatus, std::int32_t error);

 private:
  void attempt();

  Text server_;
  Text username_;
  SecretText password_;
  SecretText sharedSecret_;
  std::shared_ptr<TNFileTailer> logTailer_;
  platform::SCNetworkConnectionRef connection_;  // nobody sets it: the protocols have their own
};

// The callback of every connection; INFO is its TNConnectorPPP.
void PPPNetworkConnectionCallBack(platform::SCNetworkConnectionRef connection,
                                  platform::SCNetworkConnectionStatus status, void *info);

}  // namespace TN
