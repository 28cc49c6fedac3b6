// One side of a Diffie-Hellman exchange in one of the groups (RFC 2409, 3526, 4753), on OpenSSL's numbers and curves.
//
// Usual sequence: construct, send publicValue(), sharedSecret() of what came back.
//
// Thread rule: as a plain value. Failures: as in Hash.h.

#pragma once

#include "foundation/Result.h"
#include "foundation/Secret.h"
#include "helper/isakmp/Algorithms.h"
#include "helper/isakmp/Bytes.h"
#include "helper/isakmp/Randomness.h"

namespace helper::isakmp {

// Bytes of a public value: a number filled up to the group's size, or both coordinates of a point.
std::size_t publicSize(Group group);

class KeyExchange {
 public:
  KeyExchange(Group group, Randomness &random);
  // With a private value that is given, for known answers.
  KeyExchange(Group group, vpnctl::Secret privateValue);

  Group group() const { return group_; }
  const Bytes &publicValue() const { return public_; }
  // Filled up with zeros to the group's size; of a point the first coordinate. An error for a value that has the wrong
  // size, is our own, lies in a small subgroup or is no point of the curve.
  vpnctl::Result<vpnctl::Secret> sharedSecret(View peer) const;

 private:
  Group group_;
  vpnctl::Secret private_;
  Bytes public_;
};

}  // namespace helper::isakmp
