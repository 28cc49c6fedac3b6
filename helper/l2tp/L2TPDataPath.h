// The way of an L2TP call's packets: from pppd's channel into the tunnel's UDP socket and back. The seam exists for
// tests on kernels without L2TP; there is one real way, the kernel's.

#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "helper/l2tp/L2TPControlConnection.h"

namespace helper {

class L2TPDataPath {
 public:
  virtual ~L2TPDataPath() = default;
  // An error, with the remedy, when there cannot be any.
  virtual vpnctl::Status probe() = 0;
  // The channel of CALL, for pppd. The call's packets go through SOCKET, which is connected to the server; others still
  // arrive at it. They end with this object.
  virtual vpnctl::Result<vpnctl::FileDescriptor> connect(int socket, const L2TPCall &call) = 0;
};

// The kernel's PPPoL2TP sockets: one is the tunnel and stays here, a second one is the call and becomes the channel.
class KernelL2TPDataPath : public L2TPDataPath {
 public:
  vpnctl::Status probe() override;
  vpnctl::Result<vpnctl::FileDescriptor> connect(int socket, const L2TPCall &call) override;

 private:
  vpnctl::FileDescriptor tunnel_;
};

}  // namespace helper
