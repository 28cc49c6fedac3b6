// What a stored secret is for: who stored it, and what of a service decides where the secret goes and how safely.
//
// An item of the keychain is bound to that when it is made, and a link must have the very same to be given the secret:
// whoever may change the services of this machine may not thereby read what others have stored for them.

#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace helper {

struct SecretUse {
  uid_t owner = 0;
  // {entity: {key: value}}, of the service's entries those that matter: protocol, server, account, authentication,
  // encryption, and the names of its secrets.
  vpnctl::Value terms{vpnctl::Value::Dictionary()};

  // For the service whose entries are SERVICE.
  static SecretUse of(const vpnctl::Value &service, uid_t owner);

  // The first place ("PPP/CommRemoteAddress") where OTHER has other terms; none when they are the same.
  std::optional<std::string> differenceTo(const SecretUse &other) const;
};

// An error, with a sentence part, when START_OPTIONS say something else than SERVICE where a start has no say: whatever
// is not on a short list of sizes, timers and the like. What says the same is no change.
vpnctl::Status checkStartOptions(const vpnctl::Value &service, const vpnctl::Value &startOptions);

}  // namespace helper
