// Stands in for Diffie-Hellman where what is explored is the conversation: counting on curves takes most of the time of
// a handshake, and is OpenSSL's. Both sides come to the same secret here, too, but so does everybody who listens.

#include <algorithm>
#include <functional>
#include <utility>

#include "helper/isakmp/Header.h"
#include "helper/isakmp/KeyExchange.h"

namespace helper::isakmp {

namespace {

constexpr std::size_t kSize = 32;

vpnctl::Secret chosen(Randomness &random) {
  auto value = vpnctl::Secret::ofSize(kSize);
  random.fill(value.mutableBytes());
  return value;
}

}  // namespace

// Of a curve, so that a server's half of the wrong size is one here, too.
std::size_t publicSize(Group) { return 2 * kSize; }

KeyExchange::KeyExchange(Group group, Randomness &random) : KeyExchange(group, chosen(random)) {}

KeyExchange::KeyExchange(Group group, vpnctl::Secret privateValue) : group_(group), private_(std::move(privateValue)) {
  public_ = copyOf(private_.bytes());
  public_.resize(publicSize(group));
}

vpnctl::Result<vpnctl::Secret> KeyExchange::sharedSecret(View peer) const {
  if (peer.size() != publicSize(group_)) return malformed("a public value of the wrong size");
  if (sameBytes(peer, public_)) return malformed("our own public value");
  // Stands for a point that is not on the curve.
  if (peer.back() != 0) return malformed("a public value that is no point of the curve");
  auto shared = vpnctl::Secret::ofSize(kSize);
  std::ranges::transform(private_.bytes(), peer.first(kSize), shared.mutableBytes().begin(), std::bit_xor<>());
  return shared;
}

}  // namespace helper::isakmp
