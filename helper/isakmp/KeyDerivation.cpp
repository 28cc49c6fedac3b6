#include "helper/isakmp/KeyDerivation.h"

#include <algorithm>
#include <array>

namespace helper::isakmp {

using vpnctl::Secret;

namespace {

std::array<std::uint8_t, 4> networkOrder(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
          static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

// K1 | K2 | ..., cut to SIZE bytes, where each Kn comes of the one before by NEXT.
template <class Next>
Secret expand(std::size_t size, Secret first, const Next &next) {
  auto result = Secret::ofSize(size);
  Secret block = std::move(first);
  for (std::size_t done = 0; done < size; block = next(block)) {
    const std::size_t count = std::min(block.size(), size - done);
    std::copy_n(block.bytes().begin(), count, result.mutableBytes().begin() + static_cast<std::ptrdiff_t>(done));
    done += count;
  }
  return result;
}

Secret cipherKey(HashAlgorithm hash, const Secret &skeyIDe, std::size_t size) {
  if (skeyIDe.size() >= size) return Secret(skeyIDe.bytes().first(size));
  static constexpr std::uint8_t kZero[1] = {0};
  return expand(size, prf(hash, skeyIDe, {kZero}),
                [&](const Secret &block) { return prf(hash, skeyIDe, {block.bytes()}); });
}

Bytes firstBlock(CipherAlgorithm cipher, Bytes hash) {
  hash.resize(blockSize(cipher));
  return hash;
}

}  // namespace

PhaseOneKeys derivePhaseOneKeys(const PhaseOneInput &input, const Secret &presharedKey, const Secret &shared) {
  static constexpr std::uint8_t kNumbers[] = {0, 1, 2};
  const View ci = input.cookies.initiator;
  const View cr = input.cookies.responder;
  const View numbers = kNumbers;
  PhaseOneKeys keys;
  keys.skeyID = prf(input.hash, presharedKey, {input.nonceI, input.nonceR});
  keys.derivation = prf(input.hash, keys.skeyID, {shared.bytes(), ci, cr, numbers.subspan(0, 1)});
  keys.authentication =
      prf(input.hash, keys.skeyID, {keys.derivation.bytes(), shared.bytes(), ci, cr, numbers.subspan(1, 1)});
  const Secret skeyIDe =
      prf(input.hash, keys.skeyID, {keys.authentication.bytes(), shared.bytes(), ci, cr, numbers.subspan(2, 1)});
  keys.encryption = cipherKey(input.hash, skeyIDe, keySize(input.cipher));
  return keys;
}

Secret authenticationHash(HashAlgorithm hash, const PhaseOneKeys &keys, const AuthenticationInput &input) {
  return prf(hash, keys.skeyID,
             {input.own, input.peer, input.ownCookie, input.peerCookie, input.association, input.id});
}

Bytes firstIV(HashAlgorithm hash, CipherAlgorithm cipher, View publicI, View publicR) {
  return firstBlock(cipher, hashOf(hash, {publicI, publicR}));
}

Bytes exchangeIV(HashAlgorithm hash, CipherAlgorithm cipher, View lastBlock, std::uint32_t messageID) {
  return firstBlock(cipher, hashOf(hash, {lastBlock, networkOrder(messageID)}));
}

Secret hash1(HashAlgorithm hash, const PhaseOneKeys &keys, std::uint32_t messageID, View rest) {
  return prf(hash, keys.authentication, {networkOrder(messageID), rest});
}

Secret hash2(HashAlgorithm hash, const PhaseOneKeys &keys, std::uint32_t messageID, View nonceI, View rest) {
  return prf(hash, keys.authentication, {networkOrder(messageID), nonceI, rest});
}

Secret hash3(HashAlgorithm hash, const PhaseOneKeys &keys, std::uint32_t messageID, View nonceI, View nonceR) {
  static constexpr std::uint8_t kZero[1] = {0};
  return prf(hash, keys.authentication, {kZero, networkOrder(messageID), nonceI, nonceR});
}

Secret keyMaterial(HashAlgorithm hash, const PhaseOneKeys &keys, const Secret &shared, std::uint32_t spi, View nonceI,
                   View nonceR, std::size_t size) {
  static constexpr std::uint8_t kProtocol[1] = {kProtocolESP};
  const auto spiBytes = networkOrder(spi);
  const auto next = [&](const Secret &block) {
    return prf(hash, keys.derivation, {block.bytes(), shared.bytes(), kProtocol, spiBytes, nonceI, nonceR});
  };
  return expand(size, next(Secret()), next);
}

Bytes natDetectionHash(HashAlgorithm hash, const Cookies &cookies, const IPv4Bytes &address, std::uint16_t port) {
  const std::array<std::uint8_t, 2> portBytes{static_cast<std::uint8_t>(port >> 8), static_cast<std::uint8_t>(port)};
  return hashOf(hash, {cookies.initiator, cookies.responder, address, portBytes});
}

}  // namespace helper::isakmp
