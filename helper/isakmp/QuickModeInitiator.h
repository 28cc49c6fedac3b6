// Quick mode that we begin.
//
// Usual sequence: firstMessage(), receive() until it is done, then the inbound state is installed, then lastMessage(),
// then the outbound one.
//
// Thread rule: as any object that keeps state.

#pragma once

#include "helper/isakmp/QuickMode.h"

namespace helper::isakmp {

class QuickModeInitiator : public QuickMode {
 public:
  using QuickMode::QuickMode;

  // SPI: ours, for packets that come to us.
  Bytes firstMessage(std::uint32_t spi);
  // HEADER is DATAGRAM's, in quick mode, with our message id.
  Reaction receive(const Header &header, View datagram);
  Bytes lastMessage();
  // Whether the server wants us to wait for its word, before we use what we agreed on.
  bool serverWantsUsToWait() const { return wait_; }

 private:
  vpnctl::Status check(const PayloadChain &chain);

  bool wait_ = false;
};

}  // namespace helper::isakmp
