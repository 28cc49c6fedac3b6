// The root of the connectors: holds the authorization and the connection.
//
// Usual sequence: authorize(); if it says true, connect(), which blocks until the attempt is over. Thread rule: one
// thread (the one whose run loop receives the callbacks) for everything, except disconnect(), which any thread may
// call.

#pragma once

#include "platform/Security.h"
#include "platform/SystemConfiguration.h"

namespace TN {

class TNConnector {
 public:
  TNConnector() = default;
  TNConnector(const TNConnector &) = delete;
  TNConnector &operator=(const TNConnector &) = delete;
  virtual ~TNConnector() = default;

  // Obtains the right "system.preferences", possibly after an administrator's password dialog (blocks on it), and keeps
  // it in auth(). False, with an error message through DDLog, when it is refused; auth() is then unchanged.
  bool authorize();

  // Asks the system to end the connection() and returns at once; what comes of it arrives as status changes.
  virtual void disconnect();
  // Nothing here; the whole connection attempt in the protocols' connectors.
  virtual void connect();

  const platform::AuthorizationRef &auth() const { return auth_; }
  void setAuth(platform::AuthorizationRef auth);

  // Protocols' connectors make it on demand.
  virtual platform::SCNetworkConnectionRef connection();
  void setConnection(platform::SCNetworkConnectionRef connection);

 private:
  platform::AuthorizationRef auth_;
  platform::SCNetworkConnectionRef connection_;
};

}  // namespace TN
