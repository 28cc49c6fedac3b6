// Where a link gets its secrets from: the keychain, or a recording fake in tests.

#pragma once

#include <string>

#include "foundation/Result.h"
#include "foundation/Secret.h"
#include "helper/common/SecretUse.h"

namespace helper {

class Peer;

class SecretSource {
 public:
  virtual ~SecretSource() = default;
  // The secret of the item whose service attribute is SERVICE (any account), if it was stored for USE, for PEER, which
  // must be on the item's access list. The error's message is a sentence part for the PPP log; it never holds the
  // secret.
  virtual vpnctl::Result<vpnctl::Secret> secretForService(const std::string &service, const SecretUse &use,
                                                          const Peer &peer) = 0;
};

}  // namespace helper
