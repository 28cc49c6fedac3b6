// What IKE version 1 computes (RFC 2409, section 5 and appendix B; RFC 3947, section 3.2): keys, initialization vectors
// and hashes, from values that both sides have.
//
// "Body": of a payload, without its generic header. Thread rule: none of these keeps state.

#pragma once

#include "helper/isakmp/Cipher.h"
#include "helper/isakmp/Hash.h"
#include "helper/isakmp/Header.h"
#include "helper/isakmp/Identification.h"

namespace helper::isakmp {

// The keys of phase 1. Each is wiped when it dies.
struct PhaseOneKeys {
  vpnctl::Secret skeyID;
  vpnctl::Secret derivation;      // SKEYID_d, for the keys of phase 2
  vpnctl::Secret authentication;  // SKEYID_a, for hashes of later messages
  vpnctl::Secret encryption;      // as long as the cipher wants it
};

struct PhaseOneInput {
  HashAlgorithm hash = HashAlgorithm::sha1;
  CipherAlgorithm cipher = CipherAlgorithm::aes256;
  Cookies cookies;
  View nonceI, nonceR;  // bodies
};
PhaseOneKeys derivePhaseOneKeys(const PhaseOneInput &input, const vpnctl::Secret &presharedKey,
                                const vpnctl::Secret &shared);

// HASH_I and HASH_R: of the side whose public value is OWN and whose identification is ID. ASSOCIATION: the body that
// the initiator sent.
struct AuthenticationInput {
  Cookie ownCookie{}, peerCookie{};
  View own, peer;
  View association;
  View id;
};
vpnctl::Secret authenticationHash(HashAlgorithm hash, const PhaseOneKeys &keys, const AuthenticationInput &input);

// For phase 1's first encrypted message: of both public values.
Bytes firstIV(HashAlgorithm hash, CipherAlgorithm cipher, View publicI, View publicR);
// For a later exchange's first message. LASTBLOCK: the last cipher block of phase 1.
Bytes exchangeIV(HashAlgorithm hash, CipherAlgorithm cipher, View lastBlock, std::uint32_t messageID);

// HASH(1), also of informational exchanges, HASH(2), HASH(3). REST: what follows the hash's payload.
vpnctl::Secret hash1(HashAlgorithm hash, const PhaseOneKeys &keys, std::uint32_t messageID, View rest);
vpnctl::Secret hash2(HashAlgorithm hash, const PhaseOneKeys &keys, std::uint32_t messageID, View nonceI, View rest);
vpnctl::Secret hash3(HashAlgorithm hash, const PhaseOneKeys &keys, std::uint32_t messageID, View nonceI, View nonceR);

// SIZE bytes for the association with SPI. SHARED is empty without perfect forward secrecy.
vpnctl::Secret keyMaterial(HashAlgorithm hash, const PhaseOneKeys &keys, const vpnctl::Secret &shared,
                           std::uint32_t spi, View nonceI, View nonceR, std::size_t size);

// By which both sides find out whether the addresses are changed on the way.
Bytes natDetectionHash(HashAlgorithm hash, const Cookies &cookies, const IPv4Bytes &address, std::uint16_t port);

}  // namespace helper::isakmp
