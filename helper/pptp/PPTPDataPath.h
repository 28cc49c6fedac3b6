// The way of a PPTP call's packets, GRE between two IPv4 addresses. The seam exists for tests on kernels without PPTP;
// there is one real way, the kernel's. Call ids are in the machine's order.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "helper/common/Tunnel.h"
#include "helper/pptp/EarlyFrames.h"

namespace helper {

class PPTPDataPath {
 public:
  virtual ~PPTPDataPath() = default;
  // An error, with the remedy, when there cannot be any.
  virtual vpnctl::Status probe() = 0;
  // Our call id, for a call from the address LOCAL.
  virtual vpnctl::Result<std::uint16_t> bind(in_addr local) = 0;
  // The channel to PEER's call, for pppd. Once, after bind().
  virtual vpnctl::Result<TunnelChannel> connect(in_addr peer, std::uint16_t peerCallID) = 0;
};

// The kernel's PPTP socket, which becomes the channel.
class KernelPPTPDataPath : public PPTPDataPath {
 public:
  vpnctl::Status probe() override;
  vpnctl::Result<std::uint16_t> bind(in_addr local) override;
  vpnctl::Result<TunnelChannel> connect(in_addr peer, std::uint16_t peerCallID) override;

 private:
  vpnctl::FileDescriptor socket_;
  std::optional<EarlyFrames> early_;  // none where they cannot be heard: then the server repeats them
};

}  // namespace helper
