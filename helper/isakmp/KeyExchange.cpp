#include "helper/isakmp/KeyExchange.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>

#include <stdexcept>
#include <utility>

#include "helper/isakmp/Header.h"
#include "helper/isakmp/OpenSSL.h"

namespace helper::isakmp {

namespace {

using Number = Owned<BIGNUM, BN_clear_free>;
using Scratch = Owned<BN_CTX, BN_CTX_free>;
using Curve = Owned<EC_GROUP, EC_GROUP_free>;
using Point = Owned<EC_POINT, EC_POINT_clear_free>;

// Twice what the strongest of the groups is worth as an attack's work, and some more: RFC 3526, section 8.
constexpr std::size_t kExponentSize = 64;
constexpr std::uint8_t kUncompressed = 4;

void must(bool done) { isakmp::must(done, "key exchange"); }
template <class Owner>
Owner made(Owner owner) {
  return isakmp::made(std::move(owner), "key exchange");
}

bool isCurve(Group group) { return group == Group::ecp256 || group == Group::ecp384; }

std::size_t fieldSize(Group group) {
  switch (group) {
    case Group::modp1024:
      return 128;
    case Group::modp1536:
      return 192;
    case Group::modp2048:
      return 256;
    case Group::modp3072:
      return 384;
    case Group::modp4096:
      return 512;
    case Group::ecp256:
      return 32;
    case Group::ecp384:
      return 48;
  }
  throw std::logic_error("no such group");
}

Number number(View bytes) { return made(Number(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr))); }

Number secretNumber(const vpnctl::Secret &secret) {
  Number result = number(secret.bytes());
  BN_set_flags(result.get(), BN_FLG_CONSTTIME);
  return result;
}

Number primeOf(Group group) {
  switch (group) {
    case Group::modp1024:
      return made(Number(BN_get_rfc2409_prime_1024(nullptr)));
    case Group::modp1536:
      return made(Number(BN_get_rfc3526_prime_1536(nullptr)));
    case Group::modp2048:
      return made(Number(BN_get_rfc3526_prime_2048(nullptr)));
    case Group::modp3072:
      return made(Number(BN_get_rfc3526_prime_3072(nullptr)));
    case Group::modp4096:
      return made(Number(BN_get_rfc3526_prime_4096(nullptr)));
    case Group::ecp256:
    case Group::ecp384:
      break;
  }
  throw std::logic_error("a curve has no prime to count with");
}

Curve madeCurve(int id) { return made(Curve(EC_GROUP_new_by_curve_name(id))); }

// Made once: that takes about as long as counting with it.
const EC_GROUP *curveOf(Group group) {
  if (group == Group::ecp256) {
    static const Curve curve = madeCurve(NID_X9_62_prime256v1);
    return curve.get();
  }
  static const Curve curve = madeCurve(NID_secp384r1);
  return curve.get();
}

// BASE to the power of EXPONENT, filled up with zeros.
vpnctl::Secret power(Group group, const BIGNUM *base, const vpnctl::Secret &exponent) {
  const Number prime = primeOf(group);
  const Number secret = secretNumber(exponent);
  const Number result = made(Number(BN_new()));
  const Scratch scratch = made(Scratch(BN_CTX_new()));
  must(BN_mod_exp_mont_consttime(result.get(), base, secret.get(), prime.get(), scratch.get(), nullptr) == 1);
  auto bytes = vpnctl::Secret::ofSize(fieldSize(group));
  must(BN_bn2binpad(result.get(), bytes.mutableBytes().data(), static_cast<int>(bytes.size())) > 0);
  return bytes;
}

// Both coordinates of POINT.
vpnctl::Secret coordinates(Group group, const EC_GROUP *curve, const EC_POINT *point) {
  const std::size_t size = fieldSize(group);
  const Number x = made(Number(BN_new()));
  const Number y = made(Number(BN_new()));
  must(EC_POINT_get_affine_coordinates(curve, point, x.get(), y.get(), nullptr) == 1);
  auto bytes = vpnctl::Secret::ofSize(2 * size);
  must(BN_bn2binpad(x.get(), bytes.mutableBytes().data(), static_cast<int>(size)) > 0);
  must(BN_bn2binpad(y.get(), bytes.mutableBytes().data() + size, static_cast<int>(size)) > 0);
  return bytes;
}

vpnctl::Secret chooseExponent(Randomness &random) {
  auto exponent = vpnctl::Secret::ofSize(kExponentSize);
  random.fill(exponent.mutableBytes());
  exponent.mutableBytes().front() |= 0x80;  // neither 0 nor small
  return exponent;
}

// From 1 to the curve's order less 1. Eight bytes more than it has make all of them equally likely.
vpnctl::Secret chooseScalar(Group group, Randomness &random) {
  auto seed = vpnctl::Secret::ofSize(fieldSize(group) + 8);
  random.fill(seed.mutableBytes());
  const EC_GROUP *curve = curveOf(group);
  const Scratch scratch = made(Scratch(BN_CTX_new()));
  const Number range = made(Number(BN_dup(EC_GROUP_get0_order(curve))));
  const Number scalar = secretNumber(seed);
  must(BN_sub_word(range.get(), 1) == 1 && BN_nnmod(scalar.get(), scalar.get(), range.get(), scratch.get()) == 1 &&
       BN_add_word(scalar.get(), 1) == 1);
  auto bytes = vpnctl::Secret::ofSize(fieldSize(group));
  must(BN_bn2binpad(scalar.get(), bytes.mutableBytes().data(), static_cast<int>(bytes.size())) > 0);
  return bytes;
}

Bytes publicOf(Group group, const vpnctl::Secret &privateValue) {
  if (!isCurve(group)) {
    const Number generator = made(Number(BN_new()));
    must(BN_set_word(generator.get(), 2) == 1);
    return copyOf(power(group, generator.get(), privateValue).bytes());
  }
  const EC_GROUP *curve = curveOf(group);
  const Point point = made(Point(EC_POINT_new(curve)));
  const Number scalar = secretNumber(privateValue);
  must(EC_POINT_mul(curve, point.get(), scalar.get(), nullptr, nullptr, nullptr) == 1);
  return copyOf(coordinates(group, curve, point.get()).bytes());
}

vpnctl::Result<vpnctl::Secret> sharedNumber(Group group, const vpnctl::Secret &privateValue, View peer) {
  const Number value = number(peer);
  const Number last = primeOf(group);
  must(BN_sub_word(last.get(), 1) == 1);
  if (BN_is_zero(value.get()) || BN_is_one(value.get()) || BN_cmp(value.get(), last.get()) >= 0)
    return malformed("a public value that gives the secret away");
  return power(group, value.get(), privateValue);
}

vpnctl::Result<vpnctl::Secret> sharedPoint(Group group, const vpnctl::Secret &privateValue, View peer) {
  const EC_GROUP *curve = curveOf(group);
  const Point point = made(Point(EC_POINT_new(curve)));
  const Point result = made(Point(EC_POINT_new(curve)));
  Bytes encoded{kUncompressed};
  append(encoded, peer);
  // Looks whether it is on the curve.
  if (EC_POINT_oct2point(curve, point.get(), encoded.data(), encoded.size(), nullptr) != 1)
    return malformed("a public value that is no point of the curve");
  const Number scalar = secretNumber(privateValue);
  must(EC_POINT_mul(curve, result.get(), nullptr, point.get(), scalar.get(), nullptr) == 1);
  return vpnctl::Secret(coordinates(group, curve, result.get()).bytes().first(fieldSize(group)));
}

}  // namespace

std::size_t publicSize(Group group) { return fieldSize(group) * (isCurve(group) ? 2 : 1); }

KeyExchange::KeyExchange(Group group, Randomness &random)
    : KeyExchange(group, isCurve(group) ? chooseScalar(group, random) : chooseExponent(random)) {}

KeyExchange::KeyExchange(Group group, vpnctl::Secret privateValue)
    : group_(group), private_(std::move(privateValue)), public_(publicOf(group, private_)) {}

vpnctl::Result<vpnctl::Secret> KeyExchange::sharedSecret(View peer) const {
  if (peer.size() != publicSize(group_)) return malformed("a public value of the wrong size");
  if (sameBytes(peer, public_)) return malformed("our own public value");
  return isCurve(group_) ? sharedPoint(group_, private_, peer) : sharedNumber(group_, private_, peer);
}

}  // namespace helper::isakmp
