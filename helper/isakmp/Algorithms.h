// The algorithms of IKE and ESP by name, with their sizes. No cryptography is here, so that whoever only speaks of
// algorithms need not load any.
//
// Thread rule: as plain values.

#pragma once

#include <cstddef>
#include <cstdint>

namespace helper::isakmp {

// Block ciphers in CBC mode. The key size is part of the name; 3DES counts its parity bits.
enum class CipherAlgorithm { tripleDES, aes128, aes192, aes256 };

// In bytes.
std::size_t keySize(CipherAlgorithm cipher);
std::size_t blockSize(CipherAlgorithm cipher);

// The numbers are those of phase 1's attribute.
enum class HashAlgorithm : std::uint16_t { md5 = 1, sha1 = 2, sha256 = 4, sha384 = 5, sha512 = 6 };

// In bytes.
std::size_t hashSize(HashAlgorithm algorithm);
// In bits: how much of its hash a packet bears.
std::size_t checkSize(HashAlgorithm integrity);

// Diffie-Hellman groups (RFC 2409, 3526, 4753). The numbers are those of the attribute.
enum class Group : std::uint16_t {
  modp1024 = 2,
  modp1536 = 5,
  modp2048 = 14,
  modp3072 = 15,
  modp4096 = 16,
  ecp256 = 19,
  ecp384 = 20
};

}  // namespace helper::isakmp
