// Whole messages: header and payloads, in clear or encrypted.
//
// Thread rule: none of these keeps state.

#pragma once

#include "helper/isakmp/Cipher.h"
#include "helper/isakmp/Header.h"
#include "helper/isakmp/Payloads.h"

namespace helper::isakmp {

// What was in an encrypted message. The chain's views are of TEXT, so that it moves and is not copied.
struct Opened {
  Opened(Bytes t, PayloadChain c, Bytes last) : text(std::move(t)), chain(std::move(c)), lastBlock(std::move(last)) {}
  Opened(Opened &&) = default;
  Opened &operator=(Opened &&) = default;

  Bytes text;
  PayloadChain chain;
  Bytes lastBlock;  // the next initialization vector, once the message has proved to be genuine
};

// The header's first payload and flags follow from the rest.
Bytes plainMessage(Header header, const PayloadWriter &payloads);
vpnctl::Result<PayloadChain> openPlain(const Header &header, View datagram);

// IV becomes the message's last block.
Bytes sealedMessage(Header header, const PayloadWriter &payloads, CipherAlgorithm cipher, const vpnctl::Secret &key,
                    Bytes &iv);
// An error also for what decrypts to nonsense. That it comes from the peer is for the exchange's hash to say.
vpnctl::Result<Opened> openSealed(const Header &header, View datagram, CipherAlgorithm cipher,
                                  const vpnctl::Secret &key, View iv);

}  // namespace helper::isakmp
