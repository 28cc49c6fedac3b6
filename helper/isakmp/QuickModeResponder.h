// Quick mode that the server begins, to make the packets' keys anew.
//
// Usual sequence: receiveOffer(), then, with an SPI, answer(), the inbound state is installed, the answer goes out;
// receiveLast(), the outbound one.
//
// Thread rule: as any object that keeps state.

#pragma once

#include "helper/isakmp/QuickMode.h"

namespace helper::isakmp {

class QuickModeResponder : public QuickMode {
 public:
  using QuickMode::QuickMode;

  // HEADER is DATAGRAM's, in quick mode, with a message id that is new. A fatal reaction's notification is what to tell
  // the server.
  Reaction receiveOffer(const Header &header, View datagram);
  // SPI: ours. None when nothing of what is offered is ours, too, which is known before: receiveOffer() says so.
  Bytes answer(std::uint32_t spi);
  Reaction receiveLast(const Header &header, View datagram);

 private:
  vpnctl::Status takeFlow(const PayloadChain &chain);

  SecurityAssociation offer_;
  Identification flowOfPeer_;
  Identification flowOfUs_;
};

}  // namespace helper::isakmp
