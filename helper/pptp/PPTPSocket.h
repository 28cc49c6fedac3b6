// The kernel's PPTP socket: GRE packets of one call, in the kernel, between two IPv4 addresses. Call ids are in the
// machine's order.

#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace helper {

class PPTPSocket {
 public:
  // An error that says which modules are missing when this kernel has no PPTP.
  static foundation::Status probe();
  // A socket bound to LOCAL with a call id that the kernel chooses.
  static foundation::Result<PPTPSocket> bind(in_addr local);

  std::uint16_t callID() const { return callID_; }
  // Connects to PEER's call and gives the descriptor away: it is pppd's from now on.
  foundation::Result<foundation::FileDescriptor> connect(in_addr peer, std::uint16_t peerCallID);

 private:
  PPTPSocket(foundation::FileDescriptor socket, std::uint16_t callID) : socket_(std::move(socket)), callID_(callID) {}

  foundation::FileDescriptor socket_;
  std::uint16_t callID_;
};

}  // namespace helper
