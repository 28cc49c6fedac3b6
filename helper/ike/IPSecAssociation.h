// What protects the packets of one UDP socket: an IPSec association in transport mode with the socket's peer.
//
// Usual sequence: start(socket), then exactly one of up or failed; after up perhaps lost, once. stop() at any time,
// also twice or before start(), ends with stopped, once. No handler is called from within start() or stop(), nor after
// destruction. Destroying one that is up ends it without waiting for the server's answers, within a second.
//
// Thread rule: the thread of the event loop. Nothing but the destructor blocks.

#pragma once

#include <functional>
#include <string>

#include "helper/common/TunnelFailure.h"

namespace helper {

class IPSecAssociation {
 public:
  struct Handlers {
    // SOCKET: which of start()'s is protected. The other may be closed.
    std::function<void(int socket)> up;
    std::function<void(const TunnelFailure &)> failed;
    // The association is gone: the server deleted it, or whoever speaks with it died. SENTENCE says which.
    std::function<void(const std::string &sentence)> lost;
    std::function<void()> stopped;
  };

  virtual ~IPSecAssociation() = default;
  // SOCKET is a connected UDP socket: the association is for its very addresses and ports. OTHER is one of another port
  // that will do, or -1: it comes first behind a NAT, where others may have the usual port towards the server already,
  // and otherwise once the server has refused SOCKET's. From before the first message of IKE until they are closed the
  // kernel lets nothing through them that is not inside ESP. They stay the caller's.
  virtual void start(int socket, int other) = 0;
  virtual void stop() = 0;
};

}  // namespace helper
